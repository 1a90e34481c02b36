#pragma once
// PCM format conversion in the pull shape the encode loop and the channel
// mixer are written against: the caller asks for N output packets and the
// converter calls back for as much input as it needs.
//
// Sample size and encoding: signed integers of 1 to 4 bytes (either byte
// order) and 32/64-bit floats, interleaved or one buffer per channel.
// Sample rate: libsoxr. Channel count must be the same on both sides (the
// channel mixer does channel changes).

#include <cstdint>
#include <functional>
#include <memory>
#include <vector>

#include "platform/CoreAudioTypes.h"

struct soxr;

namespace velvox {

constexpr uint32_t kAudioConverterQuality_Max = 0x7F;
constexpr uint32_t kAudioConverterQuality_High = 0x60;
constexpr uint32_t kAudioConverterQuality_Medium = 0x40;
constexpr uint32_t kAudioConverterQuality_Low = 0x20;
constexpr uint32_t kAudioConverterQuality_Min = 0;

constexpr OSStatus kAudioConverterErr_FormatNotSupported = fourCharCode("fmt?");
constexpr OSStatus kAudioConverterErr_InvalidInputSize = fourCharCode("insz");
constexpr OSStatus kAudioConverterErr_InvalidOutputSize = fourCharCode("otsz");
constexpr OSStatus kAudioConverterErr_RequiresPacketDescriptionsError = fourCharCode("!pkd");
constexpr OSStatus kAudioConverterErr_UnspecifiedError = fourCharCode("what");

class AudioConverter {
public:
    // Asked for ioNumberDataPackets frames of input; sets it to the frames
    // delivered in ioData (0 = end of input) and returns a status.
    using InputDataProc =
        std::function<OSStatus(uint32_t& ioNumberDataPackets, AudioBufferList& ioData)>;

    // Null with *status set when the pair of formats cannot be converted.
    static std::unique_ptr<AudioConverter> create(const AudioStreamBasicDescription& source,
                                                  const AudioStreamBasicDescription& destination,
                                                  OSStatus* status = nullptr);
    ~AudioConverter();
    AudioConverter(const AudioConverter&) = delete;
    AudioConverter& operator=(const AudioConverter&) = delete;

    void setSampleRateConverterQuality(uint32_t quality);
    uint32_t sampleRateConverterQuality() const { return quality_; }

    // Fills outOutputData with up to ioOutputDataPacketSize frames. On return
    // ioOutputDataPacketSize holds the frames produced and each buffer's
    // mDataByteSize the bytes written. Fewer frames than asked means the input
    // ended (the input procedure delivered 0 frames).
    OSStatus fillComplexBuffer(const InputDataProc& inputProc, uint32_t& ioOutputDataPacketSize,
                               AudioBufferList& outOutputData);

    // Forgets buffered input and the end-of-input state.
    void reset();

    const AudioStreamBasicDescription& sourceFormat() const { return source_; }
    const AudioStreamBasicDescription& destinationFormat() const { return destination_; }

private:
    AudioConverter(const AudioStreamBasicDescription& source,
                   const AudioStreamBasicDescription& destination);
    bool resampling() const { return source_.mSampleRate != destination_.mSampleRate; }
    OSStatus pullInput(const InputDataProc& inputProc, uint32_t frames);
    OSStatus ensureResampler();
    void produceWithoutResampling(uint32_t frames);

    AudioStreamBasicDescription source_;
    AudioStreamBasicDescription destination_;
    uint32_t channels_;
    uint32_t quality_ = kAudioConverterQuality_High;
    soxr* resampler_ = nullptr;

    // Input already pulled but not yet consumed, as interleaved doubles.
    std::vector<double> pending_;
    size_t pendingOffset_ = 0; // in samples
    // Resampled output not yet handed out, as interleaved doubles.
    std::vector<double> ready_;
    size_t readyOffset_ = 0;
    bool inputEnded_ = false;
    bool flushed_ = false;
};

} // namespace velvox
