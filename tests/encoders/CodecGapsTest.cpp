// AAC in MP4 must come back at exactly the source's length from every
// reader: FFmpeg 5.1, which trims the priming but never the padding at the
// end, and our own decoder, which trims both. Judged on files written by the
// FFmpeg back end with right, wrong and unknown length estimates.

#include <cmath>
#include <string>

#include <gtest/gtest.h>

#include "core/KDDecoder.h"
#include "decoders/FFMPEGDecoder.h"
#include "decoders/DecoderTestSupport.h"
#include "encoders/LibavMuxerBackEnd.h"
#include "support/TestSupport.h"

using namespace velvox;

namespace {

struct AACCase {
    uint32_t frames;
    uint32_t channels;
    uint32_t rate;
    int64_t estimate; // what the back end is told; 0 is unknown
};

// The first entry of the first edit list (version 0), read by hand.
std::pair<int64_t, int64_t> editList(const std::string& path) {
    const std::vector<uint8_t> b = test::readFile(path);
    const size_t at = std::string(b.begin(), b.end()).find("elst");
    if (at == std::string::npos || at + 20 > b.size())
        return {-1, -1};
    auto be32 = [&b](size_t i) {
        return int64_t(uint32_t(b[i]) << 24 | uint32_t(b[i + 1]) << 16 | uint32_t(b[i + 2]) << 8 |
                       uint32_t(b[i + 3]));
    };
    return {be32(at + 12), be32(at + 16)}; // segment duration, media time
}

template <typename Bytes>
std::vector<int16_t> asInt16(const Bytes& bytes) {
    std::vector<int16_t> s(bytes.size() / 2);
    for (size_t i = 0; i < s.size(); ++i)
        s[i] = int16_t(uint16_t(uint8_t(bytes[2 * i]) | uint8_t(bytes[2 * i + 1]) << 8));
    return s;
}

// How far the decoded audio is from the source, delayed by `lag` frames.
double differenceDB(const std::vector<int32_t>& source, const std::vector<int16_t>& decoded,
                    uint32_t channels, uint32_t lag) {
    double signal = 0, difference = 0;
    for (size_t i = size_t(lag) * channels; i < source.size() && i < decoded.size(); ++i) {
        signal += double(source[i - lag * channels]) * source[i - lag * channels];
        const double d = double(source[i - lag * channels]) - decoded[i];
        difference += d * d;
    }
    return 10 * std::log10(signal / std::max(difference, 1.0));
}

class AACLengthTest : public ::testing::TestWithParam<AACCase> {};

} // namespace

TEST_P(AACLengthTest, FFmpegAndOurDecoderGiveTheSourcesFrames) {
    ASSERT_TRUE(test::haveTool("ffmpeg"));
    const AACCase c = GetParam();
    test::TempDir dir;
    const std::string path = dir.file("out.m4a");
    std::vector<int32_t> source(size_t(c.frames) * c.channels);
    // Rising tones: a misplaced start shows in a way a steady tone hides.
    for (size_t i = 0; i < source.size(); ++i) {
        const double t = double(i / c.channels) / c.rate;
        const double base = 200.0 + 150.0 * double(i % c.channels);
        source[i] = int32_t(std::lround(12000 * std::sin(2 * M_PI * (base + 300 * t) * t)));
    }
    const std::vector<uint8_t> pcm = test::packLittleEndian(source, 16);

    const auto format =
        CoreAudioOutputFormat::formatFor(kAudioFileM4AType, kAudioFormatMPEG4AAC, 0);
    ASSERT_TRUE(format);
    LibavMuxerBackEnd backEnd;
    backEnd.open(path, *format, {double(c.rate), c.channels, 16, 128000, c.estimate});
    for (uint32_t done = 0; done < c.frames;) {
        const uint32_t n = std::min<uint32_t>(c.frames - done, 7000);
        backEnd.write(pcm.data() + size_t(done) * 2 * c.channels, n);
        done += n;
    }
    backEnd.finish();
    const uint32_t priming = backEnd.primingFrames();
    const uint32_t padding = backEnd.paddingFrames();
    backEnd.close();

    // The edit list and the gapless facts agree on the real audio.
    const auto [duration, mediaTime] = editList(path);
    EXPECT_EQ(duration, c.frames);
    EXPECT_EQ(mediaTime, priming);
    if (c.estimate == c.frames) {
        EXPECT_EQ(padding, 0u);
    }

    const auto ffmpeg = asInt16(
        test::runCommand("ffmpeg -v error -i " + test::shellQuote(path) + " -f s16le -").output);
    EXPECT_EQ(ffmpeg.size() / c.channels, size_t(c.frames) + padding);
    // In time with the source, not shifted by the priming or the silence
    // put before the audio.
    const double aligned = differenceDB(source, ffmpeg, c.channels, 0);
    EXPECT_GE(aligned, 15.0);
    EXPECT_LT(differenceDB(source, ffmpeg, c.channels, 32), aligned - 6.0);

    // Both of our decoders: the one the factory picks for MP4, which obeys
    // the whole edit list, and the FFmpeg fallback, which obeys its start.
    std::vector<std::unique_ptr<KDDecoder>> decoders;
    decoders.push_back(KDDecoder::decoderWithFilename(path));
    decoders.push_back(std::make_unique<FFMPEGDecoder>());
    ASSERT_TRUE(decoders[0] && decoders[1]->initWithFilename(path));
    for (size_t k = 0; k < decoders.size(); ++k) {
        SCOPED_TRACE(decoders[k]->className());
        const test::Decoded ours = test::decodeAll(*decoders[k]);
        EXPECT_EQ(ours.frames, size_t(c.frames) + (k == 1 ? padding : 0));
        EXPECT_GE(differenceDB(source, asInt16(ours.pcm), c.channels, 0), 15.0);
    }
}

INSTANTIATE_TEST_SUITE_P(
    CodecGaps, AACLengthTest,
    ::testing::Values(AACCase{54441, 2, 44100, 54441},       // padding needed without care
                      AACCase{144000, 1, 48000, 144000},     // mono at another rate
                      AACCase{5 * 1024, 2, 44100, 5 * 1024}, // already whole frames
                      AACCase{30000, 2, 44100, 30100},       // a resampler's estimate, off
                      AACCase{30000, 2, 44100, 0}),          // length unknown
    [](const auto& info) {
        const AACCase& c = info.param;
        return std::to_string(c.frames) + "x" + std::to_string(c.channels) + "at" +
               std::to_string(c.rate) + "told" + std::to_string(c.estimate);
    });
