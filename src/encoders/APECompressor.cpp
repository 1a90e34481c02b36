#include "encoders/APECompressor.h"

#include <algorithm>
#include <cstring>

#include <unistd.h>

extern "C" {
#include <libavutil/crc.h>
}

#include "platform/MD5.h"

namespace velvox {

namespace {

constexpr uint16_t kFileVersion = 3990;
constexpr uint32_t kDescriptorBytes = 52;
constexpr uint32_t kHeaderBytes = 24;
// No wave header is stored; decoders make one from the fields.
constexpr uint16_t kFlagCreateWaveHeader = 32;
// Blocks per frame: longer frames for the levels with long filters, which
// need many samples to adapt after every frame's reset.
uint32_t blocksPerFrame(int level) {
    constexpr uint32_t kBase = 73728;
    return level == 5000 ? kBase * 16 : level == 4000 ? kBase * 4 : kBase;
}
constexpr size_t kCopyBytes = 1 << 20;

void putLE16(uint8_t* p, uint32_t v) {
    p[0] = uint8_t(v);
    p[1] = uint8_t(v >> 8);
}
void putLE32(uint8_t* p, uint32_t v) {
    for (int i = 0; i < 4; ++i)
        p[i] = uint8_t(v >> (8 * i));
}

bool writeAt(std::FILE* file, long offset, const void* data, size_t size) {
    return std::fseek(file, offset, SEEK_SET) == 0 && std::fwrite(data, 1, size, file) == size;
}
bool readAt(std::FILE* file, long offset, void* data, size_t size) {
    return std::fseek(file, offset, SEEK_SET) == 0 && std::fread(data, 1, size, file) == size;
}

} // namespace

void APECompressor::FileCloser::operator()(std::FILE* file) const { std::fclose(file); }

int APECompressor::fillWaveFormat(APEWaveFormat& format, uint32_t sampleRate,
                                  uint32_t bitsPerSample, uint32_t channels) {
    // Neither FFmpeg (5.1) nor jmac reads more than two channels in this file
    // version, and jmac will not write them: such a file would play nowhere.
    if (sampleRate == 0 || (bitsPerSample != 8 && bitsPerSample != 16 && bitsPerSample != 24) ||
        channels < 1 || channels > 2)
        return kErrorUnsupportedFormat;
    format.sampleRate = sampleRate;
    format.bitsPerSample = uint16_t(bitsPerSample);
    format.channels = uint16_t(channels);
    format.blockAlign = uint16_t(bitsPerSample / 8 * channels);
    return kSuccess;
}

APECompressor::APECompressor() = default;
APECompressor::~APECompressor() = default;

int APECompressor::start(const std::string& path, const APEWaveFormat& format,
                         int64_t maxAudioBytes, int level) {
    APEWaveFormat checked;
    if (fillWaveFormat(checked, format.sampleRate, format.bitsPerSample, format.channels) !=
        kSuccess)
        return kErrorUnsupportedFormat;
    if (level != 1000 && level != 2000 && level != 3000 && level != 4000 && level != 5000)
        return kErrorBadParameter;
    // FFmpeg's decoder (5.1) and jmac part ways on loud 24-bit audio. At
    // Insane FFmpeg sums the adaptive predictor in 64 bits where jmac (and
    // these filters) wrap at 32, which 24-bit sums overflow all the time. In
    // the NN filters FFmpeg adds the rounding term in 64 bits, so a dot
    // product just below 2^31 rounds the other way; Extra High meets that
    // about ten times as often as the lower levels (a few times in five
    // minutes of loud noise, against once). A residual decodes right under
    // one arithmetic only, so no encoding satisfies both: a file the most
    // common decoder gets wrong would lose the user's audio, and those
    // pairings are refused rather than written.
    if (checked.bitsPerSample == 24 && level >= 4000)
        return kErrorUnsupportedFormat;
    format_ = checked;
    level_ = level;
    blocksPerFrame_ = blocksPerFrame(level);
    const uint64_t frameBytes = uint64_t(blocksPerFrame_) * format_.blockAlign;
    seekTableEntries_ =
        maxAudioBytes > 0 ? uint32_t((uint64_t(maxAudioBytes) + frameBytes - 1) / frameBytes) : 1;
    seekTableEntries_ = std::max<uint32_t>(seekTableEntries_, 1);

    file_.reset(std::fopen(path.c_str(), "w+b"));
    if (!file_)
        return kErrorIOWrite;
    // Room for the descriptor, header and seek table, written at the end.
    const std::vector<uint8_t> zeros(kDescriptorBytes + kHeaderBytes + 4 * seekTableEntries_);
    if (std::fwrite(zeros.data(), 1, zeros.size(), file_.get()) != zeros.size())
        return kErrorIOWrite;

    predictor_ = std::make_unique<APEPredictor>(level);
    pendingPCM_.clear();
    pendingPCM_.reserve(frameBytes);
    stream_.clear();
    streamWritten_ = 0;
    frameOffsets_.clear();
    finished_ = false;
    error_ = kSuccess;
    return kSuccess;
}

int APECompressor::addData(const uint8_t* data, size_t bytes) {
    if (!file_ || finished_)
        return kErrorNotStarted;
    const size_t frameBytes = size_t(blocksPerFrame_) * format_.blockAlign;
    while (bytes > 0 && error_ == kSuccess) {
        const size_t take = std::min(bytes, frameBytes - pendingPCM_.size());
        pendingPCM_.insert(pendingPCM_.end(), data, data + take);
        data += take;
        bytes -= take;
        if (pendingPCM_.size() == frameBytes)
            encodeFrame();
    }
    return error_;
}

void APECompressor::encodeFrame() {
    const uint32_t blocks = uint32_t(pendingPCM_.size() / format_.blockAlign);
    if (blocks == 0)
        return;
    // Whole blocks only; a torn block at the very end is dropped.
    pendingPCM_.resize(size_t(blocks) * format_.blockAlign);

    // The CRC of the frame's PCM, shifted down a bit; the top bit would
    // announce frame flags, which these frames never carry.
    const uint32_t crc = av_crc(av_crc_get_table(AV_CRC_32_IEEE_LE), UINT32_MAX, pendingPCM_.data(),
                                pendingPCM_.size());
    const uint32_t stored = (~crc) >> 1;

    const size_t count = size_t(blocks) * format_.channels;
    samples_.resize(count);
    const uint8_t* p = pendingPCM_.data();
    switch (format_.bitsPerSample) {
    case 8:
        for (size_t i = 0; i < count; ++i)
            samples_[i] = int32_t(p[i]) - 128;
        break;
    case 16:
        for (size_t i = 0; i < count; ++i, p += 2)
            samples_[i] = int16_t(uint16_t(p[0] | (p[1] << 8)));
        break;
    default:
        for (size_t i = 0; i < count; ++i, p += 3)
            samples_[i] = int32_t(uint32_t(p[0] << 8 | p[1] << 16 | p[2] << 24)) >> 8;
        break;
    }

    frameOffsets_.push_back(uint32_t(streamWritten_ + stream_.size()));
    for (int shift = 24; shift >= 0; shift -= 8)
        stream_.push_back(uint8_t(stored >> shift));
    encodeFrameBlocks(samples_.data(), blocks);
    finalFrameBlocks_ = blocks;
    pendingPCM_.clear();
    writeWords(false);
}

void APECompressor::encodeFrameBlocks(const int32_t* samples, uint32_t blocks) {
    predictor_->reset();
    APERangeCoder::Model modelX, modelY;
    coder_.start(stream_);
    if (format_.channels == 1) {
        for (uint32_t i = 0; i < blocks; ++i)
            coder_.encodeValue(predictor_->compressMono(samples[i]), modelY);
    } else {
        for (uint32_t i = 0; i < blocks; ++i) {
            // A difference and a mid channel; the mid channel rounds toward
            // zero, which the decoders undo exactly.
            const int32_t first = samples[2 * i];
            const int32_t second = samples[2 * i + 1];
            const int32_t y = second - first;
            const int32_t x = first + y / 2;
            int32_t residualX, residualY;
            predictor_->compressStereo(x, y, residualX, residualY);
            coder_.encodeValue(residualY, modelY);
            coder_.encodeValue(residualX, modelX);
        }
    }
    coder_.finish();
}

void APECompressor::writeWords(bool everything) {
    if (everything)
        while (stream_.size() % 4 != 0)
            stream_.push_back(0);
    // The coded bytes are stored as little-endian 32-bit words.
    const size_t whole = stream_.size() & ~size_t(3);
    for (size_t i = 0; i < whole; i += 4) {
        std::swap(stream_[i], stream_[i + 3]);
        std::swap(stream_[i + 1], stream_[i + 2]);
    }
    if (whole > 0 && std::fwrite(stream_.data(), 1, whole, file_.get()) != whole)
        error_ = kErrorIOWrite;
    streamWritten_ += whole;
    stream_.erase(stream_.begin(), stream_.begin() + long(whole));
}

int APECompressor::finish() {
    if (!file_ || finished_)
        return kErrorNotStarted;
    finished_ = true;
    if (error_ == kSuccess)
        encodeFrame();
    if (error_ == kSuccess)
        writeWords(true);
    if (error_ == kSuccess && frameOffsets_.size() != seekTableEntries_)
        error_ = moveFramesForSeekTable(uint32_t(frameOffsets_.size()));
    if (error_ == kSuccess)
        error_ = writeHeaders();
    if (std::fflush(file_.get()) != 0 && error_ == kSuccess)
        error_ = kErrorIOWrite;
    file_.reset();
    return error_;
}

int APECompressor::moveFramesForSeekTable(uint32_t frames) {
    // The estimate was off: move the frames so that the seek table has
    // exactly one entry per frame.
    const long oldStart = long(kDescriptorBytes + kHeaderBytes + 4 * seekTableEntries_);
    const long newStart = long(kDescriptorBytes + kHeaderBytes + 4 * std::max(frames, 1u));
    const auto total = long(streamWritten_);
    std::vector<uint8_t> block(kCopyBytes);
    const bool forward = newStart > oldStart;
    for (long done = 0; done < total;) {
        const long size = std::min<long>(long(kCopyBytes), total - done);
        // Moving towards the end copies from the back, so nothing is
        // overwritten before it has been read.
        const long at = forward ? total - done - size : done;
        if (!readAt(file_.get(), oldStart + at, block.data(), size_t(size)))
            return kErrorIORead;
        if (!writeAt(file_.get(), newStart + at, block.data(), size_t(size)))
            return kErrorIOWrite;
        done += size;
    }
    if (!forward && std::fflush(file_.get()) == 0 &&
        ::ftruncate(fileno(file_.get()), newStart + total) != 0)
        return kErrorIOWrite;
    seekTableEntries_ = std::max(frames, 1u);
    return kSuccess;
}

int APECompressor::writeHeaders() {
    const uint32_t frames = uint32_t(frameOffsets_.size());
    const uint32_t seekBytes = 4 * seekTableEntries_;
    const uint32_t framesStart = kDescriptorBytes + kHeaderBytes + seekBytes;

    std::vector<uint8_t> head(framesStart, 0);
    uint8_t* d = head.data();
    std::memcpy(d, "MAC ", 4);
    putLE16(d + 4, kFileVersion);
    putLE32(d + 8, kDescriptorBytes);
    putLE32(d + 12, kHeaderBytes);
    putLE32(d + 16, seekBytes);
    putLE32(d + 20, 0); // wave header bytes
    putLE32(d + 24, uint32_t(streamWritten_));
    putLE32(d + 28, uint32_t(streamWritten_ >> 32));
    putLE32(d + 32, 0); // terminating bytes

    uint8_t* h = d + kDescriptorBytes;
    putLE16(h, uint32_t(level_));
    putLE16(h + 2, kFlagCreateWaveHeader);
    putLE32(h + 4, blocksPerFrame_);
    putLE32(h + 8, frames ? finalFrameBlocks_ : 0);
    putLE32(h + 12, frames);
    putLE16(h + 16, format_.bitsPerSample);
    putLE16(h + 18, format_.channels);
    putLE32(h + 20, format_.sampleRate);

    for (uint32_t i = 0; i < frames; ++i)
        putLE32(h + kHeaderBytes + 4 * i, framesStart + frameOffsets_[i]);
    if (!writeAt(file_.get(), 0, head.data(), head.size()))
        return kErrorIOWrite;

    // The MD5 covers the frames, then the header and the seek table.
    MD5 md5;
    std::vector<uint8_t> block(kCopyBytes);
    for (uint64_t done = 0; done < streamWritten_;) {
        const size_t size = size_t(std::min<uint64_t>(kCopyBytes, streamWritten_ - done));
        if (!readAt(file_.get(), long(framesStart + done), block.data(), size))
            return kErrorIORead;
        md5.update(block.data(), size);
        done += size;
    }
    md5.update(h, kHeaderBytes + seekBytes);
    const std::string hex = md5.hexDigest();
    uint8_t digest[16];
    for (int i = 0; i < 16; ++i)
        digest[i] = uint8_t(std::stoi(hex.substr(size_t(2 * i), 2), nullptr, 16));
    if (!writeAt(file_.get(), 36, digest, sizeof digest))
        return kErrorIOWrite;
    return kSuccess;
}

} // namespace velvox
