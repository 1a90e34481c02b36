// Ogg Opus decoding: lengths from the granule positions at the output rate,
// content against opusdec at the same rate (the two differ only by their
// dither), the header's rate rules, and digital silence kept exact.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <iostream>

#include <gtest/gtest.h>
#include <ogg/ogg.h>

#include "core/KDDecoder.h"
#include "decoders/DecoderTestSupport.h"
#include "decoders/NoiseShapedDither.h"

using namespace velvox;
using namespace velvox::test;

namespace {

// 80 kb/s a channel keeps opusenc from folding surround down to stereo.
std::string makeOpus(const TempDir& dir, const std::string& wav, const std::string& name,
                     uint32_t channels = 2) {
    const std::string out = dir.file(name);
    run("opusenc --quiet --bitrate " + std::to_string(80 * channels) + " " + shellQuote(wav) + " " +
        shellQuote(out));
    return out;
}

std::vector<int16_t> opusdecPCM(const TempDir& dir, const std::string& path, uint32_t rate,
                                bool dither = true) {
    const std::string raw = dir.file("opusdec.raw");
    run("opusdec --quiet --rate " + std::to_string(rate) + (dither ? " " : " --no-dither ") +
        shellQuote(path) + " " + shellQuote(raw));
    return samplesOf(readFile(raw));
}

// Our output and opusdec's, each against opusdec's undithered output: the
// two must carry the same amount of dither noise and nothing else.
void expectOpusdecContent(const TempDir& dir, const std::string& path, uint32_t rate,
                          const std::vector<int16_t>& pcm, const std::string& what) {
    const auto plain = opusdecPCM(dir, path, rate, false);
    const auto dithered = opusdecPCM(dir, path, rate);
    ASSERT_EQ(pcm.size(), plain.size()) << what;
    const double ours = snrDb(plain, pcm);
    const double theirs = snrDb(plain, dithered);
    std::cout << "[ SNR      ] Opus " << what << ": " << ours << " dB (opusdec's dither: " << theirs
              << " dB)\n";
    EXPECT_GT(ours, theirs - 1.0) << what;
    EXPECT_GT(ours, 50.0) << what;
}

size_t find(const std::vector<uint8_t>& bytes, const std::string& what, bool last = false) {
    const auto it = last ? std::find_end(bytes.begin(), bytes.end(), what.begin(), what.end())
                         : std::search(bytes.begin(), bytes.end(), what.begin(), what.end());
    EXPECT_NE(it, bytes.end()) << what;
    return size_t(it - bytes.begin());
}

// Read straight from the bytes, independently of the decoder: the header's
// pre-skip and the last page's granule position.
struct GranuleFacts {
    uint32_t preskip = 0;
    int64_t lastGranule = 0;
};

GranuleFacts granuleFacts(const std::string& path) {
    const auto bytes = readFile(path);
    GranuleFacts facts;
    const size_t head = find(bytes, "OpusHead");
    facts.preskip = uint32_t(bytes[head + 10]) | uint32_t(bytes[head + 11]) << 8;
    const size_t page = find(bytes, "OggS", true);
    for (int i = 7; i >= 0; --i)
        facts.lastGranule = facts.lastGranule << 8 | bytes[page + 6 + size_t(i)];
    return facts;
}

// Rewrites the header's input rate and the first page's checksum.
void setHeaderRate(const std::string& path, uint32_t rate) {
    auto bytes = readFile(path);
    const size_t head = find(bytes, "OpusHead");
    for (int i = 0; i < 4; ++i)
        bytes[head + 12 + size_t(i)] = uint8_t(rate >> (8 * i));
    ogg_page page;
    page.header = bytes.data();
    page.header_len = 27 + bytes[26];
    page.body = bytes.data() + page.header_len;
    page.body_len = 0;
    for (int i = 0; i < bytes[26]; ++i)
        page.body_len += bytes[27 + size_t(i)];
    ogg_page_checksum_set(&page);
    writeFile(path, bytes);
}

} // namespace

class OggOpusRates : public ::testing::TestWithParam<std::tuple<uint32_t, uint32_t>> {};

