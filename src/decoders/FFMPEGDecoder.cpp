#include "decoders/FFMPEGDecoder.h"

#include "core/FFMPEGInputOpener.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "core/UtilityFunctions.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

bool isAudioStream(const AVStream* stream) {
    return stream->codecpar->codec_type == AVMEDIA_TYPE_AUDIO;
}

} // namespace

FFMPEGDecoder::FFMPEGDecoder() = default;

FFMPEGDecoder::~FFMPEGDecoder() = default;

bool FFMPEGDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;
    auto& log = ErrorLog::sharedController();

    // A missing file may still be arriving: the opener retries it.
    int err = FFMPEGInputOpener::openInput(path, ic_);
    if (err < 0) {
        log.logMessage(
            stringWithFormat("FFMPEG Could Not Open Input For File: %@ ERROR: %d", path, err));
        log.logMessage(stringWithFormat("%@: %s", path, avErrorString(err)));
        return false;
    }

    // Some containers need no probing and report an error here although their
    // streams are perfectly usable; what matters is checked below.
    avformat_find_stream_info(ic_.get(), nullptr);

    if (ic_->nb_streams == 0) {
        log.logMessage(stringWithFormat("FFMPEG Could Not Find A Valid Codec In File: %@", path));
        return false;
    }
    // The first audio stream; without one the last stream stays chosen (and
    // fails below for want of audio parameters).
    for (unsigned i = 0; i < ic_->nb_streams; ++i) {
        streamIndex_ = int(i);
        if (isAudioStream(ic_->streams[i]))
            break;
    }
    const AVStream* stream = ic_->streams[streamIndex_];

    codec_ = avcodec_find_decoder(stream->codecpar->codec_id);
    if (!codec_) {
        log.logMessage(
            stringWithFormat("FFMPEG Could Not Find A Valid Decoder For File: %@", path));
        log.logMessage(stringWithFormat("%@: %s", path, avErrorString(AVERROR_DECODER_NOT_FOUND)));
        return false;
    }
    c_.reset(avcodec_alloc_context3(codec_));
    err = c_ ? avcodec_parameters_to_context(c_.get(), stream->codecpar) : AVERROR(ENOMEM);
    if (err >= 0) {
        c_->pkt_timebase = stream->time_base;
        err = avcodec_open2(c_.get(), codec_, nullptr);
    }
    if (err < 0) {
        log.logMessage(stringWithFormat("FFMPEG Could Not Open Audio Codec File: %@", path));
        log.logMessage(stringWithFormat("%@: %s", path, avErrorString(err)));
        return false;
    }

    // Packed unsigned 8-bit and signed 16-bit data are copied as they come
    // (the 8-bit data stay unsigned although the flags say signed, as they
    // always have); everything else is converted to signed 16-bit.
    const AVSampleFormat format = c_->sample_fmt;
    const uint32_t bits = (format == AV_SAMPLE_FMT_U8 || format == AV_SAMPLE_FMT_S16)
                              ? uint32_t(av_get_bytes_per_sample(format)) * 8
                              : 16;
    const uint32_t channels = uint32_t(std::max(0, c_->ch_layout.nb_channels));
    if (!setIntegerDecodeFormat(double(c_->sample_rate), bits, channels) || c_->sample_rate <= 0)
        return unknownFrameSize();

    // Whole seconds only: a 10.9 s file counts as 10 s. Consumers treat the
    // figure as an estimate for progress.
    if (ic_->duration != AV_NOPTS_VALUE && ic_->duration >= 0)
        totalFrames_ = (ic_->duration / 1000000) * int64_t(c_->sample_rate);

    setLayoutForChannelCount(channels);

    converter_.setOutputLayout(c_->ch_layout, int(channels));

    packet_.reset(av_packet_alloc());
    VLX_ASSERT(packet_ != nullptr, "av_packet_alloc failed: %s", std::strerror(ENOMEM));
    return true;
}

void FFMPEGDecoder::fillPCMBuffer() {
    if (drained_) {
        setEndOfFile(true);
        return;
    }
    if (!frame_) {
        frame_.reset(av_frame_alloc());
        if (!frame_) {
            ErrorLog::sharedController().logMessage(stringWithFormat(
                "FFMPEG Encountered An Error While Decoding File: %@  Error in avcodec_alloc_frame",
                inFilePath()));
            return;
        }
    }

    const int err = av_read_frame(ic_.get(), packet_.get());
    if (err == AVERROR(EAGAIN))
        return;
    if (err < 0) {
        // Decoders may hold frames back until they are told the input ended.
        drained_ = true;
        decodePacket(nullptr);
        flushConverter();
        setEndOfFile(true);
        return;
    }
    AVPacketUnref unref(packet_.get());
    // Only the chosen stream is decoded: packets of video, subtitles and any
    // further audio stream (which may use another codec) are skipped.
    if (packet_->stream_index != streamIndex_ || !isAudioStream(ic_->streams[streamIndex_]))
        return;
    if (packet_->size <= 0 || !packet_->data)
        return;
    decodePacket(packet_.get());
}

