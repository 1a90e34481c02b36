#include "decoders/WavPackDecoder.h"

#include <bit>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/UtilityFunctions.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

// Bytes of 32-bit samples handed to libwavpack per unpack call.
constexpr size_t kUnpackBytes = 4096;

// Float samples are nominally within [-1, 1); louder ones are clipped.
int32_t floatToInt32(int32_t bits) {
    const double scaled = double(std::bit_cast<float>(bits)) * 2147483648.0;
    if (!(scaled > -2147483648.0)) // also catches NaN
        return scaled > 0 ? INT32_MAX : INT32_MIN;
    if (scaled >= 2147483647.0)
        return INT32_MAX;
    return int32_t(std::lrint(scaled));
}

// Whether the file starts with a WavPack block. libwavpack looks past
// anything else for the first block it can find, so a file whose first
// blocks are damaged would otherwise decode, silently, from a later one.
bool startsWithBlock(const std::string& path) {
    char magic[4] = {};
    std::FILE* file = std::fopen(path.c_str(), "rb");
    if (!file)
        return false;
    const bool read = std::fread(magic, 1, sizeof magic, file) == sizeof magic;
    std::fclose(file);
    return read && std::memcmp(magic, "wvpk", sizeof magic) == 0;
}

} // namespace

WavPackDecoder::WavPackDecoder() = default;
WavPackDecoder::~WavPackDecoder() = default;

bool WavPackDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;

    char error[80] = {};
    wpc_.reset(WavpackOpenFileInput(path.c_str(), error, OPEN_WVC | OPEN_DSD_AS_PCM, 0));
    // The caller's exception handler names the file.
    VLX_ASSERT(wpc_ != nullptr, "can't open file: %s.", error);
    VLX_ASSERT(startsWithBlock(path), "The file does not start with a WavPack block.");

    isFloat_ = (WavpackGetMode(wpc_.get()) & MODE_FLOAT) != 0;
    // Samples arrive justified to whole bytes (a 20-bit file fills 24-bit
    // words), so the byte count, not the nominal bit count, is the depth.
    const uint32_t bits = isFloat_ ? 32 : uint32_t(WavpackGetBytesPerSample(wpc_.get())) * 8;
    const uint32_t channels = uint32_t(WavpackGetNumChannels(wpc_.get()));
    if (!setIntegerDecodeFormat(double(WavpackGetSampleRate(wpc_.get())), bits, channels))
        return unknownFrameSize();
    const int64_t samples = WavpackGetNumSamples64(wpc_.get());
    totalFrames_ = samples >= 0 ? samples : -1;

    setLayoutForChannelCount(channels);
    // At least one frame per call, however many channels the file has.
    samples_.resize(std::max<size_t>(kUnpackBytes / sizeof(int32_t), channels));
    return true;
}

void WavPackDecoder::narrow(const int32_t* samples, size_t count, uint8_t* out) const {
    switch (decodeFormat_.mBitsPerChannel) {
    case 8:
        for (size_t i = 0; i < count; ++i)
            out[i] = uint8_t(samples[i]);
        break;
    case 16:
        for (size_t i = 0; i < count; ++i) {
            const int16_t s = int16_t(samples[i]);
            std::memcpy(out + 2 * i, &s, 2);
        }
        break;
    case 24:
        for (size_t i = 0; i < count; ++i) {
            const uint32_t s = uint32_t(samples[i]);
            out[3 * i] = uint8_t(s);
            out[3 * i + 1] = uint8_t(s >> 8);
            out[3 * i + 2] = uint8_t(s >> 16);
        }
        break;
    default:
        for (size_t i = 0; i < count; ++i) {
            const int32_t s = isFloat_ ? floatToInt32(samples[i]) : samples[i];
            std::memcpy(out + 4 * i, &s, 4);
        }
        break;
    }
}

void WavPackDecoder::fillPCMBuffer() {
    const uint32_t bits = decodeFormat_.mBitsPerChannel;
    if (bits != 8 && bits != 16 && bits != 24 && bits != 32)
        throw Exception("IllegalInputException",
                        stringWithFormat("WavPack Does Not Support %u Bit Files", bits));

    RingBuffer& ring = pcmBuffer();
    const uint32_t channels = decodeFormat_.mChannelsPerFrame;
    const uint32_t bytesPerFrame = decodeFormat_.mBytesPerFrame;
    const uint32_t framesPerCall = uint32_t(samples_.size() / channels);
    while (ring.freeSpaceAvailable() / bytesPerFrame >= framesPerCall) {
        const uint32_t frames = WavpackUnpackSamples(wpc_.get(), samples_.data(), framesPerCall);
        if (frames == 0) {
            // A block that failed its checksum is dropped by libwavpack (or
            // decoded to silence); the file must not pass as converted.
            const int errors = WavpackGetNumErrors(wpc_.get());
            VLX_ASSERT(errors == 0, "WavPack Found %d Damaged Blocks In File: %@", errors,
                       inFilePath());
            setEndOfFile(true);
            return;
        }
        narrow(samples_.data(), size_t(frames) * channels, ring.exposeBufferForWriting());
        ring.wroteBytes(frames * bytesPerFrame);
    }
}

} // namespace velvox
