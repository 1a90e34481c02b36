// The controller's batch: intake, the start checks, the throttle, the
// overwrite question and its batch-wide answers, cancel and the report.

#include <filesystem>

#include <gtest/gtest.h>

#include "jobs/BatchTestSupport.h"
#include "platform/ErrorLog.h"

using namespace velvox;
using namespace velvox::test;
namespace fs = std::filesystem;

namespace {

class ApplicationControllerTest : public BatchTest {
protected:
    void SetUp() override {
        BatchTest::SetUp();
        prefs.set("promptBeforeOverwriting", true);
        controller.setEncoderSettings({gatedFormat("flac")});
    }

    std::vector<std::string> makeInputs(int count, const std::string& prefix = "Track") {
        std::vector<std::string> paths;
        for (int i = 1; i <= count; ++i) {
            paths.push_back(in.file(prefix + std::to_string(i) + ".wav"));
            writeText(paths.back(), "audio " + std::to_string(i));
        }
        return paths;
    }
};

std::vector<std::string> queuedPaths(const ApplicationController& controller) {
    std::vector<std::string> paths;
    for (const auto& job : controller.operations())
        paths.push_back(job->inFilePath());
    return paths;
}

} // namespace

TEST_F(ApplicationControllerTest, IntakeWalksFoldersOnceSkippingHiddenAndUnknownFiles) {
    const fs::path music = in.path() / "Music";
    writeText((music / "b.FLAC").string(), "x");
    writeText((music / "a.wav").string(), "x");
    writeText((music / "notes.txt").string(), "x");
    writeText((music / ".hidden.wav").string(), "x");
    writeText((music / ".cache/c.wav").string(), "x");
    writeText((music / "Disc 2/d.mp3").string(), "x");
    writeText((in.path() / "single.ogg").string(), "x");

    drop(controller, {music.string(), (music / "a.wav").string(), in.file("single.ogg")});
    drop(controller, {music.string()}); // the same folder again adds nothing

    EXPECT_EQ(
        queuedPaths(controller),
        (std::vector<std::string>{(music / "Disc 2/d.mp3").string(), (music / "a.wav").string(),
                                  (music / "b.FLAC").string(), in.file("single.ogg")}));
    EXPECT_EQ(controller.operations()[0]->topLevelPath(), music.string());
    EXPECT_EQ(controller.operations()[3]->topLevelPath(), in.file("single.ogg"));
    EXPECT_TRUE(controller.containsMP3Files());
    EXPECT_FALSE(controller.encoderRunning());
    EXPECT_FALSE(controller.isParsing());
}

TEST_F(ApplicationControllerTest, ThrottleKeepsAtMostNumProcessesJobsRunning) {
    drop(controller, makeInputs(5));
    Gate::shared().reset(false);
    controller.encode();
    ASSERT_TRUE(runUntil([] { return Gate::shared().runningNow() == 2; }));
    EXPECT_EQ(controller.runningCount(), 2);
    EXPECT_EQ(ui.starts, 2);

    // Each finish starts exactly one more.
    for (int released = 1; released <= 3; ++released) {
        Gate::shared().letThrough(1);
        ASSERT_TRUE(runUntil([&] { return ui.starts == 2 + released; }));
        ASSERT_TRUE(runUntil([] { return Gate::shared().runningNow() == 2; }));
        EXPECT_EQ(controller.runningCount(), 2);
    }
    Gate::shared().letThrough(2);
    ASSERT_TRUE(runUntil([&] { return !controller.encoderRunning(); }));

    EXPECT_EQ(Gate::shared().peak, 2);
    EXPECT_EQ(controller.peakRunningCount(), 2);
    EXPECT_EQ(controller.successfulCount(), 5);
    EXPECT_EQ(controller.failedCount(), 0);
    EXPECT_TRUE(controller.operations().empty()); // finished jobs leave the queue
    EXPECT_TRUE(ui.failureSheets.empty());
    for (int i = 1; i <= 5; ++i)
        EXPECT_EQ(readText((out.path() / ("Track" + std::to_string(i) + ".flac")).string()),
                  "audio " + std::to_string(i));
}

TEST_F(ApplicationControllerTest, FailuresAreCountedAndReportedAtTheEnd) {
    drop(controller, makeInputs(5, "bad"));
    runBatch();
    EXPECT_EQ(controller.failedCount(), 5);
    ASSERT_EQ(ui.failureSheets.size(), 1u);
    EXPECT_EQ(ui.failureSheets[0], "Failed To Encode 5 of 5 Files.");
    EXPECT_EQ(ui.failureButtons, (std::vector<std::string>{"OK", "Show Report"}));

    // One bad file among good ones fails alone.
    ui.failureSheets.clear();
    drop(controller, makeInputs(3));
    writeText(in.file("bad9.wav"), "x");
    drop(controller, {in.file("bad9.wav")});
    runBatch();
    EXPECT_EQ(controller.successfulCount(), 3);
    EXPECT_EQ(controller.failedCount(), 1);
    ASSERT_EQ(ui.failureSheets.size(), 1u);
    EXPECT_EQ(ui.failureSheets[0], "Failed To Encode 1 of 4 Files.");
}

