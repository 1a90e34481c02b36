#pragma once
// Audio records and constants with the field names and published numeric
// values of the desktop audio APIs that Velvox's formats are described in.
// They are our own definitions; only the numbers are shared so that values
// stored by other tools (layout tags, format IDs) mean the same thing here.

#include <cstdint>
#include <vector>

namespace velvox {

using OSStatus = int32_t;
using AudioFormatID = uint32_t;
using AudioFormatFlags = uint32_t;
using AudioChannelLayoutTag = uint32_t;
using AudioChannelLabel = uint32_t;
using AudioChannelBitmap = uint32_t;

constexpr OSStatus noErr = 0;

constexpr uint32_t fourCharCode(const char (&c)[5]) {
    return (uint32_t(uint8_t(c[0])) << 24) | (uint32_t(uint8_t(c[1])) << 16) |
           (uint32_t(uint8_t(c[2])) << 8) | uint32_t(uint8_t(c[3]));
}

// Format IDs
constexpr AudioFormatID kAudioFormatLinearPCM = fourCharCode("lpcm");
constexpr AudioFormatID kAudioFormatAppleLossless = fourCharCode("alac");
constexpr AudioFormatID kAudioFormatMPEG4AAC = fourCharCode("aac ");
constexpr AudioFormatID kAudioFormatMPEGLayer1 = fourCharCode(".mp1");
constexpr AudioFormatID kAudioFormatMPEGLayer2 = fourCharCode(".mp2");
constexpr AudioFormatID kAudioFormatMPEGLayer3 = fourCharCode(".mp3");
constexpr AudioFormatID kAudioFormatAMR = fourCharCode("samr");
constexpr AudioFormatID kAudioFormatULaw = fourCharCode("ulaw");
constexpr AudioFormatID kAudioFormatALaw = fourCharCode("alaw");

// Format flags
constexpr AudioFormatFlags kAudioFormatFlagIsFloat = 1u << 0;
constexpr AudioFormatFlags kAudioFormatFlagIsBigEndian = 1u << 1;
constexpr AudioFormatFlags kAudioFormatFlagIsSignedInteger = 1u << 2;
constexpr AudioFormatFlags kAudioFormatFlagIsPacked = 1u << 3;
constexpr AudioFormatFlags kAudioFormatFlagIsAlignedHigh = 1u << 4;
constexpr AudioFormatFlags kAudioFormatFlagIsNonInterleaved = 1u << 5;
constexpr AudioFormatFlags kAudioFormatFlagIsNonMixable = 1u << 6;
constexpr AudioFormatFlags kAudioFormatFlagsNativeFloatPacked =
    kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;

// Apple Lossless source-depth flags
constexpr AudioFormatFlags kAppleLosslessFormatFlag_16BitSourceData = 1;
constexpr AudioFormatFlags kAppleLosslessFormatFlag_20BitSourceData = 2;
constexpr AudioFormatFlags kAppleLosslessFormatFlag_24BitSourceData = 3;
constexpr AudioFormatFlags kAppleLosslessFormatFlag_32BitSourceData = 4;

struct AudioStreamBasicDescription {
    double mSampleRate = 0;
    AudioFormatID mFormatID = 0;
    AudioFormatFlags mFormatFlags = 0;
    uint32_t mBytesPerPacket = 0;
    uint32_t mFramesPerPacket = 0;
    uint32_t mBytesPerFrame = 0;
    uint32_t mChannelsPerFrame = 0;
    uint32_t mBitsPerChannel = 0;
    uint32_t mReserved = 0;

    bool operator==(const AudioStreamBasicDescription&) const = default;
};

struct AudioBuffer {
    uint32_t mNumberChannels = 0;
    uint32_t mDataByteSize = 0;
    void* mData = nullptr;
};

// The platform record is variable-length; a vector gives the same shape
// without manual allocation. Most lists carry exactly one buffer.
struct AudioBufferList {
    uint32_t mNumberBuffers = 0;
    std::vector<AudioBuffer> mBuffers;

    AudioBufferList() = default;
    explicit AudioBufferList(uint32_t count) : mNumberBuffers(count), mBuffers(count) {}
    static AudioBufferList single(void* data, uint32_t byteSize, uint32_t channels) {
        AudioBufferList list(1);
        list.mBuffers[0] = AudioBuffer{channels, byteSize, data};
        return list;
    }
};

struct SMPTETime {
    int16_t mSubframes = 0;
    int16_t mSubframeDivisor = 0;
    uint32_t mCounter = 0;
    uint32_t mType = 0;
    uint32_t mFlags = 0;
    int16_t mHours = 0;
    int16_t mMinutes = 0;
    int16_t mSeconds = 0;
    int16_t mFrames = 0;
};

struct AudioTimeStamp {
    double mSampleTime = 0;
    uint64_t mHostTime = 0;
    double mRateScalar = 0;
    uint64_t mWordClockTime = 0;
    SMPTETime mSMPTETime;
    uint32_t mFlags = 0;
    uint32_t mReserved = 0;
};

struct AudioChannelDescription {
    AudioChannelLabel mChannelLabel = 0;
    uint32_t mChannelFlags = 0;
    float mCoordinates[3] = {0, 0, 0};

    bool operator==(const AudioChannelDescription&) const = default;
};

struct AudioChannelLayout {
    AudioChannelLayoutTag mChannelLayoutTag = 0;
    AudioChannelBitmap mChannelBitmap = 0;
    uint32_t mNumberChannelDescriptions = 0;
    std::vector<AudioChannelDescription> mChannelDescriptions;

