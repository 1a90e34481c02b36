#pragma once
// Ogg Vorbis files through libvorbisfile, always as 16-bit PCM in the Vorbis
// channel order.

#include <vorbis/vorbisfile.h>

#include "core/KDDecoder.h"

namespace velvox {

// Used by the one encode operation that made it, on that operation's thread.
class OggVorbisDecoder : public KDDecoder {
public:
    OggVorbisDecoder();
    ~OggVorbisDecoder() override;

    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "OggVorbisDecoder"; }
    int64_t totalFrames() const override;
    bool decodesInRealTime() const override { return true; }
    void fillPCMBuffer() override;

private:
    OggVorbis_File oggVorbisFile_{};
    bool open_ = false;
    bool endsWithLastPage_ = true;
};

} // namespace velvox
