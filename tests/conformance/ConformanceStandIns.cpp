#include "conformance/ConformanceStandIns.h"

#include <cstring>

#include "formats/FormatTable.h"
#include "platform/Exception.h"

namespace velvox::test {

namespace {

void put(std::vector<uint8_t>& out, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
        out.push_back(uint8_t(value >> (8 * i)));
}

} // namespace

void StandInWaveEncodeOperation::setUpCodec(const std::string& path) {
    file_ = std::fopen(path.c_str(), "wb");
    VLX_ASSERT(file_ != nullptr, "Stand-In could not open %@", path);
    writeHeader(0);
}

void StandInWaveEncodeOperation::writeHeader(uint32_t dataBytes) {
    const uint32_t bits = sourceBitsPerChannel();
    const uint32_t channels = targetChannels();
    const uint32_t rate = uint32_t(sourceSampleRate());
    std::vector<uint8_t> h;
    h.insert(h.end(), {'R', 'I', 'F', 'F'});
    put(h, 36 + uint64_t(dataBytes), 4);
    h.insert(h.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
    put(h, 16, 4);
    put(h, 1, 2);
    put(h, channels, 2);
    put(h, rate, 4);
    put(h, uint64_t(rate) * channels * bits / 8, 4);
    put(h, channels * bits / 8, 2);
    put(h, bits, 2);
    h.insert(h.end(), {'d', 'a', 't', 'a'});
    put(h, dataBytes, 4);
    std::fseek(file_, 0, SEEK_SET);
    VLX_ASSERT(std::fwrite(h.data(), 1, h.size(), file_) == h.size(), "Stand-In write failed");
}

void StandInWaveEncodeOperation::encodeChunk(const AudioBufferList& list, uint32_t frames) {
    const AudioBuffer& buffer = list.mBuffers[0];
    const uint32_t bits = sourceBitsPerChannel();
    const size_t bytes = size_t(frames) * buffer.mNumberChannels * bits / 8;
    std::vector<uint8_t> out(static_cast<const uint8_t*>(buffer.mData),
                             static_cast<const uint8_t*>(buffer.mData) + bytes);
    if (bits == 8) // WAVE holds 8-bit samples unsigned
        for (uint8_t& b : out)
            b ^= 0x80;
    VLX_ASSERT(std::fwrite(out.data(), 1, out.size(), file_) == out.size(),
               "Stand-In write failed");
    dataBytes_ += bytes;
}

void StandInWaveEncodeOperation::finishCodec() {
    writeHeader(uint32_t(dataBytes_));
    VLX_ASSERT(std::fclose(file_) == 0, "Stand-In close failed");
    file_ = nullptr;
}

void StandInWaveEncodeOperation::releaseCodec() noexcept {
    if (file_)
        std::fclose(file_);
    file_ = nullptr;
}

bool RawStreamDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;
    file_ = std::fopen(path.c_str(), "rb");
    if (!file_)
        return false;
    uint8_t header[18];
    if (std::fread(header, 1, sizeof header, file_) != sizeof header ||
        std::memcmp(header, "VLXRAW", 6) != 0)
        return false;
    auto word = [&](int at) {
        return uint32_t(header[at]) | uint32_t(header[at + 1]) << 8 |
               uint32_t(header[at + 2]) << 16 | uint32_t(header[at + 3]) << 24;
    };
    decodeFormat_.mChannelsPerFrame = word(6);
    decodeFormat_.mBitsPerChannel = word(10);
    decodeFormat_.mSampleRate = word(14);
    decodeFormat_.mFormatID = kAudioFormatLinearPCM;
    decodeFormat_.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    decodeFormat_.mFramesPerPacket = 1;
    decodeFormat_.mBytesPerFrame = decodeFormat_.mBytesPerPacket =
        decodeFormat_.mChannelsPerFrame * decodeFormat_.mBitsPerChannel / 8;
    return decodeFormat_.mBytesPerFrame > 0;
}

void RawStreamDecoder::fillPCMBuffer() {
    RingBuffer& ring = pcmBuffer();
    const uint32_t frameBytes = decodeFormat_.mBytesPerFrame;
    // Never quite full: a ring buffer that is full across its end reads as
    // empty.
    const uint32_t free = ring.freeSpaceAvailable();
    const uint32_t want = free > frameBytes ? (free - frameBytes) / frameBytes * frameBytes : 0;
    std::vector<uint8_t> chunk(want);
    const size_t got =
        want ? std::fread(chunk.data(), 1, want, file_) / frameBytes * frameBytes : 0;
    if (got == 0) {
        setEndOfFile(true);
        return;
    }
    ring.putData(chunk.data(), uint32_t(got));
}

RawStreamDecoder::~RawStreamDecoder() {
    if (file_)
        std::fclose(file_);
}

void writeRawStream(const std::string& path, uint32_t channels, uint32_t bits, uint32_t rate,
                    const std::vector<uint8_t>& pcm) {
    std::vector<uint8_t> bytes = {'V', 'L', 'X', 'R', 'A', 'W'};
    put(bytes, channels, 4);
    put(bytes, bits, 4);
    put(bytes, rate, 4);
    bytes.insert(bytes.end(), pcm.begin(), pcm.end());
    std::FILE* f = std::fopen(path.c_str(), "wb");
    if (f) {
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
    }
}

namespace {

const EncoderDescriptor kStandInEncoder{
    .encoderType = EncoderType(102),
    .formatName = "standin",
    .className = "StandInWaveEncodeOperation",
    .make = makeEncoder<StandInWaveEncodeOperation>,
    .settings = {{.name = "ext",
                  .key = "extension",
                  .kind = SettingKind::Extension,
                  .defaultValue = "vlxwav"},
                 {.name = "bits",
                  .key = "bitDepth",
                  .kind = SettingKind::BitDepth,
                  .defaultValue = 0,
                  .choices = {{"", 8}, {"", 16}, {"", 24}, {"", 32}}}},
    .samples = {.bitDepths = {8, 16, 24, 32}},
    .reference = {.argv = {"sox", "-t", "wav", "{in}", "{out}"}, .lossless = true},
};

const DecoderClass kRawStreamDecoder{"RawStreamDecoder", makeDecoder<RawStreamDecoder>};

} // namespace

const FormatEntry kStandInFormat{
    .name = "standin", .displayName = "Stand-In WAVE", .encoder = &kStandInEncoder};
const FormatEntry kRawStreamFormat{.name = "vlxraw",
                                   .displayName = "Headerless test stream",
                                   .extensions = {"vlxraw"},
                                   .decoder = &kRawStreamDecoder};

} // namespace velvox::test
