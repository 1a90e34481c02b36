#pragma once
// Everything FFmpeg can demux and decode: the container formats the factory
// hands it (RealMedia, MPEG, AVI, QuickTime, Windows Media) and the fallback
// for files the Core Audio decoder cannot open. Delivers 16-bit PCM, or the
// source's own 8-bit data for packed unsigned 8-bit streams.

#include "core/KDDecoder.h"
#include "core/LibavSampleConverter.h"

namespace velvox {

class FFMPEGDecoder : public KDDecoder {
public:
    FFMPEGDecoder();
    ~FFMPEGDecoder() override;

    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "FFMPEGDecoder"; }
    // Whole seconds of the container's duration times the rate; -1 when the
    // container does not know its duration.
    int64_t totalFrames() const override { return totalFrames_; }
    bool decodesInRealTime() const override { return true; }
    void fillPCMBuffer() override;

private:
    // Decodes one packet (or drains the decoder when it is null) and appends
    // the PCM to the ring buffer.
    void decodePacket(const AVPacket* packet);
    void writeFrame(const AVFrame* frame);
    void convertFrame(const AVFrame* frame);
    void flushConverter();
    void appendToBuffer(const uint8_t* data, uint32_t byteCount);

    AVFormatContextPtr ic_;
    AVCodecContextPtr c_;
    const AVCodec* codec_ = nullptr;
    AVPacketPtr packet_;
    AVFramePtr frame_;
    LibavSampleConverter converter_;
    int streamIndex_ = -1;
    int64_t totalFrames_ = -1;
    bool drained_ = false;
};

} // namespace velvox
