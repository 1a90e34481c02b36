#include "metadata/DSFTagFile.h"

#include <algorithm>
#include <climits>
#include <cmath>

#include <taglib/tbytevector.h>

namespace velvox {

namespace {

// "DSD " chunk: identifier, chunk size (28), total file size, metadata offset.
constexpr long kDSDChunkSize = 28;
// "fmt " chunk as far as its fields go: header (12) + 40 bytes of fields.
constexpr long kFmtChunkSize = 52;
constexpr long kChunkHeaderSize = 12;
// The smallest ID3v2 tag: its 10-byte header.
constexpr uint64_t kID3v2HeaderSize = 10;

uint64_t littleEndian64(const TagLib::ByteVector& bytes, unsigned offset) {
    return uint64_t(bytes.toLongLong(offset, false));
}

uint32_t littleEndian32(const TagLib::ByteVector& bytes, unsigned offset) {
    return bytes.toUInt(offset, false);
}

int clampToInt(double value) {
    if (!(value > 0))
        return 0;
    if (value >= double(INT_MAX))
        return INT_MAX;
    return int(std::lround(value));
}

} // namespace

DSFTagFile::Properties::Properties(uint32_t channels, uint32_t sampleRate, uint32_t bitsPerSample,
                                   uint64_t sampleCount, uint32_t blockSizePerChannel)
    : TagLib::AudioProperties(TagLib::AudioProperties::Average), channels_(channels),
      sampleRate_(sampleRate), bitsPerSample_(bitsPerSample), sampleCount_(sampleCount),
      blockSizePerChannel_(blockSizePerChannel),
      lengthInMilliseconds_(sampleRate ? clampToInt(double(sampleCount) * 1000.0 / sampleRate) : 0),
      bitrate_(clampToInt(double(sampleRate) * bitsPerSample * channels / 1000.0)) {}

DSFTagFile::DSFTagFile(TagLib::FileName path, bool readProperties) : TagLib::File(path) {
    if (isOpen())
        read(readProperties);
    if (!tag_)
        tag_ = std::make_unique<TagLib::ID3v2::Tag>();
}

DSFTagFile::DSFTagFile(TagLib::IOStream* stream, bool readProperties) : TagLib::File(stream) {
    if (isOpen())
        read(readProperties);
    if (!tag_)
        tag_ = std::make_unique<TagLib::ID3v2::Tag>();
}

DSFTagFile::~DSFTagFile() = default;

void DSFTagFile::read(bool readProperties) {
    const long fileLength = length();
    if (fileLength < kDSDChunkSize) {
        setValid(false);
        return;
    }
    const auto size = uint64_t(fileLength);

    seek(0);
    const TagLib::ByteVector header = readBlock(kDSDChunkSize);
    if (header.size() < kDSDChunkSize || !header.startsWith("DSD ")) {
        setValid(false);
        return;
    }
    const uint64_t dsdChunkSize = littleEndian64(header, 4);
    metadataOffset_ = littleEndian64(header, 20);

    // The format chunk follows the header chunk; both sizes are checked
    // against the real file before anything is read at them.
    const uint64_t fmtStart = dsdChunkSize;
    if (dsdChunkSize < uint64_t(kDSDChunkSize) || fmtStart > size ||
        size - fmtStart < uint64_t(kFmtChunkSize)) {
        setValid(false);
        return;
    }
    seek(long(fmtStart));
    const TagLib::ByteVector fmt = readBlock(kFmtChunkSize);
    if (fmt.size() < kFmtChunkSize || !fmt.startsWith("fmt ")) {
        setValid(false);
        return;
    }
    const uint64_t fmtChunkSize = littleEndian64(fmt, 4);
    const uint32_t channels = littleEndian32(fmt, 24);
    const uint32_t sampleRate = littleEndian32(fmt, 28);
    const uint32_t bitsPerSample = littleEndian32(fmt, 32);
    const uint64_t sampleCount = littleEndian64(fmt, 36);
    const uint32_t blockSize = littleEndian32(fmt, 44);
    if (fmtChunkSize < uint64_t(kFmtChunkSize) || fmtChunkSize > size - fmtStart || channels == 0 ||
        sampleRate == 0 || bitsPerSample == 0) {
        setValid(false);
        return;
    }

    // The sample data; its end is where a rewritten tag goes. A data chunk
    // that claims more than the file holds (a cut-off download) leaves the
    // file readable but not rewritable.
    const uint64_t dataStart = fmtStart + fmtChunkSize;
    if (size - dataStart >= uint64_t(kChunkHeaderSize)) {
        seek(long(dataStart));
        const TagLib::ByteVector data = readBlock(kChunkHeaderSize);
        if (data.size() == kChunkHeaderSize && data.startsWith("data")) {
            const uint64_t dataChunkSize = littleEndian64(data, 4);
            if (dataChunkSize >= uint64_t(kChunkHeaderSize) && dataChunkSize <= size - dataStart)
                dataEnd_ = dataStart + dataChunkSize;
        }
    }

    if (readProperties)
        properties_ = std::make_unique<Properties>(channels, sampleRate, bitsPerSample, sampleCount,
                                                   blockSize);

    if (metadataOffset_ != 0 && metadataOffset_ < size &&
        size - metadataOffset_ >= kID3v2HeaderSize && metadataOffset_ <= uint64_t(LONG_MAX)) {
        seek(long(metadataOffset_));
        if (readBlock(3) == TagLib::ByteVector("ID3", 3)) {
            tag_ = std::make_unique<TagLib::ID3v2::Tag>(this, long(metadataOffset_));
            hasID3v2Tag_ = true;
        }
    }
}

bool DSFTagFile::save() {
    if (readOnly() || !isValid() || dataEnd_ == 0)
        return false;

    TagLib::ByteVector rendered;
    if (!tag_->frameList().isEmpty())
        rendered = tag_->render();

    // The tag is always the file's last part: whatever followed the sample
    // data (the old tag) makes way for the new one.
    if (length() > long(dataEnd_))
        truncate(long(dataEnd_));
    if (!rendered.isEmpty()) {
        seek(long(dataEnd_));
        writeBlock(rendered);
        metadataOffset_ = dataEnd_;
    } else {
        metadataOffset_ = 0;
    }
    hasID3v2Tag_ = !rendered.isEmpty();

    const auto total = uint64_t(length());
    seek(12);
    writeBlock(TagLib::ByteVector::fromLongLong((long long)total, false));
    writeBlock(TagLib::ByteVector::fromLongLong((long long)metadataOffset_, false));
    return true;
}

} // namespace velvox
