#include "encoders/OggOpusEncodeOperation.h"

#include <algorithm>
#include <cstring>
#include <filesystem>
#include <numeric>
#include <optional>
#include <random>
#include <system_error>

#include <opus/opus.h>
#include <opus/opus_multistream.h>
#include <speex/speex_resampler.h>
#include <taglib/opusfile.h>
#include <taglib/xiphcomment.h>

#include "Version.h"
#include "encoders/LinearPrediction.h"
#include "encoders/OggPageWriter.h"
#include "encoders/SincResampler.h"
#include "jobs/FormatSpecifiers.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

// Granule positions of Ogg Opus always count 48 kHz samples.
constexpr int64_t kGranuleRate = 48000;
// A page never spans more than this many granule units (one second).
constexpr int64_t kMaxPageSpan = 48000;
constexpr long kPageFillBytes = 65025;
// The resampler is fed in blocks: it waits for this many frames and always
// keeps the last kResamplerKeep back.
constexpr uint32_t kResamplerBlock = 2048;
constexpr uint32_t kResamplerKeep = 1024;
// Frames of the input's end that the prediction past the end learns from.
constexpr uint32_t kTailFrames = 1024;
constexpr int kPredictorOrder = 32;

int codingRateFor(int32_t rate) {
    if (rate > 24000)
        return 48000;
    if (rate > 16000)
        return 24000;
    if (rate > 12000)
        return 16000;
    if (rate > 8000)
        return 12000;
    return 8000;
}

// Sources arrive in the WAVE channel order; Opus's surround families use the
// Vorbis order. Entry i names the source channel that becomes Opus channel i.
std::vector<int> vorbisOrderFromWave(int channels) {
    switch (channels) {
    case 3:
        return {0, 2, 1};
    case 5:
        return {0, 2, 1, 3, 4};
    case 6:
        return {0, 2, 1, 4, 5, 3};
    case 7:
        return {0, 2, 1, 5, 6, 4, 3};
    case 8:
        return {0, 2, 1, 6, 7, 4, 5, 3};
    default:
        return {};
    }
}

std::vector<unsigned char> commentPacket() {
    const char* vendor = opus_get_version_string();
    const uint32_t length = uint32_t(std::strlen(vendor));
    std::vector<unsigned char> data;
    data.reserve(length + 16);
    auto le32 = [&data](uint32_t v) {
        for (int i = 0; i < 4; ++i)
            data.push_back(static_cast<unsigned char>(v >> (8 * i)));
    };
    data.insert(data.end(), {'O', 'p', 'u', 's', 'T', 'a', 'g', 's'});
    le32(length);
    data.insert(data.end(), vendor, vendor + length);
    le32(0); // no user comments: the tags are written later by TagLib
    return data;
}

} // namespace

void OggOpusEncodeOperation::EncoderDeleter::operator()(OpusMSEncoder* encoder) const {
    opus_multistream_encoder_destroy(encoder);
}

void OggOpusEncodeOperation::ResamplerDeleter::operator()(SpeexResamplerState_* rs) const {
    speex_resampler_destroy(rs);
}

OggOpusEncodeOperation::OggOpusEncodeOperation() = default;

OggOpusEncodeOperation::~OggOpusEncodeOperation() { releaseCodec(); }

uint32_t OggOpusEncodeOperation::readBufferSize(uint32_t decoderBitsPerChannel) const {
    // libopus takes float, so every integer size converts exactly.
    return decoderBitsPerChannel == 32
               ? 65536
               : StreamEncodeOperation::readBufferSize(decoderBitsPerChannel);
}

bool OggOpusEncodeOperation::takesDecoderSamples() const {
    const KDDecoder* source = decoder();
    if (!source)
        return false;
    const AudioStreamBasicDescription& format = source->decodeFormat();
    // Down-mixing stays in float, where it loses nothing.
    if (format.mSampleRate != sourceSampleRate() || format.mChannelsPerFrame != targetChannels())
        return false;
    if (format.mFormatFlags & (kAudioFormatFlagIsBigEndian | kAudioFormatFlagIsNonInterleaved))
        return false;
    if (format.mFormatFlags & kAudioFormatFlagIsFloat)
        return format.mBitsPerChannel == 32;
    const uint32_t bits = format.mBitsPerChannel;
    return bits == 8 || bits == 16 || bits == 24 || bits == 32;
}

