// velvox-gui: the desktop application. Paths given on the command line are
// queued at start.

#include <QApplication>
#include <QCommandLineParser>

#include "Version.h"
#include "formats/FormatTable.h"
#include "gui/MainWindow.h"

int main(int argc, char** argv) {
    QApplication app(argc, argv);
    QApplication::setApplicationName("Velvox");
    QApplication::setApplicationVersion(velvox::kVelvoxShortVersion);
    QApplication::setDesktopFileName("velvox-gui");
    QCommandLineParser parser;
    parser.setApplicationDescription("Convert audio files between formats");
    parser.addHelpOption();
    parser.addVersionOption();
    parser.addPositionalArgument("files", "Audio files and folders to queue", "[FILE…]");
    parser.process(app);

    velvox::FormatTable::installBuiltinFormats();
    velvox::MainWindow window;
    window.show();
    if (!parser.positionalArguments().isEmpty())
        window.addPaths(parser.positionalArguments());
    return QApplication::exec();
}
