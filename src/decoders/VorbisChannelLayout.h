#pragma once
// Channel layouts for the Vorbis channel order, which Ogg Opus files with
// mapping family 0 or 1 share.

#include <cstdint>
#include <memory>

#include "platform/CoreAudioTypes.h"

namespace velvox {

class VorbisChannelLayout {
public:
    // 1 to 6 channels by tag, 7 and 8 by explicit descriptions, Unknown for
    // any other count. Three channels keep the L R C tag on purpose: files made
    // by earlier releases were tagged so and their users expect the same.
    static std::unique_ptr<AudioChannelLayout> create(uint32_t channels);
};

} // namespace velvox
