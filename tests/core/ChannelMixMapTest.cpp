#include <cmath>
#include <numeric>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/ChannelMixMap.h"
#include "core/UtilityFunctions.h"

using namespace velvox;

namespace {

constexpr AudioChannelLabel L = kAudioChannelLabel_Left;
constexpr AudioChannelLabel R = kAudioChannelLabel_Right;
constexpr AudioChannelLabel C = kAudioChannelLabel_Center;
constexpr AudioChannelLabel LFE = kAudioChannelLabel_LFEScreen;
constexpr AudioChannelLabel Ls = kAudioChannelLabel_LeftSurround;
constexpr AudioChannelLabel Rs = kAudioChannelLabel_RightSurround;
constexpr AudioChannelLabel Cs = kAudioChannelLabel_CenterSurround;
constexpr AudioChannelLabel Rls = kAudioChannelLabel_RearSurroundLeft;
constexpr AudioChannelLabel Rrs = kAudioChannelLabel_RearSurroundRight;

// 1/sqrt(2) as the 32-bit weight the map stores.
const float kW = float(1.0 / std::sqrt(2.0));

AudioChannelLayout tagLayout(AudioChannelLayoutTag tag) { return *createChannelLayoutWithTag(tag); }
AudioChannelLayout labelLayout(const std::vector<AudioChannelLabel>& labels) {
    return *createChannelLayoutWithLabels(labels);
}
AudioChannelLayout bitmapLayout(AudioChannelBitmap bitmap) {
    AudioChannelLayout layout;
    layout.mChannelLayoutTag = kAudioChannelLayoutTag_UseChannelBitmap;
    layout.mChannelBitmap = bitmap;
    return layout;
}

struct NamedLayout {
    std::string name;
    AudioChannelLayout layout;
};

// Every layout a decoder can hand to the mixer.
std::vector<NamedLayout> decoderLayouts() {
    return {
        {"Mono", tagLayout(kAudioChannelLayoutTag_Mono)},
        {"Stereo", tagLayout(kAudioChannelLayoutTag_Stereo)},
        {"MPEG_3_0_A", tagLayout(kAudioChannelLayoutTag_MPEG_3_0_A)},
        {"Quadraphonic", tagLayout(kAudioChannelLayoutTag_Quadraphonic)},
        {"MPEG_5_0_A", tagLayout(kAudioChannelLayoutTag_MPEG_5_0_A)},
        {"MPEG_5_0_C", tagLayout(kAudioChannelLayoutTag_MPEG_5_0_C)},
        {"MPEG_5_1_A", tagLayout(kAudioChannelLayoutTag_MPEG_5_1_A)},
        {"MPEG_5_1_C", tagLayout(kAudioChannelLayoutTag_MPEG_5_1_C)},
        {"DVD_10", tagLayout(kAudioChannelLayoutTag_DVD_10)},
        {"DVD_11", tagLayout(kAudioChannelLayoutTag_DVD_11)},
        {"MPEG_6_1_A", tagLayout(kAudioChannelLayoutTag_MPEG_6_1_A)},
        {"MPEG_7_1_C", tagLayout(kAudioChannelLayoutTag_MPEG_7_1_C)},
        {"Vorbis7", labelLayout({L, C, R, Ls, Rs, Cs, LFE})},
        {"Vorbis8", labelLayout({L, C, R, Ls, Rs, Rls, Rrs, LFE})},
        {"Bitmap5.1", bitmapLayout(0x3F)},
        {"BitmapWave7.1", bitmapLayout(0x63F)},
        {"Bitmap11", bitmapLayout(0x7FF)},
    };
}

std::vector<AudioChannelLabel> labelsOf(const AudioChannelLayout& layout) {
    const auto labels = ChannelMixMap::channelLabels(layout);
    EXPECT_TRUE(labels.has_value());
    return labels.value_or(std::vector<AudioChannelLabel>{});
}

} // namespace

TEST(ChannelMixMapTest, SurroundToStereoFollowsBS775) {
    // Rows L R C LFE Ls Rs, columns L R.
    EXPECT_EQ(ChannelMixMap::mixMap(tagLayout(kAudioChannelLayoutTag_MPEG_5_1_A),
                                    tagLayout(kAudioChannelLayoutTag_Stereo)),
              (std::vector<float>{1, 0, 0, 1, kW, kW, 0, 0, kW, 0, 0, kW}));
    // 6.1: the single rear channel reaches each front speaker at -6 dB.
    const auto sixOne = ChannelMixMap::mixMap(tagLayout(kAudioChannelLayoutTag_MPEG_6_1_A),
                                              tagLayout(kAudioChannelLayoutTag_Stereo));
    ASSERT_TRUE(sixOne);
    EXPECT_FLOAT_EQ((*sixOne)[12], 0.5f);
    EXPECT_FLOAT_EQ((*sixOne)[13], 0.5f);
    // 7.1: rear surrounds fold like the side surrounds.
    const auto sevenOne = ChannelMixMap::mixMap(tagLayout(kAudioChannelLayoutTag_MPEG_7_1_C),
                                                tagLayout(kAudioChannelLayoutTag_Stereo));
    ASSERT_TRUE(sevenOne);
    EXPECT_EQ(std::vector<float>(sevenOne->begin() + 12, sevenOne->end()),
              (std::vector<float>{kW, 0, 0, kW}));
}

TEST(ChannelMixMapTest, EveryDecoderLayoutFoldsToMonoAndStereo) {
    const auto mono = tagLayout(kAudioChannelLayoutTag_Mono);
    const auto stereo = tagLayout(kAudioChannelLayoutTag_Stereo);
    for (const auto& [name, layout] : decoderLayouts()) {
        SCOPED_TRACE(name);
        const auto src = labelsOf(layout);
        const size_t n = src.size();

        const auto toMono = ChannelMixMap::mixMap(layout, mono);
        ASSERT_TRUE(toMono);
        ASSERT_EQ(toMono->size(), n);
        const auto toStereo = ChannelMixMap::mixMap(layout, stereo);
        ASSERT_TRUE(toStereo);
        ASSERT_EQ(toStereo->size(), 2 * n);

        double leftSum = 0, rightSum = 0;
        for (size_t i = 0; i < n; ++i) {
            const float m = (*toMono)[i], l = (*toStereo)[2 * i], r = (*toStereo)[2 * i + 1];
            EXPECT_GE(m, 0.0f);
            EXPECT_GE(l, 0.0f);
            EXPECT_GE(r, 0.0f);
            if (src[i] == LFE) { // left out of every down-mix
                EXPECT_EQ(m, 0.0f);
                EXPECT_EQ(l + r, 0.0f);
            } else { // every other speaker is heard
                EXPECT_GT(m, 0.0f) << "row " << i;
                EXPECT_GT(l + r, 0.0f) << "row " << i;
            }
            leftSum += l;
            rightSum += r;
        }
        // Symmetric layouts give a balanced stereo fold.
        EXPECT_NEAR(leftSum, rightSum, 1e-6);
        // A signal that is at full scale in every channel stays within full
        // scale in the mono fold (two-channel sources get the mixer's -3 dB).
        const double monoSum = std::accumulate(toMono->begin(), toMono->end(), 0.0);
        if (n != 2) {
            EXPECT_LE(monoSum, 1.0 + 1e-6);
        }
    }
}
