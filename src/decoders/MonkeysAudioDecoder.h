#pragma once
// Monkey's Audio files (.ape), decoded by libavcodec's APE decoder at the
// source's own sample size.

#include "core/KDDecoder.h"
#include "decoders/LibavLosslessStream.h"

namespace velvox {

class MonkeysAudioDecoder : public KDDecoder {
public:
    MonkeysAudioDecoder();
    ~MonkeysAudioDecoder() override;

    // Called on the encode operation's thread, like every member below.
    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "MonkeysAudioDecoder"; }
    int64_t totalFrames() const override { return stream_.totalFrames(); }
    bool decodesInRealTime() const override { return true; }
    void fillPCMBuffer() override;
    bool totalFramesIsExact() const override { return stream_.totalFrames() >= 0; }

private:
    LibavLosslessStream stream_;
};

} // namespace velvox
