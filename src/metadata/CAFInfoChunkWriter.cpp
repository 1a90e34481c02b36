#include "metadata/CAFInfoChunkWriter.h"

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <system_error>

namespace velvox {

namespace {

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

constexpr uint64_t kFileHeaderSize = 8;   // 'caff', version, flags
constexpr uint64_t kChunkHeaderSize = 12; // identifier, 64-bit size

uint64_t bigEndian(const uint8_t* p, int bytes) {
    uint64_t value = 0;
    for (int i = 0; i < bytes; ++i)
        value = (value << 8) | p[i];
    return value;
}

void putBigEndian(uint8_t* p, uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i, value >>= 8)
        p[i] = uint8_t(value & 0xFF);
}

bool readAt(std::FILE* file, uint64_t offset, uint8_t* out, size_t size) {
    return fseeko(file, off_t(offset), SEEK_SET) == 0 && std::fread(out, 1, size, file) == size;
}

bool writeAt(std::FILE* file, uint64_t offset, const uint8_t* bytes, size_t size) {
    return fseeko(file, off_t(offset), SEEK_SET) == 0 && std::fwrite(bytes, 1, size, file) == size;
}

} // namespace

std::optional<std::vector<CAFInfoChunkWriter::ChunkHeader>>
CAFInfoChunkWriter::readChunkHeaders(std::FILE* file, uint64_t fileSize) {
    uint8_t header[kChunkHeaderSize];
    if (fileSize < kFileHeaderSize || !readAt(file, 0, header, kFileHeaderSize) ||
        std::memcmp(header, "caff", 4) != 0 || bigEndian(header + 4, 2) != 1)
        return std::nullopt;
    std::vector<ChunkHeader> chunks;
    uint64_t offset = kFileHeaderSize;
    while (offset < fileSize) {
        // Every comparison subtracts from the file size, which is known to
        // be larger, so no declared size can overflow the arithmetic.
        if (fileSize - offset < kChunkHeaderSize || !readAt(file, offset, header, kChunkHeaderSize))
            return std::nullopt;
        ChunkHeader chunk{std::string(reinterpret_cast<const char*>(header), 4), offset,
                          int64_t(bigEndian(header + 4, 8))};
        const uint64_t room = fileSize - offset - kChunkHeaderSize;
        if (chunk.size == -1 && chunk.identifier == "data") {
            chunks.push_back(chunk);
            return chunks; // runs to the end of the file
        }
        if (chunk.size < 0 || uint64_t(chunk.size) > room)
            return std::nullopt;
        chunks.push_back(chunk);
        offset += kChunkHeaderSize + uint64_t(chunk.size);
    }
    return chunks;
}

std::vector<uint8_t> CAFInfoChunkWriter::infoChunkPayload(const Pairs& pairs) {
    std::vector<uint8_t> payload(4);
    putBigEndian(payload.data(), pairs.size(), 4);
    for (const auto& [key, value] : pairs) {
        payload.insert(payload.end(), key.begin(), key.end());
        payload.push_back(0);
        payload.insert(payload.end(), value.begin(), value.end());
        payload.push_back(0);
    }
    return payload;
}

bool CAFInfoChunkWriter::replaceInfoChunk(const std::string& path, const Pairs& pairs) {
    std::error_code ec;
    uint64_t fileSize = std::filesystem::file_size(path, ec);
    if (ec)
        return false;
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "r+b"));
    if (!file)
        return false;
    const std::optional<std::vector<ChunkHeader>> chunks = readChunkHeaders(file.get(), fileSize);
    if (!chunks)
        return false;

    uint8_t sizeField[8];
    for (const ChunkHeader& chunk : *chunks) {
        if (chunk.size == -1) {
            putBigEndian(sizeField, fileSize - chunk.offset - kChunkHeaderSize, 8);
            if (!writeAt(file.get(), chunk.offset + 4, sizeField, 8))
                return false;
        }
    }
    // Old 'info' chunks: the last one in the file is cut off, any other is
    // turned into filler.
    uint64_t end = fileSize;
    for (auto it = chunks->rbegin(); it != chunks->rend(); ++it) {
        if (it->identifier != "info")
            continue;
        if (it->offset + kChunkHeaderSize + uint64_t(it->size) == end)
            end = it->offset;
        else if (!writeAt(file.get(), it->offset, reinterpret_cast<const uint8_t*>("free"), 4))
            return false;
    }
    if (std::fflush(file.get()) != 0)
        return false;
    if (end != fileSize) {
        std::filesystem::resize_file(path, end, ec);
        if (ec)
            return false;
    }

    const std::vector<uint8_t> payload = infoChunkPayload(pairs);
    uint8_t header[kChunkHeaderSize];
    std::memcpy(header, "info", 4);
    putBigEndian(header + 4, payload.size(), 8);
    if (!writeAt(file.get(), end, header, sizeof header) ||
        std::fwrite(payload.data(), 1, payload.size(), file.get()) != payload.size())
        return false;
    return std::fflush(file.get()) == 0;
}

} // namespace velvox
