#include "decoders/VorbisChannelLayout.h"

#include "core/UtilityFunctions.h"

namespace velvox {

std::unique_ptr<AudioChannelLayout> VorbisChannelLayout::create(uint32_t channels) {
    switch (channels) {
    case 1:
        return createChannelLayoutWithTag(kAudioChannelLayoutTag_Mono);
    case 2:
        return createChannelLayoutWithTag(kAudioChannelLayoutTag_Stereo);
    case 3:
        return createChannelLayoutWithTag(kAudioChannelLayoutTag_MPEG_3_0_A);
    case 4:
        return createChannelLayoutWithTag(kAudioChannelLayoutTag_Quadraphonic);
    case 5:
        return createChannelLayoutWithTag(kAudioChannelLayoutTag_MPEG_5_0_C);
    case 6:
        return createChannelLayoutWithTag(kAudioChannelLayoutTag_MPEG_5_1_C);
    case 7:
        return createChannelLayoutWithLabels(
            {kAudioChannelLabel_Left, kAudioChannelLabel_Center, kAudioChannelLabel_Right,
             kAudioChannelLabel_LeftSurround, kAudioChannelLabel_RightSurround,
             kAudioChannelLabel_CenterSurround, kAudioChannelLabel_LFEScreen});
    case 8:
        return createChannelLayoutWithLabels(
            {kAudioChannelLabel_Left, kAudioChannelLabel_Center, kAudioChannelLabel_Right,
             kAudioChannelLabel_LeftSurround, kAudioChannelLabel_RightSurround,
             kAudioChannelLabel_RearSurroundLeft, kAudioChannelLabel_RearSurroundRight,
             kAudioChannelLabel_LFEScreen});
    default:
        return createChannelLayoutWithTag(kAudioChannelLayoutTag_Unknown);
    }
}

} // namespace velvox
