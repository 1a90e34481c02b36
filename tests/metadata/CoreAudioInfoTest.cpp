// The desktop audio file service's facts, tags and raw chunks, read from
// WAVE and AIFF files built byte by byte: raw chunks into userData and the
// ID3v2 tag of either container. Hostile bytes are the fuzz targets' and the
// damaged-input suite's.

#include <string>

#include <gtest/gtest.h>

#include <taglib/aifffile.h>
#include <taglib/wavfile.h>

#include "metadata/AudioMetadata.h"
#include "metadata/CoreAudioFileInfo.h"
#include "metadata/MetadataFixtures.h"
#include "support/TestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

Bytes text(std::string_view s, bool terminate = true) {
    Bytes out(s.begin(), s.end());
    if (terminate)
        out.push_back(0);
    return out;
}

} // namespace

TEST(CoreAudioInfoTest, WaveKeepsEveryChunkButFormatAndSamplesAsUserData) {
    TempDir dir;
    const Bytes info = concat(
        {text("INFO", false), riffChunk("INAM", text("Name")), riffChunk("IART", text("Artist"))});
    const Bytes bext(602, 0x42);
    const std::string path = dir.file("take.wav");
    writeFile(path,
              wavFile(2, 48000, 4800,
                      {riffChunk("LIST", info), riffChunk("bext", bext),
                       riffChunk("abcd", text("odd", false)), riffChunk("abcd", text("two"))}));

    const auto m = AudioMetadata::metadataFromFile(path);
    EXPECT_EQ(m->sourceKind(), "WAVE");
    EXPECT_EQ(m->sourceFormat(), "Linear PCM");
    EXPECT_EQ(m->sourceSampleRate(), 48000);
    EXPECT_EQ(m->sourceChannels(), 2);
    EXPECT_EQ(m->sourceSampleSize(), 16);
    EXPECT_EQ(m->sourceChannelMode(), "Stereo");
    EXPECT_EQ(m->sourceBitrate(), 48000 * 2 * 16);
    EXPECT_EQ(m->sourceLength(), 0.1f); // single precision, as the service estimates
    // The WAVE reader takes only ID3v2 tags; the INFO strings stay raw data.
    EXPECT_FALSE(m->trackTitle() && *m->trackTitle() == "Name");

    ASSERT_TRUE(m->userData());
    const auto& userData = *m->userData();
    EXPECT_EQ(userData.count("data"), 0u);
    EXPECT_EQ(userData.count("fmt "), 0u);
    ASSERT_EQ(userData.count("LIST"), 1u);
    EXPECT_EQ(userData.at("LIST"), std::vector<Bytes>{info});
    ASSERT_EQ(userData.count("bext"), 1u);
    EXPECT_EQ(userData.at("bext"), std::vector<Bytes>{bext});
    ASSERT_EQ(userData.count("abcd"), 1u);
    EXPECT_EQ(userData.at("abcd"), (std::vector<Bytes>{text("odd", false), text("two")}));
}

TEST(CoreAudioInfoTest, AIFFAndWAVEReadersTakeTheirID3v2Tag) {
    TempDir dir;
    const std::string aiff = dir.file("tagged.aif");
    writeFile(aiff, aiffFile(2, 22050, 2205));
    {
        TagLib::RIFF::AIFF::File file(aiff.c_str());
        file.tag()->setTitle("Aiff title");
        file.tag()->setTrack(2);
        ASSERT_TRUE(file.save());
    }
    auto m = AudioMetadata::metadataFromFile(aiff);
    EXPECT_EQ(m->sourceKind(), "AIFF");
    EXPECT_EQ(m->sourceFormat(), "Linear PCM");
    EXPECT_EQ(m->sourceSampleSize(), 8);
    EXPECT_EQ(m->sourceTagFormat(), "ID3v2.4.0");
    EXPECT_EQ(m->trackTitle(), "Aiff title");
    EXPECT_EQ(m->trackNumber(), 2);
    ASSERT_TRUE(m->userData());
    EXPECT_EQ(m->userData()->count("ID3 "), 1u); // raw, for faithful copying
    EXPECT_EQ(m->userData()->count("COMM"), 1u);

    const std::string wav = dir.file("tagged.WAV");
    writeFile(wav, wavFile(1, 16000, 1600));
    {
        TagLib::RIFF::WAV::File file(wav.c_str());
        file.ID3v2Tag()->setTitle("Wave title");
        ASSERT_TRUE(file.save(TagLib::RIFF::WAV::File::ID3v2, TagLib::File::StripOthers,
                              TagLib::ID3v2::v3));
    }
    m = AudioMetadata::metadataFromFile(wav);
    EXPECT_EQ(m->sourceKind(), "WAVE");
    EXPECT_EQ(m->sourceTagFormat(), "ID3v2.3.0");
    EXPECT_EQ(m->trackTitle(), "Wave title");
    EXPECT_EQ(m->sourceChannelMode(), "Mono");
}
