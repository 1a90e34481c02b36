// Drives the real main window (offscreen): intake of a folder, output formats
// made in their generated editors, a batch with a damaged file, the overwrite
// question, the error log, and quitting during a batch.

#include <chrono>
#include <filesystem>
#include <fstream>

#include <QCheckBox>
#include <QComboBox>
#include <QDialogButtonBox>
#include <QElapsedTimer>
#include <QImage>
#include <QLineEdit>
#include <QListWidget>
#include <QMessageBox>
#include <QPushButton>
#include <QSignalSpy>
#include <QTableView>
#include <QTimer>
#include <QtTest>

#include "formats/FormatTable.h"
#include "gui/EncoderSettingsEditor.h"
#include "gui/ErrorLogWindow.h"
#include "gui/FileInfoWindow.h"
#include "gui/MainWindow.h"
#include "gui/MetadataEditorWindow.h"
#include "gui/OutputFormatList.h"
#include "gui/QueueTableModel.h"
#include "jobs/ApplicationController.h"
#include "jobs/EncoderDescriptor.h"
#include "jobs/EncoderSettings.h"
#include "jobs/FileEncodeOperation.h"
#include "platform/UserDefaults.h"
#include "support/TestSupport.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

// The message box of that name among the window's children, once it shows.
QMessageBox* waitForBox(QWidget* window, const char* name, int timeoutMs = 30000) {
    QMessageBox* found = nullptr;
    (void)QTest::qWaitFor(
        [&] {
            found = window->findChild<QMessageBox*>(name);
            return found && found->isVisible();
        },
        timeoutMs);
    return found && found->isVisible() ? found : nullptr;
}

QAbstractButton* buttonTitled(QMessageBox* box, const QString& title) {
    for (QAbstractButton* button : box->buttons())
        if (button->text() == title)
            return button;
    return nullptr;
}

void selectWord(QWidget* control, const QString& word) {
    auto* combo = qobject_cast<QComboBox*>(control);
    QVERIFY(combo);
    const int index = combo->findData(word);
    QVERIFY2(index >= 0, qPrintable("no choice " + word));
    combo->setCurrentIndex(index);
}

