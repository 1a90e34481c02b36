#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/KDChannelMixer.h"
#include "core/UtilityFunctions.h"
#include "support/TestSupport.h"

using namespace velvox;
using velvox::test::makeSignal;
using velvox::test::packLittleEndian;

namespace {

constexpr double kRate = 48000;
// 1/sqrt(2) as a 32-bit float: the BS.775 -3 dB weight and the stereo-to-mono
// master gain, written out here rather than taken from the code under test.
constexpr float kW = 0.70710677f;

AudioStreamBasicDescription intFormat(uint32_t bits, uint32_t channels, double rate = kRate) {
    AudioStreamBasicDescription f;
    f.mSampleRate = rate;
    f.mFormatID = kAudioFormatLinearPCM;
    f.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    f.mBitsPerChannel = bits;
    f.mChannelsPerFrame = channels;
    f.mBytesPerFrame = f.mBytesPerPacket = bits / 8 * channels;
    f.mFramesPerPacket = 1;
    return f;
}

AudioChannelLayout tagLayout(AudioChannelLayoutTag tag) { return *createChannelLayoutWithTag(tag); }

// The mixer works in 32-bit float: a mixed sample is the float nearest to the
// exact weighted sum, then rounded to the nearest integer (ties to even) and
// clipped. `exactSum` is in integer sample units; scaling by a power of two
// does not change float rounding, so this is the same as rounding the
// normalised value.
int32_t integerFromSum(double exactSum, uint32_t bits) {
    const double top = std::ldexp(1.0, int(bits) - 1);
    const double v = std::nearbyint(double(float(exactSum)));
    return int32_t(std::clamp(v, -top, top - 1));
}

// Runs one block through a mixer; the destination buffer is sized exactly.
std::vector<uint8_t> mixBytes(KDChannelMixer& mixer, std::vector<uint8_t> source, uint32_t frames,
                              uint32_t destBytesPerFrame, OSStatus* status = nullptr) {
    std::vector<uint8_t> out(size_t(frames) * destBytesPerFrame, 0xEE);
    AudioBufferList src = AudioBufferList::single(source.data(), uint32_t(source.size()), 0);
    AudioBufferList dst = AudioBufferList::single(out.data(), uint32_t(out.size()), 0);
    const OSStatus s = mixer.mixFrom(&src, &dst, frames);
    if (status) {
        *status = s;
    } else {
        EXPECT_EQ(s, noErr);
    }
    if (s == noErr) {
        EXPECT_EQ(dst.mBuffers[0].mDataByteSize, out.size());
    }
    return out;
}

std::unique_ptr<KDChannelMixer> makeMixer(uint32_t bits, uint32_t srcChannels,
                                          AudioChannelLayoutTag srcTag, uint32_t destChannels,
                                          AudioChannelLayoutTag destTag) {
    auto mixer = KDChannelMixer::create(intFormat(bits, srcChannels), intFormat(bits, destChannels),
                                        tagLayout(srcTag), tagLayout(destTag));
    EXPECT_NE(mixer, nullptr);
    return mixer;
}

// A stereo signal with the cases that matter for a -3 dB fold: full scale
// both ways, opposite extremes, and small values near rounding edges, followed
// by the shared test signal.
std::vector<int32_t> stereoSignal(uint32_t bits, uint32_t frames) {
    const int32_t top = int32_t((1u << (bits - 1)) - 1), bottom = -top - 1;
    std::vector<int32_t> s{top, top, bottom, bottom, top, bottom, 0, 0, 1,   0,      1,
                           1,   -1,  -2,     3,      -4,  5,      6, 0, top, bottom, 0};
    const auto rest = makeSignal(frames - uint32_t(s.size() / 2), 2, bits, 7);
    s.insert(s.end(), rest.begin(), rest.end());
    return s;
}

} // namespace

