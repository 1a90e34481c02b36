#include "decoders/MusepackDecoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "core/UtilityFunctions.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

// Musepack has no sample size of its own; it is rendered at this depth.
constexpr uint32_t kBits = 16;

} // namespace

void MusepackDecoder::ReaderDeleter::operator()(mpc_reader* reader) const {
    mpc_reader_exit_stdio(reader);
    delete reader;
}

MusepackDecoder::MusepackDecoder() = default;
MusepackDecoder::~MusepackDecoder() = default;

bool MusepackDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;

    auto reader = std::make_unique<mpc_reader>();
    VLX_ASSERT(mpc_reader_init_stdio(reader.get(), path.c_str()) == MPC_STATUS_OK,
               "Could Not Initialize MCP Reader.");
    reader_.reset(reader.release());
    demux_.reset(mpc_demux_init(reader_.get()));
    VLX_ASSERT(demux_ != nullptr, "Could Not Create MPC Demuxer.");

    mpc_streaminfo info{};
    mpc_demux_get_info(demux_.get(), &info);
    if (!setIntegerDecodeFormat(double(info.sample_freq), kBits, info.channels))
        return unknownFrameSize();
    const int64_t length = mpc_streaminfo_get_length_samples(&info);
    totalFrames_ = length >= 0 ? length : -1;
    setLayoutForChannelCount(info.channels);
    samples_.resize(MPC_DECODER_BUFFER_LENGTH);
    return true;
}

// Full scale of the float samples is +-1.0; louder peaks are clipped.
void MusepackDecoder::convertSamples(const MPC_SAMPLE_FORMAT* samples, size_t count,
                                     uint8_t* out) const {
    const uint32_t bits = decodeFormat_.mBitsPerChannel;
    if (bits != 8 && bits != 16 && bits != 24 && bits != 32)
        throw Exception("IllegalInputException",
                        stringWithFormat("Musepack Does Not Support %u Bit Files", bits));
    if (bits == 16) {
        // The usual case, kept to a loop the compiler can vectorise.
        for (size_t i = 0; i < count; ++i) {
            const float value = std::clamp(float(samples[i]) * 32768.0f, -32768.0f, 32767.0f);
            const int16_t s = int16_t(std::lrint(value));
            std::memcpy(out + 2 * i, &s, 2);
        }
        return;
    }
    const double scale = std::ldexp(1.0, int(bits) - 1);
    const double high = scale - 1;
    const uint32_t bytes = bits / 8;
    for (size_t i = 0; i < count; ++i) {
        const double value = std::clamp(std::nearbyint(double(samples[i]) * scale), -scale, high);
        const uint32_t s = uint32_t(int32_t(int64_t(value)));
        for (uint32_t b = 0; b < bytes; ++b)
            out[i * bytes + b] = uint8_t(s >> (8 * b));
    }
}

void MusepackDecoder::fillPCMBuffer() {
    RingBuffer& ring = pcmBuffer();
    const uint32_t bytesPerFrame = decodeFormat_.mBytesPerFrame;
    // One frame is decoded at a time and must fit whole.
    while (ring.freeSpaceAvailable() >= MPC_FRAME_LENGTH * bytesPerFrame) {
        mpc_frame_info frame{};
        frame.buffer = samples_.data();
        const mpc_status status = mpc_demux_decode(demux_.get(), &frame);
        VLX_ASSERT(status == MPC_STATUS_OK, "Error Decoding Musepack File: %@ Error %d",
                   inFilePath(), int(status));
        if (frame.bits == -1) {
            setEndOfFile(true);
            return;
        }
        const uint32_t frames = std::min<uint32_t>(frame.samples, MPC_FRAME_LENGTH);
        convertSamples(samples_.data(), size_t(frames) * decodeFormat_.mChannelsPerFrame,
                       ring.exposeBufferForWriting());
        ring.wroteBytes(frames * bytesPerFrame);
    }
}

} // namespace velvox
