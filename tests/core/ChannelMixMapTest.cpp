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

TEST(ChannelMixMapTest, LayoutsBecomeLabelsInChannelOrder) {
    EXPECT_EQ(labelsOf(tagLayout(kAudioChannelLayoutTag_MPEG_5_1_C)),
              (std::vector<AudioChannelLabel>{L, C, R, Ls, Rs, LFE}));
    EXPECT_EQ(labelsOf(tagLayout(kAudioChannelLayoutTag_MPEG_7_1_C)),
              (std::vector<AudioChannelLabel>{L, R, C, LFE, Ls, Rs, Rls, Rrs}));
    EXPECT_EQ(labelsOf(tagLayout(kAudioChannelLayoutTag_DVD_18)),
              (std::vector<AudioChannelLabel>{L, R, Ls, Rs, LFE}));
    EXPECT_EQ(labelsOf(labelLayout({L, C, R, Ls, Rs, Cs, LFE})),
              (std::vector<AudioChannelLabel>{L, C, R, Ls, Rs, Cs, LFE}));
    // Bitmap bits in order from the lowest; the Mono label is a centre speaker.
    EXPECT_EQ(labelsOf(bitmapLayout(kAudioChannelBit_Left | kAudioChannelBit_Right |
                                    kAudioChannelBit_LFEScreen | kAudioChannelBit_CenterSurround)),
              (std::vector<AudioChannelLabel>{L, R, LFE, Cs}));
    EXPECT_EQ(labelsOf(labelLayout({kAudioChannelLabel_Mono})),
              (std::vector<AudioChannelLabel>{C}));

    // Every known tag names as many channels as the tag's count says.
    for (AudioChannelLayoutTag tag :
         {kAudioChannelLayoutTag_Mono,         kAudioChannelLayoutTag_Stereo,
          kAudioChannelLayoutTag_MPEG_3_0_A,   kAudioChannelLayoutTag_MPEG_3_0_B,
          kAudioChannelLayoutTag_Quadraphonic, kAudioChannelLayoutTag_MPEG_4_0_A,
          kAudioChannelLayoutTag_MPEG_4_0_B,   kAudioChannelLayoutTag_MPEG_5_0_A,
          kAudioChannelLayoutTag_MPEG_5_0_B,   kAudioChannelLayoutTag_MPEG_5_0_C,
          kAudioChannelLayoutTag_MPEG_5_0_D,   kAudioChannelLayoutTag_MPEG_5_1_A,
          kAudioChannelLayoutTag_MPEG_5_1_B,   kAudioChannelLayoutTag_MPEG_5_1_C,
          kAudioChannelLayoutTag_MPEG_5_1_D,   kAudioChannelLayoutTag_MPEG_6_1_A,
          kAudioChannelLayoutTag_MPEG_7_1_A,   kAudioChannelLayoutTag_MPEG_7_1_B,
          kAudioChannelLayoutTag_MPEG_7_1_C,   kAudioChannelLayoutTag_DVD_4,
          kAudioChannelLayoutTag_DVD_5,        kAudioChannelLayoutTag_DVD_6,
          kAudioChannelLayoutTag_DVD_10,       kAudioChannelLayoutTag_DVD_11,
          kAudioChannelLayoutTag_DVD_18})
        EXPECT_EQ(labelsOf(tagLayout(tag)).size(), AudioChannelLayoutTag_GetNumberOfChannels(tag))
            << std::hex << tag;
}

