#pragma once
// True Audio files (.tta), decoded by libavcodec's TTA decoder at the source's
// own sample size.

#include "decoders/LibavLosslessDecoder.h"

namespace velvox {

class TrueAudioDecoder : public LibavLosslessDecoder {
public:
    TrueAudioDecoder();
    ~TrueAudioDecoder() override;

    // Called on the encode operation's thread, like every member below.
    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "TrueAudioDecoder"; }
    void fillPCMBuffer() override;
};

} // namespace velvox
