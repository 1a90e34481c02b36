#pragma once
// Writes an AudioMetadata record into a platform-encoder output, in the tag
// store of its container: MP4 items (with the cover and, for AAC, the
// "iTunSMPB" gapless item), ID3v2 in an "id3 " chunk plus RIFF INFO for WAV,
// ID3v2 in an "ID3 " chunk for AIFF/AIFC, and the 'info' chunk of CAF.
// NeXT/Sun files have no tag store. Runs on the tagging thread.

#include <optional>
#include <string>
#include <vector>

#include "metadata/AudioMetadata.h"

namespace velvox {

class CoreAudioTagWriter {
public:
    struct Gapless {
        uint32_t priming = 0;
        uint32_t padding = 0;
        uint64_t frames = 0;
    };

    CoreAudioTagWriter(const AudioMetadata& metadata, std::optional<std::string> encodedBy,
                       std::optional<std::string> comment)
        : metadata_(metadata), encodedBy_(std::move(encodedBy)), comment_(std::move(comment)) {}

    // Each answers whether the file was opened and saved.
    bool writeMP4(const std::string& path, const std::optional<Gapless>& gapless) const;
    // `broadcastChunk`, when given, is stored as the file's "bext" chunk.
    bool writeWAV(const std::string& path, const std::vector<uint8_t>* broadcastChunk) const;
    bool writeAIFF(const std::string& path) const;
    bool writeCAF(const std::string& path) const;

    // The names of the record's fields that a file without a tag store
    // (NeXT/Sun) loses, comma-separated; empty when nothing is lost.
    std::string fieldsWithoutStore() const;

    // " 00000000 PPPPPPPP AAAAAAAA FFFFFFFFFFFFFFFF 00000000 ..." as
    // players read the encoder delay, padding and length.
    static std::string iTunSMPB(const Gapless& gapless);

private:
    const AudioMetadata& metadata_;
    std::optional<std::string> encodedBy_;
    std::optional<std::string> comment_;
};

} // namespace velvox
