#pragma once
// Changes the channel count and layout of a stream of PCM blocks, for example
// 5.1 to stereo or stereo to mono. An encode job makes one mixer when it must
// write another channel layout than its decoder delivers and passes every
// block through mixFrom() before encoding it.
//
// Three stages: the source PCM is converted to 32-bit float with one buffer
// per channel, a matrix mixer makes every destination channel a weighted sum
// of the source channels (weights from ChannelMixMap), and the result is
// converted to the destination PCM format. The sample rate is not changed.
// There is no clipping or normalisation in the mixing itself; a sum beyond
// full scale is clipped only when it is written as integers.

#include <cstdint>
#include <memory>
#include <vector>

#include "platform/AudioConverter.h"
#include "platform/CoreAudioTypes.h"

namespace velvox {

class KDChannelMixer {
public:
    // The mixing stage renders at most this many frames at a time; longer
    // blocks are rendered in several slices.
    static constexpr uint32_t kMaximumFramesPerSlice = 4096;
    // Gain applied after the weights when two channels are folded into one:
    // 1/sqrt(2) as a 32-bit float, so that L and R each reach the mono channel
    // at -3 dB.
    static constexpr float kStereoToMonoMasterGain = 0.70710677f;

    KDChannelMixer();
    virtual ~KDChannelMixer();
    KDChannelMixer(const KDChannelMixer&) = delete;
    KDChannelMixer& operator=(const KDChannelMixer&) = delete;

    // A ready mixer, or null when the formats cannot be converted (PCM of
    // another rate on the destination side included) or there is no mix map
    // between the layouts; nothing is logged, the caller decides.
    static std::unique_ptr<KDChannelMixer> create(const AudioStreamBasicDescription& srcFormat,
                                                  const AudioStreamBasicDescription& destFormat,
                                                  const AudioChannelLayout& srcLayout,
                                                  const AudioChannelLayout& destLayout);

    // Two-phase construction; false when set-up failed.
    virtual bool initWithSrcFormat(const AudioStreamBasicDescription& srcFormat,
                                   const AudioStreamBasicDescription& destFormat,
                                   const AudioChannelLayout& srcLayout,
                                   const AudioChannelLayout& destLayout);

    // Mixes `frames` frames of src (source format) into dst, which must have
    // room for them in the destination format. Returns 0 on success, or the
    // status of the stage that failed. Zero frames return 0 and touch nothing.
    OSStatus mixFrom(const AudioBufferList* src, AudioBufferList* dst, uint32_t frames);

    // Read by the mixing stage's input callback during mixFrom(): frames of
    // the current block already rendered, and the block as float channels.
    uint32_t currentFrame() const { return mCurrentFrame; }
    const AudioBufferList* mixInputBufferList() const { return &mMixInputBufferList; }

private:
    struct MatrixMixerUnit;

    static OSStatus renderInput(void* refCon, const AudioTimeStamp* timeStamp, uint32_t bus,
                                uint32_t frames, AudioBufferList* ioData);
    OSStatus convertSource(const AudioBufferList* src, uint32_t frames);
    OSStatus renderMix(uint32_t frames);
    OSStatus convertDestination(AudioBufferList* dst, uint32_t frames);

    uint32_t mSrcNChannels = 0;
    uint32_t mDestNChannels = 0;
    AudioTimeStamp mTs{};
    AudioChannelLayout mSrcLayout;
    AudioChannelLayout mDestLayout;
    std::unique_ptr<MatrixMixerUnit> mMatrixMixer;
    std::unique_ptr<AudioConverter> mSrcConverter;
    std::unique_ptr<AudioConverter> mDestConverter;
    AudioBufferList mMixInputBufferList;
    AudioBufferList mMixOutputBufferList;
    uint32_t mCurrentFrame = 0;

    // Sample memory behind the two lists and the list of one slice, kept
    // between calls so that a stream of equal blocks allocates nothing.
    std::vector<float> mMixInputStorage;
    std::vector<float> mMixOutputStorage;
    AudioBufferList mSliceBufferList;
};

} // namespace velvox
