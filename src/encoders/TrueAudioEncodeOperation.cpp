#include "encoders/TrueAudioEncodeOperation.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <filesystem>
#include <optional>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <utility>

#include <taglib/id3v1tag.h>
#include <taglib/id3v2tag.h>
#include <taglib/trueaudiofile.h>

extern "C" {
#include <libavutil/channel_layout.h>
}

#include "Version.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

// What the encoded-by tag names as the codec.
constexpr const char* kCodecName = "libtta++ 2.2";
constexpr int kIOBufferSize = 65536;
// Room kept for the tags, beyond the picture's own size.
constexpr size_t kTagRoom = 4096;

[[noreturn]] void raiseTTA(const char* reason) { throw Exception("TTAException", reason); }

// The muxer's output, straight to the descriptor: write() until all is out.
int writeToDescriptor(void* opaque, uint8_t* buffer, int size) {
    const int fd = *static_cast<int*>(opaque);
    int done = 0;
    while (done < size) {
        const ssize_t n = ::write(fd, buffer + done, size_t(size - done));
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return AVERROR(n < 0 ? errno : EIO);
        done += int(n);
    }
    return done;
}

int64_t seekDescriptor(void* opaque, int64_t offset, int whence) {
    const int fd = *static_cast<int*>(opaque);
    if (whence == AVSEEK_SIZE) {
        struct stat info {};
        return ::fstat(fd, &info) == 0 ? int64_t(info.st_size) : AVERROR(errno);
    }
    const off_t at = ::lseek(fd, off_t(offset), whence & ~AVSEEK_FORCE);
    return at < 0 ? AVERROR(errno) : int64_t(at);
}

AVSampleFormat sampleFormatForBits(uint32_t bits) {
    switch (bits) {
    case 8:
        return AV_SAMPLE_FMT_U8;
    case 16:
        return AV_SAMPLE_FMT_S16;
    case 24:
        return AV_SAMPLE_FMT_S32; // left-justified; the encoder keeps the top 24 bits
    default:
        return AV_SAMPLE_FMT_NONE;
    }
}

} // namespace

TrueAudioEncodeOperation::FileDescriptor::~FileDescriptor() {
    if (fd >= 0)
        ::close(fd);
}

void TrueAudioEncodeOperation::IOContextDeleter::operator()(AVIOContext* context) const {
    av_freep(&context->buffer);
    avio_context_free(&context);
}

TrueAudioEncodeOperation::TrueAudioEncodeOperation() = default;

TrueAudioEncodeOperation::~TrueAudioEncodeOperation() { releaseCodec(); }

void TrueAudioEncodeOperation::setUpCodec(const std::string& tempFilePath) {
    file_ = std::make_unique<FileDescriptor>();
    file_->fd = ::open(tempFilePath.c_str(), O_RDWR | O_CREAT | O_TRUNC, 0644);
    VLX_ASSERT(file_->fd >= 0, "Unable to open output file");
    if (UserDefaults::standardUserDefaults().boolForKey("writeMetadata"))
        reserveTagRoom();

    const uint32_t channels = decoder() ? decoder()->decodeFormat().mChannelsPerFrame : 0;
    // What the stream description cannot hold (32-bit output, an odd rate
    // or channel count) is refused before anything is written.
    if (sampleFormatForBits(sourceBitsPerChannel()) == AV_SAMPLE_FMT_NONE || channels == 0 ||
        channels > 0xFFFF || sourceSampleRate() < 1 || sourceSampleRate() > 0x7FFFFF)
        raiseTTA("TTA Set Info Error - Unsupported Format");
    openEncoder(channels);
    openMuxer();
}

// The ID3v2 tag belongs at the start of the file. Written afterwards into a
// file that has none, it would shift the whole file to make room; an empty
// tag of padding written first lets TagLib fill it in place.
void TrueAudioEncodeOperation::reserveTagRoom() {
    const std::shared_ptr<AudioMetadata> record = metadata();
    size_t room = kTagRoom;
    if (record && record->albumArtwork() && record->albumArtwork()->data())
        room += record->albumArtwork()->data()->size();
    room = std::min<size_t>(room, 0x0FFFFFFF); // a syncsafe size holds 28 bits
    std::vector<uint8_t> tag(10 + room, 0);
    const uint8_t header[] = {'I', 'D', '3', 4, 0, 0};
    std::memcpy(tag.data(), header, sizeof header);
    for (int i = 0; i < 4; ++i)
        tag[6 + i] = uint8_t((room >> (7 * (3 - i))) & 0x7F);
    int fd = file_->fd;
    VLX_ASSERT(writeToDescriptor(&fd, tag.data(), int(tag.size())) == int(tag.size()),
               "Unable to write output file: %s", std::strerror(errno));
}

