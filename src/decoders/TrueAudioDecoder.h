#pragma once
// True Audio files (.tta), decoded by libavcodec's TTA decoder at the source's
// own sample size.

#include "core/KDDecoder.h"
#include "decoders/LibavLosslessStream.h"

namespace velvox {

class TrueAudioDecoder : public KDDecoder {
public:
    TrueAudioDecoder();
    ~TrueAudioDecoder() override;

    // Called on the encode operation's thread, like every member below.
    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "TrueAudioDecoder"; }
    int64_t totalFrames() const override { return stream_.totalFrames(); }
    bool decodesInRealTime() const override { return true; }
    void fillPCMBuffer() override;
    bool totalFramesIsExact() const override { return stream_.totalFrames() >= 0; }

private:
    LibavLosslessStream stream_;
};

} // namespace velvox
