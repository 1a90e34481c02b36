// The preferences window and the command line share one store: what the
// window sets is what `velvox convert` does, and formats the command line
// saves are what the window lists.

#include <filesystem>

#include <QCheckBox>
#include <QLabel>
#include <QLineEdit>
#include <QListWidget>
#include <QSpinBox>
#include <QtTest>

#include "gui/MainWindow.h"
#include "gui/OutputFormatList.h"
#include "gui/PreferencesWindow.h"
#include "gui/QueueTableModel.h"
#include "jobs/ApplicationController.h"
#include "jobs/EncoderSettings.h"
#include "platform/UserDefaults.h"
#include "support/TestSupport.h"

using namespace velvox;
namespace fs = std::filesystem;

class PreferencesWindowTest : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup() { root_.reset(); }
    void whatTheWindowSetsTheCommandLineDoes();
    void formatsSavedByTheCommandLineAreListed();

private:
    std::string velvox(const std::string& arguments) const {
        return "XDG_CONFIG_HOME=" + test::shellQuote(config_.string()) + " " VELVOX_BINARY " " +
               arguments + " </dev/null";
    }
    std::unique_ptr<test::TempDir> root_;
    fs::path config_, song_;
};

void PreferencesWindowTest::init() {
    root_ = std::make_unique<test::TempDir>();
    config_ = root_->path() / "config";
    fs::create_directories(config_);
    fs::create_directories(root_->path() / "tmp");
    qputenv("XDG_CONFIG_HOME", QByteArray::fromStdString(config_.string()));
    qputenv("TMPDIR", QByteArray::fromStdString((root_->path() / "tmp").string()));
    UserDefaults::resetStandardUserDefaults(UserDefaults::defaultStorePath());
    const std::string wav = root_->file("song.wav");
    song_ = root_->path() / "song.flac";
    QCOMPARE(test::runCommand("sox -n -r 44100 -b 16 -c 2 " + test::shellQuote(wav) +
                              " synth 3 sine 440 vol 0.5 && flac -s -f -T ARTIST=Ann -T "
                              "'TITLE=Blue Sky' -T TRACKNUMBER=3 -T ALBUM=First -o " +
                              test::shellQuote(song_.string()) + " " + test::shellQuote(wav) +
                              " && rm " + test::shellQuote(wav))
                 .exitCode,
             0);
}

void PreferencesWindowTest::whatTheWindowSetsTheCommandLineDoes() {
    const fs::path out = root_->path() / "converted";
    fs::create_directories(out);
    MainWindow window;
    window.show();
    window.addPaths({QString::fromStdString(song_.string())});
    QTRY_VERIFY(!window.isAddingFiles() && window.queueModel().rowCount() == 1);
    window.openPreferences();
    PreferencesWindow* preferences = window.preferencesWindow();
    QVERIFY(preferences->isVisible());

    auto* same = qobject_cast<QCheckBox*>(preferences->controlFor("outputSameAsSource"));
    auto* folder = qobject_cast<QLineEdit*>(preferences->controlFor("destinationDirectory"));
    auto* custom = qobject_cast<QCheckBox*>(preferences->controlFor("useCustomNamingScheme"));
    auto* scheme = qobject_cast<QLineEdit*>(preferences->controlFor("customNamingScheme"));
    auto* files = qobject_cast<QSpinBox*>(preferences->controlFor("numProcesses"));
    QVERIFY(same && folder && custom && scheme && files);
    QVERIFY(same->isChecked()); // the shipped default
    same->setChecked(false);
    folder->clear();
    QTest::keyClicks(folder, QString::fromStdString(out.string()));
    custom->setChecked(true);
    scheme->selectAll();
    QTest::keyClicks(scheme, "{trackArtist}/{albumTitle} - {trackNumber} {trackTitle}");
    files->setValue(3);

    // The preview expands the template on the queued file as it is typed.
    QTRY_COMPARE(preferences->namingPreview(), QString("Ann/First - 03 Blue Sky"));

    // The store holds what was set, in the form the command line reads.
    UserDefaults stored(UserDefaults::defaultStorePath());
    QCOMPARE(stored.objectForKey("numProcesses").value(), nlohmann::json("3"));
    QCOMPARE(stored.stringForKey("destinationDirectory").value(), out.string());

    const auto result =
        test::runCommand(velvox("convert -f flac:level=8 " + test::shellQuote(song_.string())));
    QCOMPARE(result.exitCode, 0);
    const fs::path expected = out / "Ann" / "First - 03 Blue Sky.flac";
    QVERIFY2(fs::exists(expected), result.output.c_str());
    QCOMPARE(test::runCommand("flac -t -s " + test::shellQuote(expected.string())).exitCode, 0);
}

void PreferencesWindowTest::formatsSavedByTheCommandLineAreListed() {
    QCOMPARE(test::runCommand(velvox("formats --add flac:level=7,ext=fla >/dev/null")).exitCode, 0);
    QCOMPARE(test::runCommand(velvox("formats --default 2 >/dev/null")).exitCode, 0);
    UserDefaults::resetStandardUserDefaults(UserDefaults::defaultStorePath());

    MainWindow window;
    QListWidget* list = window.formatList()->listWidget();
    const auto saved = ApplicationController::savedEncoderSettings();
    QCOMPARE(list->count(), int(saved.size()));
    QCOMPARE(list->count(), 2);
    QCOMPARE(saved[1]->flacCompressionLevel(), 7u);
    QCOMPARE(list->item(1)->text(), QString::fromStdString(saved[1]->completeDescription()));
    QVERIFY(list->item(1)->font().bold()); // the default chosen on the command line
    QVERIFY(!list->item(0)->font().bold());

    // And the reverse: the window's choice of default is the command line's.
    list->setCurrentRow(0);
    window.formatList()->useSelectedAsDefault();
    const auto listed = test::runCommand(velvox("formats --json"));
    QCOMPARE(listed.exitCode, 0);
    const auto json = nlohmann::json::parse(listed.output);
    QVERIFY(json.is_array() && json.size() == 2);
    QVERIFY2(json[0].value("default", false) && !json[1].value("default", false),
             listed.output.c_str());
}

int runPreferencesWindowTest(int argc, char** argv) {
    PreferencesWindowTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "PreferencesWindowTest.moc"