TEST(ChannelMixMapTest, LayoutsThatDoNotNameTheirSpeakersHaveNoLabels) {
    EXPECT_FALSE(ChannelMixMap::channelLabels(tagLayout(kAudioChannelLayoutTag_Unknown)));
    EXPECT_FALSE(ChannelMixMap::channelLabels(tagLayout(layoutTag(999, 2))));
    EXPECT_FALSE(ChannelMixMap::channelLabels(bitmapLayout(0)));
    EXPECT_FALSE(ChannelMixMap::channelLabels(bitmapLayout(0x3 | (1u << 20))));
    EXPECT_FALSE(ChannelMixMap::channelLabels(labelLayout({})));
    EXPECT_FALSE(ChannelMixMap::channelLabels(labelLayout({L, kAudioChannelLabel_Unknown})));
    EXPECT_FALSE(ChannelMixMap::channelLabels(labelLayout({L, kAudioChannelLabel_Unused})));
    EXPECT_FALSE(ChannelMixMap::channelLabels(labelLayout({L, R, L})));
    // The same speaker once as Mono and once as Center.
    EXPECT_FALSE(ChannelMixMap::channelLabels(labelLayout({kAudioChannelLabel_Mono, C})));
    // A count that claims more descriptions than the layout holds.
    AudioChannelLayout lying = labelLayout({L, R});
    lying.mNumberChannelDescriptions = 3;
    EXPECT_FALSE(ChannelMixMap::channelLabels(lying));

    EXPECT_FALSE(ChannelMixMap::mixMap(tagLayout(kAudioChannelLayoutTag_Unknown),
                                       tagLayout(kAudioChannelLayoutTag_Stereo)));
    EXPECT_FALSE(ChannelMixMap::mixMap(tagLayout(kAudioChannelLayoutTag_MPEG_5_1_A),
                                       tagLayout(kAudioChannelLayoutTag_Unknown)));
    // Front speakers cannot go anywhere in a surrounds-only destination.
    EXPECT_FALSE(ChannelMixMap::mixMap(std::vector<AudioChannelLabel>{L, R},
                                       std::vector<AudioChannelLabel>{Ls, Rs}));
}

TEST(ChannelMixMapTest, StereoAndMonoMaps) {
    const auto stereo = tagLayout(kAudioChannelLayoutTag_Stereo);
    const auto mono = tagLayout(kAudioChannelLayoutTag_Mono);
    // Stereo to mono: both 1.0, the mixer's master gain does the -3 dB.
    EXPECT_EQ(ChannelMixMap::mixMap(stereo, mono), (std::vector<float>{1.0f, 1.0f}));
    // Mono to stereo: a copy into both.
    EXPECT_EQ(ChannelMixMap::mixMap(mono, stereo), (std::vector<float>{1.0f, 1.0f}));
    EXPECT_EQ(ChannelMixMap::mixMap(mono, mono), (std::vector<float>{1.0f}));
    EXPECT_EQ(ChannelMixMap::mixMap(stereo, stereo), (std::vector<float>{1, 0, 0, 1}));
    EXPECT_EQ(
        ChannelMixMap::mixMap(stereo, bitmapLayout(kAudioChannelBit_Right | kAudioChannelBit_Left)),
        (std::vector<float>{1, 0, 0, 1}));
}

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

TEST(ChannelMixMapTest, SurroundToMonoKeepsFullScale) {
    // BS.775 mono fold 0.7071 L + 0.7071 R + C + 0.5 Ls + 0.5 Rs, scaled so the
    // weights add up to one.
    const auto map = ChannelMixMap::mixMap(tagLayout(kAudioChannelLayoutTag_MPEG_5_1_A),
                                           tagLayout(kAudioChannelLayoutTag_Mono));
    ASSERT_TRUE(map);
    const double sum = 2 * std::sqrt(0.5) + 1.0 + 2 * 0.5;
    const std::vector<double> expected{
        std::sqrt(0.5) / sum, std::sqrt(0.5) / sum, 1.0 / sum, 0.0, 0.5 / sum, 0.5 / sum};
    ASSERT_EQ(map->size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i)
        EXPECT_NEAR((*map)[i], expected[i], 1e-7) << "row " << i;
}