TEST_P(OggOpusRates, GranuleTrimmedLengthAndOpusdecContentAtTheSourceRate) {
    const auto [rate, channels] = GetParam();
    TempDir dir;
    const double seconds = 3.0;
    const std::string wav = makeWav(dir, "in.wav", rate, channels, seconds);
    const std::string path = makeOpus(dir, wav, "in.opus", channels);
    auto decoder = KDDecoder::decoderWithFilename(path);
    ASSERT_TRUE(decoder);
    EXPECT_STREQ(decoder->className(), "OggOpusDecoder");
    const auto f = decoder->decodeFormat();
    EXPECT_EQ(f.mSampleRate, rate);
    EXPECT_EQ(f.mChannelsPerFrame, channels);
    EXPECT_EQ(f.mBitsPerChannel, 16u);

    const GranuleFacts facts = granuleFacts(path);
    EXPECT_EQ(decoder->totalFrames(), facts.lastGranule);
    const auto pcm = decodeAll16(*decoder, 4096);
    const int64_t expected = (facts.lastGranule - facts.preskip) * rate / 48000;
    EXPECT_EQ(int64_t(pcm.size() / channels), expected);
    // The encoder was given exactly this many frames.
    EXPECT_EQ(int64_t(pcm.size() / channels), int64_t(seconds * rate));

    expectOpusdecContent(dir, path, rate, pcm,
                         std::to_string(rate) + " Hz x" + std::to_string(channels));
}

INSTANTIATE_TEST_SUITE_P(RatesAndChannels, OggOpusRates,
                         ::testing::Values(std::make_tuple(48000u, 2u), std::make_tuple(48000u, 1u),
                                           std::make_tuple(44100u, 2u), std::make_tuple(16000u, 1u),
                                           std::make_tuple(48000u, 6u)));

TEST(OggOpusDecoder, SevenPointOneIsMultistreamWithExplicitDescriptions) {
    TempDir dir;
    const std::string path = makeOpus(dir, makeWav(dir, "in.wav", 48000, 8, 1.0), "in.opus", 8);
    auto decoder = KDDecoder::decoderWithFilename(path);
    ASSERT_TRUE(decoder);
    const AudioChannelLayout* layout = decoder->channelLayout();
    ASSERT_TRUE(layout);
    EXPECT_EQ(layout->mChannelLayoutTag, kAudioChannelLayoutTag_UseChannelDescriptions);
    ASSERT_EQ(layout->mChannelDescriptions.size(), 8u);
    EXPECT_EQ(layout->mChannelDescriptions[5].mChannelLabel, kAudioChannelLabel_RearSurroundLeft);
    EXPECT_EQ(layout->mChannelDescriptions[7].mChannelLabel, kAudioChannelLabel_LFEScreen);
    expectOpusdecContent(dir, path, 48000, decodeAll16(*decoder), "7.1");
}

TEST(OggOpusDecoder, HeaderRatesOutsideTheOpusRangeDecodeAt48kHz) {
    TempDir dir;
    const std::string wav = makeWav(dir, "in.wav", 48000, 2, 1.0);
    for (uint32_t headerRate : {0u, 96000u}) {
        const std::string path = makeOpus(dir, wav, "r" + std::to_string(headerRate) + ".opus");
        setHeaderRate(path, headerRate);
        auto decoder = KDDecoder::decoderWithFilename(path);
        ASSERT_TRUE(decoder) << headerRate;
        EXPECT_EQ(decoder->decodeFormat().mSampleRate, 48000) << headerRate;
        const GranuleFacts facts = granuleFacts(path);
        const auto pcm = decodeAll16(*decoder);
        EXPECT_EQ(int64_t(pcm.size() / 2), facts.lastGranule - facts.preskip) << headerRate;
        expectOpusdecContent(dir, path, 48000, pcm, "header rate " + std::to_string(headerRate));
    }
}

// The reference encoder never produces packets that decode to exact zeros
// (it shapes its own noise floor), so silence is fed to the dither directly:
// from the start, and after loud audio once the silence has lasted.
TEST(OggOpusDecoder, DitherKeepsDigitalSilenceExactlyZero) {
    for (uint32_t rate : {48000u, 44100u, 22050u}) {
        NoiseShapedDither dither(2, rate);
        const std::vector<float> zeros(2 * 960, 0.f);
        std::vector<int16_t> out(2 * 960, 1);
        dither.toShort(out.data(), zeros.data(), 960);
        EXPECT_EQ(std::count(out.begin(), out.end(), int16_t(0)), 2 * 960) << rate;

        std::vector<float> loud(2 * 960);
        for (size_t i = 0; i < loud.size(); ++i)
            loud[i] = 0.5f * std::sin(float(i) * 0.01f);
        dither.toShort(out.data(), loud.data(), 960);
        EXPECT_GT(std::count_if(out.begin(), out.end(), [](int16_t s) { return s > 10000; }), 100);
        // The silent block that follows settles within its first frames; the
        // next one, with the shaping filter's memory cleared, is all zeros.
        dither.toShort(out.data(), zeros.data(), 960);
        EXPECT_EQ(std::count(out.begin() + 2 * 100, out.end(), int16_t(0)), 2 * 860) << rate;
        dither.toShort(out.data(), zeros.data(), 960);
        EXPECT_EQ(std::count(out.begin(), out.end(), int16_t(0)), 2 * 960) << rate;
    }
}
