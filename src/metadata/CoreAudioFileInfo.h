#pragma once
// What the desktop audio file service reports about a file, gathered on Linux
// from libsndfile (the uncompressed family: WAVE, AIFF/AIFC, CAF, AU, Wave64,
// RF64, Sound Designer II) or, for coded formats and for files libsndfile
// cannot read, from libavformat/libavcodec (MPEG audio, AAC in ADTS or MP4,
// Apple Lossless, AMR, AC-3). Files neither library reads as one of those
// formats are not opened, as the desktop service would refuse them.
//
// The facts carry the service's own vocabulary: file type names such as
// "WAVE" or "Apple MPEG-4 Audio", a stream description with a four-character
// format ID, the format's display name, raw chunks by four-character
// identifier, and the info dictionary with its lower-case keys ("artist",
// "comments", "key signature", ...).

#include <cstdint>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "platform/CoreAudioTypes.h"

namespace velvox {

class CoreAudioFileInfo {
public:
    struct Chunk {
        std::string identifier; // four characters
        std::vector<uint8_t> bytes;
    };

    // Absent when the file cannot be opened as one of the service's formats.
    static std::optional<CoreAudioFileInfo> infoWithFile(const std::string& path);

    // "WAVE", "AIFF", "AIFC", "CAF", "MPEG Layer 3", "Apple MPEG-4 Audio", ...
    const std::string& fileTypeName() const { return fileTypeName_; }
    // Rate, channels, format ID and flags; bits per channel only for
    // uncompressed data (0 for coded formats).
    const AudioStreamBasicDescription& dataFormat() const { return dataFormat_; }
    // The display name of the format ID and flags ("Linear PCM", "AAC", ...).
    const std::string& formatName() const { return formatName_; }
    // Seconds; 0 when unknown.
    double estimatedDuration() const { return estimatedDuration_; }
    // Bits per second; 0 when unknown.
    uint32_t bitRate() const { return bitRate_; }
    // The layout tag of the file's channel layout, when it has one that a tag
    // names (a stored channel-layout chunk, or the one the channels imply).
    std::optional<AudioChannelLayoutTag> channelLayoutTag() const { return channelLayoutTag_; }

    // Every chunk of the file in file order, except the container header and
    // the sample data itself (which is never copied into memory).
    const std::vector<Chunk>& chunks() const { return chunks_; }
    // The chunks of one identifier, in file order.
    std::vector<const std::vector<uint8_t>*> userData(const std::string& identifier) const;

    const std::map<std::string, std::string>& infoDictionary() const { return infoDictionary_; }

    // The service's display name for a format ID with the given flags.
    static std::string formatNameForFormat(AudioFormatID formatID, AudioFormatFlags flags);
    // The pairs of a CAF 'info' chunk: a big-endian entry count, then
    // NUL-terminated key and value strings. Reading stops at the count, at the
    // end of the bytes, or at a string without its terminator.
    static std::vector<std::pair<std::string, std::string>>
    parseInfoChunk(const std::vector<uint8_t>& bytes);

private:
    bool readWithSndfile(const std::string& path, uint64_t fileSize);
    bool readWithLibav(const std::string& path, uint64_t fileSize);

    std::string fileTypeName_;
    AudioStreamBasicDescription dataFormat_{};
    std::string formatName_;
    double estimatedDuration_ = 0;
    uint32_t bitRate_ = 0;
    std::optional<AudioChannelLayoutTag> channelLayoutTag_;
    std::vector<Chunk> chunks_;
    std::map<std::string, std::string> infoDictionary_;
};

} // namespace velvox
