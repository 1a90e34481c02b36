#include "platform/AudioConverter.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include <soxr.h>

namespace velvox {

namespace {

struct SampleLayout {
    bool isFloat;
    bool bigEndian;
    bool nonInterleaved;
    uint32_t bytesPerSample;
};

bool describe(const AudioStreamBasicDescription& f, SampleLayout& out) {
    if (f.mFormatID != kAudioFormatLinearPCM || f.mChannelsPerFrame == 0 || f.mBytesPerFrame == 0)
        return false;
    if (f.mFramesPerPacket != 0 && f.mFramesPerPacket != 1)
        return false;
    out.isFloat = (f.mFormatFlags & kAudioFormatFlagIsFloat) != 0;
    out.bigEndian = (f.mFormatFlags & kAudioFormatFlagIsBigEndian) != 0;
    out.nonInterleaved = (f.mFormatFlags & kAudioFormatFlagIsNonInterleaved) != 0;
    if (out.nonInterleaved) {
        out.bytesPerSample = f.mBytesPerFrame;
    } else {
        if (f.mBytesPerFrame % f.mChannelsPerFrame != 0)
            return false;
        out.bytesPerSample = f.mBytesPerFrame / f.mChannelsPerFrame;
    }
    if (out.isFloat)
        return out.bytesPerSample == 4 || out.bytesPerSample == 8;
    return out.bytesPerSample >= 1 && out.bytesPerSample <= 4;
}

// Integers are scaled by their container width so that full scale maps to
// [-1, 1): 16-bit 0x4000 and 24-bit 0x400000 are both 0.5. Integer widening and
// narrowing through double is exact except for the rounding of dropped bits.
double readSample(const uint8_t* p, const SampleLayout& l) {
    if (l.isFloat) {
        if (l.bytesPerSample == 4) {
            uint32_t u;
            std::memcpy(&u, p, 4);
            if (l.bigEndian)
                u = __builtin_bswap32(u);
            float f;
            std::memcpy(&f, &u, 4);
            return f;
        }
        uint64_t u;
        std::memcpy(&u, p, 8);
        if (l.bigEndian)
            u = __builtin_bswap64(u);
        double d;
        std::memcpy(&d, &u, 8);
        return d;
    }
    const uint32_t n = l.bytesPerSample;
    uint32_t u = 0;
    for (uint32_t i = 0; i < n; ++i) {
        const uint32_t byte = l.bigEndian ? p[i] : p[n - 1 - i];
        u = (u << 8) | byte;
    }
    // Sign-extend from the container width.
    const int shift = int(32 - 8 * n);
    const int32_t value = int32_t(u << shift) >> shift;
    return double(value) / double(1ull << (8 * n - 1));
}

void writeSample(uint8_t* p, double v, const SampleLayout& l) {
    if (l.isFloat) {
        if (l.bytesPerSample == 4) {
            const float f = float(v);
            uint32_t u;
            std::memcpy(&u, &f, 4);
            if (l.bigEndian)
                u = __builtin_bswap32(u);
            std::memcpy(p, &u, 4);
        } else {
            uint64_t u;
            std::memcpy(&u, &v, 8);
            if (l.bigEndian)
                u = __builtin_bswap64(u);
            std::memcpy(p, &u, 8);
        }
        return;
    }
    const uint32_t n = l.bytesPerSample;
    const double scale = double(1ull << (8 * n - 1));
    const double maxValue = scale - 1.0;
    // NaN is silence, not full negative scale.
    double scaled = std::isnan(v) ? 0.0 : std::nearbyint(v * scale);
    if (scaled < -scale)
        scaled = -scale;
    if (scaled > maxValue)
        scaled = maxValue;
    const uint32_t u = uint32_t(int32_t(int64_t(scaled)));
    for (uint32_t i = 0; i < n; ++i) {
        const uint8_t byte = uint8_t(u >> (8 * i));
        if (l.bigEndian)
            p[n - 1 - i] = byte;
        else
            p[i] = byte;
    }
}

} // namespace

std::unique_ptr<AudioConverter>
AudioConverter::create(const AudioStreamBasicDescription& source,
                       const AudioStreamBasicDescription& destination, OSStatus* status) {
    SampleLayout a{}, b{};
    const bool ok = describe(source, a) && describe(destination, b) &&
                    source.mChannelsPerFrame == destination.mChannelsPerFrame &&
                    source.mSampleRate > 0 && destination.mSampleRate > 0;
    if (status)
        *status = ok ? noErr : kAudioConverterErr_FormatNotSupported;
    if (!ok)
        return nullptr;
    return std::unique_ptr<AudioConverter>(new AudioConverter(source, destination));
}

AudioConverter::AudioConverter(const AudioStreamBasicDescription& source,
                               const AudioStreamBasicDescription& destination)
    : source_(source), destination_(destination), channels_(source.mChannelsPerFrame) {}

AudioConverter::~AudioConverter() {
    if (resampler_)
        soxr_delete(resampler_);
}

void AudioConverter::setSampleRateConverterQuality(uint32_t quality) {
    if (quality == quality_)
        return;
    quality_ = quality;
    if (resampler_) { // takes effect from the next block
        soxr_delete(resampler_);
        resampler_ = nullptr;
    }
}

void AudioConverter::reset() {
    pending_.clear();
    pendingOffset_ = 0;
    ready_.clear();
    readyOffset_ = 0;
    inputEnded_ = false;
    flushed_ = false;
    if (resampler_)
        soxr_clear(resampler_);
}

OSStatus AudioConverter::ensureResampler() {
    if (resampler_)
        return noErr;
    unsigned long recipe = SOXR_VHQ;
    if (quality_ >= kAudioConverterQuality_Max)
        recipe = SOXR_32_BITQ;
    else if (quality_ < kAudioConverterQuality_Medium)
        recipe = SOXR_HQ;
    const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT64_I, SOXR_FLOAT64_I);
    const soxr_quality_spec_t q = soxr_quality_spec(recipe, 0);
    soxr_error_t error = nullptr;
    resampler_ = soxr_create(source_.mSampleRate, destination_.mSampleRate, channels_, &error, &io,
                             &q, nullptr);
    return (error || !resampler_) ? kAudioConverterErr_UnspecifiedError : noErr;
}

