#include "decoders/FLACDecoder.h"

#include <utility>

#include "core/UtilityFunctions.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"

namespace velvox {

void FLACDecoder::Deleter::operator()(FLAC__StreamDecoder* d) const {
    FLAC__stream_decoder_finish(d);
    FLAC__stream_decoder_delete(d);
}

FLACDecoder::FLACDecoder() = default;
FLACDecoder::~FLACDecoder() = default;

FLAC__StreamDecoderInitStatus FLACDecoder::initStream(const std::string& path) {
    return FLAC__stream_decoder_init_file(flac_.get(), path.c_str(), writeCallback,
                                          metadataCallback, errorCallback,
                                          static_cast<FLACDecoder*>(this));
}

bool FLACDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;
    auto& log = ErrorLog::sharedController();

    flac_.reset(FLAC__stream_decoder_new());
    if (!flac_) {
        log.logMessage(stringWithFormat("Could Not Create FLAC Decoder For File: %@", path));
        return false;
    }
    // libFLAC hands on a frame that fails its CRC as silence; only the
    // signature check at the stream's end tells such a file from a whole one.
    FLAC__stream_decoder_set_md5_checking(flac_.get(), true);
    const FLAC__StreamDecoderInitStatus status = initStream(path);
    if (status != FLAC__STREAM_DECODER_INIT_STATUS_OK) {
        log.logMessage(stringWithFormat(
            "Initialization of FLAC Decoder Failed For File: %@ Error: %d", path, int(status)));
        return false;
    }
    if (!FLAC__stream_decoder_process_until_end_of_metadata(flac_.get())) {
        log.logMessage(
            stringWithFormat("FLAC Stream Decoder Failed To Process Metadata For File: %@", path));
        return false;
    }

    decodeFormat_.mFormatID = kAudioFormatLinearPCM;
    decodeFormat_.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    decodeFormat_.mBytesPerFrame =
        (decodeFormat_.mBitsPerChannel / 8) * decodeFormat_.mChannelsPerFrame;
    decodeFormat_.mFramesPerPacket = 1;
    decodeFormat_.mBytesPerPacket = decodeFormat_.mBytesPerFrame;
    if (decodeFormat_.mBytesPerFrame == 0) {
        log.logMessage("Failed To Determine mBytesPerFrame.");
        return false;
    }
    return true;
}

void FLACDecoder::metadataCallback(const FLAC__StreamDecoder*, const FLAC__StreamMetadata* metadata,
                                   void* clientData) {
    if (metadata->type != FLAC__METADATA_TYPE_STREAMINFO)
        return;
    auto* self = static_cast<FLACDecoder*>(clientData);
    const auto& info = metadata->data.stream_info;
    self->setTotalSamples(info.total_samples);
    self->setSampleRate(double(info.sample_rate));
    self->setBitsPerChannel(info.bits_per_sample);
    self->setChannelsPerFrame(info.channels);
    self->setAudioChannelLayout(
        createChannelLayoutWithTag(layoutTagForChannelCount(info.channels)));
}

void FLACDecoder::errorCallback(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus, void*) {
    // Lost sync, bad headers and CRC mismatches are left to libFLAC, which
    // resynchronises on the next frame; what was lost shows at the end, as a
    // short stream or a failed MD5 check (finishStream).
}

FLAC__StreamDecoderWriteStatus FLACDecoder::writeCallback(const FLAC__StreamDecoder*,
                                                          const FLAC__Frame* frame,
                                                          const FLAC__int32* const buffer[],
                                                          void* clientData) {
    auto* self = static_cast<FLACDecoder*>(clientData);
    try {
        return self->writeFrame(frame, buffer);
    } catch (...) {
        self->pendingException_ = std::current_exception();
        return FLAC__STREAM_DECODER_WRITE_STATUS_ABORT;
    }
}