void OggOpusEncodeOperation::adjustOutputFormat(AudioStreamBasicDescription& format) const {
    // At the source's own rate the samples come as the decoder gives them and
    // become float on their way into the encoder's buffer: one pass instead
    // of a trip through the converter.
    if (takesDecoderSamples()) {
        format = decoder()->decodeFormat();
        return;
    }
    format.mFormatFlags = kAudioFormatFlagIsFloat | kAudioFormatFlagIsPacked;
    format.mBitsPerChannel = 32;
    format.mBytesPerFrame = format.mBytesPerPacket = 4 * format.mChannelsPerFrame;
}

void OggOpusEncodeOperation::setUpCodec(const std::string& tempFilePath) {
    sourceSampleRate_ = int32_t(sourceSampleRate());
    sourceChannels = int32_t(targetChannels());
    coding_rate = codingRateFor(sourceSampleRate_);
    const uint32_t perPacket = settings() ? settings()->framesPerPacket() : 0;
    frame_size = int32_t(perPacket == 0 ? 960 : perPacket) / (48000 / coding_rate);

    header_ = OpusHeader();
    header_.version = 1;
    header_.channels = sourceChannels;
    header_.gain = 0;
    header_.input_sample_rate = uint32_t(sourceSampleRate_);
    header_.channel_mapping = sourceChannels <= 2 ? 0 : sourceChannels <= 8 ? 1 : 255;
    order_ =
        header_.channel_mapping == 1 ? vorbisOrderFromWave(sourceChannels) : std::vector<int>();
    if (order_.empty()) {
        order_.resize(size_t(sourceChannels));
        std::iota(order_.begin(), order_.end(), 0);
    }
    inputSampleBytes_ = 4;
    inputIsFloat_ = true;
    if (takesDecoderSamples()) {
        const AudioStreamBasicDescription& format = decoder()->decodeFormat();
        inputSampleBytes_ = format.mBitsPerChannel / 8;
        inputIsFloat_ = (format.mFormatFlags & kAudioFormatFlagIsFloat) != 0;
    }

    createEncoder();
    configureEncoder();
    createResampler();
    header_.preskip =
        uint32_t((int64_t(lookahead_) + resamplerLatency_) * kGranuleRate / coding_rate);

    max_frame_bytes = 3832 * header_.nb_streams;
    try {
        packet.assign(size_t(max_frame_bytes), 0);
    } catch (const std::bad_alloc&) {
        VLX_ASSERT(false, "Could Not Allocate Buffer.");
    }

    pid = -1;
    enc_granulepos = last_granulepos = 0;
    last_segments = 0;
    original_samples = 0;
    bufferedSamples = bufferedResamplerSamples = 0;
    tail_.clear();
    writeHeaderPackets(tempFilePath);
}

void OggOpusEncodeOperation::createEncoder() {
    // Frames shorter than 10 ms are only possible in the low-delay mode.
    const int application = frame_size < 480 / (48000 / coding_rate)
                                ? OPUS_APPLICATION_RESTRICTED_LOWDELAY
                                : OPUS_APPLICATION_AUDIO;
    int error = OPUS_OK;
    st.reset(opus_multistream_surround_encoder_create(
        coding_rate, sourceChannels, header_.channel_mapping, &header_.nb_streams,
        &header_.nb_coupled, header_.stream_map.data(), application, &error));
    VLX_ASSERT(st != nullptr && error == OPUS_OK, "Error cannot create encoder: %s\n",
               opus_strerror(error));
}