OSStatus AudioConverter::pullInput(const InputDataProc& inputProc, uint32_t frames) {
    SampleLayout in{};
    describe(source_, in);
    uint32_t packets = std::max<uint32_t>(frames, 1);
    AudioBufferList list(in.nonInterleaved ? channels_ : 1);
    const OSStatus status = inputProc(packets, list);
    if (status != noErr)
        return status;
    if (packets == 0) {
        inputEnded_ = true;
        return noErr;
    }
    // Compact what is left before appending.
    if (pendingOffset_ > 0) {
        pending_.erase(pending_.begin(), pending_.begin() + long(pendingOffset_));
        pendingOffset_ = 0;
    }
    const size_t base = pending_.size();
    pending_.resize(base + size_t(packets) * channels_);
    double* dst = pending_.data() + base;
    if (in.nonInterleaved) {
        if (list.mBuffers.size() < channels_)
            return kAudioConverterErr_InvalidInputSize;
        for (uint32_t c = 0; c < channels_; ++c) {
            const auto& buf = list.mBuffers[c];
            if (!buf.mData || buf.mDataByteSize < size_t(packets) * in.bytesPerSample)
                return kAudioConverterErr_InvalidInputSize;
            const auto* src = static_cast<const uint8_t*>(buf.mData);
            for (uint32_t f = 0; f < packets; ++f)
                dst[size_t(f) * channels_ + c] =
                    readSample(src + size_t(f) * in.bytesPerSample, in);
        }
    } else {
        if (list.mBuffers.empty() || !list.mBuffers[0].mData ||
            list.mBuffers[0].mDataByteSize < size_t(packets) * source_.mBytesPerFrame)
            return kAudioConverterErr_InvalidInputSize;
        const auto* src = static_cast<const uint8_t*>(list.mBuffers[0].mData);
        const size_t samples = size_t(packets) * channels_;
        for (size_t s = 0; s < samples; ++s)
            dst[s] = readSample(src + s * in.bytesPerSample, in);
    }
    return noErr;
}

