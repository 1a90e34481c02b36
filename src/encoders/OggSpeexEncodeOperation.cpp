#include "encoders/OggSpeexEncodeOperation.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <system_error>

#include <ogg/ogg.h>
#include <speex/speex.h>
#include <speex/speex_header.h>
#include <speex/speex_preprocess.h>
#include <speex/speex_stereo.h>
#include <taglib/speexfile.h>
#include <taglib/xiphcomment.h>

#include "Version.h"
#include "encoders/OggPageWriter.h"
#include "jobs/FormatSpecifiers.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

constexpr const char* kHeaderWriteFailed =
    "Ogg Speex Error: failed writing header to output stream";
constexpr const char* kWriteFailed = "Ogg Speex Error: failed writing to output stream";

// Largest packet: ten ultra-wideband frames at the highest rate fit easily.
constexpr int kMaxPacketBytes = 2000;

const SpeexMode* modeForRate(int32_t rate) {
    if (rate > 25000)
        return speex_lib_get_mode(SPEEX_MODEID_UWB);
    if (rate > 12500)
        return speex_lib_get_mode(SPEEX_MODEID_WB);
    return &speex_nb_mode;
}

std::string speexVersion() {
    const char* version = nullptr;
    speex_lib_ctl(SPEEX_LIB_GET_VERSION_STRING, &version);
    return version ? version : "";
}

} // namespace

void OggSpeexEncodeOperation::EncoderDeleter::operator()(void* state) const {
    speex_encoder_destroy(state);
}

void OggSpeexEncodeOperation::PreprocessDeleter::operator()(SpeexPreprocessState_* state) const {
    speex_preprocess_state_destroy(state);
}

OggSpeexEncodeOperation::OggSpeexEncodeOperation() = default;

OggSpeexEncodeOperation::~OggSpeexEncodeOperation() { releaseCodec(); }

int32_t OggSpeexEncodeOperation::speexRateFor(int64_t requestedRate, double decoderRate) {
    const int64_t rate = requestedRate != 0 ? requestedRate : int64_t(decoderRate);
    if (rate > 48000)
        return 48000;
    if (rate <= 6000)
        return 8000;
    return int32_t(rate);
}

uint32_t OggSpeexEncodeOperation::readBufferSize(uint32_t decoderBitsPerChannel) const {
    // Every integer size converts to Speex's 16 bits.
    return decoderBitsPerChannel == 32
               ? 65536
               : StreamEncodeOperation::readBufferSize(decoderBitsPerChannel);
}

double
OggSpeexEncodeOperation::outputSampleRate(const AudioStreamBasicDescription& decodeFormat) const {
    return speexRateFor(settings() ? settings()->sampleRate() : 0, decodeFormat.mSampleRate);
}

void OggSpeexEncodeOperation::setUpCodec(const std::string& tempFilePath) {
    rate_ = int32_t(sourceSampleRate());
    channels_ = int32_t(targetChannels());
    VLX_ASSERT(channels_ == 1 || channels_ == 2, "Ogg Speex Does Not Support %d Channels",
               int(channels_));
    const SpeexMode* mode = modeForRate(rate_);
    const uint32_t perPacket = settings() ? settings()->framesPerPacket() : 1;
    framesPerPacket_ = int32_t(std::clamp<uint32_t>(perPacket, 1, 10));

    // Seeded by the clock like every Ogg encoder of its time: two files
    // made in the same second share a serial, which only matters to
    // chained streams, and we never chain.
    std::srand(unsigned(std::time(nullptr)));
    writer_ = std::make_unique<OggPageWriter>(tempFilePath, std::rand(),
                                              "Ogg Speex could not open output file");
    createEncoder(mode);
    writeHeaderPackets(mode);

    frame_.assign(size_t(frameSize_) * size_t(channels_), 0);
    speex_bits_init(&bits_);
    bitsReady_ = true;
    framedSamples_ = 0;
    framesInPacket_ = framesEncoded_ = packetsDone_ = inputSamples_ = 0;
    havePending_ = false;
    pending_.reserve(kMaxPacketBytes);
}

