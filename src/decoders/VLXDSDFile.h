#pragma once
// Parser of 1-bit DSD files: DSF ("DSD " magic) and uncompressed DSDIFF
// ("FRM8" magic). It checks that the file is a form Velvox can decode, finds
// the sample data, and works out the block geometry and lengths the DSD
// decoder needs at a given decimation. After a successful open it keeps the
// file open, positioned at the first sample byte; the decoder reads blocks
// through read().
//
// Every size in the file is untrusted: reads and seeks are checked, chunk
// walks always advance, and the sample data must lie inside the file.
// Used by one decoder on one operation thread.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

namespace velvox {

class VLXDSDFile {
public:
    static constexpr const char* kErrorDomain = "com.velvox.dsdfile";
    static constexpr int kErrorCode = 100;

    struct Error {
        std::string domain;
        int code = 0;
        std::string localizedDescription;
    };

    VLXDSDFile() = default;
    VLXDSDFile(const VLXDSDFile&) = delete;
    VLXDSDFile& operator=(const VLXDSDFile&) = delete;

    // Opens and parses the file at the decimation (DSD bits per PCM sample; 0
    // means 8). On failure the file is closed, *error (if given) says why and
    // false is returned.
    bool initWithFilename(const std::string& path, int32_t decimation, Error* error);
    // The same over a stream the parser takes over (in-memory bytes); `name`
    // stands for the path in messages.
    bool initWithStream(FILE* stream, const std::string& name, int32_t decimation, Error* error);

    // Reads count items of size bytes at the current position; the items read.
    size_t read(void* buffer, size_t size, size_t count);

    uint32_t dsdFormat() const { return dsdFormat_; }
    int64_t dataStart() const { return dataStart_; }
    int64_t totalDSDSamples() const { return totalDSDSamples_; }
    int64_t totalPCMSamples() const { return totalPCMSamples_; }
    int64_t totalBlocks() const { return totalBlocks_; }
    uint32_t dsdSampleRate() const { return dsdSampleRate_; }
    uint32_t channels() const { return channels_; }
    uint32_t DSDStride() const { return DSDStride_; }
    uint32_t blockSize() const { return blockSize_; }
    uint32_t DSDSamplesPerBlock() const { return DSDSamplesPerBlock_; }
    uint32_t PCMSamplesPerBlock() const { return PCMSamplesPerBlock_; }
    uint32_t lastBlockPCMSampleCount() const { return lastBlockPCMSampleCount_; }

private:
    struct FileCloser {
        void operator()(FILE* f) const { std::fclose(f); }
    };

    bool open(const std::string& name, int32_t decimation, Error* error);
    bool parseDSFFile();
    bool parseDFFFile();
    bool generateErrorAndBail(const std::string& message, Error* error);

    // Checked primitives over the untrusted bytes.
    bool readBytes(void* buffer, size_t count);
    bool readLE(uint64_t& value, int width);
    bool readBE(uint64_t& value, int width);
    bool skip(int64_t count);
    bool seekTo(int64_t offset);
    int64_t position();
    int64_t fileSize();
    // Reads chunk headers (4-byte ID, 8-byte size) until `id`; `headerCounted`
    // says whether the size includes the 12-byte header (DSF) or not (DSDIFF).
    bool findChunk(const char* id, bool littleEndian, bool headerCounted, uint64_t& size);
    bool readDSFFormat(uint32_t& channels, uint32_t& rate, uint64_t& samples, uint32_t& block);
    bool readDFFProperties(uint64_t propSize, uint32_t& channels, uint32_t& rate,
                           bool& uncompressed);
    bool dataFitsInFile(uint64_t bytes);

    std::unique_ptr<FILE, FileCloser> f_;
    uint32_t dsdFormat_ = 0;
    int64_t dataStart_ = 0;
    int32_t decimation_ = 8;
    int64_t totalDSDSamples_ = 0;
    int64_t totalPCMSamples_ = 0;
    int64_t totalBlocks_ = 0;
    uint32_t dsdSampleRate_ = 0;
    uint32_t channels_ = 0;
    uint32_t DSDStride_ = 0;
    uint32_t blockSize_ = 0;
    uint32_t DSDSamplesPerBlock_ = 0;
    uint32_t PCMSamplesPerBlock_ = 0;
    uint32_t lastBlockPCMSampleCount_ = 0;
};

} // namespace velvox