TEST_F(ApplicationControllerTest, StartChecksRefuseBeforeAnyJobStarts) {
    controller.encode(); // nothing queued
    EXPECT_EQ(ui.beeps, 1);

    drop(controller, makeInputs(1));
    auto disabled = gatedFormat("flac");
    disabled->setEnabled(false);
    controller.setEncoderSettings({disabled});
    controller.encode();
    ASSERT_EQ(ui.alerts.size(), 1u);
    EXPECT_EQ(ui.alerts[0],
              (std::vector<std::string>{"No Output Formats Enabled.",
                                        "Please enable at least one output format.", "OK."}));

    controller.setEncoderSettings({gatedFormat("flac")});
    prefs.set("destinationDirectory", (out.path() / "missing").string());
    controller.encode();
    ASSERT_EQ(ui.alerts.size(), 2u);
    EXPECT_EQ(ui.alerts[1][0], "Output Folder Not Found");
    EXPECT_EQ(ui.alerts[1][1], "The destination folder does not exist.  Please specify a new one "
                               "in preferences.");

    // A folder inside the music library's media folder.
    const char* realHome = std::getenv("HOME");
    const std::string savedHome = realHome ? realHome : "";
    setenv("HOME", out.path().c_str(), 1);
    fs::create_directories(out.path() / "Music/iTunes/Converted");
    prefs.set("destinationDirectory", (out.path() / "Music/iTunes/Converted").string());
    controller.encode();
    setenv("HOME", savedHome.c_str(), 1);
    ASSERT_EQ(ui.alerts.size(), 3u);
    EXPECT_EQ(ui.alerts[2][0], "Invalid Output Folder.");
    EXPECT_EQ(ui.alerts[2][1], "Files can not be written to a user's iTunes library folder.  "
                               "Please choose a different output folder in the preferences.");

    EXPECT_EQ(ui.starts, 0);
    EXPECT_EQ(Gate::shared().started, 0);
    EXPECT_FALSE(controller.encoderRunning());
}

TEST_F(ApplicationControllerTest, CancelStopsTheBatchAndKeepsTheJobsQueued) {
    drop(controller, makeInputs(4));
    Gate::shared().reset(false);
    controller.encode();
    ASSERT_TRUE(runUntil([] { return Gate::shared().runningNow() == 2; }));
    controller.cancel();
    ASSERT_TRUE(runUntil([&] { return !controller.encoderRunning(); }));

    EXPECT_EQ(ui.starts, 2); // nothing new started after the cancel
    ASSERT_EQ(controller.operations().size(), 4u);
    for (const auto& job : controller.operations()) {
        EXPECT_FALSE(job->isFinished());
        EXPECT_FALSE(job->isExecuting());
        EXPECT_FALSE(job->isCancelled()); // reset, ready to run again
    }
    EXPECT_TRUE(fs::is_empty(out.path()));
    EXPECT_TRUE(ui.failureSheets.empty());

    // The same rows run again.
    Gate::shared().reset(true);
    runBatch();
    EXPECT_EQ(controller.successfulCount(), 4);
    EXPECT_TRUE(controller.operations().empty());
}

// ---- The overwrite question ----

class OverwriteQuestionTest : public ApplicationControllerTest {
protected:
    void SetUp() override {
        ApplicationControllerTest::SetUp();
        prefs.set("overwriteOutputFiles", true);
        prefs.set("promptBeforeOverwriting", true);
        prefs.set("numProcesses", "1");
        inputs = makeInputs(3);
        for (int i = 1; i <= 3; ++i)
            writeText((out.path() / ("Track" + std::to_string(i) + ".flac")).string(), "old");
        drop(controller, inputs);
    }
    std::string output(int i, const std::string& suffix = "") {
        return readText((out.path() / ("Track" + std::to_string(i) + suffix + ".flac")).string());
    }
    std::vector<std::string> inputs;
};

