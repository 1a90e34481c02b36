#include "encoders/LibavMuxerBackEnd.h"

#include <algorithm>
#include <cstring>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
}

#include "platform/Exception.h"
#include "platform/StringFormat.h"

namespace velvox {

void LibavMuxerBackEnd::OutputContextDeleter::operator()(AVFormatContext* context) const {
    if (context->pb)
        avio_closep(&context->pb);
    avformat_free_context(context);
}

void LibavMuxerBackEnd::openCodec(const CoreAudioOutputFormat& format, const Stream& stream) {
    const AVCodec* codec = avcodec_find_encoder_by_name(format.codecName());
    VLX_ASSERT(codec != nullptr, "FFmpeg has no %s encoder.", format.codecName());
    codec_.reset(avcodec_alloc_context3(codec));
    VLX_ASSERT(codec_ != nullptr, "avcodec_alloc_context3 failed.");
    AVCodecContext* context = codec_.get();
    context->sample_rate = int(stream.sampleRate);
    context->time_base = AVRational{1, context->sample_rate};
    av_channel_layout_default(&context->ch_layout, int(stream.channels));
    switch (format.formatID()) {
    case kAudioFormatMPEG4AAC:
        context->sample_fmt = AV_SAMPLE_FMT_FLTP;
        context->bit_rate = stream.bitrate;
        context->profile = FF_PROFILE_AAC_LOW;
        break;
    case kAudioFormatAppleLossless:
        context->sample_fmt = stream.bitsPerChannel <= 16 ? AV_SAMPLE_FMT_S16P : AV_SAMPLE_FMT_S32P;
        context->bits_per_raw_sample = int(stream.bitsPerChannel);
        break;
    default:
        context->sample_fmt = AV_SAMPLE_FMT_S16P;
        break;
    }
    if (output_->oformat->flags & AVFMT_GLOBALHEADER)
        context->flags |= AV_CODEC_FLAG_GLOBAL_HEADER;
    const int error = avcodec_open2(context, codec, nullptr);
    VLX_ASSERT(error >= 0, "avcodec_open2 failed: %s", avErrorString(error).c_str());
}

void LibavMuxerBackEnd::open(const std::string& path, const CoreAudioOutputFormat& format,
                             const Stream& stream) {
    input_ = stream;
    AVFormatContext* raw = nullptr;
    int error = avformat_alloc_output_context2(&raw, nullptr, format.muxerName(), path.c_str());
    VLX_ASSERT(error >= 0 && raw != nullptr, "avformat_alloc_output_context2 failed: %s",
               avErrorString(error).c_str());
    output_.reset(raw);

    openCodec(format, stream);
    const AVCodecContext* context = codec_.get();
    const bool variable = context->codec->capabilities & AV_CODEC_CAP_VARIABLE_FRAME_SIZE;
    frameSize_ = context->frame_size > 0 && !variable ? context->frame_size : 4096;
    padLastFrame_ = !(context->codec->capabilities & AV_CODEC_CAP_SMALL_LAST_FRAME) && !variable;

    stream_ = avformat_new_stream(output_.get(), nullptr);
    VLX_ASSERT(stream_ != nullptr, "avformat_new_stream failed.");
    stream_->time_base = context->time_base;
    error = avcodec_parameters_from_context(stream_->codecpar, context);
    VLX_ASSERT(error >= 0, "avcodec_parameters_from_context failed: %s",
               avErrorString(error).c_str());
    error = avio_open(&output_->pb, path.c_str(), AVIO_FLAG_WRITE);
    VLX_ASSERT(error >= 0, "avio_open failed: %s", avErrorString(error).c_str());
    // The MP4 edit list counts in the movie's time scale; at the sample rate
    // it says exactly how many frames are real, rather than to a millisecond.
    AVDictionary* options = nullptr;
    if (format.isMP4())
        av_dict_set_int(&options, "movie_timescale", int64_t(stream.sampleRate), 0);
    error = avformat_write_header(output_.get(), &options);
    av_dict_free(&options);
    VLX_ASSERT(error >= 0, "avformat_write_header failed: %s", avErrorString(error).c_str());
    headerWritten_ = true;

    fifo_.reset(av_audio_fifo_alloc(context->sample_fmt, int(stream.channels), frameSize_ * 4));
    frame_.reset(av_frame_alloc());
    packet_.reset(av_packet_alloc());
    VLX_ASSERT(fifo_ && frame_ && packet_, "Could Not Allocate Buffer.");
    planes_.assign(stream.channels, {});
    planePointers_.assign(stream.channels, nullptr);
    queueLeadingSilence(stream.expectedFrames);
}

void LibavMuxerBackEnd::queueLeadingSilence(int64_t expectedFrames) {
    // A coder that primes (AAC) codes whole frames, so the last packet holds
    // padding. Readers that trim only at the start of an edit list (FFmpeg
    // before 6) would play that padding. Silence put in front, and counted
    // as priming in the edit list and iTunSMPB, makes priming, audio and
    // padding-free end fill whole frames instead; every reader then gets
    // exactly the source's frames. With a wrong estimate only the alignment
    // is lost: the edit list and iTunSMPB still state the real length.
    leadingSilence_ = 0;
    const int64_t priming = codec_->initial_padding;
    if (priming <= 0 || expectedFrames <= 0 || codec_->frame_size != frameSize_)
        return;
    leadingSilence_ = uint32_t((frameSize_ - (priming + expectedFrames) % frameSize_) % frameSize_);
    if (leadingSilence_ == 0)
        return;
    const AVSampleFormat format = codec_->sample_fmt;
    const int channels = int(input_.channels);
    uint8_t** silence = nullptr;
    int error = av_samples_alloc_array_and_samples(&silence, nullptr, channels,
                                                   int(leadingSilence_), format, 0);
    VLX_ASSERT(error >= 0, "Could Not Allocate Buffer.");
    av_samples_set_silence(silence, 0, int(leadingSilence_), channels, format);
    error =
        av_audio_fifo_write(fifo_.get(), reinterpret_cast<void**>(silence), int(leadingSilence_));
    av_freep(&silence[0]);
    av_freep(&silence);
    VLX_ASSERT(error == int(leadingSilence_), "av_audio_fifo_write failed: %s",
               avErrorString(error).c_str());
}

void LibavMuxerBackEnd::deinterleave(const uint8_t* samples, uint32_t frames) {
    const uint32_t channels = input_.channels;
    const uint32_t bytes = input_.bitsPerChannel / 8;
    const AVSampleFormat sampleFormat = codec_->sample_fmt;
    const size_t width = size_t(av_get_bytes_per_sample(sampleFormat));
    // Integers are read left-justified in 32 bits, then stored at the
    // coder's width: floats scaled to ±1, 16-bit planes take the top half,
    // 32-bit planes (24-bit ALAC) stay left-justified, as FFmpeg's encoder
    // shifts them down by the raw sample size itself.
    if (bytes == 2 && sampleFormat == AV_SAMPLE_FMT_FLTP) {
        deinterleave16ToFloat(samples, frames);
        return;
    }
    for (uint32_t c = 0; c < channels; ++c) {
        planes_[c].resize(size_t(frames) * width);
        planePointers_[c] = planes_[c].data();
        const uint8_t* p = samples + c * bytes;
        uint8_t* out = planes_[c].data();
        for (uint32_t f = 0; f < frames; ++f, p += size_t(channels) * bytes) {
            uint32_t u = 0;
            for (uint32_t b = 0; b < bytes; ++b)
                u |= uint32_t(p[b]) << (8 * (4 - bytes + b));
            const int32_t value = int32_t(u);
            if (sampleFormat == AV_SAMPLE_FMT_FLTP) {
                const float x = float(double(value) * (1.0 / 2147483648.0));
                std::memcpy(out + f * width, &x, sizeof x);
            } else if (sampleFormat == AV_SAMPLE_FMT_S16P) {
                const int16_t x = int16_t(value >> 16);
                std::memcpy(out + f * width, &x, sizeof x);
            } else {
                std::memcpy(out + f * width, &value, sizeof value);
            }
        }
    }
}

void LibavMuxerBackEnd::deinterleave16ToFloat(const uint8_t* samples, uint32_t frames) {
    // 16-bit sources into AAC are most of the work: whole samples, one
    // multiply each, in a loop the compiler vectorises.
    const uint32_t channels = input_.channels;
    for (uint32_t c = 0; c < channels; ++c) {
        planes_[c].resize(size_t(frames) * sizeof(float));
        planePointers_[c] = planes_[c].data();
        float* out = reinterpret_cast<float*>(planes_[c].data());
        const uint8_t* p = samples + 2 * c;
        for (uint32_t f = 0; f < frames; ++f, p += 2 * channels)
            out[f] = float(int16_t(uint16_t(p[0] | (p[1] << 8)))) * (1.0f / 32768.0f);
    }
}

void LibavMuxerBackEnd::write(const uint8_t* samples, uint32_t frames) {
    deinterleave(samples, frames);
    const int stored = av_audio_fifo_write(fifo_.get(), planePointers_.data(), int(frames));
    VLX_ASSERT(stored == int(frames), "av_audio_fifo_write failed: %s",
               avErrorString(stored).c_str());
    framesWritten_ += frames;
    while (av_audio_fifo_size(fifo_.get()) >= frameSize_)
        encodeFromFifo(frameSize_);
}

void LibavMuxerBackEnd::encodeFromFifo(int frames) {
    AVFrame* frame = frame_.get();
    av_frame_unref(frame);
    frame->nb_samples = padLastFrame_ ? frameSize_ : frames;
    frame->format = codec_->sample_fmt;
    int error = av_channel_layout_copy(&frame->ch_layout, &codec_->ch_layout);
    VLX_ASSERT(error >= 0, "av_channel_layout_copy failed: %s", avErrorString(error).c_str());
    frame->sample_rate = codec_->sample_rate;
    error = av_frame_get_buffer(frame, 0);
    VLX_ASSERT(error >= 0, "av_frame_get_buffer failed: %s", avErrorString(error).c_str());
    if (frame->nb_samples > frames)
        av_samples_set_silence(frame->extended_data, frames, frame->nb_samples - frames,
                               int(input_.channels), codec_->sample_fmt);
    const int read =
        av_audio_fifo_read(fifo_.get(), reinterpret_cast<void**>(frame->extended_data), frames);
    VLX_ASSERT(read == frames, "av_audio_fifo_read failed: %s", avErrorString(read).c_str());
    // The leading silence lies before time zero, with the coder's priming.
    frame->pts = int64_t(framesEncoded_) - int64_t(leadingSilence_);
    framesEncoded_ += uint64_t(frame->nb_samples);
    sendAndWrite(frame);
}

void LibavMuxerBackEnd::sendAndWrite(const AVFrame* frame) {
    int error = avcodec_send_frame(codec_.get(), frame);
    VLX_ASSERT(error >= 0, "avcodec_send_frame failed: %s", avErrorString(error).c_str());
    AVPacket* packet = packet_.get();
    while ((error = avcodec_receive_packet(codec_.get(), packet)) >= 0) {
        packet->stream_index = stream_->index;
        av_packet_rescale_ts(packet, codec_->time_base, stream_->time_base);
        error = av_interleaved_write_frame(output_.get(), packet);
        VLX_ASSERT(error >= 0, "av_interleaved_write_frame failed: %s",
                   avErrorString(error).c_str());
    }
    VLX_ASSERT(error == AVERROR(EAGAIN) || error == AVERROR_EOF,
               "avcodec_receive_packet failed: %s", avErrorString(error).c_str());
}

void LibavMuxerBackEnd::finish() {
    if (const int left = av_audio_fifo_size(fifo_.get()); left > 0)
        encodeFromFifo(left);
    sendAndWrite(nullptr);
    int error = av_write_trailer(output_.get());
    VLX_ASSERT(error >= 0, "av_write_trailer failed: %s", avErrorString(error).c_str());
    headerWritten_ = false;
    error = avio_closep(&output_->pb);
    if (error < 0)
        throw Exception(
            "IOException", "Unable to close the output file.",
            {{"errorCode", std::to_string(error)}, {"errorString", avErrorString(error)}});
}

void LibavMuxerBackEnd::close() noexcept {
    // A file abandoned half way is closed without its trailer; the
    // operation removes it.
    output_.reset();
    stream_ = nullptr;
    codec_.reset();
    frame_.reset();
    packet_.reset();
    fifo_.reset();
    headerWritten_ = false;
}

uint32_t LibavMuxerBackEnd::primingFrames() const {
    return codec_ ? uint32_t(std::max(codec_->initial_padding, 0)) + leadingSilence_ : 0;
}

uint32_t LibavMuxerBackEnd::paddingFrames() const {
    // Whole coder frames were coded; what is beyond priming and the real
    // frames is padding.
    const int64_t coded = int64_t((framesWritten_ + primingFrames() + uint64_t(frameSize_) - 1) /
                                  uint64_t(frameSize_)) *
                          frameSize_;
    const int64_t padding = coded - int64_t(framesWritten_) - int64_t(primingFrames());
    return padding > 0 ? uint32_t(padding) : 0;
}

} // namespace velvox
