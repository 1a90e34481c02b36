#pragma once
// What the decoders over libavcodec's lossless decoders (Monkey's Audio, True
// Audio) share: the stream, its length, and PCM at the source's own sample
// size.

#include "core/KDDecoder.h"
#include "decoders/LibavLosslessStream.h"

namespace velvox {

// Called on the encode operation's thread, like every member below.
class LibavLosslessDecoder : public KDDecoder {
public:
    int64_t totalFrames() const override { return stream_.totalFrames(); }
    bool decodesInRealTime() const override { return true; }
    bool totalFramesIsExact() const override { return stream_.totalFrames() >= 0; }

protected:
    // After the stream opened: the decode format, each sample in
    // `bytesPerSample` bytes, and the channel layout. False (logged) when
    // the stream gives no frame size or rate.
    bool takeStreamFormat(uint32_t bytesPerSample);

    LibavLosslessStream stream_;
};

} // namespace velvox
