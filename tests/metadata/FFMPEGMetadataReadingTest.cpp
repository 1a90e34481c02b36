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
