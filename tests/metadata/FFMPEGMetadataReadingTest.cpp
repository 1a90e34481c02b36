// The FFmpeg-backed reader (RealMedia and friends) on files ffmpeg made: the
// container's dictionary mapping, the n/m rule, the year of a date, the
// container-first bit rate, and the retry of a missing file with a recorded
// sleep.

#include <chrono>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/FFMPEGInputOpener.h"
#include "metadata/AudioMetadata.h"
#include "metadata/MetadataFixtures.h"
#include "platform/ErrorLog.h"
#include "support/TestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

bool makeTagged(const std::string& path, const std::string& metadata) {
    return runOrFail("ffmpeg -v error -y -f lavfi -i sine=frequency=330:duration=3.5 -ac 2 " +
                     metadata + " " + shellQuote(path));
}

class RecordedSleep {
public:
    explicit RecordedSleep(std::function<void(size_t)> onCall = {}) {
        FFMPEGInputOpener::setSleepFunction([this, onCall](std::chrono::microseconds d) {
            durations.push_back(d);
            if (onCall)
                onCall(durations.size());
        });
    }
    ~RecordedSleep() { FFMPEGInputOpener::setSleepFunction({}); }
    std::vector<std::chrono::microseconds> durations;
};

} // namespace

TEST(FFMPEGMetadataReadingTest, ContainerDictionaryFillsTheFields) {
    TempDir dir;
    const std::string path = dir.file("tagged.mkv");
    ASSERT_TRUE(makeTagged(path, "-c:a libvorbis -metadata title=Title -metadata artist=Artist "
                                 "-metadata ALBUM=Album -metadata album_artist=Various "
                                 "-metadata comment=Comment -metadata composer=Composer "
                                 "-metadata copyright=Copy -metadata genre=Genre "
                                 "-metadata lyrics=Words -metadata bpm=133 "
                                 "-metadata compilation=1 -metadata track=5/12 "
                                 "-metadata disc=2/3 -metadata date=1999"));
    const auto m = AudioMetadata::metadataFromFFMPEGFile(path);
    EXPECT_EQ(m->sourceKind(), "matroska,webm");
    EXPECT_EQ(m->sourceFormat(), "Matroska / WebM");
    EXPECT_EQ(m->sourceLength(), 3.0); // whole seconds
    EXPECT_EQ(m->sourceSampleRate(), 44100);
    EXPECT_EQ(m->sourceChannels(), 2);
    EXPECT_EQ(m->trackTitle(), "Title");
    EXPECT_EQ(m->trackArtist(), "Artist");
    EXPECT_EQ(m->albumTitle(), "Album"); // keys compared without case
    EXPECT_EQ(m->albumArtist(), "Various");
    EXPECT_EQ(m->trackComment(), "Comment");
    EXPECT_EQ(m->trackComposer(), "Composer");
    EXPECT_EQ(m->trackCopyright(), "Copy");
    EXPECT_EQ(m->trackGenre(), "Genre");
    EXPECT_EQ(m->lyrics(), "Words");
    EXPECT_EQ(m->bpm(), 133);
    EXPECT_EQ(m->partOfACompilation(), true);
    EXPECT_EQ(m->trackNumber(), 5);
    EXPECT_EQ(m->totalTracks(), 12);
    EXPECT_EQ(m->discNumber(), 2);
    EXPECT_EQ(m->discTotal(), 3);
    EXPECT_EQ(m->trackYear(), 1999);
}

TEST(FFMPEGMetadataReadingTest, NumberWithoutTotalLeavesTheTotalAbsent) {
    TempDir dir;
    const std::string path = dir.file("seven.mp4");
    ASSERT_TRUE(makeTagged(path, "-c:a aac -metadata track=7 -metadata date=2001-05-01T10:00:00Z "
                                 "-metadata author=Writer"));
    const auto m = AudioMetadata::metadataFromFFMPEGFile(path);
    EXPECT_EQ(m->sourceKind(), "mov,mp4,m4a,3gp,3g2,mj2");
    EXPECT_EQ(m->trackNumber(), 7);
    EXPECT_FALSE(m->totalTracks());
    EXPECT_EQ(m->trackYear(), 2001);
}

TEST(FFMPEGMetadataReadingTest, StreamBitRateNeverStandsInForAMissingContainerRate) {
    // Until the streams are probed, these containers state no overall rate;
    // the audio stream's own rate then stays unused.
    TempDir dir;
    const std::string path = dir.file("rate.mp4");
    ASSERT_TRUE(makeTagged(path, "-c:a aac -b:a 96k"));
    const auto probe = runCommand("ffprobe -v error -select_streams a:0 -show_entries "
                                  "stream=bit_rate -of default=nw=1:nk=1 " +
                                  shellQuote(path));
    ASSERT_GT(std::stoll(probe.output), 0);
    EXPECT_FALSE(AudioMetadata::metadataFromFFMPEGFile(path)->sourceBitrate());
}

TEST(FFMPEGMetadataReadingTest, MissingFileIsRetriedWithRandomWaitsThenLogged) {
    TempDir dir;
    const std::string path = dir.file("not-yet.rm");
    RecordedSleep sleep;
    ErrorLog::sharedController().clear();
    const auto m = AudioMetadata::metadataFromFile(path);

    ASSERT_EQ(sleep.durations.size(), size_t(FFMPEGInputOpener::kMaxOpenTries - 1));
    for (auto d : sleep.durations) {
        EXPECT_GE(d.count(), 1000000);
        EXPECT_LE(d.count(), 3999900);
        EXPECT_EQ(d.count() % 100, 0);
    }
    const auto messages = ErrorLog::sharedController().messages();
    ASSERT_GE(messages.size(), 2u);
    EXPECT_EQ(messages[messages.size() - 2],
              "FFMPEG Could Not Open Input For File For Metadata Reading: " + path +
                  " ERROR: " + std::to_string(-ENOENT));
    EXPECT_EQ(messages.back(), path + ": No such file or directory");
    // The empty record, plus what every file gets.
    EXPECT_FALSE(m->sourceKind());
    EXPECT_EQ(m->sourceLocation(), path);
    EXPECT_EQ(m->trackTitle(), "not-yet");
}

TEST(FFMPEGMetadataReadingTest, FileThatArrivesDuringTheWaitsIsRead) {
    TempDir dir;
    const std::string source = dir.file("source.mka");
    ASSERT_TRUE(makeTagged(source, "-c:a libvorbis -metadata title=Late"));
    const std::string path = dir.file("late.ra");
    RecordedSleep sleep([&](size_t call) {
        if (call == 2)
            std::filesystem::copy_file(source, path);
    });
    const auto m = AudioMetadata::metadataFromFFMPEGFile(path);
    EXPECT_EQ(sleep.durations.size(), 2u);
    EXPECT_EQ(m->trackTitle(), "Late");
}

TEST(FFMPEGMetadataReadingTest, OtherOpenErrorsAreNotRetried) {
    TempDir dir;
    const std::string path = dir.file("garbage.rm");
    writeFile(path, Bytes(2048, 0));
    RecordedSleep sleep;
    ErrorLog::sharedController().clear();
    const auto m = AudioMetadata::metadataFromFFMPEGFile(path);
    EXPECT_TRUE(sleep.durations.empty());
    EXPECT_FALSE(m->sourceKind());
    const auto messages = ErrorLog::sharedController().messages();
    ASSERT_EQ(messages.size(), 2u);
    EXPECT_EQ(
        messages[0].rfind(
            "FFMPEG Could Not Open Input For File For Metadata Reading: " + path + " ERROR: -", 0),
        0u);
}
