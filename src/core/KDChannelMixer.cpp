#include "core/KDChannelMixer.h"

#include <algorithm>
#include <cstring>

#include "core/ChannelMixMap.h"

namespace velvox {

namespace {

// Status codes of the mixing stage (the published audio-unit values, so that
// a four-character or numeric code in a log means the same as elsewhere).
constexpr OSStatus kAudio_ParamError = -50;
constexpr OSStatus kAudioUnitErr_Uninitialized = -10867;
constexpr OSStatus kAudioUnitErr_TooManyFramesToProcess = -10874;
constexpr OSStatus kAudioUnitErr_NoConnection = -10876;
constexpr OSStatus kAudioUnitErr_InvalidElement = -10877;

constexpr uint32_t kFloatBytes = sizeof(float);
// Buffer byte sizes are 32-bit: a block of floats may not hold more frames.
constexpr uint32_t kMaximumBlockFrames = UINT32_MAX / kFloatBytes;

using RenderCallback = OSStatus (*)(void* refCon, const AudioTimeStamp* timeStamp, uint32_t bus,
                                    uint32_t frames, AudioBufferList* ioData);

// Points `list` at `channels` consecutive runs of `frames` floats in storage,
// one buffer per channel.
void prepareChannelList(AudioBufferList& list, std::vector<float>& storage, uint32_t channels,
                        uint32_t frames, bool zeroFill) {
    storage.resize(size_t(channels) * frames);
    if (zeroFill)
        std::fill(storage.begin(), storage.end(), 0.0f);
    list.mNumberBuffers = channels;
    list.mBuffers.resize(channels);
    for (uint32_t c = 0; c < channels; ++c)
        list.mBuffers[c] =
            AudioBuffer{1, frames * kFloatBytes, storage.data() + size_t(c) * frames};
}

void releaseList(AudioBufferList& list) {
    list.mNumberBuffers = 0;
    list.mBuffers.clear();
}

} // namespace

// The weighted-sum mixer: one input bus of source channels, one output bus of
// destination channels, 32-bit float with one buffer per channel on both
// sides. Every output sample is
//   master * outputGain[j] * sum over i of inputGain[i] * crosspoint[i][j] * in[i]
// summed in double precision and stored as float. Input is pulled through the
// render callback, one slice at a time.
struct KDChannelMixer::MatrixMixerUnit {
    // The format both buses start from before the mixer adapts them.
    static AudioStreamBasicDescription defaultStreamFormat() {
        AudioStreamBasicDescription format;
        format.mSampleRate = 44100.0;
        format.mFormatID = kAudioFormatLinearPCM;
        format.mFormatFlags = kAudioFormatFlagsNativeFloatPacked | kAudioFormatFlagIsNonInterleaved;
        format.mBytesPerPacket = kFloatBytes;
        format.mFramesPerPacket = 1;
        format.mBytesPerFrame = kFloatBytes;
        format.mChannelsPerFrame = 2;
        format.mBitsPerChannel = 32;
        return format;
    }

    AudioStreamBasicDescription inputFormat = defaultStreamFormat();
    AudioStreamBasicDescription outputFormat = defaultStreamFormat();
    uint32_t maximumFramesPerSlice = kMaximumFramesPerSlice;
    bool initialized = false;

    float masterGain = 0.0f;
    std::vector<float> inputGains;
    std::vector<float> outputGains;
    std::vector<float> crosspoints; // [input * outputs + output]

    RenderCallback renderCallback = nullptr;
    void* renderContext = nullptr;

    // Scratch of one render: the pulled input slice and the sums.
    std::vector<float> inputSlice;
    AudioBufferList inputSliceList;
    std::vector<double> sums;

    uint32_t inputs() const { return inputFormat.mChannelsPerFrame; }
    uint32_t outputs() const { return outputFormat.mChannelsPerFrame; }

    OSStatus initialize() {
        if (inputs() == 0 || outputs() == 0)
            return kAudio_ParamError;
        inputGains.assign(inputs(), 0.0f);
        outputGains.assign(outputs(), 0.0f);
        crosspoints.assign(size_t(inputs()) * outputs(), 0.0f);
        inputSlice.assign(size_t(inputs()) * maximumFramesPerSlice, 0.0f);
        sums.assign(maximumFramesPerSlice, 0.0);
        inputSliceList = AudioBufferList(inputs());
        initialized = true;
        return noErr;
    }