std::vector<fs::path> filesIn(const fs::path& folder) {
    std::vector<fs::path> files;
    std::error_code ec;
    for (const auto& entry : fs::recursive_directory_iterator(folder, ec))
        if (entry.is_regular_file())
            files.push_back(entry.path());
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

class MainWindowTest : public QObject {
    Q_OBJECT
private slots:
    void init();
    void cleanup();
    void convertsAFolderWithTwoFormatsAndReportsTheDamagedFile();
    void overwriteQuestionAppliesToTheWholeBatch();
    void quittingDuringABatchAsksAndLeavesNothingBehind();
    void staysResponsiveDuringALongBatch();
    void editsTheTagsOfTwoFiles();
    void editsArtworkAndCopiesPastesRevertsTags();
    void removesAndClearsQueuedRows();

private:
    // Queues the source folder and waits for its rows.
    void queueSources(MainWindow& window, int expectedRows);
    // x.flac and y.flac in the source folder: ARTIST Old, ALBUM "Album X" or
    // "Album Y", TITLE x or y.
    void makeTaggedPair();
    // Selects the queued row of that input file name.
    void selectOnly(MainWindow& window, const std::string& name);
    // Saves the open editor and waits for the tags batch.
    void saveEdits(MainWindow& window, MetadataEditorWindow* editor);
    std::unique_ptr<test::TempDir> root_;
    fs::path sources_, output_, tmp_;
};

void MainWindowTest::init() {
    root_ = std::make_unique<test::TempDir>();
    sources_ = root_->path() / "music";
    output_ = root_->path() / "out";
    tmp_ = root_->path() / "tmp";
    for (const fs::path& folder : {sources_ / "album", output_, tmp_, root_->path() / "config"})
        fs::create_directories(folder);
    // Everything the program writes stays in the test's folder.
    qputenv("XDG_CONFIG_HOME", QByteArray::fromStdString((root_->path() / "config").string()));
    qputenv("TMPDIR", QByteArray::fromStdString(tmp_.string()));
    UserDefaults::resetStandardUserDefaults(UserDefaults::defaultStorePath());
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    defaults.setObject("outputSameAsSource", false);
    defaults.setObject("destinationDirectory", output_.string());
    defaults.setObject("numProcesses", "2");
    defaults.setObject("encoderSettings", nlohmann::json::array());
}

void MainWindowTest::cleanup() { root_.reset(); }

void MainWindowTest::queueSources(MainWindow& window, int expectedRows) {
    window.addPaths({QString::fromStdString(sources_.string())});
    QTRY_VERIFY_WITH_TIMEOUT(!window.isAddingFiles(), 20000);
    QCOMPARE(window.queueModel().rowCount(), expectedRows);
}

void MainWindowTest::convertsAFolderWithTwoFormatsAndReportsTheDamagedFile() {
    // Three real sources, one file that only claims to be FLAC, and a text
    // file intake must pass over.
    for (const char* name : {"one", "two", "three"})
        QCOMPARE(test::runCommand("sox -n -r 44100 -b 16 -c 2 " +
                                  test::shellQuote((sources_ / "album" / name).string() + ".wav") +
                                  " synth 20 sine 300-900 sine 500 vol 0.5")
                     .exitCode,
                 0);
    test::writeFile((sources_ / "album" / "broken.flac").string(),
                    {'f', 'L', 'a', 'C', 0, 0, 0, 34, 1, 2, 3, 4, 5, 6, 7, 8});
    test::writeFile((sources_ / "notes.txt").string(), {'h', 'i'});

    MainWindow window;
    window.show();
    queueSources(window, 4);
    // The facts column fills in from the files themselves.
    auto cell = [&](const char* file, int column) {
        for (int row = 0; row < window.queueModel().rowCount(); ++row)
            if (window.queueModel().index(row, 0).data().toString() == file)
                return window.queueModel().index(row, column).data().toString();
        return QString("(no row)");
    };
    QTRY_COMPARE_WITH_TIMEOUT(cell("two.wav", QueueTableModel::LengthColumn), QString("0:20"),
                              10000);
    QVERIFY(!cell("two.wav", QueueTableModel::FormatColumn).isEmpty());

    // The file information of the selected row, through the formatters:
    // 20 s of 44.1 kHz 16-bit stereo is 3,528,044 bytes with its header.
    for (int row = 0; row < window.queueModel().rowCount(); ++row)
        if (window.queueModel().index(row, 0).data().toString() == "two.wav")
            window.queueView()->setCurrentIndex(window.queueModel().index(row, 0));
    FileInfoWindow* info = window.showFileInfo();
    QCOMPARE(fs::file_size(sources_ / "album" / "two.wav"), uintmax_t(3528044));
    QCOMPARE(info->valueOf("Size"), QString("3.5 MB"));
    QCOMPARE(info->valueOf("Length"), QString("0:20"));
    QCOMPARE(info->valueOf("Sample Rate"), QString("44.1 kHz"));
    QCOMPARE(info->valueOf("Sample Size"), QString("16 bit"));
    QVERIFY(info->valueOf("Channels").startsWith("2"));
    QCOMPARE(info->valueOf("Bit Rate").left(9), QString("1411 kbps"));
    info->hide();

    // Two formats, each made in the editor generated from its schema.
    const EncoderDescriptor* flac = EncoderDescriptor::forFormatName("flac");
    QVERIFY(flac);
    OutputFormatList* formats = window.formatList();
    EncoderSettingsEditor* editor = formats->addFormat(*flac);
    QVERIFY(editor->controlFor("level") && editor->controlFor("verify"));
    selectWord(editor->controlFor("level"), "8");
    editor->accept();
    // The second writes the same codec under another extension, a different
    // output by the duplicate rule.
    editor = formats->addFormat(*flac);
    auto* extension = qobject_cast<QLineEdit*>(editor->controlFor("ext"));
    QVERIFY(extension);
    QCOMPARE(extension->text(), QString("flac"));
    extension->setText("fla");
    editor->accept();
    QCOMPARE(formats->listWidget()->count(), 2);

    // Editing the first one through its editor changes what is saved.
    formats->listWidget()->setCurrentRow(0);
    editor = formats->editSelected();
    QVERIFY(editor);
    QCOMPARE(qobject_cast<QComboBox*>(editor->controlFor("level"))->currentData().toString(),
             QString("8"));
    selectWord(editor->controlFor("level"), "3");
    editor->accept();
    const auto saved = ApplicationController::savedEncoderSettings();
    QCOMPARE(saved.size(), size_t(2));
    QCOMPARE(saved[0]->flacCompressionLevel(), 3u);
    QCOMPARE(formats->listWidget()->item(0)->text(),
             QString::fromStdString(saved[0]->completeDescription()));

    // A copy that changes nothing is refused.
    QSignalSpy refused(formats, &OutputFormatList::refused);
    formats->duplicateSelected()->accept();
    QCOMPARE(refused.count(), 1);
    QCOMPARE(formats->listWidget()->count(), 2);

    // The batch: rows show their status while they run, then the end alert.
    QSignalSpy finished(&window, &MainWindow::batchFinished);
    bool sawEncoding = false;
    QTimer watcher;
    connect(&watcher, &QTimer::timeout, [&] {
        for (int row = 0; row < window.queueModel().rowCount(); ++row) {
            const QModelIndex status =
                window.queueModel().index(row, QueueTableModel::StatusColumn);
            // "one.wav - Encoding FLAC - 41.5%"
            static const QRegularExpression encoding(R"(\.wav - Encoding .* - \d+\.\d%$)");
            if (encoding.match(window.queueModel().data(status, Qt::DisplayRole).toString())
                    .hasMatch() &&
                window.queueModel().data(status, QueueTableModel::ProgressRole).toDouble() >= 0)
                sawEncoding = true;
        }
    });
    watcher.start(5);
    window.start();
    QVERIFY(window.controller().encoderRunning());
    QVERIFY(finished.wait(120000));
    watcher.stop();
    QVERIFY(sawEncoding);

    QMessageBox* sheet = waitForBox(&window, "failureSheet");
    QVERIFY(sheet);
    QCOMPARE(sheet->text(), QString("Failed To Encode 2 of 8 Files."));
    QVERIFY(buttonTitled(sheet, "OK") && buttonTitled(sheet, "Show Report"));
    buttonTitled(sheet, "Show Report")->click();
    ErrorLogWindow* log = window.errorLogWindow();
    QTRY_VERIFY(log->isVisible());
    QVERIFY(log->text().contains("broken.flac"));
    const QString logFile = QString::fromStdString((root_->path() / "log.txt").string());
    QVERIFY(log->saveTo(logFile));
    const auto written = test::readFile(logFile.toStdString());
    QCOMPARE(
        QString::fromUtf8(reinterpret_cast<const char*>(written.data()), qsizetype(written.size()))
            .trimmed(),
        log->text().trimmed());

    // Six outputs, one per source and format; their audio is the encoders'
    // and the controller's concern, checked in their own suites.
    std::vector<fs::path> outputs = filesIn(output_);
    QCOMPARE(outputs.size(), size_t(6));
    for (const fs::path& out : outputs) {
        QVERIFY(out.stem() == "one" || out.stem() == "two" || out.stem() == "three");
        QVERIFY(out.extension() == ".flac" || out.extension() == ".fla");
    }
    QVERIFY(filesIn(tmp_).empty());
}

void MainWindowTest::overwriteQuestionAppliesToTheWholeBatch() {
    for (const char* name : {"a", "b", "c"}) {
        QCOMPARE(test::runCommand("sox -n -r 22050 -b 16 -c 1 " +
                                  test::shellQuote((sources_ / name).string() + ".wav") +
                                  " synth 2 sine 440")
                     .exitCode,
                 0);
        test::writeFile((output_ / name).string() + ".flac", {'o', 'l', 'd'});
    }
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    defaults.setObject("overwriteOutputFiles", true);
    defaults.setObject("promptBeforeOverwriting", true);
    auto flac = EncoderSettings::settingsWithDictionary(
        EncoderDescriptor::forFormatName("flac")->defaultDictionary(nullptr));
    ApplicationController::saveEncoderSettings({std::shared_ptr<EncoderSettings>(std::move(flac))});

    MainWindow window;
    window.show();
    queueSources(window, 3);
    QSignalSpy finished(&window, &MainWindow::batchFinished);
    window.start();
    QMessageBox* question = waitForBox(&window, "overwriteQuestion");
    QVERIFY(question);
    QVERIFY(question->text().contains(
        QRegularExpression(R"(^The file "[abc]\.flac" already exists\.$)")));
    QCOMPARE(question->informativeText(), QString("Do you want to overwrite the existing file?"));
    QCOMPARE(question->checkBox()->text(), QString("Apply to all in this batch"));
    QVERIFY(buttonTitled(question, "No") && buttonTitled(question, "Skip"));
    question->checkBox()->setChecked(true);
    buttonTitled(question, "Yes")->click();
    QVERIFY(finished.wait(60000));
    // No second question, and every old file was replaced by a real one.
    for (QMessageBox* box : window.findChildren<QMessageBox*>("overwriteQuestion"))
        QVERIFY(!box->isVisible());
    QCOMPARE(filesIn(output_).size(), size_t(3));
    for (const char* name : {"a", "b", "c"})
        QCOMPARE(
            test::runCommand("flac -t -s " + test::shellQuote((output_ / name).string() + ".flac"))
                .exitCode,
            0);
}

void MainWindowTest::quittingDuringABatchAsksAndLeavesNothingBehind() {
    for (const char* name : {"long1", "long2"})
        QCOMPARE(test::runCommand("sox -n -r 96000 -b 24 -c 2 " +
                                  test::shellQuote((sources_ / name).string() + ".wav") +
                                  " synth 240 whitenoise vol 0.5")
                     .exitCode,
                 0);
    auto flac = EncoderSettings::settingsWithDictionary(
        EncoderDescriptor::forFormatName("flac")->defaultDictionary(nullptr));
    flac->setFlacCompressionLevel(8);
    ApplicationController::saveEncoderSettings({std::shared_ptr<EncoderSettings>(std::move(flac))});

    auto* window = new MainWindow;
    window->setAttribute(Qt::WA_DeleteOnClose);
    QPointer<MainWindow> alive(window);
    window->show();
    queueSources(*window, 2);
    window->start();
    QTRY_VERIFY_WITH_TIMEOUT(!filesIn(tmp_).empty() || !filesIn(output_).empty(), 20000);
    QVERIFY(!window->close()); // asks first
    QMessageBox* ask = waitForBox(window, "quitQuestion");
    QVERIFY(ask);
    QVERIFY(alive);
    buttonTitled(ask, "Cancel and Quit")->click();
    QTRY_VERIFY_WITH_TIMEOUT(alive.isNull(), 60000);
    QVERIFY(filesIn(output_).empty());
    QVERIFY(filesIn(tmp_).empty());
}

void MainWindowTest::staysResponsiveDuringALongBatch() {
    // Four ten-minute files, two at a time: the event loop must keep turning
    // while the encoders run, which a 5 ms timer measures by its lateness.
    // The bound leaves room for a busy machine's scheduling (a shared CI
    // runner or the sanitizer builds delay a tick by 100 ms and more) and still
    // catches what matters: an encode, a wait for a worker or a copy of one of
    // these files on the main thread stalls it for seconds.
    for (const char* name : {"side1", "side2", "side3", "side4"})
        QCOMPARE(test::runCommand("sox -n -r 44100 -b 16 -c 2 " +
                                  test::shellQuote((sources_ / name).string() + ".wav") +
                                  " synth 600 sine 200-2000 vol 0.5")
                     .exitCode,
                 0);
    auto flac = EncoderSettings::settingsWithDictionary(
        EncoderDescriptor::forFormatName("flac")->defaultDictionary(nullptr));
    ApplicationController::saveEncoderSettings({std::shared_ptr<EncoderSettings>(std::move(flac))});

    MainWindow window;
    window.show();
    queueSources(window, 4);
    QSignalSpy finished(&window, &MainWindow::batchFinished);
    QElapsedTimer clock;
    qint64 last = 0, worst = 0, ticks = 0;
    QTimer tick;
    connect(&tick, &QTimer::timeout, [&] {
        const qint64 now = clock.elapsed();
        worst = std::max(worst, now - last);
        last = now;
        ++ticks;
    });
    clock.start();
    tick.start(5);
    window.start();
    QVERIFY(finished.wait(600000));
    tick.stop();
    qInfo("batch of 4 x 10 min: %lld ms, %lld timer ticks, longest gap %lld ms",
          (long long)clock.elapsed(), (long long)ticks, (long long)worst);
    QVERIFY2(worst <= 500, qPrintable(QString("the event loop stalled for %1 ms").arg(worst)));
    QCOMPARE(window.controller().failedCount(), 0);
    QCOMPARE(filesIn(output_).size(), size_t(4));
}

void MainWindowTest::makeTaggedPair() {
    const std::string wav = root_->file("t.wav");
    QCOMPARE(test::runCommand("sox -n -r 44100 -b 16 -c 2 " + test::shellQuote(wav) +
                              " synth 2 sine 440 vol 0.5")
                 .exitCode,
             0);
    for (const auto& [name, album] : {std::pair{"x", "Album X"}, std::pair{"y", "Album Y"}})
        QCOMPARE(test::runCommand("flac -s -f -T ARTIST=Old -T " +
                                  test::shellQuote(std::string("ALBUM=") + album) +
                                  " -T TITLE=" + name + " -o " +
                                  test::shellQuote((sources_ / name).string() + ".flac") + " " +
                                  test::shellQuote(wav))
                     .exitCode,
                 0);
}

void MainWindowTest::selectOnly(MainWindow& window, const std::string& name) {
    window.queueView()->clearSelection();
    for (int row = 0; row < window.queueModel().rowCount(); ++row)
        if (fs::path(window.queueModel().jobAt(row)->inFilePath()).filename() == name)
            window.queueView()->selectRow(row);
    QCOMPARE(window.queueView()->selectionModel()->selectedRows().size(), 1);
}

void MainWindowTest::saveEdits(MainWindow& window, MetadataEditorWindow* editor) {
    QSignalSpy finished(&window, &MainWindow::batchFinished);
    editor->findChild<QDialogButtonBox*>()->button(QDialogButtonBox::Save)->click();
    QVERIFY(finished.wait(30000));
    QCOMPARE(window.controller().failedCount(), 0);
}

void MainWindowTest::editsTheTagsOfTwoFiles() {
    // Two tagged FLAC files from different albums.
    makeTaggedPair();
    MainWindow window;
    window.show();
    queueSources(window, 2);
    window.queueView()->selectAll();
    MetadataEditorWindow* editor = window.editTags();
    QVERIFY(editor);
    QCOMPARE(editor->fieldEditor("trackArtist")->text(), QString("Old"));
    QVERIFY(editor->isMixed("albumTitle") && editor->isMixed("trackTitle"));
    QTest::keyClicks(editor->fieldEditor("trackArtist"), " and New");
    QTest::keyClicks(editor->fieldEditor("trackYear"), "1999");
    saveEdits(window, editor);

    // Read back by an independent tag reader: the edited fields changed in
    // both files, the mixed ones kept each file's own value.
    for (const auto& [name, album] : {std::pair{"x", "Album X"}, std::pair{"y", "Album Y"}}) {
        const auto tags = test::runCommand(
            "/usr/bin/python3 -c 'import sys,mutagen.flac as f; t=f.FLAC(sys.argv[1]); "
            "print(t[\"artist\"][0], t[\"album\"][0], t[\"title\"][0], t[\"date\"][0], "
            "sep=\"|\")' " +
            test::shellQuote((sources_ / name).string() + ".flac"));
        QCOMPARE(tags.exitCode, 0);
        QCOMPARE(QString::fromStdString(tags.output).trimmed(),
                 QString("Old and New|%1|%2|1999").arg(album, name));
    }
}

namespace {

// What an independent reader (mutagen) finds in a FLAC file: "title|album|"
// then the first picture's MIME type and MD5, or "none".
QString tagsAndPicture(const fs::path& file) {
    const auto r = test::runCommand(
        "/usr/bin/python3 -c 'import sys,hashlib,mutagen.flac as f; t=f.FLAC(sys.argv[1]); "
        "p=t.pictures; print(t.get(\"title\",[\"\"])[0], t.get(\"album\",[\"\"])[0], "
        "p[0].mime+\" \"+hashlib.md5(p[0].data).hexdigest() if p else \"none\", sep=\"|\")' " +
        test::shellQuote(file.string()));
    return r.exitCode == 0 ? QString::fromStdString(r.output).trimmed() : "(unreadable)";
}

} // namespace

void MainWindowTest::editsArtworkAndCopiesPastesRevertsTags() {
    makeTaggedPair();
    UserDefaults::standardUserDefaults().setObject("keepFilesInQueueAfterWritingMetadata", true);
    const QString png = QString::fromStdString(root_->file("cover.png"));
    QImage picture(24, 16, QImage::Format_RGB32);
    for (int y = 0; y < picture.height(); ++y)
        for (int x = 0; x < picture.width(); ++x)
            picture.setPixel(x, y, qRgb(x * 10, y * 15, (x ^ y) * 8));
    QVERIFY(picture.save(png, "PNG"));
    const QString pngMD5 = QString::fromStdString(test::md5Hex(test::readFile(png.toStdString())));

    MainWindow window;
    window.show();
    queueSources(window, 2);

    // A picture chosen for both files lands in both; a file that is no
    // picture is refused.
    window.queueView()->selectAll();
    MetadataEditorWindow* editor = window.editTags();
    QVERIFY(editor && !editor->artwork() && !editor->isArtworkMixed());
    QVERIFY(!editor->setArtworkFromFile(QString::fromStdString(root_->file("t.wav"))));
    QVERIFY(editor->setArtworkFromFile(png));
    saveEdits(window, editor);
    for (const char* name : {"x", "y"})
        QCOMPARE(tagsAndPicture(sources_ / (std::string(name) + ".flac")),
                 QString("%1|Album %2|image/png %3").arg(name, QString(name).toUpper(), pngMD5));

    // x's fields copied; the artwork saved back out is the same picture.
    selectOnly(window, "x.flac");
    editor = window.editTags();
    const QString exported = QString::fromStdString(root_->file("exported.png"));
    QVERIFY(editor->saveArtworkTo(exported));
    QCOMPARE(QString::fromStdString(test::md5Hex(test::readFile(exported.toStdString()))), pngMD5);
    editor->copyFields();
    editor->reject();

    // On y: an edit undone by Revert, then x's fields pasted and the
    // artwork cleared.
    selectOnly(window, "y.flac");
    editor = window.editTags();
    QTest::keyClicks(editor->fieldEditor("trackTitle"), " changed");
    QCOMPARE(editor->fieldEditor("trackTitle")->text(), QString("y changed"));
    editor->revertFields();
    QCOMPARE(editor->fieldEditor("trackTitle")->text(), QString("y"));
    QVERIFY(editor->pasteFields());
    QCOMPARE(editor->fieldEditor("albumTitle")->text(), QString("Album X"));
    editor->clearArtwork();
    saveEdits(window, editor);
    QCOMPARE(tagsAndPicture(sources_ / "y.flac"), QString("x|Album X|none"));

    // Clear All empties every field of the file.
    selectOnly(window, "x.flac");
    editor = window.editTags();
    editor->clearAllFields();
    saveEdits(window, editor);
    QCOMPARE(tagsAndPicture(sources_ / "x.flac"), QString("||none"));
}

void MainWindowTest::removesAndClearsQueuedRows() {
    makeTaggedPair();
    MainWindow window;
    window.show();
    queueSources(window, 2);
    ApplicationController* controller = &window.controller();
    selectOnly(window, "x.flac");
    window.removeSelected();
    // The same controller, one job fewer: the other job is untouched.
    QCOMPARE(&window.controller(), controller);
    QCOMPARE(window.queueModel().rowCount(), 1);
    QCOMPARE(fs::path(window.controller().operations()[0]->inFilePath()).filename().string(),
             std::string("y.flac"));
    window.clearQueue();
    QCOMPARE(window.queueModel().rowCount(), 0);
    QVERIFY(window.controller().operations().empty());
}

int runMainWindowTest(int argc, char** argv) {
    MainWindowTest test;
    return QTest::qExec(&test, argc, argv);
}

#include "MainWindowTest.moc"
