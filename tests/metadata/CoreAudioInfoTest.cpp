// The desktop audio file service's facts, tags and raw chunks, read from
// WAVE, AIFF and CAF files built byte by byte: raw chunks into userData, the
// CAF info dictionary (and its ISRC quirk), Apple Loops chunks and MIDI
// chunks; hostile chunk lengths.

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

TEST(CoreAudioInfoTest, MutatedContainersNeverBreakTheReaders) {
    // Valid files with bytes overwritten near their headers and chunks, and
    // cut at random places: whatever the readers make of them, each gives a
    // record and nothing reads outside its buffers (the sanitizer run checks).
    TempDir dir;
    const std::vector<std::pair<std::string, Bytes>> originals = {
        {"wav",
         wavFile(2, 44100, 300,
                 {riffChunk("LIST", concat({text("INFO", false), riffChunk("INAM", text("N"))})),
                  riffChunk("midi", midiFile(500000, 2, 0))})},
        {"aifc", aiffFile(1, 8000, 400,
                          {iffChunk("uuid", appleLoopsPayload(
                                                {{"key signature", "C"}, {"beat count", "8"}}))})},
        {"caf", cafFile(2, 44100, 300,
                        {cafChunk("info", infoPairs({{"comments", "c"}, {"ISRC", "X"}})),
                         cafChunk("uuid", appleLoopsPayload({{"genre", "G"}}))})},
        {"dsf", dsfFile(2, 2822400, 40000, Bytes{'I', 'D', '3', 3, 0, 0, 0, 0, 0, 12, 'T',
                                                 'I', 'T', '2', 0, 0, 0, 2, 0, 0, 0,  'x'})},
    };
    uint32_t seed = 12345;
    auto next = [&] {
        seed = seed * 1103515245u + 12345u;
        return seed >> 8;
    };
    int count = 0;
    for (const auto& [extension, original] : originals) {
        for (int round = 0; round < 30; ++round) {
            Bytes bytes = original;
            const int edits = 1 + int(next() % 6);
            for (int e = 0; e < edits; ++e) {
                // Mostly the first 160 bytes, where the headers and sizes are.
                const size_t limit =
                    next() % 4 ? std::min<size_t>(160, bytes.size()) : bytes.size();
                bytes[next() % limit] = uint8_t(next());
            }
            if (round % 5 == 4)
                bytes.resize(next() % bytes.size());
            const std::string path = dir.file("m" + std::to_string(count++) + "." + extension);
            writeFile(path, bytes);
            const auto m = AudioMetadata::metadataFromFile(path);
            ASSERT_TRUE(m);
            EXPECT_EQ(m->sourceLocation(), path);
        }
    }
}
