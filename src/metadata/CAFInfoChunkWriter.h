#pragma once
// Writes the tags of a Core Audio Format file: its 'info' chunk of key and
// value strings, the store that the desktop audio service reads (see
// CoreAudioFileInfo::parseInfoChunk for the layout).
//
// The audio is never moved: an 'info' chunk at the end of the file is cut
// off, one elsewhere is renamed 'free' (CAF's own filler), and the new chunk
// is appended. A data chunk of unknown size (-1, left by a writer that could
// not seek) is given its real size first, since it then stops being last.

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace velvox {

class CAFInfoChunkWriter {
public:
    using Pairs = std::vector<std::pair<std::string, std::string>>;

    struct ChunkHeader {
        std::string identifier; // four characters
        uint64_t offset = 0;    // of the 12-byte header
        int64_t size = 0;       // of the payload as the file declares it
    };

    // False when the file is not a well-formed CAF file or cannot be
    // written; the file is then unchanged. Tagging thread.
    static bool replaceInfoChunk(const std::string& path, const Pairs& pairs);

    // The chunk headers of a CAF file of `fileSize` bytes, checked against
    // the file's size; absent when the header or any chunk is malformed.
    // A data chunk of size -1 is accepted only as the last chunk.
    static std::optional<std::vector<ChunkHeader>> readChunkHeaders(std::FILE* file,
                                                                    uint64_t fileSize);

    // Big-endian pair count, then each key and value NUL-terminated.
    static std::vector<uint8_t> infoChunkPayload(const Pairs& pairs);
};

} // namespace velvox