    bool operator==(const AudioChannelLayout&) const = default;
};

// Layout tags: (index << 16) | channel count.
constexpr AudioChannelLayoutTag layoutTag(uint32_t index, uint32_t channels) {
    return (index << 16) | channels;
}
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_UseChannelDescriptions = layoutTag(0, 0);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_UseChannelBitmap = layoutTag(1, 0);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_Mono = layoutTag(100, 1);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_Stereo = layoutTag(101, 2);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_StereoHeadphones = layoutTag(102, 2);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MatrixStereo = layoutTag(103, 2);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_Quadraphonic = layoutTag(108, 4);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_3_0_A = layoutTag(113, 3);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_3_0_B = layoutTag(114, 3);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_4_0_A = layoutTag(115, 4);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_4_0_B = layoutTag(116, 4);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_5_0_A = layoutTag(117, 5);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_5_0_B = layoutTag(118, 5);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_5_0_C = layoutTag(119, 5);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_5_0_D = layoutTag(120, 5);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_5_1_A = layoutTag(121, 6);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_5_1_B = layoutTag(122, 6);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_5_1_C = layoutTag(123, 6);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_5_1_D = layoutTag(124, 6);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_6_1_A = layoutTag(125, 7);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_7_1_A = layoutTag(126, 8);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_7_1_B = layoutTag(127, 8);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_MPEG_7_1_C = layoutTag(128, 8);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_DVD_4 = layoutTag(133, 3);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_DVD_5 = layoutTag(134, 4);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_DVD_6 = layoutTag(135, 5);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_DVD_10 = layoutTag(136, 4);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_DVD_11 = layoutTag(137, 5);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_DVD_18 = layoutTag(138, 5);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_Unknown = 0xFFFF0000u;

constexpr uint32_t AudioChannelLayoutTag_GetNumberOfChannels(AudioChannelLayoutTag tag) {
    return tag & 0xFFFFu;
}

// Channel labels
constexpr AudioChannelLabel kAudioChannelLabel_Unknown = 0xFFFFFFFFu;
constexpr AudioChannelLabel kAudioChannelLabel_Unused = 0;
constexpr AudioChannelLabel kAudioChannelLabel_Left = 1;
constexpr AudioChannelLabel kAudioChannelLabel_Right = 2;
constexpr AudioChannelLabel kAudioChannelLabel_Center = 3;
constexpr AudioChannelLabel kAudioChannelLabel_LFEScreen = 4;
constexpr AudioChannelLabel kAudioChannelLabel_LeftSurround = 5;
constexpr AudioChannelLabel kAudioChannelLabel_RightSurround = 6;
constexpr AudioChannelLabel kAudioChannelLabel_LeftCenter = 7;
constexpr AudioChannelLabel kAudioChannelLabel_RightCenter = 8;
constexpr AudioChannelLabel kAudioChannelLabel_CenterSurround = 9;
constexpr AudioChannelLabel kAudioChannelLabel_LeftSurroundDirect = 10;
constexpr AudioChannelLabel kAudioChannelLabel_RightSurroundDirect = 11;
constexpr AudioChannelLabel kAudioChannelLabel_TopCenterSurround = 12;
constexpr AudioChannelLabel kAudioChannelLabel_VerticalHeightLeft = 13;
constexpr AudioChannelLabel kAudioChannelLabel_VerticalHeightCenter = 14;
constexpr AudioChannelLabel kAudioChannelLabel_VerticalHeightRight = 15;
constexpr AudioChannelLabel kAudioChannelLabel_TopBackLeft = 16;
constexpr AudioChannelLabel kAudioChannelLabel_TopBackCenter = 17;
constexpr AudioChannelLabel kAudioChannelLabel_TopBackRight = 18;
constexpr AudioChannelLabel kAudioChannelLabel_RearSurroundLeft = 33;
constexpr AudioChannelLabel kAudioChannelLabel_RearSurroundRight = 34;
constexpr AudioChannelLabel kAudioChannelLabel_LeftWide = 35;
constexpr AudioChannelLabel kAudioChannelLabel_RightWide = 36;
constexpr AudioChannelLabel kAudioChannelLabel_LFE2 = 37;
constexpr AudioChannelLabel kAudioChannelLabel_Mono = 42;

// Channel bitmap bits (the WAVE_FORMAT_EXTENSIBLE speaker mask uses the same order
// for its first eleven speakers).
constexpr AudioChannelBitmap kAudioChannelBit_Left = 1u << 0;
constexpr AudioChannelBitmap kAudioChannelBit_Right = 1u << 1;
constexpr AudioChannelBitmap kAudioChannelBit_Center = 1u << 2;
constexpr AudioChannelBitmap kAudioChannelBit_LFEScreen = 1u << 3;
constexpr AudioChannelBitmap kAudioChannelBit_LeftSurround = 1u << 4;
constexpr AudioChannelBitmap kAudioChannelBit_RightSurround = 1u << 5;
constexpr AudioChannelBitmap kAudioChannelBit_LeftCenter = 1u << 6;
constexpr AudioChannelBitmap kAudioChannelBit_RightCenter = 1u << 7;
constexpr AudioChannelBitmap kAudioChannelBit_CenterSurround = 1u << 8;
constexpr AudioChannelBitmap kAudioChannelBit_LeftSurroundDirect = 1u << 9;
constexpr AudioChannelBitmap kAudioChannelBit_RightSurroundDirect = 1u << 10;
constexpr AudioChannelBitmap kAudioChannelBit_TopCenterSurround = 1u << 11;

} // namespace velvox