void TrueAudioEncodeOperation::openEncoder(uint32_t channels) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_TTA);
    if (!codec)
        raiseTTA("TTA Encoder Initilization Error");
    codec_.reset(avcodec_alloc_context3(codec));
    frame_.reset(av_frame_alloc());
    packet_.reset(av_packet_alloc());
    if (!codec_ || !frame_ || !packet_)
        raiseTTA("TTA Encoder Initilization Error");

    codec_->sample_fmt = sampleFormatForBits(sourceBitsPerChannel());
    codec_->sample_rate = int(sourceSampleRate());
    codec_->time_base = AVRational{1, codec_->sample_rate};
    codec_->bits_per_raw_sample = int(sourceBitsPerChannel());
    av_channel_layout_default(&codec_->ch_layout, int(channels));
    if (avcodec_open2(codec_.get(), codec, nullptr) < 0)
        raiseTTA("TTA Set Info Error - Unsupported Format");

    frame_->format = codec_->sample_fmt;
    frame_->sample_rate = codec_->sample_rate;
    frame_->nb_samples = codec_->frame_size;
    if (av_channel_layout_copy(&frame_->ch_layout, &codec_->ch_layout) < 0 ||
        av_frame_get_buffer(frame_.get(), 0) < 0)
        raiseTTA("TTA Encoder Initilization Error");
    gathered_ = 0;
    nextPts_ = 0;
}

void TrueAudioEncodeOperation::openMuxer() {
    auto* buffer = static_cast<uint8_t*>(av_malloc(kIOBufferSize));
    if (!buffer)
        raiseTTA("TTA Encoder Initilization Error");
    io_.reset(avio_alloc_context(buffer, kIOBufferSize, 1, &file_->fd, nullptr, writeToDescriptor,
                                 seekDescriptor));
    if (!io_) {
        av_free(buffer);
        raiseTTA("TTA Encoder Initilization Error");
    }

    AVFormatContext* context = nullptr;
    if (avformat_alloc_output_context2(&context, nullptr, "tta", nullptr) < 0 || !context)
        raiseTTA("TTA Encoder Initilization Error");
    muxer_.reset(context);
    muxer_->pb = io_.get();
    // No "encoder" tag: the muxer would write it as an APE tag, a third tag
    // kind beside the ID3 tags this file is meant to carry.
    muxer_->flags |= AVFMT_FLAG_BITEXACT;
    stream_ = avformat_new_stream(muxer_.get(), nullptr);
    if (!stream_ || avcodec_parameters_from_context(stream_->codecpar, codec_.get()) < 0)
        raiseTTA("TTA Encoder Initilization Error");
    stream_->time_base = codec_->time_base;
    if (avformat_write_header(muxer_.get(), nullptr) < 0)
        raiseTTA("TTA Encoder Initilization Error");
    headerWritten_ = true;
}