namespace {

template <int Bytes>
void interleave(uint8_t* out, const FLAC__int32* const buffer[], uint32_t channels,
                uint32_t blocksize) {
    for (uint32_t i = 0; i < blocksize; ++i) {
        for (uint32_t c = 0; c < channels; ++c) {
            const uint32_t s = uint32_t(buffer[c][i]);
            out[0] = uint8_t(s);
            if constexpr (Bytes >= 2)
                out[1] = uint8_t(s >> 8);
            if constexpr (Bytes >= 3)
                out[2] = uint8_t(s >> 16);
            if constexpr (Bytes >= 4)
                out[3] = uint8_t(s >> 24);
            out += Bytes;
        }
    }
}

// The common case gets a loop the compiler can vectorise.
void interleave16Stereo(uint8_t* out, const FLAC__int32* const buffer[], uint32_t blocksize) {
    auto* o = reinterpret_cast<int16_t*>(out);
    const FLAC__int32* left = buffer[0];
    const FLAC__int32* right = buffer[1];
    for (uint32_t i = 0; i < blocksize; ++i) {
        o[2 * i] = int16_t(left[i]);
        o[2 * i + 1] = int16_t(right[i]);
    }
}

} // namespace

FLAC__StreamDecoderWriteStatus FLACDecoder::writeFrame(const FLAC__Frame* frame,
                                                       const FLAC__int32* const buffer[]) {
    const uint32_t blocksize = frame->header.blocksize;
    const uint32_t channels = frame->header.channels;
    const uint32_t bits = frame->header.bits_per_sample;
    const uint32_t needed = (bits / 8) * channels * blocksize;

    RingBuffer& ring = pcmBuffer();
    if (ring.freeSpaceAvailable() < needed)
        ring.resize(ring.size() + needed);

    if (bits != 8 && bits != 16 && bits != 24 && bits != 32)
        throw Exception("IllegalInputException",
                        stringWithFormat("FLAC Does Not Support %d Bit Files", int(bits)));

    uint8_t* out = ring.exposeBufferForWriting();
    switch (bits) {
    case 8:
        interleave<1>(out, buffer, channels, blocksize);
        break;
    case 16:
        if (channels == 2 && __BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__)
            interleave16Stereo(out, buffer, blocksize);
        else
            interleave<2>(out, buffer, channels, blocksize);
        break;
    case 24:
        interleave<3>(out, buffer, channels, blocksize);
        break;
    default:
        interleave<4>(out, buffer, channels, blocksize);
        break;
    }
    ring.wroteBytes(needed);
    return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
}

void FLACDecoder::finishStream() {
    if (isEndOfFile())
        return;
    VLX_ASSERT(FLAC__stream_decoder_finish(flac_.get()),
               "The decoded audio does not match the MD5 signature of the FLAC stream.");
    setEndOfFile(true);
}

void FLACDecoder::fillPCMBuffer() {
    FLAC__StreamDecoder* d = flac_.get();
    if (isEndOfFile())
        return;
    if (FLAC__stream_decoder_get_state(d) == FLAC__STREAM_DECODER_END_OF_STREAM) {
        finishStream();
        return;
    }
    RingBuffer& ring = pcmBuffer();
    do {
        const uint32_t blockBytes = (FLAC__stream_decoder_get_bits_per_sample(d) / 8) *
                                    FLAC__stream_decoder_get_channels(d) *
                                    FLAC__stream_decoder_get_blocksize(d);
        if (ring.size() < blockBytes)
            ring.resize(blockBytes);
        if (ring.freeSpaceAvailable() < blockBytes)
            return;
        const FLAC__bool ok = FLAC__stream_decoder_process_single(d);
        if (pendingException_)
            std::rethrow_exception(std::exchange(pendingException_, nullptr));
        VLX_ASSERT(ok, "FLAC__stream_decoder_process_single failed: %s",
                   FLAC__stream_decoder_get_resolved_state_string(d));
    } while (FLAC__stream_decoder_get_state(d) != FLAC__STREAM_DECODER_END_OF_STREAM);
    finishStream();
}

} // namespace velvox