void OggOpusEncodeOperation::configureEncoder() {
    const int64_t bitrate = settings() ? settings()->bitrate() : 0;
    VLX_ASSERT(bitrate >= 501 && bitrate < 1024000 * int64_t(sourceChannels),
               "Error: Bitrate %d bits/sec is insane.\nDid you mistake bits for kilobits?\n",
               int(bitrate));
    // Above 256 kbit/s per channel Opus is transparent; more is only size.
    const opus_int32 used =
        opus_int32(std::min<int64_t>(bitrate, 256000 * int64_t(sourceChannels)));
    int ret = opus_multistream_encoder_ctl(st.get(), OPUS_SET_BITRATE(used));
    VLX_ASSERT(ret == OPUS_OK, "Error OPUS_SET_BITRATE returned: %s\n", opus_strerror(ret));

    const BitrateMethod method = settings() ? settings()->bitrateMethod() : BitrateMethodVBR;
    const bool vbr = method != BitrateMethodCBR;
    ret = opus_multistream_encoder_ctl(st.get(), OPUS_SET_VBR(vbr ? 1 : 0));
    VLX_ASSERT(ret == OPUS_OK, "Error OPUS_SET_VBR returned: %s\n", opus_strerror(ret));
    if (vbr) {
        const int constrained = method == BitrateMethodConstrainedVBR ? 1 : 0;
        ret = opus_multistream_encoder_ctl(st.get(), OPUS_SET_VBR_CONSTRAINT(constrained));
        VLX_ASSERT(ret == OPUS_OK, "Error OPUS_SET_VBR_CONSTRAINT returned: %s\n",
                   opus_strerror(ret));
    }
    const int complexity = settings() ? int(settings()->quality()) : 10;
    ret = opus_multistream_encoder_ctl(st.get(), OPUS_SET_COMPLEXITY(complexity));
    VLX_ASSERT(ret == OPUS_OK, "Error OPUS_SET_COMPLEXITY returned: %s\n", opus_strerror(ret));

    opus_int32 lookahead = 0;
    ret = opus_multistream_encoder_ctl(st.get(), OPUS_GET_LOOKAHEAD(&lookahead));
    VLX_ASSERT(ret == OPUS_OK, "Error OPUS_GET_LOOKAHEAD returned: %s\n", opus_strerror(ret));
    lookahead_ = lookahead;
}

void OggOpusEncodeOperation::createResampler() {
    resampler.reset();
    sincResampler_.reset();
    resamplerLatency_ = 0;
    if (sourceSampleRate_ == coding_rate)
        return;
    // The same quality-5 filter as below, evaluated from a table of its exact
    // phases instead of interpolated: a quarter of the work per tap.
    sincResampler_ = SincResampler::create(uint32_t(sourceChannels), uint32_t(sourceSampleRate_),
                                           uint32_t(coding_rate));
    if (sincResampler_) {
        resamplerLatency_ = int32_t(sincResampler_->outputLatency());
        return;
    }
    int error = RESAMPLER_ERR_SUCCESS;
    resampler.reset(speex_resampler_init(spx_uint32_t(sourceChannels),
                                         spx_uint32_t(sourceSampleRate_), spx_uint32_t(coding_rate),
                                         5, &error));
    VLX_ASSERT(resampler != nullptr && error == RESAMPLER_ERR_SUCCESS,
               "Opus Error: speex resampler error: %s\n", speex_resampler_strerror(error));
    // The filter's delay shows at the start of the output; the pre-skip
    // hides it together with the encoder's look-ahead.
    resamplerLatency_ = speex_resampler_get_output_latency(resampler.get());
}

void OggOpusEncodeOperation::writeHeaderPackets(const std::string& tempFilePath) {
    std::random_device entropy;
    writer_ = std::make_unique<OggPageWriter>(tempFilePath, int(entropy() & 0x7FFFFFFF),
                                              "Opus could not open output file");
    unsigned char identification[100];
    const int length = opus_header_to_packet(header_, identification, int(sizeof identification));
    VLX_ASSERT(length > 0, "opus_header_to_packet failed");
    const char* failed = "Opus Error: failed writing header to output stream";
    writer_->writeHeaderPacket(identification, length, 0, failed);
    std::vector<unsigned char> comments = commentPacket();
    writer_->writeHeaderPacket(comments.data(), long(comments.size()), 1, failed);
}

// ---- Audio ----