OSStatus AudioConverter::fillComplexBuffer(const InputDataProc& inputProc,
                                           uint32_t& ioOutputDataPacketSize,
                                           AudioBufferList& outOutputData) {
    SampleLayout out{};
    describe(destination_, out);
    const uint32_t wanted = ioOutputDataPacketSize;
    ioOutputDataPacketSize = 0;

    const uint32_t neededBuffers = out.nonInterleaved ? channels_ : 1;
    if (outOutputData.mBuffers.size() < neededBuffers)
        return kAudioConverterErr_InvalidOutputSize;
    for (uint32_t b = 0; b < neededBuffers; ++b) {
        const uint64_t need = uint64_t(wanted) * (out.nonInterleaved ? out.bytesPerSample
                                                                     : destination_.mBytesPerFrame);
        if (!outOutputData.mBuffers[b].mData || outOutputData.mBuffers[b].mDataByteSize < need)
            return kAudioConverterErr_InvalidOutputSize;
    }

    // Gather `wanted` frames of converted (double, interleaved) audio in ready_.
    auto readyFrames = [&] { return (ready_.size() - readyOffset_) / channels_; };
    if (!resampling()) {
        while (readyFrames() < wanted && !inputEnded_) {
            const size_t pendingFrames = (pending_.size() - pendingOffset_) / channels_;
            if (pendingFrames == 0) {
                const OSStatus s = pullInput(inputProc, wanted - uint32_t(readyFrames()));
                if (s != noErr)
                    return s;
                continue;
            }
            produceWithoutResampling(
                uint32_t(std::min<size_t>(pendingFrames, wanted - readyFrames())));
        }
        const size_t pendingFrames = (pending_.size() - pendingOffset_) / channels_;
        if (readyFrames() < wanted && pendingFrames > 0)
            produceWithoutResampling(
                uint32_t(std::min<size_t>(pendingFrames, wanted - readyFrames())));
    } else {
        if (const OSStatus s = ensureResampler(); s != noErr)
            return s;
        std::vector<double> chunk;
        while (readyFrames() < wanted && !flushed_) {
            size_t pendingFrames = (pending_.size() - pendingOffset_) / channels_;
            if (pendingFrames == 0 && !inputEnded_) {
                const OSStatus s = pullInput(inputProc, wanted);
                if (s != noErr)
                    return s;
                continue;
            }
            const size_t room = std::max<size_t>(wanted - readyFrames(), 4096);
            chunk.resize(room * channels_);
            size_t consumed = 0, produced = 0;
            soxr_error_t error;
            if (pendingFrames > 0) {
                error = soxr_process(resampler_, pending_.data() + pendingOffset_, pendingFrames,
                                     &consumed, chunk.data(), room, &produced);
            } else { // input ended: drain the filter
                error =
                    soxr_process(resampler_, nullptr, 0, nullptr, chunk.data(), room, &produced);
                if (produced == 0)
                    flushed_ = true;
            }
            if (error)
                return kAudioConverterErr_UnspecifiedError;
            pendingOffset_ += consumed * channels_;
            if (readyOffset_ > 0 && readyOffset_ == ready_.size()) {
                ready_.clear();
                readyOffset_ = 0;
            }
            ready_.insert(ready_.end(), chunk.begin(), chunk.begin() + long(produced * channels_));
        }
    }

    const uint32_t frames = uint32_t(std::min<size_t>(readyFrames(), wanted));
    const double* src = ready_.data() + readyOffset_;
    if (out.nonInterleaved) {
        for (uint32_t c = 0; c < channels_; ++c) {
            auto* dst = static_cast<uint8_t*>(outOutputData.mBuffers[c].mData);
            for (uint32_t f = 0; f < frames; ++f)
                writeSample(dst + size_t(f) * out.bytesPerSample, src[size_t(f) * channels_ + c],
                            out);
            outOutputData.mBuffers[c].mDataByteSize = frames * out.bytesPerSample;
            outOutputData.mBuffers[c].mNumberChannels = 1;
        }
    } else {
        auto* dst = static_cast<uint8_t*>(outOutputData.mBuffers[0].mData);
        const size_t samples = size_t(frames) * channels_;
        for (size_t s = 0; s < samples; ++s)
            writeSample(dst + s * out.bytesPerSample, src[s], out);
        outOutputData.mBuffers[0].mDataByteSize = frames * destination_.mBytesPerFrame;
        outOutputData.mBuffers[0].mNumberChannels = channels_;
    }
    readyOffset_ += size_t(frames) * channels_;
    if (readyOffset_ == ready_.size()) {
        ready_.clear();
        readyOffset_ = 0;
    }
    ioOutputDataPacketSize = frames;
    return noErr;
}

void AudioConverter::produceWithoutResampling(uint32_t frames) {
    const size_t samples = size_t(frames) * channels_;
    if (readyOffset_ > 0 && readyOffset_ == ready_.size()) {
        ready_.clear();
        readyOffset_ = 0;
    }
    ready_.insert(ready_.end(), pending_.begin() + long(pendingOffset_),
                  pending_.begin() + long(pendingOffset_ + samples));
    pendingOffset_ += samples;
    if (pendingOffset_ == pending_.size()) {
        pending_.clear();
        pendingOffset_ = 0;
    }
}

} // namespace velvox
