#include <cmath>
#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "platform/AudioConverter.h"
#include "support/TestSupport.h"

using namespace velvox;

namespace {

AudioStreamBasicDescription intFormat(uint32_t bits, uint32_t channels, double rate = 44100,
                                      bool bigEndian = false) {
    AudioStreamBasicDescription f;
    f.mSampleRate = rate;
    f.mFormatID = kAudioFormatLinearPCM;
    f.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked |
                     (bigEndian ? kAudioFormatFlagIsBigEndian : 0);
    f.mBitsPerChannel = bits;
    f.mChannelsPerFrame = channels;
    f.mBytesPerFrame = f.mBytesPerPacket = bits / 8 * channels;
    f.mFramesPerPacket = 1;
    return f;
}

// Feeds `input` (interleaved bytes) in pieces of at most `piece` frames.
struct Feeder {
    std::vector<uint8_t> input;
    uint32_t bytesPerFrame;
    uint32_t piece;
    size_t offset = 0;
    int calls = 0;
    AudioConverter::InputDataProc proc() {
        return [this](uint32_t& packets, AudioBufferList& list) {
            ++calls;
            const size_t framesLeft = (input.size() - offset) / bytesPerFrame;
            packets = uint32_t(std::min<size_t>({packets, piece, framesLeft}));
            list.mBuffers[0].mData = input.data() + offset;
            list.mBuffers[0].mDataByteSize = packets * bytesPerFrame;
            offset += size_t(packets) * bytesPerFrame;
            return noErr;
        };
    }
};

std::vector<uint8_t> convertAll(AudioConverter& c, Feeder& feeder, uint32_t outBytesPerFrame,
                                uint32_t request = 1000) {
    std::vector<uint8_t> out;
    std::vector<uint8_t> chunk(size_t(request) * outBytesPerFrame);
    for (;;) {
        auto list = AudioBufferList::single(chunk.data(), uint32_t(chunk.size()), 0);
        uint32_t packets = request;
        EXPECT_EQ(c.fillComplexBuffer(feeder.proc(), packets, list), noErr);
        EXPECT_EQ(list.mBuffers[0].mDataByteSize, packets * outBytesPerFrame);
        out.insert(out.end(), chunk.begin(), chunk.begin() + packets * outBytesPerFrame);
        if (packets < request)
            break;
    }
    return out;
}

} // namespace

TEST(AudioConverter, WideningIntegersIsExact) {
    const auto samples = test::makeSignal(5000, 2, 16);
    Feeder feeder{test::packLittleEndian(samples, 16), 4, 777};
    auto c = AudioConverter::create(intFormat(16, 2), intFormat(24, 2));
    ASSERT_TRUE(c);
    const auto out = test::unpackLittleEndian(convertAll(*c, feeder, 6), 24);
    ASSERT_EQ(out.size(), samples.size());
    for (size_t i = 0; i < out.size(); ++i)
        ASSERT_EQ(out[i], samples[i] * 256) << i;
}

TEST(AudioConverter, NarrowingRoundsToNearestAndClips) {
    const std::vector<int32_t> in = {0x7FFFFF,  0x7FFF7F,  0x000080,  0x00007F,
                                     -0x000080, -0x000081, -0x800000, 1000 * 256 + 128};
    Feeder feeder{test::packLittleEndian(in, 24), 3, 100};
    auto c = AudioConverter::create(intFormat(24, 1), intFormat(16, 1));
    const auto out = test::unpackLittleEndian(convertAll(*c, feeder, 2), 16);
    // Halves round to even; the top of the range clips instead of wrapping.
    const std::vector<int32_t> expected = {32767, 32767, 0, 0, 0, -1, -32768, 1000};
    EXPECT_EQ(out, expected);
}

TEST(AudioConverter, ResamplingKeepsPitchLengthAndLevel) {
    // One second of a 1 kHz sine at -6 dBFS, 44.1 kHz to 48 kHz.
    const uint32_t frames = 44100;
    std::vector<int32_t> in(frames * 2);
    for (uint32_t i = 0; i < frames; ++i)
        in[2 * i] = in[2 * i + 1] =
            int32_t(std::lround(16384 * std::sin(2 * M_PI * 1000 * i / 44100.0)));
    Feeder feeder{test::packLittleEndian(in, 16), 4, 1000};
    auto c = AudioConverter::create(intFormat(16, 2, 44100), intFormat(16, 2, 48000));
    ASSERT_TRUE(c);
    c->setSampleRateConverterQuality(kAudioConverterQuality_Max);
    const auto out = test::unpackLittleEndian(convertAll(*c, feeder, 4, 4096), 16);
    const size_t outFrames = out.size() / 2;
    EXPECT_NEAR(double(outFrames), 48000.0, 2.0);
    // Compare the middle against an ideal 1 kHz sine at 48 kHz: the filter's
    // delay is compensated by soxr, so phase must line up as well.
    double maxError = 0;
    for (size_t i = 2000; i < 46000; ++i) {
        const double ideal = 16384 * std::sin(2 * M_PI * 1000 * double(i) / 48000.0);
        maxError = std::max(maxError, std::abs(out[2 * i] - ideal));
        ASSERT_EQ(out[2 * i], out[2 * i + 1]);
    }
    EXPECT_LT(maxError, 3.0);
}

TEST(AudioConverter, ChunkingOfInputAndOutputDoesNotChangeResampledOutput) {
    const auto samples = test::makeSignal(20000, 1, 16, 9);
    Feeder a{test::packLittleEndian(samples, 16), 2, 20000};
    Feeder b{test::packLittleEndian(samples, 16), 2, 37};
    auto ca = AudioConverter::create(intFormat(16, 1, 48000), intFormat(24, 1, 44100));
    auto cb = AudioConverter::create(intFormat(16, 1, 48000), intFormat(24, 1, 44100));
    const auto whole = convertAll(*ca, a, 3, 50000);
    const auto pieces = convertAll(*cb, b, 3, 333);
    EXPECT_EQ(whole.size(), pieces.size());
    EXPECT_EQ(test::md5Hex(whole), test::md5Hex(pieces));
}