TEST_F(OverwriteQuestionTest, AskedWithTheTextsAndEachAnswerDoesWhatItSays) {
    // "Skip" for this one file only: asked again for the next.
    ui.answerCode = ApplicationController::kAlertThirdButtonReturn;
    runBatch();
    ASSERT_EQ(ui.questions.size(), 3u);
    EXPECT_EQ(ui.questions[0].message, "The file \"Track1.flac\" already exists.");
    EXPECT_EQ(ui.questions[0].informative, "Do you want to overwrite the existing file?");
    EXPECT_EQ(ui.questions[0].buttons, (std::vector<std::string>{"No", "Yes", "Skip"}));
    EXPECT_EQ(ui.questions[0].suppression, "Apply to all in this batch");
    for (int i = 1; i <= 3; ++i)
        EXPECT_EQ(output(i), "old");
    ASSERT_EQ(ui.finished.size(), 3u);
    for (const auto& result : ui.finished)
        EXPECT_TRUE(result.success && result.skipped);
    EXPECT_EQ(Gate::shared().started, 0); // skipped before any encoding

    // "No": keep both, the new one under a numbered name.
    ui.questions.clear();
    drop(controller, inputs);
    ui.answerCode = ApplicationController::kAlertFirstButtonReturn;
    runBatch();
    EXPECT_EQ(ui.questions.size(), 3u);
    for (int i = 1; i <= 3; ++i) {
        EXPECT_EQ(output(i), "old");
        EXPECT_EQ(output(i, " 2"), "audio " + std::to_string(i));
    }

    // "Yes": replaced; the old file goes to the trash, not into nothing.
    const fs::path trash = fs::path(std::getenv("XDG_DATA_HOME")) / "Trash/files";
    auto trashedTracks = [&] {
        size_t n = 0;
        if (fs::exists(trash))
            for (const auto& entry : fs::directory_iterator(trash))
                n += entry.path().filename().string().rfind("Track", 0) == 0;
        return n;
    };
    const size_t trashedBefore = trashedTracks();
    ui.questions.clear();
    drop(controller, inputs);
    ui.answerCode = ApplicationController::kAlertSecondButtonReturn;
    runBatch();
    EXPECT_EQ(ui.questions.size(), 3u);
    for (int i = 1; i <= 3; ++i)
        EXPECT_EQ(output(i), "audio " + std::to_string(i));
    EXPECT_EQ(trashedTracks(), trashedBefore + 3);
}

TEST_F(OverwriteQuestionTest, ApplyToAllAnswersTheRestOfTheBatchWithoutAsking) {
    prefs.set("numProcesses", "3");
    ui.answerCode = ApplicationController::kAlertThirdButtonReturn;
    ui.applyToAll = true;
    runBatch();
    EXPECT_EQ(ui.questions.size(), 1u);
    EXPECT_EQ(controller.overwriteExistingFilesHandling(),
              ApplicationController::OverwriteHandlingSkip);
    for (int i = 1; i <= 3; ++i)
        EXPECT_EQ(output(i), "old");
    for (const auto& result : ui.finished)
        EXPECT_TRUE(result.skipped);

    // A new batch asks again.
    ui.questions.clear();
    drop(controller, inputs);
    ui.answerCode = ApplicationController::kAlertSecondButtonReturn;
    runBatch();
    EXPECT_EQ(ui.questions.size(), 1u);
    for (int i = 1; i <= 3; ++i)
        EXPECT_EQ(output(i), "audio " + std::to_string(i));
}

TEST_F(OverwriteQuestionTest, CancelWithdrawsTheQuestionAndFinishesTheWaitingFile) {
    ui.answerCode = 0; // nobody answers
    controller.encode();
    ASSERT_TRUE(runUntil([&] { return ui.questions.size() == 1; }));
    controller.cancel();
    ASSERT_TRUE(runUntil([&] { return !controller.encoderRunning(); }));
    EXPECT_EQ(output(1), "old");
    EXPECT_EQ(controller.operations().size(), 3u);
    EXPECT_FALSE(fs::exists(out.path() / "Track1 2.flac"));
}

TEST_F(ApplicationControllerTest, KeptRowsRunOnceEachEvenAfterABatchWideAnswer) {
    prefs.set("keepFilesInQueueAfterEncoding", true);
    prefs.set("overwriteOutputFiles", true);
    prefs.set("promptBeforeOverwriting", true);
    const auto inputs = makeInputs(3);
    writeText((out.path() / "Track1.flac").string(), "old");
    drop(controller, inputs);
    controller.encode();
    // The first file waits for its answer while the other two finish and are
    // reset in place; answering for the whole batch must not run them again.
    ASSERT_TRUE(runUntil([&] { return ui.questions.size() == 1 && ui.finished.size() == 2; }));
    controller.alertDidEnd(ApplicationController::kAlertSecondButtonReturn, true);
    ASSERT_TRUE(runUntil([&] { return !controller.encoderRunning(); }));
    EXPECT_EQ(Gate::shared().started, 3);
    EXPECT_EQ(ui.starts, 3);
    EXPECT_EQ(controller.operations().size(), 3u);
    EXPECT_EQ(readText((out.path() / "Track1.flac").string()), "audio 1");
}
