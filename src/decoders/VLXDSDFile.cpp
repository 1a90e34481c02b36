#include "decoders/VLXDSDFile.h"

#include <cstring>
#include <limits>

#include <sys/types.h>

#include "platform/StringFormat.h"

namespace velvox {

namespace {

// Limits that no real file comes near; they keep the decoder's block buffers
// and the arithmetic below within bounds whatever a file declares.
constexpr uint32_t kMaxChannels = 16;
constexpr uint32_t kMaxDSFBlockSizePerChannel = 1u << 20;
constexpr uint64_t kMaxChunkSize = uint64_t(std::numeric_limits<int64_t>::max()) / 2;
constexpr uint32_t kDFFBytesPerChannelPerBlock = 16384;

bool isDSFRate(uint64_t rate) { return rate == 2822400 || rate == 5644800 || rate == 11289600; }

// DSDIFF at 11.2 MHz is refused although DSF at that rate is accepted.
bool isDFFRate(uint64_t rate) { return rate == 2822400 || rate == 5644800; }

} // namespace

bool VLXDSDFile::initWithFilename(const std::string& path, int32_t decimation, Error* error) {
    decimation_ = decimation == 0 ? 8 : decimation;
    f_.reset(std::fopen(path.c_str(), "r"));
    if (!f_)
        return generateErrorAndBail(stringWithFormat("DSDDecoder Unable To Open File: %@", path),
                                    error);
    return open(path, decimation, error);
}

bool VLXDSDFile::initWithStream(FILE* stream, const std::string& name, int32_t decimation,
                                Error* error) {
    decimation_ = decimation == 0 ? 8 : decimation;
    f_.reset(stream);
    if (!f_)
        return generateErrorAndBail(stringWithFormat("DSDDecoder Unable To Open File: %@", name),
                                    error);
    return open(name, decimation, error);
}

bool VLXDSDFile::open(const std::string& name, int32_t decimation, Error* error) {
    char magic[4];
    if (!readBytes(magic, 4))
        return generateErrorAndBail(stringWithFormat("DSDDecoder Unable To Read File: %@", name),
                                    error);
    bool parsed = false;
    if (std::memcmp(magic, "DSD ", 4) == 0) {
        dsdFormat_ = 1;
        parsed = parseDSFFile();
    } else if (std::memcmp(magic, "FRM8", 4) == 0) {
        dsdFormat_ = 0;
        parsed = parseDFFFile();
    } else {
        return generateErrorAndBail(stringWithFormat("DSDDecoder Not A Vaild DSD File: %@", name),
                                    error);
    }
    if (!parsed)
        return generateErrorAndBail(
            stringWithFormat("DSDDecoder Unable To Parse DSD File: %@", name), error);

    // The divisor is the decimation as asked for (8 keeps the parsed values,
    // 16 halves them, 32 quarters them); below 8 it leaves them alone.
    const int32_t divisor = decimation >= 8 ? decimation / 8 : 1;
    totalPCMSamples_ /= divisor;
    PCMSamplesPerBlock_ /= uint32_t(divisor);
    lastBlockPCMSampleCount_ /= uint32_t(divisor);
    return true;
}

size_t VLXDSDFile::read(void* buffer, size_t size, size_t count) {
    return f_ ? std::fread(buffer, size, count, f_.get()) : 0;
}

bool VLXDSDFile::generateErrorAndBail(const std::string& message, Error* error) {
    if (error)
        *error = Error{kErrorDomain, kErrorCode, message};
    f_.reset();
    return false;
}

bool VLXDSDFile::readBytes(void* buffer, size_t count) {
    return std::fread(buffer, 1, count, f_.get()) == count;
}

bool VLXDSDFile::readLE(uint64_t& value, int width) {
    uint8_t b[8];
    if (!readBytes(b, size_t(width)))
        return false;
    value = 0;
    for (int i = width - 1; i >= 0; --i)
        value = (value << 8) | b[i];
    return true;
}

bool VLXDSDFile::readBE(uint64_t& value, int width) {
    uint8_t b[8];
    if (!readBytes(b, size_t(width)))
        return false;
    value = 0;
    for (int i = 0; i < width; ++i)
        value = (value << 8) | b[i];
    return true;
}

bool VLXDSDFile::skip(int64_t count) {
    return count >= 0 && fseeko(f_.get(), off_t(count), SEEK_CUR) == 0;
}

bool VLXDSDFile::seekTo(int64_t offset) {
    return offset >= 0 && fseeko(f_.get(), off_t(offset), SEEK_SET) == 0;
}

int64_t VLXDSDFile::position() { return int64_t(ftello(f_.get())); }

int64_t VLXDSDFile::fileSize() {
    const int64_t here = position();
    if (here < 0 || fseeko(f_.get(), 0, SEEK_END) != 0)
        return -1;
    const int64_t size = position();
    return seekTo(here) ? size : -1;
}

bool VLXDSDFile::findChunk(const char* id, bool littleEndian, bool headerCounted, uint64_t& size) {
    for (;;) {
        char chunkID[4];
        if (!readBytes(chunkID, 4))
            return false;
        if (!(littleEndian ? readLE(size, 8) : readBE(size, 8)) || size > kMaxChunkSize)
            return false;
        if (std::memcmp(chunkID, id, 4) == 0)
            return true;
        // A DSF size below its own header would walk backwards forever.
        if (headerCounted && size < 12)
            return false;
        // DSDIFF chunks are padded to an even length.
        if (!skip(int64_t(headerCounted ? size - 12 : size + (size & 1))))
            return false;
    }
}

bool VLXDSDFile::dataFitsInFile(uint64_t bytes) {
    const int64_t size = fileSize();
    return size >= dataStart_ && bytes <= uint64_t(size - dataStart_);
}

bool VLXDSDFile::readDSFFormat(uint32_t& channels, uint32_t& rate, uint64_t& samples,
                               uint32_t& block) {
    uint64_t version, formatID, channelType, count, frequency, bits, blockSize;
    if (!readLE(version, 4) || !readLE(formatID, 4) || !readLE(channelType, 4) ||
        !readLE(count, 4) || !readLE(frequency, 4) || !readLE(bits, 4) || !readLE(samples, 8) ||
        !readLE(blockSize, 4))
        return false;
    if (version != 1 || formatID != 0 || !isDSFRate(frequency) || bits != 1)
        return false;
    if (count == 0 || count > kMaxChannels || blockSize == 0 ||
        blockSize > kMaxDSFBlockSizePerChannel || samples > kMaxChunkSize)
        return false;
    channels = uint32_t(count);
    rate = uint32_t(frequency);
    block = uint32_t(blockSize);
    return true;
}

bool VLXDSDFile::parseDSFFile() {
    uint64_t chunkSize, totalFileSize, metadataOffset;
    if (!readLE(chunkSize, 8) || chunkSize < 28 || chunkSize > kMaxChunkSize ||
        !readLE(totalFileSize, 8) || !readLE(metadataOffset, 8) || !skip(int64_t(chunkSize - 28)))
        return false;
    const int64_t firstChunk = position();

    uint64_t size;
    uint32_t channels, rate, block;
    uint64_t samples;
    if (firstChunk < 0 || !findChunk("fmt ", true, true, size) ||
        !readDSFFormat(channels, rate, samples, block))
        return false;
    if (!seekTo(firstChunk) || !findChunk("data", true, true, size))
        return false;
    dataStart_ = position();

    DSDStride_ = block;
    blockSize_ = channels * block;
    dsdSampleRate_ = rate;
    channels_ = channels;
    totalDSDSamples_ = int64_t(samples);
    totalPCMSamples_ = int64_t(samples / 8);
    DSDSamplesPerBlock_ = block * 8;
    PCMSamplesPerBlock_ = block;
    totalBlocks_ = int64_t(samples / (uint64_t(block) * 8));
    lastBlockPCMSampleCount_ = uint32_t((samples % (uint64_t(block) * 8)) / 8);
    if (lastBlockPCMSampleCount_ == 0)
        lastBlockPCMSampleCount_ = block;
    else
        totalBlocks_ += 1;
    // Every block is stored whole, the last one padded.
    return dataFitsInFile(uint64_t(totalBlocks_) * blockSize_);
}

bool VLXDSDFile::readDFFProperties(uint64_t propSize, uint32_t& channels, uint32_t& rate,
                                   bool& uncompressed) {
    for (uint64_t consumed = 4; consumed < propSize;) {
        char id[4];
        uint64_t size, value;
        if (!readBytes(id, 4) || !readBE(size, 8) || size > kMaxChunkSize)
            return false;
        if (std::memcmp(id, "CMPR", 4) == 0) {
            char type[4];
            if (size < 4 || !readBytes(type, 4) || !skip(int64_t(size - 4 + (size & 1))))
                return false;
            uncompressed = std::memcmp(type, "DSD ", 4) == 0;
        } else if (std::memcmp(id, "CHNL", 4) == 0) {
            if (size < 2 || !readBE(value, 2) || !skip(int64_t(size - 2 + (size & 1))))
                return false;
            channels = uint32_t(value);
        } else if (std::memcmp(id, "FS  ", 4) == 0) {
            if (!readBE(value, 4))
                return false;
            rate = uint32_t(value);
        } else if (!skip(int64_t(size + (size & 1)))) {
            return false;
        }
        consumed += size + (size & 1) + 12;
    }
    return true;
}

bool VLXDSDFile::parseDFFFile() {
    // The form size has always been taken as stored, without a byte swap;
    // only its lower bound is checked.
    uint64_t formSize;
    char formType[4];
    if (!readLE(formSize, 8) || formSize < 16 || !readBytes(formType, 4) ||
        std::memcmp(formType, "DSD ", 4) != 0)
        return false;
    const int64_t firstChunk = position();

    uint64_t propSize;
    char propType[4];
    if (firstChunk < 0 || !findChunk("PROP", false, false, propSize) || !readBytes(propType, 4) ||
        std::memcmp(propType, "SND ", 4) != 0 || propSize < 5)
        return false;
    uint32_t channels = 0, rate = 0;
    bool uncompressed = false;
    if (!readDFFProperties(propSize, channels, rate, uncompressed))
        return false;
    if (!isDFFRate(rate) || !uncompressed || channels == 0 || channels > kMaxChannels)
        return false;

    uint64_t dataSize;
    if (!seekTo(firstChunk) || !findChunk("DSD ", false, false, dataSize))
        return false;
    dataStart_ = position();
    if (!dataFitsInFile(dataSize))
        return false;

    DSDStride_ = 1;
    blockSize_ = channels * kDFFBytesPerChannelPerBlock;
    dsdSampleRate_ = rate;
    channels_ = channels;
    totalDSDSamples_ = int64_t(dataSize * 8 / channels);
    totalPCMSamples_ = int64_t(dataSize / channels);
    DSDSamplesPerBlock_ = kDFFBytesPerChannelPerBlock * 8;
    PCMSamplesPerBlock_ = kDFFBytesPerChannelPerBlock;
    totalBlocks_ = totalDSDSamples_ / DSDSamplesPerBlock_;
    lastBlockPCMSampleCount_ = uint32_t((totalDSDSamples_ % DSDSamplesPerBlock_) / 8);
    if (lastBlockPCMSampleCount_ == 0)
        lastBlockPCMSampleCount_ = kDFFBytesPerChannelPerBlock;
    else
        totalBlocks_ += 1;
    return true;
}

} // namespace velvox