TEST(ChannelMixMapTest, SameSpeakersInAnotherOrderArePermutations) {
    const std::vector<std::pair<AudioChannelLayout, AudioChannelLayout>> pairs{
        {tagLayout(kAudioChannelLayoutTag_MPEG_5_1_C),
         tagLayout(kAudioChannelLayoutTag_MPEG_5_1_A)},
        {tagLayout(kAudioChannelLayoutTag_MPEG_5_1_D),
         tagLayout(kAudioChannelLayoutTag_MPEG_5_1_B)},
        {tagLayout(kAudioChannelLayoutTag_MPEG_5_0_C),
         tagLayout(kAudioChannelLayoutTag_MPEG_5_0_A)},
        {tagLayout(kAudioChannelLayoutTag_MPEG_3_0_B),
         tagLayout(kAudioChannelLayoutTag_MPEG_3_0_A)},
        {labelLayout({L, C, R, Ls, Rs, Cs, LFE}), tagLayout(kAudioChannelLayoutTag_MPEG_6_1_A)},
        {labelLayout({L, C, R, Ls, Rs, Rls, Rrs, LFE}),
         tagLayout(kAudioChannelLayoutTag_MPEG_7_1_C)},
        {bitmapLayout(0x3F), tagLayout(kAudioChannelLayoutTag_MPEG_5_1_C)},
    };
    for (const auto& [from, to] : pairs) {
        const auto src = labelsOf(from);
        const auto dst = labelsOf(to);
        const auto map = ChannelMixMap::mixMap(from, to);
        ASSERT_TRUE(map);
        ASSERT_EQ(map->size(), src.size() * dst.size());
        for (size_t i = 0; i < src.size(); ++i)
            for (size_t j = 0; j < dst.size(); ++j)
                EXPECT_EQ((*map)[i * dst.size() + j], src[i] == dst[j] ? 1.0f : 0.0f)
                    << "source " << i << " destination " << j;
    }
    // Spelled out once: L C R Ls Rs LFE into L R C LFE Ls Rs.
    EXPECT_EQ(ChannelMixMap::mixMap(tagLayout(kAudioChannelLayoutTag_MPEG_5_1_C),
                                    tagLayout(kAudioChannelLayoutTag_MPEG_5_1_A)),
              (std::vector<float>{1, 0, 0, 0, 0, 0, //
                                  0, 0, 1, 0, 0, 0, //
                                  0, 1, 0, 0, 0, 0, //
                                  0, 0, 0, 0, 1, 0, //
                                  0, 0, 0, 0, 0, 1, //
                                  0, 0, 0, 1, 0, 0}));
}

TEST(ChannelMixMapTest, BetweenSurroundLayouts) {
    // L R C LFE into L R Ls Rs: the centre to the fronts, LFE left out.
    EXPECT_EQ(ChannelMixMap::mixMap(tagLayout(kAudioChannelLayoutTag_DVD_10),
                                    tagLayout(kAudioChannelLayoutTag_Quadraphonic)),
              (std::vector<float>{1, 0, 0, 0, 0, 1, 0, 0, kW, kW, 0, 0, 0, 0, 0, 0}));
    // L R C LFE Cs into L R C Ls Rs: the rear centre split over the surrounds.
    EXPECT_EQ(ChannelMixMap::mixMap(tagLayout(kAudioChannelLayoutTag_DVD_11),
                                    tagLayout(kAudioChannelLayoutTag_MPEG_5_0_A)),
              (std::vector<float>{1, 0, 0, 0,  0, //
                                  0, 1, 0, 0,  0, //
                                  0, 0, 1, 0,  0, //
                                  0, 0, 0, 0,  0, //
                                  0, 0, 0, kW, kW}));
    // 7.1 into 5.1: the rear surrounds join the surrounds.
    const auto map = ChannelMixMap::mixMap(tagLayout(kAudioChannelLayoutTag_MPEG_7_1_C),
                                           tagLayout(kAudioChannelLayoutTag_MPEG_5_1_A));
    ASSERT_TRUE(map);
    EXPECT_EQ(std::vector<float>(map->begin() + 36, map->end()),
              (std::vector<float>{0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 0, 1}));
    // Up-mix: stereo into 5.1 keeps the fronts and leaves the rest silent.
    EXPECT_EQ(ChannelMixMap::mixMap(tagLayout(kAudioChannelLayoutTag_Stereo),
                                    tagLayout(kAudioChannelLayoutTag_MPEG_5_1_A)),
              (std::vector<float>{1, 0, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0}));
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