TEST(KDChannelMixerTest, StereoToMonoIsMinus3dBOfTheSum) {
    for (uint32_t bits : {16u, 24u}) {
        SCOPED_TRACE(bits);
        const uint32_t frames = 6000;
        const auto in = stereoSignal(bits, frames);
        auto mixer =
            makeMixer(bits, 2, kAudioChannelLayoutTag_Stereo, 1, kAudioChannelLayoutTag_Mono);
        ASSERT_TRUE(mixer);
        const auto out = test::unpackLittleEndian(
            mixBytes(*mixer, packLittleEndian(in, bits), frames, bits / 8), bits);
        ASSERT_EQ(out.size(), frames);
        for (uint32_t f = 0; f < frames; ++f) {
            const double sum = double(in[2 * f]) + double(in[2 * f + 1]);
            ASSERT_EQ(out[f], integerFromSum(double(kW) * sum, bits)) << "frame " << f;
        }
        // Spot checks that do not depend on the model above.
        EXPECT_EQ(out[0], int32_t((1u << (bits - 1)) - 1)); // clipped at the top
        EXPECT_EQ(out[1], -int32_t(1u << (bits - 1)));      // clipped at the bottom
        EXPECT_EQ(out[2], -1);                              // 0.7071 * -1
        EXPECT_EQ(out[3], 0);
        EXPECT_EQ(out[4], 1);  // 0.7071 * 1
        EXPECT_EQ(out[5], 1);  // 0.7071 * 2 = 1.41
        EXPECT_EQ(out[6], -2); // 0.7071 * -3 = -2.12
    }
}

TEST(KDChannelMixerTest, FivePointOneToStereoUsesBS775Weights) {
    for (uint32_t bits : {16u, 24u}) {
        SCOPED_TRACE(bits);
        const uint32_t frames = 5000;
        // Quarter-scale content, so most samples are not clipped and the
        // weights show; every channel differs so a swap shows too.
        auto in = makeSignal(frames, 6, bits, 3);
        for (auto& v : in)
            v /= 4;
        auto mixer =
            makeMixer(bits, 6, kAudioChannelLayoutTag_MPEG_5_1_A, 2, kAudioChannelLayoutTag_Stereo);
        ASSERT_TRUE(mixer);
        const auto out = test::unpackLittleEndian(
            mixBytes(*mixer, packLittleEndian(in, bits), frames, 2 * bits / 8), bits);
        ASSERT_EQ(out.size(), 2 * frames);
        for (uint32_t f = 0; f < frames; ++f) {
            const int32_t* x = &in[6 * f]; // L R C LFE Ls Rs
            const double left = x[0] + double(kW) * x[2] + double(kW) * x[4];
            const double right = x[1] + double(kW) * x[2] + double(kW) * x[5];
            ASSERT_EQ(out[2 * f], integerFromSum(left, bits)) << "frame " << f;
            ASSERT_EQ(out[2 * f + 1], integerFromSum(right, bits)) << "frame " << f;
        }
    }
}

TEST(KDChannelMixerTest, LongBlockMatchesTheSameSignalInSmallBlocks) {
    // Several slices plus a partial one in a single call, against blocks that
    // each fit in one slice.
    const uint32_t frames = 3 * KDChannelMixer::kMaximumFramesPerSlice + 1234;
    const uint32_t bits = 24, bytesIn = 6 * 3, bytesOut = 2 * 3;
    const auto in = packLittleEndian(makeSignal(frames, 6, bits, 13), bits);

    auto whole =
        makeMixer(bits, 6, kAudioChannelLayoutTag_MPEG_5_1_C, 2, kAudioChannelLayoutTag_Stereo);
    ASSERT_TRUE(whole);
    const auto expected = mixBytes(*whole, in, frames, bytesOut);

    auto pieces =
        makeMixer(bits, 6, kAudioChannelLayoutTag_MPEG_5_1_C, 2, kAudioChannelLayoutTag_Stereo);
    ASSERT_TRUE(pieces);
    std::vector<uint8_t> joined;
    for (uint32_t at = 0; at < frames;) {
        const uint32_t n = std::min<uint32_t>(997, frames - at);
        const std::vector<uint8_t> block(in.begin() + long(size_t(at) * bytesIn),
                                         in.begin() + long(size_t(at + n) * bytesIn));
        const auto mixed = mixBytes(*pieces, block, n, bytesOut);
        joined.insert(joined.end(), mixed.begin(), mixed.end());
        at += n;
    }
    ASSERT_EQ(joined.size(), expected.size());
    EXPECT_TRUE(joined == expected);
    // And the long block is not just consistently wrong: its last frame's
    // left channel is L + 0.7071 C + 0.7071 Ls of the last source frame.
    const auto src = makeSignal(frames, 6, bits, 13);
    const auto out = test::unpackLittleEndian(expected, bits);
    const int32_t* x = &src[6 * size_t(frames - 1)]; // L C R Ls Rs LFE
    EXPECT_EQ(out[2 * size_t(frames - 1)],
              integerFromSum(x[0] + double(kW) * x[1] + double(kW) * x[3], bits));
}