void OggOpusEncodeOperation::encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) {
    VLX_PARAMETER_ASSERT_TEXT(!bufferList.mBuffers.empty(), "0 < bufferList->mNumberBuffers");
    const AudioBuffer& buffer = bufferList.mBuffers[0];
    const size_t samples = size_t(frameCount) * size_t(sourceChannels);
    VLX_PARAMETER_ASSERT_TEXT(buffer.mData != nullptr &&
                                  buffer.mNumberChannels == uint32_t(sourceChannels) &&
                                  buffer.mDataByteSize >= samples * inputSampleBytes_,
                              "bufferList->mBuffers[0].mDataByteSize >= byteCount");
    toFloat(static_cast<const uint8_t*>(buffer.mData), frameCount);
    original_samples += frameCount;
    rememberTail(floats_.data(), frameCount);
    appendSource(floats_.data(), frameCount);
    encodeWaiting(uint32_t(frame_size));
}

// Little-endian samples of any size the loop may hand over, scaled to the
// unit range exactly as the converter scales them, and put in Opus's channel
// order on the way.
void OggOpusEncodeOperation::toFloat(const uint8_t* in, uint32_t frameCount) {
    const size_t ch = size_t(sourceChannels);
    floats_.resize(size_t(frameCount) * ch);
    float* out = floats_.data();
    const size_t bytes = inputSampleBytes_;
    for (size_t c = 0; c < ch; ++c) {
        const uint8_t* p = in + size_t(order_[c]) * bytes;
        float* o = out + c;
        const size_t stride = ch * bytes;
        if (inputIsFloat_) {
            for (uint32_t f = 0; f < frameCount; ++f, p += stride, o += ch)
                std::memcpy(o, p, 4);
        } else if (bytes == 2) {
            for (uint32_t f = 0; f < frameCount; ++f, p += stride, o += ch)
                *o = float(int16_t(uint16_t(p[0] | (p[1] << 8)))) * (1.0f / 32768.0f);
        } else if (bytes == 3) {
            for (uint32_t f = 0; f < frameCount; ++f, p += stride, o += ch)
                *o = float(int32_t((uint32_t(p[0]) << 8) | (uint32_t(p[1]) << 16) |
                                   (uint32_t(p[2]) << 24)) >>
                           8) *
                     (1.0f / 8388608.0f);
        } else if (bytes == 4) {
            for (uint32_t f = 0; f < frameCount; ++f, p += stride, o += ch)
                *o = float(int32_t(uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) |
                                   (uint32_t(p[3]) << 24))) *
                     (1.0f / 2147483648.0f);
        } else {
            for (uint32_t f = 0; f < frameCount; ++f, p += stride, o += ch)
                *o = float(int8_t(p[0])) * (1.0f / 128.0f);
        }
    }
}

uint32_t OggOpusEncodeOperation::resamplerInputLatency() const {
    if (sincResampler_)
        return sincResampler_->inputLatency();
    return resampler ? uint32_t(speex_resampler_get_input_latency(resampler.get())) : 0;
}

void OggOpusEncodeOperation::appendSource(const float* frames, uint32_t frameCount) {
    const size_t ch = size_t(sourceChannels);
    if (sincResampler_) {
        bufferedSamples =
            uint32_t(sincResampler_->process(frames, frameCount, input, bufferedSamples));
        return;
    }
    if (!resampler) {
        const size_t needed = (size_t(bufferedSamples) + frameCount) * ch;
        if (input.size() < needed)
            input.resize(needed + 2 * size_t(frame_size) * ch);
        std::copy_n(frames, size_t(frameCount) * ch, input.begin() + long(bufferedSamples * ch));
        bufferedSamples += frameCount;
        return;
    }
    const size_t needed = (size_t(bufferedResamplerSamples) + frameCount) * ch;
    if (resamplerBuffer.size() < needed)
        resamplerBuffer.resize(needed + size_t(kResamplerBlock) * ch);
    std::copy_n(frames, size_t(frameCount) * ch,
                resamplerBuffer.begin() + long(bufferedResamplerSamples * ch));
    bufferedResamplerSamples += frameCount;
    if (bufferedResamplerSamples >= kResamplerBlock)
        resampleWaiting(kResamplerKeep);
}

