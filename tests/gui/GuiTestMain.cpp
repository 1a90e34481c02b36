// One program for the desktop application's Qt Test classes, run offscreen.

#include <QApplication>

#include "formats/FormatTable.h"

int runMainWindowTest(int argc, char** argv);
int runPreferencesWindowTest(int argc, char** argv);

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    QApplication app(argc, argv);
    velvox::FormatTable::installBuiltinFormats();
    int failures = 0;
    failures += runMainWindowTest(argc, argv);
    failures += runPreferencesWindowTest(argc, argv);
    return failures == 0 ? 0 : 1;
}
