#pragma once
// Owners for the FFmpeg objects the decoders hold, so that every one is
// released on every path (including the failure paths of an initialiser),
// plus FFmpeg's error text as a std::string.

#include <memory>
#include <string>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/mem.h>
#include <libswresample/swresample.h>
}

namespace velvox {

struct AVFormatContextDeleter {
    void operator()(AVFormatContext* context) const { avformat_close_input(&context); }
};
struct AVCodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct AVFrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct AVPacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct SwrContextDeleter {
    void operator()(SwrContext* context) const { swr_free(&context); }
};
// Memory from av_malloc and friends (av_samples_alloc's single packed plane).
struct AVMemoryDeleter {
    void operator()(void* memory) const { av_free(memory); }
};

using AVFormatContextPtr = std::unique_ptr<AVFormatContext, AVFormatContextDeleter>;
using AVCodecContextPtr = std::unique_ptr<AVCodecContext, AVCodecContextDeleter>;
using AVFramePtr = std::unique_ptr<AVFrame, AVFrameDeleter>;
using AVPacketPtr = std::unique_ptr<AVPacket, AVPacketDeleter>;
using SwrContextPtr = std::unique_ptr<SwrContext, SwrContextDeleter>;
using AVSampleBufferPtr = std::unique_ptr<uint8_t, AVMemoryDeleter>;

// Drops a packet's payload when it goes out of scope, so that the owning
// AVPacket can be reused for the next av_read_frame on every path.
class AVPacketUnref {
public:
    explicit AVPacketUnref(AVPacket* packet) : packet_(packet) {}
    ~AVPacketUnref() { av_packet_unref(packet_); }
    AVPacketUnref(const AVPacketUnref&) = delete;
    AVPacketUnref& operator=(const AVPacketUnref&) = delete;

private:
    AVPacket* packet_;
};

inline std::string avErrorString(int error) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(error, text, sizeof text);
    return text;
}

} // namespace velvox
