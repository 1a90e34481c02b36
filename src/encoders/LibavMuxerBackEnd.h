#pragma once
// FFmpeg as a platform-encoder back end: its "aac", "alac" and
// "adpcm_ima_qt" encoders into its MP4 ("ipod", "mp4"), CAF and AIFC muxers.
//
// Samples arrive interleaved and are gathered per channel in the encoder's
// own planar sample format until a whole coder frame is there. The MP4
// muxer records the AAC priming and the trimmed last packet in an edit list,
// so a decoder that honours it yields exactly the source's frames; when the
// length is known, the audio is placed so that no packet needs trimming.

#include <memory>
#include <vector>

extern "C" {
#include <libavutil/audio_fifo.h>
}

#include "core/LibavHandles.h"
#include "encoders/CoreAudioBackEnd.h"

namespace velvox {

class LibavMuxerBackEnd : public CoreAudioBackEnd {
public:
    ~LibavMuxerBackEnd() override { close(); }

    void open(const std::string& path, const CoreAudioOutputFormat& format,
              const Stream& stream) override;
    void write(const uint8_t* samples, uint32_t frames) override;
    void finish() override;
    void close() noexcept override;

    uint32_t primingFrames() const override;
    uint32_t paddingFrames() const override;
    uint64_t framesWritten() const override { return framesWritten_; }

private:
    struct OutputContextDeleter {
        void operator()(AVFormatContext* context) const;
    };
    struct FifoDeleter {
        void operator()(AVAudioFifo* fifo) const { av_audio_fifo_free(fifo); }
    };

    void openCodec(const CoreAudioOutputFormat& format, const Stream& stream);
    // Puts silence before the audio so that the coded frames end with it.
    void queueLeadingSilence(int64_t expectedFrames);
    // Moves interleaved integers into the planar buffers in the coder's format.
    void deinterleave(const uint8_t* samples, uint32_t frames);
    void deinterleave16ToFloat(const uint8_t* samples, uint32_t frames);
    // Encodes `frames` from the FIFO (a short last frame when finishing).
    void encodeFromFifo(int frames);
    // Sends a frame (null drains) and writes every packet that comes back.
    void sendAndWrite(const AVFrame* frame);

    std::unique_ptr<AVFormatContext, OutputContextDeleter> output_;
    AVCodecContextPtr codec_;
    AVFramePtr frame_;
    AVPacketPtr packet_;
    std::unique_ptr<AVAudioFifo, FifoDeleter> fifo_;
    AVStream* stream_ = nullptr; // owned by output_
    Stream input_;
    int frameSize_ = 0;
    bool padLastFrame_ = false;
    bool headerWritten_ = false;
    std::vector<std::vector<uint8_t>> planes_;
    std::vector<void*> planePointers_;
    uint64_t framesWritten_ = 0;
    uint32_t leadingSilence_ = 0; // coded before the audio, stated as priming
    uint64_t framesEncoded_ = 0;  // including the padding of a short last frame
};

} // namespace velvox