    OSStatus setMasterGain(float gain) {
        masterGain = gain;
        return noErr;
    }
    OSStatus setInputGain(uint32_t input, float gain) {
        if (input >= inputs())
            return kAudioUnitErr_InvalidElement;
        inputGains[input] = gain;
        return noErr;
    }
    OSStatus setOutputGain(uint32_t output, float gain) {
        if (output >= outputs())
            return kAudioUnitErr_InvalidElement;
        outputGains[output] = gain;
        return noErr;
    }
    OSStatus setCrosspoint(uint32_t input, uint32_t output, float gain) {
        if (input >= inputs() || output >= outputs())
            return kAudioUnitErr_InvalidElement;
        crosspoints[size_t(input) * outputs() + output] = gain;
        return noErr;
    }

    OSStatus setRenderCallback(RenderCallback callback, void* context) {
        renderCallback = callback;
        renderContext = context;
        return noErr;
    }

    OSStatus render(const AudioTimeStamp& timeStamp, uint32_t frames, AudioBufferList& output) {
        if (!initialized)
            return kAudioUnitErr_Uninitialized;
        if (frames > maximumFramesPerSlice)
            return kAudioUnitErr_TooManyFramesToProcess;
        if (!renderCallback)
            return kAudioUnitErr_NoConnection;
        const uint32_t bytes = frames * kFloatBytes;
        if (output.mBuffers.size() < outputs())
            return kAudio_ParamError;
        for (uint32_t j = 0; j < outputs(); ++j)
            if (!output.mBuffers[j].mData || output.mBuffers[j].mDataByteSize < bytes)
                return kAudio_ParamError;

        for (uint32_t i = 0; i < inputs(); ++i)
            inputSliceList.mBuffers[i] =
                AudioBuffer{1, bytes, inputSlice.data() + size_t(i) * maximumFramesPerSlice};
        if (const OSStatus status =
                renderCallback(renderContext, &timeStamp, 0, frames, &inputSliceList);
            status != noErr)
            return status;
        for (uint32_t i = 0; i < inputs(); ++i)
            if (inputSliceList.mBuffers[i].mDataByteSize < bytes)
                return kAudio_ParamError;

        double* sum = sums.data();
        for (uint32_t j = 0; j < outputs(); ++j) {
            std::fill(sum, sum + frames, 0.0);
            for (uint32_t i = 0; i < inputs(); ++i) {
                const double weight =
                    double(inputGains[i]) * double(crosspoints[size_t(i) * outputs() + j]);
                if (weight == 0.0)
                    continue; // also keeps a NaN in an unused channel out
                const auto* in = static_cast<const float*>(inputSliceList.mBuffers[i].mData);
                for (uint32_t t = 0; t < frames; ++t)
                    sum[t] += double(in[t]) * weight;
            }
            const double gain = double(masterGain) * double(outputGains[j]);
            auto* out = static_cast<float*>(output.mBuffers[j].mData);
            for (uint32_t t = 0; t < frames; ++t)
                out[t] = float(sum[t] * gain);
            output.mBuffers[j].mDataByteSize = bytes;
            output.mBuffers[j].mNumberChannels = 1;
        }
        return noErr;
    }
};

namespace {

// The mixer's working format on one side: the unit's default float format at
// the source's rate with the given channel count, one buffer per channel.
AudioStreamBasicDescription mixFormat(const AudioStreamBasicDescription& unitDefault,
                                      double sampleRate, uint32_t channels) {
    AudioStreamBasicDescription format = unitDefault;
    format.mSampleRate = sampleRate;
    format.mChannelsPerFrame = channels;
    format.mFramesPerPacket = 1;
    format.mBytesPerFrame = format.mBytesPerPacket = (unitDefault.mBitsPerChannel + 7) / 8;
    format.mFormatFlags |= kAudioFormatFlagIsNonInterleaved;
    return format;
}

} // namespace

KDChannelMixer::KDChannelMixer() = default;

// The unit and both converters are released with the mixer.
KDChannelMixer::~KDChannelMixer() = default;

std::unique_ptr<KDChannelMixer>
KDChannelMixer::create(const AudioStreamBasicDescription& srcFormat,
                       const AudioStreamBasicDescription& destFormat,
                       const AudioChannelLayout& srcLayout, const AudioChannelLayout& destLayout) {
    auto mixer = std::make_unique<KDChannelMixer>();
    if (!mixer->initWithSrcFormat(srcFormat, destFormat, srcLayout, destLayout))
        return nullptr;
    return mixer;
}

bool KDChannelMixer::initWithSrcFormat(const AudioStreamBasicDescription& srcFormat,
                                       const AudioStreamBasicDescription& destFormat,
                                       const AudioChannelLayout& srcLayout,
                                       const AudioChannelLayout& destLayout) {
    mSrcNChannels = srcFormat.mChannelsPerFrame;
    mDestNChannels = destFormat.mChannelsPerFrame;
    mSrcLayout = srcLayout;
    mDestLayout = destLayout;
    mTs = AudioTimeStamp{};
    if (mSrcNChannels == 0 || mDestNChannels == 0)
        return false;
    // The destination keeps the source's rate; a block in is a block out.
    if (srcFormat.mSampleRate != destFormat.mSampleRate)
        return false;

    mMatrixMixer = std::make_unique<MatrixMixerUnit>();
    MatrixMixerUnit& unit = *mMatrixMixer;

    unit.inputFormat = mixFormat(unit.inputFormat, srcFormat.mSampleRate, mSrcNChannels);
    OSStatus status = noErr;
    mSrcConverter = AudioConverter::create(srcFormat, unit.inputFormat, &status);
    if (!mSrcConverter || status != noErr)
        return false;

    unit.outputFormat = unit.inputFormat;
    unit.outputFormat.mChannelsPerFrame = mDestNChannels;
    mDestConverter = AudioConverter::create(unit.outputFormat, destFormat, &status);
    if (!mDestConverter || status != noErr)
        return false;

    if (unit.initialize() != noErr)
        return false;

    // Start from a neutral unit: unity master, output and input gains, and
    // no crosspoint open.
    status = unit.setMasterGain(1.0f);
    for (uint32_t j = 0; status == noErr && j < mDestNChannels; ++j)
        status = unit.setOutputGain(j, 1.0f);
    for (uint32_t i = 0; status == noErr && i < mSrcNChannels; ++i)
        status = unit.setInputGain(i, 1.0f);
    for (uint32_t i = 0; status == noErr && i < mSrcNChannels; ++i)
        for (uint32_t j = 0; status == noErr && j < mDestNChannels; ++j)
            status = unit.setCrosspoint(i, j, 0.0f);
    if (status != noErr)
        return false;

    // The layouts must describe as many channels as the formats carry.
    const auto srcLabels = ChannelMixMap::channelLabels(mSrcLayout);
    const auto destLabels = ChannelMixMap::channelLabels(mDestLayout);
    if (!srcLabels || !destLabels || srcLabels->size() != mSrcNChannels ||
        destLabels->size() != mDestNChannels)
        return false;
    const auto map = ChannelMixMap::mixMap(*srcLabels, *destLabels);
    if (!map)
        return false;

    const float master =
        (mSrcNChannels == 2 && mDestNChannels == 1) ? kStereoToMonoMasterGain : 1.0f;
    if (unit.setMasterGain(master) != noErr)
        return false;
    for (uint32_t i = 0; i < mSrcNChannels; ++i)
        for (uint32_t j = 0; j < mDestNChannels; ++j)
            if (unit.setCrosspoint(i, j, (*map)[size_t(i) * mDestNChannels + j]) != noErr)
                return false;
    return true;
}

OSStatus KDChannelMixer::renderInput(void* refCon, const AudioTimeStamp* /*timeStamp*/,
                                     uint32_t /*bus*/, uint32_t /*frames*/,
                                     AudioBufferList* ioData) {
    const auto* mixer = static_cast<const KDChannelMixer*>(refCon);
    const AudioBufferList* input = mixer->mixInputBufferList();
    const size_t offset = size_t(mixer->currentFrame()) * kFloatBytes;
    const size_t count = std::min(ioData->mBuffers.size(), input->mBuffers.size());
    for (size_t b = 0; b < count; ++b) {
        const AudioBuffer& from = input->mBuffers[b];
        AudioBuffer& to = ioData->mBuffers[b];
        // The unit asks for as many bytes as its buffers hold; never read past
        // the end of the block.
        const size_t available = from.mDataByteSize > offset ? from.mDataByteSize - offset : 0;
        const size_t bytes = std::min<size_t>(to.mDataByteSize, available);
        std::memcpy(to.mData, static_cast<const uint8_t*>(from.mData) + offset, bytes);
        to.mDataByteSize = uint32_t(bytes);
        to.mNumberChannels = from.mNumberChannels;
    }
    return noErr;
}

OSStatus KDChannelMixer::mixFrom(const AudioBufferList* src, AudioBufferList* dst,
                                 uint32_t frames) {
    if (frames == 0)
        return noErr;
    if (!src || !dst || frames > kMaximumBlockFrames)
        return kAudio_ParamError;

    mCurrentFrame = 0;
    prepareChannelList(mMixInputBufferList, mMixInputStorage, mSrcNChannels, frames, false);
    OSStatus status = convertSource(src, frames);
    if (status == noErr) {
        prepareChannelList(mMixOutputBufferList, mMixOutputStorage, mDestNChannels, frames, true);
        status = renderMix(frames);
    }
    if (status == noErr)
        status = convertDestination(dst, frames);

    if (status != noErr) {
        // A conversion cut short may have kept part of this block; the next
        // block must not start with it.
        mSrcConverter->reset();
        mDestConverter->reset();
    }
    releaseList(mMixInputBufferList);
    releaseList(mMixOutputBufferList);
    return status;
}

OSStatus KDChannelMixer::convertSource(const AudioBufferList* src, uint32_t frames) {
    // The converter is asked for the whole block, so the caller's list is
    // handed over whole: same data pointers, all `frames` frames.
    auto input = [src, frames](uint32_t& ioNumberDataPackets, AudioBufferList& ioData) {
        ioData.mNumberBuffers = src->mNumberBuffers;
        ioData.mBuffers.assign(src->mBuffers.begin(), src->mBuffers.end());
        ioNumberDataPackets = frames;
        return noErr;
    };
    uint32_t packets = frames;
    const OSStatus status = mSrcConverter->fillComplexBuffer(input, packets, mMixInputBufferList);
    if (status != noErr)
        return status;
    return packets == frames ? noErr : kAudioConverterErr_InvalidInputSize;
}

OSStatus KDChannelMixer::renderMix(uint32_t frames) {
    MatrixMixerUnit& unit = *mMatrixMixer;
    if (const OSStatus status = unit.setRenderCallback(&KDChannelMixer::renderInput, this);
        status != noErr)
        return status;
    const uint32_t maximumFrames = unit.maximumFramesPerSlice;
    if (maximumFrames == 0)
        return kAudio_ParamError;

    mSliceBufferList.mNumberBuffers = mDestNChannels;
    mSliceBufferList.mBuffers.resize(mDestNChannels);
    while (mCurrentFrame < frames) {
        const uint32_t slice = std::min(maximumFrames, frames - mCurrentFrame);
        // The slice is rendered straight into its place in the output block.
        for (uint32_t j = 0; j < mDestNChannels; ++j) {
            auto* channel = static_cast<float*>(mMixOutputBufferList.mBuffers[j].mData);
            mSliceBufferList.mBuffers[j] =
                AudioBuffer{1, slice * kFloatBytes, channel + mCurrentFrame};
        }
        if (const OSStatus status = unit.render(mTs, slice, mSliceBufferList); status != noErr)
            return status;
        mTs.mSampleTime += slice;
        mCurrentFrame += slice;
    }
    return noErr;
}

OSStatus KDChannelMixer::convertDestination(AudioBufferList* dst, uint32_t frames) {
    for (auto& buffer : mMixOutputBufferList.mBuffers)
        buffer.mDataByteSize = frames * kFloatBytes;
    const AudioBufferList* mixed = &mMixOutputBufferList;
    auto input = [mixed, frames](uint32_t& ioNumberDataPackets, AudioBufferList& ioData) {
        ioData.mNumberBuffers = mixed->mNumberBuffers;
        ioData.mBuffers.assign(mixed->mBuffers.begin(), mixed->mBuffers.end());
        ioNumberDataPackets = frames;
        return noErr;
    };
    uint32_t packets = frames;
    const OSStatus status = mDestConverter->fillComplexBuffer(input, packets, *dst);
    if (status != noErr)
        return status;
    return packets == frames ? noErr : kAudioConverterErr_InvalidOutputSize;
}

} // namespace velvox
