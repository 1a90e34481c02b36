#pragma once
// Small routines shared across the pipeline: Ogg stream classification,
// temporary files and channel-layout construction.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/CoreAudioTypes.h"

namespace velvox {

enum OggStreamType : int32_t {
    OggStreamTypeInvalid = 0,
    OggStreamTypeUnknown = 1,
    OggStreamTypeVorbis = 2,
    OggStreamTypeFLAC = 3,
    OggStreamTypeSpeex = 4,
    OggStreamTypeOpus = 5,
};

// Classifies an Ogg file by the first packet of its first page. Failures
// (unreadable file, not an Ogg stream) raise assertions.
OggStreamType oggStreamType(const std::string& path);

// Creates a new, empty, closed file in the system temporary folder and returns
// its path. With an extension, the name ends in "." + extension.
std::string getTemporaryFilePath(const std::string& extension = "");

// A layout holding only a tag.
std::unique_ptr<AudioChannelLayout> createChannelLayoutWithTag(AudioChannelLayoutTag tag);

// The layout a bare channel count stands for when a file says nothing else
// (1 to 6 channels: mono, stereo, 3.0, quadraphonic, 5.0, 5.1); Unknown
// beyond that.
AudioChannelLayoutTag layoutTagForChannelCount(uint32_t channels);
// A layout of explicit channel descriptions, one per label.
std::unique_ptr<AudioChannelLayout>
createChannelLayoutWithLabels(const std::vector<AudioChannelLabel>& labels);

} // namespace velvox
