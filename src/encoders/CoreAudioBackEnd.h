#pragma once
// The library that writes a platform-encoder output: set up on the temporary
// path, fed interleaved little-endian signed PCM, finished, and closed. One
// implementation per library (LibavMuxerBackEnd, SndFileBackEnd); the
// operation picks one through CoreAudioOutputFormat. All methods run on the
// encode operation's thread.

#include <cstdint>
#include <string>

#include "encoders/CoreAudioOutputFormat.h"

namespace velvox {

class CoreAudioBackEnd {
public:
    struct Stream {
        double sampleRate = 0;
        uint32_t channels = 0;
        uint32_t bitsPerChannel = 0; // of the PCM write() receives
        int64_t bitrate = 0;         // bit/s, coded formats only
        int64_t expectedFrames = 0;  // write() will receive in all; 0 if unknown
    };

    virtual ~CoreAudioBackEnd() = default;

    // Creates the file; throws on failure.
    virtual void open(const std::string& path, const CoreAudioOutputFormat& format,
                      const Stream& stream) = 0;
    // Interleaved little-endian signed samples of Stream::bitsPerChannel.
    virtual void write(const uint8_t* samples, uint32_t frames) = 0;
    // Flushes the coder and completes the container; throws on failure.
    virtual void finish() = 0;
    // Releases everything; safe after a failure anywhere, never throws.
    virtual void close() noexcept = 0;

    // Gapless facts of a coder that primes and pads (AAC): frames of
    // priming before the first real sample, of padding after the last, and
    // the real frames written.
    virtual uint32_t primingFrames() const { return 0; }
    virtual uint32_t paddingFrames() const { return 0; }
    virtual uint64_t framesWritten() const = 0;
};

} // namespace velvox