void FFMPEGDecoder::decodePacket(const AVPacket* packet) {
    int err = avcodec_send_packet(c_.get(), packet);
    if (err < 0 && err != AVERROR_EOF) {
        ErrorLog::sharedController().logMessage(stringWithFormat(
            "FFMPEG Encountered An Error While Decoding File: %@ Error in avcodec_decode_audio4",
            inFilePath()));
        return;
    }
    for (;;) {
        err = avcodec_receive_frame(c_.get(), frame_.get());
        if (err == AVERROR(EAGAIN) || err == AVERROR_EOF)
            return;
        if (err < 0) {
            ErrorLog::sharedController().logMessage(
                stringWithFormat("FFMPEG Encountered An Error While Decoding File: %@ Error in "
                                 "avcodec_decode_audio4",
                                 inFilePath()));
            return;
        }
        writeFrame(frame_.get());
    }
}

void FFMPEGDecoder::appendToBuffer(const uint8_t* data, uint32_t byteCount) {
    if (byteCount == 0)
        return;
    RingBuffer& ring = pcmBuffer();
    if (ring.freeSpaceAvailable() < byteCount)
        ring.resize(ring.size() + byteCount);
    std::memcpy(ring.exposeBufferForWriting(), data, byteCount);
    ring.wroteBytes(byteCount);
}

void FFMPEGDecoder::writeFrame(const AVFrame* frame) {
    if (frame->nb_samples <= 0)
        return;
    const auto format = AVSampleFormat(frame->format);
    const AVSampleFormat wanted =
        decodeFormat_.mBitsPerChannel == 8 ? AV_SAMPLE_FMT_U8 : AV_SAMPLE_FMT_S16;
    // The decoder's own packed data are copied as they are when they already
    // have the delivered shape.
    if (format == wanted &&
        uint32_t(frame->ch_layout.nb_channels) == decodeFormat_.mChannelsPerFrame &&
        frame->sample_rate == int(decodeFormat_.mSampleRate)) {
        const int size = av_samples_get_buffer_size(nullptr, frame->ch_layout.nb_channels,
                                                    frame->nb_samples, format, 1);
        if (size > 0)
            appendToBuffer(frame->data[0], uint32_t(size));
        return;
    }
    convertFrame(frame);
}

// One converter serves all frames with the same input shape.
void FFMPEGDecoder::convertFrame(const AVFrame* frame) {
    const AVSampleFormat outFormat =
        decodeFormat_.mBitsPerChannel == 8 ? AV_SAMPLE_FMT_U8 : AV_SAMPLE_FMT_S16;
    const int outRate = int(decodeFormat_.mSampleRate);
    const int err = converter_.prepare(frame, outFormat, outRate);
    VLX_ASSERT(err >= 0, "Could Not Set Up The Sample Converter For File: %@ Error: %s",
               inFilePath(), avErrorString(err));

    const int channels = int(decodeFormat_.mChannelsPerFrame);
    const int capacity = converter_.capacityFor(frame, outRate);
    uint8_t* raw = nullptr;
    const int allocated = av_samples_alloc(&raw, nullptr, channels, capacity, outFormat, 1);
    VLX_ASSERT(allocated >= 0, "av_samples_alloc failed: %s", avErrorString(allocated));
    AVSampleBufferPtr samples(raw);
    const int n = swr_convert(converter_.context(), &raw, capacity,
                              const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
    if (n > 0)
        appendToBuffer(samples.get(), uint32_t(n) * decodeFormat_.mBytesPerFrame);
}

void FFMPEGDecoder::flushConverter() {
    SwrContext* swr = converter_.context();
    if (!swr || swr_get_delay(swr, int(decodeFormat_.mSampleRate)) <= 0)
        return;
    const AVSampleFormat outFormat =
        decodeFormat_.mBitsPerChannel == 8 ? AV_SAMPLE_FMT_U8 : AV_SAMPLE_FMT_S16;
    const int capacity = int(swr_get_delay(swr, int(decodeFormat_.mSampleRate))) + 1;
    uint8_t* raw = nullptr;
    if (av_samples_alloc(&raw, nullptr, int(decodeFormat_.mChannelsPerFrame), capacity, outFormat,
                         1) < 0)
        return;
    AVSampleBufferPtr samples(raw);
    const int n = swr_convert(swr, &raw, capacity, nullptr, 0);
    if (n > 0)
        appendToBuffer(samples.get(), uint32_t(n) * decodeFormat_.mBytesPerFrame);
}

} // namespace velvox