void TrueAudioEncodeOperation::encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) {
    VLX_PARAMETER_ASSERT_TEXT(!bufferList.mBuffers.empty(), "0 < bufferList->mNumberBuffers");
    const AudioBuffer& buffer = bufferList.mBuffers[0];
    const uint32_t channels = buffer.mNumberChannels;
    const uint32_t sampleBytes = sourceBitsPerChannel() / 8;
    VLX_PARAMETER_ASSERT_TEXT(
        channels == uint32_t(codec_->ch_layout.nb_channels) && buffer.mData != nullptr &&
            buffer.mDataByteSize >= size_t(frameCount) * channels * sampleBytes,
        "bufferList->mBuffers[0].mDataByteSize >= byteCount");

    const auto* in = static_cast<const uint8_t*>(buffer.mData);
    uint32_t done = 0;
    while (done < frameCount) {
        if (gathered_ == 0 && av_frame_make_writable(frame_.get()) < 0)
            raiseTTA("TTA Encoder Process Stream Error");
        const uint32_t take = std::min(frameCount - done, uint32_t(codec_->frame_size - gathered_));
        const size_t samples = size_t(take) * channels;
        const uint8_t* src = in + size_t(done) * channels * sampleBytes;
        uint8_t* dst =
            frame_->data[0] + size_t(gathered_) * channels * (sampleBytes == 3 ? 4 : sampleBytes);
        switch (sampleBytes) {
        case 1: // signed in, offset binary out
            for (size_t i = 0; i < samples; ++i)
                dst[i] = uint8_t(src[i] ^ 0x80);
            break;
        case 2:
            std::memcpy(dst, src, samples * 2);
            break;
        default: {
            auto* out = reinterpret_cast<int32_t*>(dst);
            for (size_t i = 0; i < samples; ++i, src += 3)
                out[i] = int32_t((uint32_t(src[0]) << 8) | (uint32_t(src[1]) << 16) |
                                 (uint32_t(src[2]) << 24));
            break;
        }
        }
        gathered_ += int(take);
        done += take;
        if (gathered_ == codec_->frame_size)
            sendFrame(false);
    }
}

void TrueAudioEncodeOperation::sendFrame(bool endOfStream) {
    int status = 0;
    if (!endOfStream) {
        frame_->nb_samples = gathered_;
        frame_->pts = nextPts_;
        nextPts_ += gathered_;
        gathered_ = 0;
        status = avcodec_send_frame(codec_.get(), frame_.get());
    } else {
        status = avcodec_send_frame(codec_.get(), nullptr);
    }
    if (status < 0)
        raiseTTA("TTA Encoder Process Stream Error");
    for (;;) {
        status = avcodec_receive_packet(codec_.get(), packet_.get());
        if (status == AVERROR(EAGAIN) || status == AVERROR_EOF)
            break;
        if (status < 0)
            raiseTTA("TTA Encoder Process Stream Error");
        packet_->stream_index = 0;
        av_packet_rescale_ts(packet_.get(), codec_->time_base, stream_->time_base);
        const int written = av_write_frame(muxer_.get(), packet_.get());
        av_packet_unref(packet_.get());
        if (written < 0)
            raiseTTA("TTA Encoder Process Stream Error");
    }
}

void TrueAudioEncodeOperation::finishCodec() {
    if (gathered_ > 0)
        sendFrame(false);
    sendFrame(true);
    headerWritten_ = false;
    // The muxer holds every packet until here: the header's sample count and
    // the seek table come first in the file.
    if (av_write_trailer(muxer_.get()) < 0)
        raiseTTA("TTA Encoder Process Stream Error");
    avio_flush(io_.get());
    VLX_ASSERT(io_->error == 0, "Unable to write output file: %@", avErrorString(io_->error));
    const int fd = std::exchange(file_->fd, -1);
    VLX_ASSERT(::close(fd) == 0, "Unable to close output file: %s", std::strerror(errno));
}

void TrueAudioEncodeOperation::releaseCodec() noexcept {
    // Reverse order of opening: the muxer (avformat_free_context also frees
    // the packets it queued), its I/O, the encoder, the file.
    headerWritten_ = false;
    muxer_.reset();
    stream_ = nullptr;
    io_.reset();
    packet_.reset();
    frame_.reset();
    codec_.reset();
    file_.reset();
    gathered_ = 0;
}

void TrueAudioEncodeOperation::writeMetadata() {
    const std::optional<std::string> temp = tempFilePath();
    std::error_code ec;
    if (!temp || !std::filesystem::exists(*temp, ec))
        return;
    TagLib::TrueAudio::File file(temp->c_str(), false, TagLib::AudioProperties::Average);
    if (!file.isValid())
        return;
    const std::shared_ptr<AudioMetadata> record = metadataForTags();
    if (!record)
        return;

    const std::optional<std::string> encodedBy = encodedByText(kCodecName);
    const std::optional<std::string> comment = commentText();

    record->fillOutID3v1Tag(file.ID3v1Tag(true), comment);
    // A fresh file has no ID3v2 tag; it is made here, or the richer tag (and
    // the artwork) would be lost.
    record->fillOutID3v2Tag(file.ID3v2Tag(true), 4, TagLib::String::UTF8, encodedBy, comment);
    file.save();
}

} // namespace velvox
