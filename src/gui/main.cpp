// velvox-gui: the desktop application. Paths given on the command line are
// queued at start.

#include <QApplication>
#include <QCommandLineParser>
#include <QDir>
#include <QElapsedTimer>
#include <QListWidget>
#include <QTableView>
#include <QThread>
#include <QTimer>

#include "Version.h"
#include "formats/FormatTable.h"
#include "gui/EncoderSettingsEditor.h"
#include "gui/ErrorLogWindow.h"
#include "gui/FileInfoWindow.h"
#include "gui/MainWindow.h"
#include "gui/OutputFormatList.h"
#include "gui/PreferencesWindow.h"
#include "gui/QueueTableModel.h"
#include "jobs/FileEncodeOperation.h"
#include "platform/ErrorLog.h"

namespace {

// Waits for the queue and its facts, then saves each window as a PNG and
// quits; scripts/screenshots.sh uses it under Xvfb.
void takeScreenshots(velvox::MainWindow& window, const QString& folder) {
    QDir().mkpath(folder);
    auto* poll = new QTimer(&window);
    auto* waited = new QElapsedTimer;
    waited->start();
    QObject::connect(poll, &QTimer::timeout, &window, [&window, folder, poll, waited] {
        const int rows = window.queueModel().rowCount();
        bool ready = !window.isAddingFiles() && rows > 0;
        for (int row = 0; ready && row < rows; ++row)
            ready = window.queueModel().hasFacts(window.queueModel().jobAt(row)->inFilePath());
        if (!ready && waited->elapsed() < 20000)
            return;
        poll->stop();
        window.queueView()->selectRow(0);
        auto save = [&](QWidget* widget, const char* name) {
            widget->show();
            widget->raise();
            QApplication::processEvents();
            QThread::msleep(300);
            QApplication::processEvents();
            widget->grab().save(QDir(folder).filePath(name));
        };
        save(&window, "main-window.png");
        window.formatList()->listWidget()->setCurrentRow(0);
        if (QWidget* editor = window.formatList()->editSelected()) {
            save(editor, "format-editor.png");
            editor->close();
        }
        window.openPreferences();
        save(window.preferencesWindow(), "preferences.png");
        window.preferencesWindow()->hide();
        save(window.showFileInfo(), "file-info.png");
        velvox::ErrorLog::sharedController().logMessage(
            "Ogg Vorbis Encode Operation Failed To Encode File: broken.ogg.  Error: the file "
            "ends inside its first page");
        window.showErrorLog();
        save(window.errorLogWindow(), "error-log.png");
        delete waited;
        QApplication::quit();
    });
    poll->start(100);
}

} // namespace

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
    const QCommandLineOption screenshots(
        "screenshots", "Save a PNG of each window into DIR once the files are queued, then quit",
        "DIR");
    parser.addOption(screenshots);
    parser.process(app);

    velvox::FormatTable::installBuiltinFormats();
    velvox::MainWindow window;
    window.show();
    if (!parser.positionalArguments().isEmpty())
        window.addPaths(parser.positionalArguments());
    if (parser.isSet(screenshots))
        takeScreenshots(window, parser.value(screenshots));
    return QApplication::exec();
}
