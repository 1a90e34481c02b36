// One file's job: progress across formats, counting, skipping formats of the
// input's own type and the move of the source to the trash.

#include <filesystem>

#include <gtest/gtest.h>

#include "jobs/BatchTestSupport.h"

using namespace velvox;
using namespace velvox::test;
namespace fs = std::filesystem;

namespace {

class FileEncodeOperationTest : public BatchTest {
protected:
    fs::path trashed(const std::string& name) {
        return fs::path(std::getenv("XDG_DATA_HOME")) / "Trash/files" / name;
    }
};

} // namespace

TEST_F(FileEncodeOperationTest, ProgressCountsFinishedFormatsAndTheRunningOnesPart) {
    // The first format passes at once; the second holds half done.
    controller.setEncoderSettings({gatedFormat("flac"), gatedFormat("oga", kSecondGatedType)});
    writeText(in.file("Song.wav"), "audio");
    drop(controller, {in.file("Song.wav")});
    auto job = controller.operations().at(0);

    Gate::shared().reset(false);
    Gate::shared().holdAtFrame = 50;
    Gate::shared().letThrough(1);
    controller.encode();
    ASSERT_TRUE(runUntil([&] { return job->successfulEncodes() == 1; }));
    ASSERT_TRUE(runUntil([&] { return job->percentComplete() == 0.75f; }))
        << job->percentComplete();
    EXPECT_EQ(job->operations().size(), 1u);

    Gate::shared().letThrough(1);
    ASSERT_TRUE(runUntil([&] { return !controller.encoderRunning(); }));
    EXPECT_EQ(controller.successfulCount(), 2);
    EXPECT_TRUE(fs::exists(out.path() / "Song.flac"));
    EXPECT_TRUE(fs::exists(out.path() / "Song.oga"));
}

TEST_F(FileEncodeOperationTest, SourceGoesToTheTrashOnlyWhenEveryOutputSucceeded) {
    prefs.set("deleteOriginal", true);
    controller.setEncoderSettings({gatedFormat("flac"), gatedFormat("oga", kSecondGatedType)});
    writeText(in.file("good.wav"), "audio");
    writeText(in.file("bad.wav"), "audio");
    drop(controller, {in.file("good.wav"), in.file("bad.wav")});
    runBatch();

    ASSERT_EQ(ui.finished.size(), 2u);
    for (const auto& result : ui.finished) {
        if (result.path == in.file("bad.wav"))
            EXPECT_FALSE(result.success);
        else
            EXPECT_TRUE(result.success);
    }
    EXPECT_FALSE(fs::exists(in.file("good.wav")));
    EXPECT_TRUE(fs::exists(trashed("good.wav")));
    EXPECT_TRUE(fs::exists(in.file("bad.wav"))); // its outputs failed: it stays
    EXPECT_EQ(controller.failedCount(), 2);      // both formats of the bad file
    EXPECT_EQ(ui.failureSheets.at(0), "Failed To Encode 2 of 4 Files.");
}

TEST_F(FileEncodeOperationTest, OneFailedAndOneGoodFormatCountBothAndKeepTheSource) {
    prefs.set("deleteOriginal", true);
    // Only the second format's encoder fails this input: a type with no
    // encoder in the build fails at creation and is counted like a failed encode.
    FormatRegistry::removeEntry(&kSecondGatedFormat);
    controller.setEncoderSettings({gatedFormat("flac"), gatedFormat("oga", kSecondGatedType)});
    writeText(in.file("Song.wav"), "audio");
    drop(controller, {in.file("Song.wav")});
    auto job = controller.operations().at(0);
    std::optional<std::pair<uint64_t, uint64_t>> counts;
    std::optional<bool> success;
    job->addObserver("isFinished", [&](Observable&, const std::string&, Observable::ChangePhase) {
        if (job->isFinished()) {
            counts = {job->successfulEncodes(), job->failedEncodes()};
            success = job->success();
        }
    });
    runBatch();
    ASSERT_TRUE(counts);
    EXPECT_EQ(*counts, (std::pair<uint64_t, uint64_t>{1, 1}));
    EXPECT_FALSE(*success);
    EXPECT_TRUE(fs::exists(in.file("Song.wav")));
    EXPECT_TRUE(fs::exists(out.path() / "Song.flac"));
}

TEST_F(FileEncodeOperationTest, FormatsOfTheInputsOwnTypeAreSkippedByTheirData) {
    if (!haveTool("ffmpeg"))
        FAIL() << "ffmpeg is needed to make an Apple Lossless file"
               << " (scripts/setup.sh installs it)";
    prefs.set("skipFilesOfSameType", true);
    std::vector<int32_t> samples = makeSignal(4410, 2, 16);
    writeWav(in.file("pcm.wav"), samples, 2, 44100, 16);
    ASSERT_EQ(runCommand("ffmpeg -v error -y -i " + shellQuote(in.file("pcm.wav")) + " -c:a alac " +
                         shellQuote(in.file("lossless.m4a")))
                  .exitCode,
              0);
    writeText(in.file("Song.flac"), "flac");

    auto wavLPCM = gatedFormat("wav", kSecondGatedType);
    wavLPCM->setFormatID(kAudioFormatLinearPCM);
    auto m4aAAC = gatedFormat("m4a", kSecondGatedType);
    m4aAAC->setFormatID(kAudioFormatMPEG4AAC);
    auto flac = gatedFormat("flac");
    controller.setEncoderSettings({wavLPCM, m4aAAC, flac});
    drop(controller, {in.file("pcm.wav"), in.file("lossless.m4a"), in.file("Song.flac")});
    runBatch();

    // WAV → WAV (LPCM) skipped, WAV → M4A and FLAC made.
    EXPECT_FALSE(fs::exists(out.path() / "pcm.wav"));
    EXPECT_TRUE(fs::exists(out.path() / "pcm.m4a"));
    EXPECT_TRUE(fs::exists(out.path() / "pcm.flac"));
    // Apple Lossless in M4A is not AAC: encoded.
    EXPECT_TRUE(fs::exists(out.path() / "lossless.m4a"));
    // FLAC → FLAC is passed over by its extension alone.
    EXPECT_FALSE(fs::exists(out.path() / "Song.flac"));
    EXPECT_TRUE(fs::exists(out.path() / "Song.wav"));

    // With AAC's own ID compared to ALAC's, the M4A is skipped too.
    m4aAAC->setFormatID(kAudioFormatAppleLossless);
    fs::remove(out.path() / "lossless.m4a");
    controller.setEncoderSettings({m4aAAC});
    drop(controller, {in.file("lossless.m4a")});
    runBatch();
    EXPECT_FALSE(fs::exists(out.path() / "lossless.m4a"));
    ASSERT_FALSE(ui.finished.empty());
    EXPECT_TRUE(ui.finished.back().success);
    EXPECT_TRUE(ui.finished.back().skipped);
}
