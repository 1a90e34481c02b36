#pragma once
// One lossless audio stream of a file decoded through libavcodec and delivered
// interleaved at the source's own sample size (8, 16, 24 or 32 bits, signed,
// little-endian). The back end of the decoders for lossless formats whose
// reference libraries are not available as system libraries.

#include <cstdint>
#include <string>

#include "core/LibavHandles.h"
#include "core/RingBuffer.h"

namespace velvox {

class LibavLosslessStream {
public:
    // Opens the file and its first audio stream, which must be of `codec`.
    // Returns 0, or an AVERROR (AVERROR_INVALIDDATA when the stream is of
    // another codec or has a sample size that cannot be delivered).
    int open(const std::string& path, AVCodecID codec);

    uint32_t bitsPerChannel() const { return bits_; }
    uint32_t channels() const { return channels_; }
    uint32_t sampleRate() const { return sampleRate_; }
    // The length the container declares, or -1.
    int64_t totalFrames() const { return totalFrames_; }
    // Packets read so far, for error messages.
    int64_t packetsRead() const { return packetsRead_; }

    // Decodes the next packet and appends its PCM to the ring (growing it when
    // needed). Returns the frames appended, 0 at the end of the stream, or a
    // negative AVERROR for a damaged stream. Called on the decoding thread.
    int decodeNextPacket(RingBuffer& ring);

private:
    int appendFrames(RingBuffer& ring);
    void interleave(const AVFrame* frame, uint8_t* out) const;

    AVFormatContextPtr ic_;
    AVCodecContextPtr c_;
    AVPacketPtr packet_;
    AVFramePtr frame_;
    int streamIndex_ = -1;
    uint32_t bits_ = 0;
    uint32_t channels_ = 0;
    uint32_t sampleRate_ = 0;
    int64_t totalFrames_ = -1;
    int64_t packetsRead_ = 0;
    bool flushed_ = false;
};

} // namespace velvox