void OggSpeexEncodeOperation::createEncoder(const void* modePointer) {
    const auto* mode = static_cast<const SpeexMode*>(modePointer);
    state_.reset(speex_encoder_init(mode));
    VLX_ASSERT(state_ != nullptr, "speex_encoder_init failed");
    void* st = state_.get();
    const std::shared_ptr<EncoderSettings> s = settings();
    const BitrateMethod method = s ? s->bitrateMethod() : BitrateMethodVBR;

    spx_int32_t frameSize = 0;
    speex_encoder_ctl(st, SPEEX_GET_FRAME_SIZE, &frameSize);
    frameSize_ = frameSize;
    spx_int32_t complexity = s ? spx_int32_t(s->quality()) : 3;
    speex_encoder_ctl(st, SPEEX_SET_COMPLEXITY, &complexity);
    spx_int32_t rate = rate_;
    speex_encoder_ctl(st, SPEEX_SET_SAMPLING_RATE, &rate);
    if (method == BitrateMethodVBR) {
        spx_int32_t on = 1;
        speex_encoder_ctl(st, SPEEX_SET_VBR, &on);
        float quality = s ? float(s->vbrQuality()) : 8.0f;
        speex_encoder_ctl(st, SPEEX_SET_VBR_QUALITY, &quality);
    } else {
        spx_int32_t bitrate = s ? spx_int32_t(s->bitrate()) : 0;
        speex_encoder_ctl(st, SPEEX_SET_BITRATE, &bitrate);
    }
    if (method == BitrateMethodABR) {
        // Average mode is switched on with the flag value rather than the
        // bit rate, which makes the coder aim at its lowest average: kept,
        // since files made this way are what users have in their libraries.
        spx_int32_t average = 1;
        speex_encoder_ctl(st, SPEEX_SET_ABR, &average);
    }
    spx_int32_t vad = s && s->speexVoiceActivityDetection() ? 1 : 0;
    speex_encoder_ctl(st, SPEEX_SET_VAD, &vad);
    if (vad) {
        spx_int32_t dtx = s->speexDiscontinuousTransmission() ? 1 : 0;
        speex_encoder_ctl(st, SPEEX_SET_DTX, &dtx);
    }
    spx_int32_t lookahead = 0;
    speex_encoder_ctl(st, SPEEX_GET_LOOKAHEAD, &lookahead);
    lookahead_ = lookahead;

    const bool denoise = s && s->speexDenoise();
    const bool agc = s && s->speexAdaptiveGainControl();
    if (denoise || agc) {
        preprocess_.reset(speex_preprocess_state_init(frameSize_, rate_));
        VLX_ASSERT(preprocess_ != nullptr, "speex_preprocess_state_init failed");
        spx_int32_t on = denoise ? 1 : 0;
        speex_preprocess_ctl(preprocess_.get(), SPEEX_PREPROCESS_SET_DENOISE, &on);
        on = agc ? 1 : 0;
        speex_preprocess_ctl(preprocess_.get(), SPEEX_PREPROCESS_SET_AGC, &on);
        lookahead_ += frameSize_;
    }
}

void OggSpeexEncodeOperation::writeHeaderPackets(const void* modePointer) {
    const auto* mode = static_cast<const SpeexMode*>(modePointer);
    SpeexHeader header;
    speex_init_header(&header, rate_, 1, mode);
    header.frames_per_packet = framesPerPacket_;
    const BitrateMethod method = settings() ? settings()->bitrateMethod() : BitrateMethodVBR;
    header.vbr = method != BitrateMethodCBR ? 1 : 0; // average counts as variable
    header.nb_channels = channels_;

    int bytes = 0;
    std::unique_ptr<char, void (*)(void*)> first(speex_header_to_packet(&header, &bytes),
                                                 speex_header_free);
    VLX_ASSERT(first != nullptr, "speex_header_to_packet failed");
    writer_->writeHeaderPacket(reinterpret_cast<unsigned char*>(first.get()), bytes, 0,
                               kHeaderWriteFailed);

    // A Vorbis-style comment block without the framing bit, carrying only
    // the vendor text: the tags are written by TagLib afterwards.
    const std::string vendor = stringWithFormat("Encoded with Speex %s", speexVersion().c_str());
    std::vector<unsigned char> comments(4 + vendor.size() + 4, 0);
    const uint32_t length = uint32_t(vendor.size());
    for (int i = 0; i < 4; ++i)
        comments[size_t(i)] = static_cast<unsigned char>(length >> (8 * i));
    std::memcpy(comments.data() + 4, vendor.data(), vendor.size());
    // The last four bytes stay zero: no user comments.
    writer_->writeHeaderPacket(comments.data(), long(comments.size()), 1, kHeaderWriteFailed);
}

