#pragma once
// DSF and DSDIFF files: the 1-bit stream of each channel is low-pass filtered
// and decimated by 32 to float PCM, scaled by the "dsd_gain" preference, and
// handed out as 24-bit integers at the DSD rate / 32 (88.2 kHz for DSD64).
// Used by its encode operation on that operation's thread.

#include <memory>
#include <vector>

#include "core/KDDecoder.h"
#include "decoders/DSDFilterState.h"
#include "decoders/VLXDSDFile.h"
#include "platform/AudioConverter.h"

namespace velvox {

class DSDDecoder : public KDDecoder {
public:
    DSDDecoder();
    ~DSDDecoder() override;

    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "DSDDecoder"; }
    int64_t totalFrames() const override { return file_ ? file_->totalPCMSamples() : -1; }
    bool decodesInRealTime() const override { return true; }
    void fillPCMBuffer() override;
    bool totalFramesIsExact() const override { return totalFramesIsExact_; }

    // Applies the gain to `count` interleaved frames of `buffer` and converts
    // them into the ring buffer; a converter status.
    OSStatus convertSamplesInBuffer(float* buffer, uint32_t count, RingBuffer& ringBuffer);
    void freeDSDProc() { dsdProc_.clear(); }

    // The linear gain in use (from "dsd_gain", clamped to 0..6 dB).
    float gain() const { return gain_; }
    int32_t decimation() const { return decimation_; }

private:
    void readBlock();
    void convertBlock(uint32_t frames);
    // Delivers up to `budget` frames held back from an earlier block; the
    // frames delivered.
    uint32_t deliverResidue(uint32_t budget);
    void deliver(float* buffer, uint32_t frames);

    std::unique_ptr<VLXDSDFile> file_;
    int32_t decimation_ = 32;
    float gain_ = 1.0f;
    std::vector<uint8_t> dsdBuffer_;
    std::vector<float> dsd2pcmBuffer_;
    std::vector<float> residueBuffer_;
    int64_t residueSampleCount_ = 0;
    int64_t currentBlock_ = 0;
    std::vector<DSDFilterState> dsdProc_;
    std::unique_ptr<AudioConverter> mAudioConverterRef_;
    bool totalFramesIsExact_ = false;
};

} // namespace velvox
