#include "decoders/LibavLosslessStream.h"

#include <cstring>

#include "core/FFMPEGInputOpener.h"

namespace velvox {

namespace {

// Reads sample i of channel ch from a frame of either layout, as T.
template <typename T>
T sampleAt(const AVFrame* frame, bool planar, int channels, int ch, int i) {
    if (planar)
        return reinterpret_cast<const T*>(frame->extended_data[ch])[i];
    return reinterpret_cast<const T*>(frame->data[0])[i * channels + ch];
}

template <typename T, typename Store>
void interleaveWith(const AVFrame* frame, bool planar, int channels, uint8_t* out, Store store) {
    for (int i = 0; i < frame->nb_samples; ++i)
        for (int ch = 0; ch < channels; ++ch)
            out = store(out, sampleAt<T>(frame, planar, channels, ch, i));
}

} // namespace

int LibavLosslessStream::open(const std::string& path, AVCodecID codec) {
    int err = FFMPEGInputOpener::openInput(path, ic_);
    if (err < 0)
        return err;
    err = avformat_find_stream_info(ic_.get(), nullptr);
    if (err < 0)
        return err;
    streamIndex_ = av_find_best_stream(ic_.get(), AVMEDIA_TYPE_AUDIO, -1, -1, nullptr, 0);
    if (streamIndex_ < 0)
        return streamIndex_;
    const AVStream* stream = ic_->streams[streamIndex_];
    if (stream->codecpar->codec_id != codec)
        return AVERROR_INVALIDDATA;

    const AVCodec* decoder = avcodec_find_decoder(codec);
    if (!decoder)
        return AVERROR_DECODER_NOT_FOUND;
    c_.reset(avcodec_alloc_context3(decoder));
    if (!c_)
        return AVERROR(ENOMEM);
    if ((err = avcodec_parameters_to_context(c_.get(), stream->codecpar)) < 0)
        return err;
    c_->pkt_timebase = stream->time_base;
    // A frame that fails its checksum is an error, not a glitch to play over:
    // a damaged file must not pass as converted.
    c_->err_recognition |= AV_EF_CRCCHECK | AV_EF_EXPLODE;
    if ((err = avcodec_open2(c_.get(), decoder, nullptr)) < 0)
        return err;

    switch (av_get_packed_sample_fmt(c_->sample_fmt)) {
    case AV_SAMPLE_FMT_U8:
        bits_ = 8;
        break;
    case AV_SAMPLE_FMT_S16:
        bits_ = 16;
        break;
    case AV_SAMPLE_FMT_S32: {
        // 24-bit sources come left-justified in 32-bit words.
        const int raw = c_->bits_per_raw_sample ? c_->bits_per_raw_sample
                                                : stream->codecpar->bits_per_coded_sample;
        bits_ = raw == 24 ? 24 : 32;
        break;
    }
    default:
        return AVERROR_INVALIDDATA;
    }
    channels_ = uint32_t(std::max(0, c_->ch_layout.nb_channels));
    sampleRate_ = uint32_t(std::max(0, c_->sample_rate));
    if (stream->duration != AV_NOPTS_VALUE && stream->duration >= 0 && sampleRate_ > 0)
        totalFrames_ =
            av_rescale_q(stream->duration, stream->time_base, AVRational{1, int(sampleRate_)});

    packet_.reset(av_packet_alloc());
    frame_.reset(av_frame_alloc());
    return packet_ && frame_ ? 0 : AVERROR(ENOMEM);
}

int LibavLosslessStream::decodeNextPacket(RingBuffer& ring) {
    while (!flushed_) {
        const int err = av_read_frame(ic_.get(), packet_.get());
        if (err == AVERROR_EOF) {
            flushed_ = true;
            const int sent = avcodec_send_packet(c_.get(), nullptr);
            if (sent < 0 && sent != AVERROR_EOF)
                return sent;
            break;
        }
        if (err < 0)
            return err; // a container that breaks off inside a frame
        AVPacketUnref unref(packet_.get());
        if (packet_->stream_index != streamIndex_)
            continue;
        ++packetsRead_;
        const int sent = avcodec_send_packet(c_.get(), packet_.get());
        if (sent < 0)
            return sent;
        const int frames = appendFrames(ring);
        if (frames != 0)
            return frames;
    }
    return appendFrames(ring);
}

int LibavLosslessStream::appendFrames(RingBuffer& ring) {
    const uint32_t bytesPerFrame = bits_ / 8 * channels_;
    int total = 0;
    for (;;) {
        const int err = avcodec_receive_frame(c_.get(), frame_.get());
        if (err == AVERROR(EAGAIN) || err == AVERROR_EOF)
            return total;
        if (err < 0)
            return err;
        const uint32_t bytes = uint32_t(frame_->nb_samples) * bytesPerFrame;
        if (ring.freeSpaceAvailable() < bytes)
            ring.resize(ring.size() + bytes);
        interleave(frame_.get(), ring.exposeBufferForWriting());
        ring.wroteBytes(bytes);
        total += frame_->nb_samples;
        av_frame_unref(frame_.get());
    }
}

void LibavLosslessStream::interleave(const AVFrame* frame, uint8_t* out) const {
    const bool planar = av_sample_fmt_is_planar(AVSampleFormat(frame->format));
    const int channels = int(channels_);
    switch (bits_) {
    case 8: // unsigned in FFmpeg, signed here
        interleaveWith<uint8_t>(frame, planar, channels, out, [](uint8_t* o, uint8_t s) {
            *o = uint8_t(s ^ 0x80);
            return o + 1;
        });
        break;
    case 16:
        interleaveWith<int16_t>(frame, planar, channels, out, [](uint8_t* o, int16_t s) {
            std::memcpy(o, &s, 2);
            return o + 2;
        });
        break;
    case 24:
        interleaveWith<int32_t>(frame, planar, channels, out, [](uint8_t* o, int32_t s) {
            const uint32_t u = uint32_t(s);
            o[0] = uint8_t(u >> 8);
            o[1] = uint8_t(u >> 16);
            o[2] = uint8_t(u >> 24);
            return o + 3;
        });
        break;
    default:
        interleaveWith<int32_t>(frame, planar, channels, out, [](uint8_t* o, int32_t s) {
            std::memcpy(o, &s, 4);
            return o + 4;
        });
        break;
    }
}

} // namespace velvox
