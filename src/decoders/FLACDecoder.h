#pragma once
// Native FLAC files through libFLAC's stream decoder, at the stream's own
// sample size (8, 16, 24 or 32 bits).

#include <exception>
#include <memory>

#include <FLAC/stream_decoder.h>

#include "core/KDDecoder.h"

namespace velvox {

class FLACDecoder : public KDDecoder {
public:
    FLACDecoder();
    ~FLACDecoder() override;

    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "FLACDecoder"; }
    int64_t totalFrames() const override { return int64_t(totalSamples_); }
    bool decodesInRealTime() const override { return true; }
    void fillPCMBuffer() override;
    bool totalFramesIsExact() const override { return totalSamples_ > 0; }

    // Filled from the stream's STREAMINFO block.
    void setTotalSamples(uint64_t totalSamples) { totalSamples_ = totalSamples; }
    void setSampleRate(double sampleRate) { decodeFormat_.mSampleRate = sampleRate; }
    void setBitsPerChannel(uint32_t bits) { decodeFormat_.mBitsPerChannel = bits; }
    void setChannelsPerFrame(uint32_t channels) { decodeFormat_.mChannelsPerFrame = channels; }
    void setAudioChannelLayout(std::unique_ptr<AudioChannelLayout> layout) {
        setChannelLayout(std::move(layout));
    }

protected:
    // Starts libFLAC on the file; the Ogg variant overrides it.
    virtual FLAC__StreamDecoderInitStatus initStream(const std::string& path);
    FLAC__StreamDecoder* flac() const { return flac_.get(); }

    // libFLAC callbacks; client data is the FLACDecoder.
    static FLAC__StreamDecoderWriteStatus writeCallback(const FLAC__StreamDecoder*,
                                                        const FLAC__Frame* frame,
                                                        const FLAC__int32* const buffer[],
                                                        void* clientData);
    static void metadataCallback(const FLAC__StreamDecoder*, const FLAC__StreamMetadata* metadata,
                                 void* clientData);
    static void errorCallback(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus,
                              void* clientData);

private:
    struct Deleter {
        void operator()(FLAC__StreamDecoder* d) const;
    };

    FLAC__StreamDecoderWriteStatus writeFrame(const FLAC__Frame* frame,
                                              const FLAC__int32* const buffer[]);
    // At the end of the stream: closes libFLAC's stream, which checks the
    // decoded audio against the STREAMINFO MD5, and sets the end of file.
    // Operation thread.
    void finishStream();

    std::unique_ptr<FLAC__StreamDecoder, Deleter> flac_;
    uint64_t totalSamples_ = 0;
    // An exception raised inside a libFLAC callback cannot unwind through the
    // C library; it is kept here and raised again once libFLAC has returned.
    std::exception_ptr pendingException_;
};

} // namespace velvox
