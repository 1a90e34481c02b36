// Ogg Speex decoding against speexdec: the same length (the look-ahead
// trimmed at the start, the last granule position cutting the end) and the
// same content within rounding.

#include <iostream>

#include <gtest/gtest.h>

#include "core/KDDecoder.h"
#include "decoders/DecoderTestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

std::string makeSpeex(const TempDir& dir, const std::string& wav, const std::string& name,
                      const std::string& options = "") {
    const std::string out = dir.file(name);
    run("speexenc --quiet " + options + " " + shellQuote(wav) + " " + shellQuote(out));
    return out;
}

std::vector<int16_t> speexdecPCM(const TempDir& dir, const std::string& path) {
    const std::string raw = dir.file("speexdec.raw");
    run("speexdec --quiet " + shellQuote(path) + " " + shellQuote(raw) + " 2>/dev/null");
    return samplesOf(readFile(raw));
}

} // namespace

class OggSpeexModes : public ::testing::TestWithParam<std::tuple<uint32_t, uint32_t, const char*>> {
};

TEST_P(OggSpeexModes, LengthAndContentMatchSpeexdec) {
    const auto [rate, channels, options] = GetParam();
    TempDir dir;
    const double seconds = 2.37;
    const std::string wav = makeWav(dir, "in.wav", rate, channels, seconds);
    const std::string path = makeSpeex(dir, wav, "in.spx", options);
    auto decoder = KDDecoder::decoderWithFilename(path);
    ASSERT_TRUE(decoder);
    EXPECT_STREQ(decoder->className(), "OggSpeexDecoder");
    const auto f = decoder->decodeFormat();
    EXPECT_EQ(f.mSampleRate, rate);
    EXPECT_EQ(f.mChannelsPerFrame, channels);
    ASSERT_TRUE(decoder->channelLayout());
    EXPECT_EQ(decoder->channelLayout()->mChannelLayoutTag,
              channels == 1 ? kAudioChannelLayoutTag_Mono : kAudioChannelLayoutTag_Stereo);

    const auto pcm = decodeAll16(*decoder, 700);
    const int64_t frames = int64_t(pcm.size() / channels);
    EXPECT_EQ(frames, int64_t(seconds * rate + 0.5)) << "the encoder's input length";
    EXPECT_EQ(decoder->totalFrames(), frames);
    // speexdec keeps back the wideband decoder's last 63 samples, which
    // concealment frames push out here; everything it does give matches.
    auto reference = speexdecPCM(dir, path);
    ASSERT_LE(reference.size(), pcm.size());
    EXPECT_GE(reference.size(), pcm.size() - 64 * channels);
    const std::vector<int16_t> common(pcm.begin(), pcm.begin() + ptrdiff_t(reference.size()));
    const double snr = snrDb(reference, common);
    std::cout << "[ SNR      ] Speex " << rate << " Hz x" << channels << " " << options
              << " against speexdec: " << snr << " dB over " << reference.size() / channels
              << " of " << frames << " frames\n";
    EXPECT_EQ(common, reference);
}

INSTANTIATE_TEST_SUITE_P(NarrowWideUltraWideStereo, OggSpeexModes,
                         ::testing::Values(std::make_tuple(8000u, 1u, ""),
                                           std::make_tuple(16000u, 1u, ""),
                                           std::make_tuple(32000u, 1u, ""),
                                           std::make_tuple(8000u, 2u, "--stereo"),
                                           std::make_tuple(16000u, 2u, "--stereo --nframes 3")));
