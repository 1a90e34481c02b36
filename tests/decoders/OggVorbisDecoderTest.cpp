// Ogg Vorbis decoding checked bit for bit against oggdec, which makes the
// same libvorbisfile call, and the channel layouts of multichannel files.

#include <gtest/gtest.h>

#include "core/KDDecoder.h"
#include "decoders/DecoderTestSupport.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"

using namespace velvox;
using namespace velvox::test;

namespace {

std::string makeVorbis(const TempDir& dir, const std::string& name, uint32_t rate,
                       uint32_t channels, double seconds) {
    const std::string wav = makeWav(dir, name + ".wav", rate, channels, seconds);
    const std::string out = dir.file(name);
    run("oggenc -Q -q 3 -o " + shellQuote(out) + " " + shellQuote(wav));
    return out;
}

std::vector<int16_t> oggdecPCM(const TempDir& dir, const std::string& path) {
    const std::string raw = dir.file("oggdec.raw");
    run("oggdec -Q -R -b 16 -e 0 -s 1 -o " + shellQuote(raw) + " " + shellQuote(path));
    return samplesOf(readFile(raw));
}

} // namespace

class OggVorbisBitExact
    : public ::testing::TestWithParam<std::tuple<uint32_t, uint32_t, AudioChannelLayoutTag>> {};

TEST_P(OggVorbisBitExact, MatchesOggdecAndAnnouncesTheVorbisLayout) {
    const auto [rate, channels, tag] = GetParam();
    TempDir dir;
    // ".opus" on purpose: the content, not the name, picks the decoder.
    const std::string path = makeVorbis(dir, "in.opus", rate, channels, 2.5);
    auto decoder = KDDecoder::decoderWithFilename(path);
    ASSERT_TRUE(decoder);
    EXPECT_STREQ(decoder->className(), "OggVorbisDecoder");
    const auto f = decoder->decodeFormat();
    EXPECT_EQ(f.mSampleRate, rate);
    EXPECT_EQ(f.mFormatFlags, 0xCu);
    EXPECT_EQ(f.mChannelsPerFrame, channels);
    EXPECT_EQ(f.mBytesPerFrame, 2 * channels);
    ASSERT_TRUE(decoder->channelLayout());
    EXPECT_EQ(decoder->channelLayout()->mChannelLayoutTag, tag);

    const auto pcm = decodeAll16(*decoder, 1000);
    const auto reference = oggdecPCM(dir, path);
    EXPECT_EQ(decoder->totalFrames(), int64_t(2.5 * rate));
    EXPECT_EQ(int64_t(pcm.size()), decoder->totalFrames() * channels);
    EXPECT_EQ(pcm, reference);
}

INSTANTIATE_TEST_SUITE_P(
    RatesAndChannels, OggVorbisBitExact,
    ::testing::Values(std::make_tuple(44100u, 1u, kAudioChannelLayoutTag_Mono),
                      std::make_tuple(48000u, 2u, kAudioChannelLayoutTag_Stereo),
                      std::make_tuple(22050u, 3u, kAudioChannelLayoutTag_MPEG_3_0_A),
                      std::make_tuple(44100u, 6u, kAudioChannelLayoutTag_MPEG_5_1_C)));

TEST(OggVorbisDecoder, SevenPointOneGetsEightExplicitDescriptions) {
    TempDir dir;
    const std::string path = makeVorbis(dir, "in.ogg", 48000, 8, 1.0);
    auto decoder = KDDecoder::decoderWithFilename(path);
    ASSERT_TRUE(decoder);
    const AudioChannelLayout* layout = decoder->channelLayout();
    ASSERT_TRUE(layout);
    EXPECT_EQ(layout->mChannelLayoutTag, kAudioChannelLayoutTag_UseChannelDescriptions);
    EXPECT_EQ(layout->mChannelBitmap, 0u);
    ASSERT_EQ(layout->mNumberChannelDescriptions, 8u);
    const std::vector<AudioChannelLabel> expected = {1, 3, 2, 5, 6, 33, 34, 4};
    for (size_t i = 0; i < 8; ++i) {
        EXPECT_EQ(layout->mChannelDescriptions[i].mChannelLabel, expected[i]) << i;
        EXPECT_EQ(layout->mChannelDescriptions[i].mChannelFlags, 0u);
    }
    EXPECT_EQ(decodeAll16(*decoder), oggdecPCM(dir, path));
}

TEST(OggVorbisDecoder, ChainedFileTakesTheFormatOfItsFirstLink) {
    TempDir dir;
    auto mono = readFile(makeVorbis(dir, "a.ogg", 44100, 1, 0.5));
    const auto stereo = readFile(makeVorbis(dir, "b.ogg", 44100, 2, 0.5));
    mono.insert(mono.end(), stereo.begin(), stereo.end());
    writeFile(dir.file("chain.ogg"), mono);
    auto decoder = KDDecoder::decoderWithFilename(dir.file("chain.ogg"));
    ASSERT_TRUE(decoder);
    EXPECT_EQ(decoder->decodeFormat().mChannelsPerFrame, 1u);
    EXPECT_EQ(decoder->totalFrames(), 44100);
}