void OggOpusEncodeOperation::resampleWaiting(uint32_t keepFrames) {
    if (bufferedResamplerSamples <= keepFrames)
        return;
    const size_t ch = size_t(sourceChannels);
    uint32_t toProcess = bufferedResamplerSamples - keepFrames;
    uint32_t consumed = 0;
    while (toProcess > 0) {
        const uint32_t room =
            uint32_t(uint64_t(toProcess) * uint64_t(coding_rate) / uint64_t(sourceSampleRate_)) +
            16;
        const size_t needed = (size_t(bufferedSamples) + room) * ch;
        if (input.size() < needed)
            input.resize(needed + 2 * size_t(frame_size) * ch);
        spx_uint32_t inLength = toProcess;
        spx_uint32_t outLength = room;
        speex_resampler_process_interleaved_float(
            resampler.get(), resamplerBuffer.data() + size_t(consumed) * ch, &inLength,
            input.data() + bufferedSamples * ch, &outLength);
        bufferedSamples += outLength;
        consumed += inLength;
        toProcess -= inLength;
        if (inLength == 0 && outLength == 0)
            break;
    }
    // What the resampler has not taken yet moves to the front.
    std::copy(resamplerBuffer.begin() + long(size_t(consumed) * ch),
              resamplerBuffer.begin() + long(size_t(bufferedResamplerSamples) * ch),
              resamplerBuffer.begin());
    bufferedResamplerSamples -= consumed;
}

void OggOpusEncodeOperation::encodeWaiting(uint32_t reserve) {
    const size_t ch = size_t(sourceChannels);
    size_t offset = 0;
    const uint32_t frames = uint32_t(frame_size);
    while (bufferedSamples >= frames + reserve) {
        encodeOneFrame(input.data() + offset * ch, false, 0);
        offset += frames;
    }
    if (offset > 0)
        std::copy(input.begin() + long(offset * ch),
                  input.begin() + long((offset + bufferedSamples) * ch), input.begin());
}

void OggOpusEncodeOperation::encodeOneFrame(const float* pcm, bool last, int64_t lastGranule) {
    ++pid;
    const opus_int32 bytes =
        opus_multistream_encode_float(st.get(), pcm, frame_size, packet.data(), max_frame_bytes);
    VLX_ASSERT(bytes >= 0, "Encoding failed: %s. Aborting.\n", opus_strerror(bytes));
    bufferedSamples -= uint32_t(frame_size);
    enc_granulepos += int64_t(frame_size) * kGranuleRate / coding_rate;
    const int segments = int((bytes + 255) / 255);
    writePagesBeforePacket(segments, bytes < kPageFillBytes);

    ogg_packet op{};
    op.packet = packet.data();
    op.bytes = bytes;
    op.b_o_s = 0;
    op.e_o_s = last ? 1 : 0;
    // The last packet's position ends the stream at the input's length; the
    // decoder drops whatever the packet holds beyond it.
    op.granulepos = last ? lastGranule : enc_granulepos;
    op.packetno = pid + 2;
    writer_->packetin(op);
    last_segments += segments;
    writePagesAfterPacket(last);
}

void OggOpusEncodeOperation::writePagesBeforePacket(int segments, bool packetIsSmall) {
    ogg_page og;
    while (((packetIsSmall && last_segments + segments > 255) ||
            enc_granulepos - last_granulepos > kMaxPageSpan) &&
           ogg_stream_flush_fill(&writer_->stream(), &og, kPageFillBytes) != 0)
        writePage(og);
}

void OggOpusEncodeOperation::writePagesAfterPacket(bool last) {
    ogg_page og;
    for (;;) {
        int produced;
        if (!last && enc_granulepos - last_granulepos <= kMaxPageSpan && last_segments < 255)
            produced = ogg_stream_pageout_fill(&writer_->stream(), &og, kPageFillBytes);
        else
            produced = ogg_stream_flush_fill(&writer_->stream(), &og, kPageFillBytes);
        if (produced == 0)
            break;
        writePage(og);
    }
}

void OggOpusEncodeOperation::writePage(const ogg_page& page) {
    const int64_t granule = ogg_page_granulepos(&page);
    if (granule != -1)
        last_granulepos = granule;
    last_segments -= page.header[26];
    VLX_ASSERT(writer_->writePage(page), "Opus Error: failed writing page to output stream");
}

