#pragma once
// Monkey's Audio files (.ape), decoded by libavcodec's APE decoder at the
// source's own sample size.

#include "decoders/LibavLosslessDecoder.h"

namespace velvox {

class MonkeysAudioDecoder : public LibavLosslessDecoder {
public:
    MonkeysAudioDecoder();
    ~MonkeysAudioDecoder() override;

    // Called on the encode operation's thread, like every member below.
    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "MonkeysAudioDecoder"; }
    void fillPCMBuffer() override;
};

} // namespace velvox
