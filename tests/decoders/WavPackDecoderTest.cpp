// WavPack decoding checked bit for bit against the samples the fixtures were
// made from and against the reference decoder `wvunpack`.

#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

#include "decoders/DecoderTestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

std::unique_ptr<KDDecoder> openWavPack(const std::string& path) {
    auto decoder = KDDecoder::decoderWithFilename(path);
    EXPECT_NE(decoder, nullptr) << path;
    if (decoder) {
        EXPECT_STREQ(decoder->className(), "WavPackDecoder");
    }
    return decoder;
}

// wvunpack's raw output, signed for every depth (its 8-bit data are unsigned).
std::vector<uint8_t> wvunpackRaw(const std::string& path, uint32_t bits) {
    auto raw = outputOf("wvunpack -q -y -r " + shellQuote(path) + " -o -");
    return bits == 8 ? flipSign8(std::move(raw)) : raw;
}

} // namespace

TEST(WavPackDecoderTest, IntegerDepthsAndLayoutsAreBitExact) {
    struct Case {
        uint32_t bits, channels, mask;
        const char* mode;
        AudioChannelLayoutTag tag;
    };
    const Case cases[] = {
        {8, 1, 0, "-f", kAudioChannelLayoutTag_Mono},
        {16, 2, 0, "", kAudioChannelLayoutTag_Stereo},
        {16, 6, 0x3F, "-h", kAudioChannelLayoutTag_Unknown},
        {24, 2, 0, "-hh -x3", kAudioChannelLayoutTag_Stereo},
        {24, 6, 0x3F, "", kAudioChannelLayoutTag_Unknown},
        {32, 1, 0, "", kAudioChannelLayoutTag_Mono},
        {32, 2, 0, "-f", kAudioChannelLayoutTag_Stereo},
    };
    TempDir dir;
    const uint32_t frames = 44100 + 333; // not a multiple of any block size
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.bits) + " bit, " + std::to_string(c.channels) + " ch");
        const std::string wav = dir.file("in.wav"), wv = dir.file("out.wv");
        const auto samples = makeSignal(frames, c.channels, c.bits, c.bits + c.channels);
        writeWav(wav, samples, c.channels, 44100, c.bits, c.mask);
        run("wavpack -q -y " + std::string(c.mode) + " " + shellQuote(wav) + " -o " +
            shellQuote(wv));

        auto decoder = openWavPack(wv);
        ASSERT_NE(decoder, nullptr);
        const auto format = decoder->decodeFormat();
        EXPECT_EQ(format.mBitsPerChannel, c.bits);
        EXPECT_EQ(format.mChannelsPerFrame, c.channels);
        EXPECT_EQ(format.mBytesPerFrame, c.bits / 8 * c.channels);
        EXPECT_EQ(format.mFormatFlags, 0xCu);
        EXPECT_EQ(format.mSampleRate, 44100.0);
        ASSERT_NE(decoder->channelLayout(), nullptr);
        EXPECT_EQ(decoder->channelLayout()->mChannelLayoutTag, c.tag);
        EXPECT_EQ(decoder->totalFrames(), int64_t(frames));

        const Decoded d = decodeAll(*decoder, {1000});
        EXPECT_EQ(d.frames, frames);
        EXPECT_TRUE(d.pcm == packLittleEndian(samples, c.bits)) << "differs from the source";
        EXPECT_TRUE(d.pcm == wvunpackRaw(wv, c.bits)) << "differs from wvunpack";
    }
}

TEST(WavPackDecoderTest, HybridFileUsesItsCorrectionFile) {
    TempDir dir;
    const uint32_t frames = 60000;
    const auto samples = makeSignal(frames, 2, 16, 42);
    writeWav(dir.file("in.wav"), samples, 2, 48000, 16);
    run("wavpack -q -y -b3 -c " + shellQuote(dir.file("in.wav")) + " -o " +
        shellQuote(dir.file("h.wv")));
    ASSERT_TRUE(std::filesystem::exists(dir.file("h.wvc")));

    auto lossless = openWavPack(dir.file("h.wv"));
    ASSERT_NE(lossless, nullptr);
    const Decoded withCorrection = decodeAll(*lossless);
    EXPECT_TRUE(withCorrection.pcm == packLittleEndian(samples, 16));
    EXPECT_TRUE(withCorrection.pcm == wvunpackRaw(dir.file("h.wv"), 16));

    // Without its companion the same file decodes lossy, which shows the
    // correction data above really came from the .wvc.
    std::filesystem::rename(dir.file("h.wvc"), dir.file("away.wvc"));
    auto lossy = openWavPack(dir.file("h.wv"));
    ASSERT_NE(lossy, nullptr);
    const Decoded withoutCorrection = decodeAll(*lossy);
    EXPECT_EQ(withoutCorrection.frames, frames);
    EXPECT_FALSE(withoutCorrection.pcm == withCorrection.pcm);
    EXPECT_TRUE(withoutCorrection.pcm == wvunpackRaw(dir.file("h.wv"), 16));
}

TEST(WavPackDecoderTest, FloatFilesBecome32BitIntegers) {
    TempDir dir;
    const std::string wav = dir.file("f.wav"), wv = dir.file("f.wv");
    run("sox -n -r 44100 -c 2 -b 32 -e floating-point " + shellQuote(wav) +
        " synth 1 sine 440 sine 1000 gain -2");
    run("wavpack -q -y " + shellQuote(wav) + " -o " + shellQuote(wv));
    // The float samples themselves, as wvunpack restores them.
    const auto floats = outputOf("wvunpack -q -y -r " + shellQuote(wv) + " -o -");
    ASSERT_EQ(floats.size(), 44100u * 2 * 4);

    auto decoder = openWavPack(wv);
    ASSERT_NE(decoder, nullptr);
    EXPECT_EQ(decoder->decodeFormat().mBitsPerChannel, 32u);
    EXPECT_EQ(decoder->decodeFormat().mFormatFlags, 0xCu); // integers, not float
    const Decoded d = decodeAll(*decoder);
    ASSERT_EQ(d.pcm.size(), floats.size());
    double peak = 0;
    for (size_t i = 0; i < floats.size() / 4; ++i) {
        float f;
        int32_t s;
        std::memcpy(&f, &floats[4 * i], 4);
        std::memcpy(&s, &d.pcm[4 * i], 4);
        const double expected = double(f) * 2147483648.0;
        ASSERT_NEAR(double(s), std::clamp(expected, -2147483648.0, 2147483647.0), 1.0) << i;
        peak = std::max(peak, std::abs(double(s)));
    }
    // -2 dB: about 0.79 of full scale, far from what raw float bits would give.
    EXPECT_NEAR(peak / 2147483648.0, 0.794, 0.01);
}