void OggOpusEncodeOperation::rememberTail(const float* frames, uint32_t frameCount) {
    const size_t ch = size_t(sourceChannels);
    if (frameCount >= kTailFrames) {
        tail_.assign(frames + (frameCount - kTailFrames) * ch, frames + size_t(frameCount) * ch);
        return;
    }
    tail_.insert(tail_.end(), frames, frames + size_t(frameCount) * ch);
    if (tail_.size() > kTailFrames * ch)
        tail_.erase(tail_.begin(), tail_.end() - long(kTailFrames * ch));
}

std::vector<float> OggOpusEncodeOperation::predictedContinuation(uint32_t frameCount) const {
    const size_t ch = size_t(sourceChannels);
    const size_t history = tail_.size() / ch;
    std::vector<float> out(size_t(frameCount) * ch, 0.0f);
    if (history <= size_t(kPredictorOrder))
        return out; // too little to learn from: silence it is
    std::vector<float> channel(history);
    std::vector<float> coefficients(kPredictorOrder);
    std::vector<float> predicted(frameCount);
    for (size_t c = 0; c < ch; ++c) {
        for (size_t f = 0; f < history; ++f)
            channel[f] = tail_[f * ch + c];
        vorbis_lpc_from_data(channel.data(), coefficients.data(), int(history), kPredictorOrder);
        vorbis_lpc_predict(coefficients.data(), channel.data() + history - kPredictorOrder,
                           kPredictorOrder, predicted.data(), long(frameCount));
        for (size_t f = 0; f < frameCount; ++f)
            out[f * ch + c] = predicted[f];
    }
    return out;
}

void OggOpusEncodeOperation::finishCodec() {
    const int64_t granuleStep = int64_t(frame_size) * kGranuleRate / coding_rate;
    // The end as the decoder should see it: the pre-skip plus the input's
    // length in 48 kHz units, rounded up so that a decoder converting back
    // to the source rate (rounding down) gets every input frame.
    const int64_t endGranule =
        header_.preskip +
        (original_samples * kGranuleRate + sourceSampleRate_ - 1) / sourceSampleRate_;

    // Continue the signal for as long as the codec and the resampler hold
    // back, plus a frame, so that nothing audible meets a cut to silence.
    int64_t extension =
        int64_t(lookahead_ + resamplerLatency_ + frame_size) * sourceSampleRate_ / coding_rate + 1;
    extension += resamplerInputLatency();
    const std::vector<float> continuation = predictedContinuation(uint32_t(extension));
    appendSource(continuation.data(), uint32_t(extension));
    if (resampler)
        resampleWaiting(0);

    const int64_t packetsWanted =
        std::max<int64_t>(1, (endGranule + granuleStep - 1) / granuleStep);
    const int64_t remaining = packetsWanted - (pid + 1);
    VLX_ASSERT(remaining >= 1, "Opus Error: the stream ended before its last packet");
    const size_t ch = size_t(sourceChannels);
    const size_t wanted = size_t(remaining) * size_t(frame_size);
    // Beyond the prediction the frames are silence; they are trimmed anyway.
    if (input.size() < wanted * ch)
        input.resize(wanted * ch, 0.0f);
    if (bufferedSamples < wanted)
        std::fill(input.begin() + long(size_t(bufferedSamples) * ch),
                  input.begin() + long(wanted * ch), 0.0f);
    bufferedSamples = uint32_t(std::max<size_t>(bufferedSamples, wanted));
    for (int64_t k = 0; k < remaining; ++k)
        encodeOneFrame(input.data() + size_t(k) * size_t(frame_size) * ch, k == remaining - 1,
                       endGranule);

    VLX_ASSERT(writer_->flushAll(), "Opus Error: failed writing page to output stream");
    if (!writer_->close())
        throw Exception("IOException", "Unable to close the output file.");
}

void OggOpusEncodeOperation::releaseCodec() noexcept {
    writer_.reset();
    sincResampler_.reset();
    resampler.reset();
    st.reset();
    resamplerBuffer.clear();
    input.clear();
    packet.clear();
    tail_.clear();
    floats_.clear();
}

void OggOpusEncodeOperation::writeMetadata() {
    writeXiphComment<TagLib::Ogg::Opus::File>(opus_get_version_string());
}

} // namespace velvox