void OggSpeexEncodeOperation::encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) {
    VLX_PARAMETER_ASSERT_TEXT(!bufferList.mBuffers.empty(), "0 < bufferList->mNumberBuffers");
    const AudioBuffer& buffer = bufferList.mBuffers[0];
    const size_t ch = size_t(channels_);
    VLX_PARAMETER_ASSERT_TEXT(buffer.mData != nullptr && buffer.mNumberChannels == ch &&
                                  buffer.mDataByteSize >= size_t(frameCount) * ch * 2,
                              "bufferList->mBuffers[0].mDataByteSize >= byteCount");
    const auto* in = static_cast<const uint8_t*>(buffer.mData);
    inputSamples_ += frameCount;
    uint32_t done = 0;
    while (done < frameCount) {
        const uint32_t take =
            std::min<uint32_t>(frameCount - done, uint32_t(frameSize_ - framedSamples_));
        // Little-endian bytes to host samples.
        const uint8_t* p = in + size_t(done) * ch * 2;
        int16_t* out = frame_.data() + size_t(framedSamples_) * ch;
        for (size_t i = 0; i < size_t(take) * ch; ++i)
            out[i] = int16_t(uint16_t(p[2 * i] | (p[2 * i + 1] << 8)));
        framedSamples_ += int32_t(take);
        done += take;
        if (framedSamples_ == frameSize_)
            encodeFrame();
    }
}

void OggSpeexEncodeOperation::encodeFrame() {
    // The stereo coder folds the frame to mono in place and sends the
    // stereo image as side information.
    if (channels_ == 2)
        speex_encode_stereo_int(frame_.data(), frameSize_, &bits_);
    if (preprocess_)
        speex_preprocess_run(preprocess_.get(), frame_.data());
    speex_encode_int(state_.get(), frame_.data(), &bits_);
    framedSamples_ = 0;
    ++framesEncoded_;
    if (++framesInPacket_ == framesPerPacket_)
        completePacket();
}

void OggSpeexEncodeOperation::completePacket() {
    if (havePending_)
        submitPending(false);
    speex_bits_insert_terminator(&bits_);
    pending_.resize(kMaxPacketBytes);
    const int bytes =
        speex_bits_write(&bits_, reinterpret_cast<char*>(pending_.data()), kMaxPacketBytes);
    speex_bits_reset(&bits_);
    pending_.resize(size_t(std::max(bytes, 0)));
    havePending_ = true;
    framesInPacket_ = 0;
}

void OggSpeexEncodeOperation::submitPending(bool last) {
    ++packetsDone_;
    ogg_packet op{};
    op.packet = pending_.data();
    op.bytes = long(pending_.size());
    op.e_o_s = last ? 1 : 0;
    // Samples decoded up to the end of this packet, less the coder's delay;
    // the last packet's position cuts the output to the input's length.
    const int64_t end = packetsDone_ * framesPerPacket_ * frameSize_ - lookahead_;
    op.granulepos = last ? inputSamples_ : std::clamp<int64_t>(end, 0, inputSamples_);
    op.packetno = 1 + packetsDone_;
    writer_->packetin(op);
    havePending_ = false;
    if (last)
        VLX_ASSERT(writer_->flushAll(), "%@", std::string(kWriteFailed));
    else
        writer_->writeReadyPages(kWriteFailed);
}

void OggSpeexEncodeOperation::finishCodec() {
    // Silence after the end until the coder's delay has been pushed out, so
    // the last input sample is inside a packet.
    const size_t ch = size_t(channels_);
    const int64_t wanted = inputSamples_ + lookahead_;
    while (framedSamples_ > 0 || framesEncoded_ * frameSize_ < wanted || framesEncoded_ == 0) {
        std::fill(frame_.begin() + long(size_t(framedSamples_) * ch), frame_.end(), int16_t(0));
        framedSamples_ = frameSize_;
        encodeFrame();
    }
    if (framesInPacket_ > 0) {
        // The terminator code (15) ends the packet early for the decoder.
        while (framesInPacket_ < framesPerPacket_) {
            speex_bits_pack(&bits_, 15, 5);
            ++framesInPacket_;
        }
        completePacket();
    }
    if (havePending_)
        submitPending(true);
    if (!writer_->close())
        throw Exception("IOException", "Unable to close the output file.");
}

void OggSpeexEncodeOperation::releaseCodec() noexcept {
    writer_.reset();
    if (bitsReady_) {
        speex_bits_destroy(&bits_);
        bitsReady_ = false;
    }
    preprocess_.reset();
    state_.reset();
    frame_.clear();
    pending_.clear();
}

void OggSpeexEncodeOperation::writeMetadata() {
    writeXiphComment<TagLib::Ogg::Speex::File>("Speex " + speexVersion());
}

} // namespace velvox
