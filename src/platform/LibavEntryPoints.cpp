// The FFmpeg functions Velvox calls, each defined here as a forwarder to the
// real function, which LibavRuntime finds in its library on the first call.
// The declarations come from FFmpeg's own headers, so a forwarder whose
// parameters do not match the library's is a compile error; a call to an
// FFmpeg function not listed here is a link error ("undefined reference"):
// add a line naming its library and its number of parameters.

#include <cstddef>
#include <tuple>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/audio_fifo.h>
#include <libavutil/base64.h>
#include <libavutil/channel_layout.h>
#include <libavutil/crc.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/md5.h>
#include <libavutil/mem.h>
#include <libavutil/samplefmt.h>
#include <libswresample/swresample.h>
}

#include "platform/LibavRuntime.h"

// FFmpeg marks some functions warn_unused_result or malloc; those attributes
// do not belong to the function's type and are rightly dropped when the type
// is taken apart below.
#pragma GCC diagnostic ignored "-Wignored-attributes"

namespace {

template <typename>
struct Signature;
template <typename R, typename... A>
struct Signature<R (*)(A...)> {
    using Result = R;
    template <std::size_t N>
    using Parameter = std::tuple_element_t<N, std::tuple<A...>>;
};
template <auto F>
using Result = typename Signature<decltype(F)>::Result;
template <auto F, std::size_t N>
using Parameter = typename Signature<decltype(F)>::template Parameter<N>;

} // namespace

// clang-format off
#define VLX_PARAMS_0(f)
#define VLX_PARAMS_1(f) Parameter<&::f, 0> a0
#define VLX_PARAMS_2(f) VLX_PARAMS_1(f), Parameter<&::f, 1> a1
#define VLX_PARAMS_3(f) VLX_PARAMS_2(f), Parameter<&::f, 2> a2
#define VLX_PARAMS_4(f) VLX_PARAMS_3(f), Parameter<&::f, 3> a3
#define VLX_PARAMS_5(f) VLX_PARAMS_4(f), Parameter<&::f, 4> a4
#define VLX_PARAMS_6(f) VLX_PARAMS_5(f), Parameter<&::f, 5> a5
#define VLX_PARAMS_7(f) VLX_PARAMS_6(f), Parameter<&::f, 6> a6
#define VLX_PARAMS_8(f) VLX_PARAMS_7(f), Parameter<&::f, 7> a7
#define VLX_PARAMS_9(f) VLX_PARAMS_8(f), Parameter<&::f, 8> a8
#define VLX_ARGS_0
#define VLX_ARGS_1 a0
#define VLX_ARGS_2 VLX_ARGS_1, a1
#define VLX_ARGS_3 VLX_ARGS_2, a2
#define VLX_ARGS_4 VLX_ARGS_3, a3
#define VLX_ARGS_5 VLX_ARGS_4, a4
#define VLX_ARGS_6 VLX_ARGS_5, a5
#define VLX_ARGS_7 VLX_ARGS_6, a6
#define VLX_ARGS_8 VLX_ARGS_7, a7
#define VLX_ARGS_9 VLX_ARGS_8, a8

// The real function is looked up once; the static's guard makes the first
// calls from several threads safe, and a failed lookup raises and is tried
// again by the next call.
#define VLX_LIBAV_ENTRY(library, f, arity)                                                    \
    extern "C" Result<&::f> f(VLX_PARAMS_##arity(f)) {                                        \
        static const auto real = velvox::LibavRuntime::function<decltype(&::f)>(              \
            velvox::LibavRuntime::Library::library, #f);                                       \
        return real(VLX_ARGS_##arity);                                                         \
    }


// libavutil
VLX_LIBAV_ENTRY(Util, av_audio_fifo_alloc, 3)
VLX_LIBAV_ENTRY(Util, av_audio_fifo_free, 1)
VLX_LIBAV_ENTRY(Util, av_audio_fifo_read, 3)
VLX_LIBAV_ENTRY(Util, av_audio_fifo_size, 1)
VLX_LIBAV_ENTRY(Util, av_audio_fifo_write, 3)
VLX_LIBAV_ENTRY(Util, av_base64_decode, 3)
VLX_LIBAV_ENTRY(Util, av_base64_encode, 4)
VLX_LIBAV_ENTRY(Util, av_channel_layout_channel_from_index, 2)
VLX_LIBAV_ENTRY(Util, av_channel_layout_compare, 2)
VLX_LIBAV_ENTRY(Util, av_channel_layout_copy, 2)
VLX_LIBAV_ENTRY(Util, av_channel_layout_default, 2)
VLX_LIBAV_ENTRY(Util, av_channel_layout_uninit, 1)
VLX_LIBAV_ENTRY(Util, av_crc, 4)
VLX_LIBAV_ENTRY(Util, av_crc_get_table, 1)
VLX_LIBAV_ENTRY(Util, av_dict_free, 1)
VLX_LIBAV_ENTRY(Util, av_dict_get, 4)
VLX_LIBAV_ENTRY(Util, av_dict_set_int, 4)
VLX_LIBAV_ENTRY(Util, av_frame_alloc, 0)
VLX_LIBAV_ENTRY(Util, av_frame_free, 1)
VLX_LIBAV_ENTRY(Util, av_frame_get_buffer, 2)
VLX_LIBAV_ENTRY(Util, av_frame_make_writable, 1)
VLX_LIBAV_ENTRY(Util, av_frame_unref, 1)
VLX_LIBAV_ENTRY(Util, av_free, 1)
VLX_LIBAV_ENTRY(Util, av_freep, 1)
VLX_LIBAV_ENTRY(Util, av_get_bytes_per_sample, 1)
VLX_LIBAV_ENTRY(Util, av_get_packed_sample_fmt, 1)
VLX_LIBAV_ENTRY(Util, av_malloc, 1)
VLX_LIBAV_ENTRY(Util, av_md5_alloc, 0)
VLX_LIBAV_ENTRY(Util, av_md5_final, 2)
VLX_LIBAV_ENTRY(Util, av_md5_init, 1)
VLX_LIBAV_ENTRY(Util, av_md5_update, 3)
VLX_LIBAV_ENTRY(Util, av_rescale, 3)
VLX_LIBAV_ENTRY(Util, av_rescale_q, 3)
VLX_LIBAV_ENTRY(Util, av_rescale_rnd, 4)
VLX_LIBAV_ENTRY(Util, av_sample_fmt_is_planar, 1)
VLX_LIBAV_ENTRY(Util, av_samples_alloc, 6)
VLX_LIBAV_ENTRY(Util, av_samples_alloc_array_and_samples, 6)
VLX_LIBAV_ENTRY(Util, av_samples_get_buffer_size, 5)
VLX_LIBAV_ENTRY(Util, av_samples_set_silence, 5)
VLX_LIBAV_ENTRY(Util, av_strerror, 3)

// libavcodec
VLX_LIBAV_ENTRY(Codec, av_get_bits_per_sample, 1)
VLX_LIBAV_ENTRY(Codec, av_packet_alloc, 0)
VLX_LIBAV_ENTRY(Codec, av_packet_free, 1)
VLX_LIBAV_ENTRY(Codec, av_packet_rescale_ts, 3)
VLX_LIBAV_ENTRY(Codec, av_packet_unref, 1)
VLX_LIBAV_ENTRY(Codec, avcodec_alloc_context3, 1)
VLX_LIBAV_ENTRY(Codec, avcodec_descriptor_get, 1)
VLX_LIBAV_ENTRY(Codec, avcodec_find_decoder, 1)
VLX_LIBAV_ENTRY(Codec, avcodec_find_encoder, 1)
VLX_LIBAV_ENTRY(Codec, avcodec_find_encoder_by_name, 1)
VLX_LIBAV_ENTRY(Codec, avcodec_free_context, 1)
VLX_LIBAV_ENTRY(Codec, avcodec_get_name, 1)
VLX_LIBAV_ENTRY(Codec, avcodec_open2, 3)
VLX_LIBAV_ENTRY(Codec, avcodec_parameters_from_context, 2)
VLX_LIBAV_ENTRY(Codec, avcodec_parameters_to_context, 2)
VLX_LIBAV_ENTRY(Codec, avcodec_receive_frame, 2)
VLX_LIBAV_ENTRY(Codec, avcodec_receive_packet, 2)
VLX_LIBAV_ENTRY(Codec, avcodec_send_frame, 2)
VLX_LIBAV_ENTRY(Codec, avcodec_send_packet, 2)

// libavformat
VLX_LIBAV_ENTRY(Format, av_find_best_stream, 6)
VLX_LIBAV_ENTRY(Format, av_interleaved_write_frame, 2)
VLX_LIBAV_ENTRY(Format, av_read_frame, 2)
VLX_LIBAV_ENTRY(Format, av_write_frame, 2)
VLX_LIBAV_ENTRY(Format, av_write_trailer, 1)
VLX_LIBAV_ENTRY(Format, avformat_alloc_output_context2, 4)
VLX_LIBAV_ENTRY(Format, avformat_close_input, 1)
VLX_LIBAV_ENTRY(Format, avformat_find_stream_info, 2)
VLX_LIBAV_ENTRY(Format, avformat_free_context, 1)
VLX_LIBAV_ENTRY(Format, avformat_new_stream, 2)
VLX_LIBAV_ENTRY(Format, avformat_open_input, 4)
VLX_LIBAV_ENTRY(Format, avformat_write_header, 2)
VLX_LIBAV_ENTRY(Format, avio_alloc_context, 7)
VLX_LIBAV_ENTRY(Format, avio_closep, 1)
VLX_LIBAV_ENTRY(Format, avio_context_free, 1)
VLX_LIBAV_ENTRY(Format, avio_flush, 1)
VLX_LIBAV_ENTRY(Format, avio_open, 3)

// libswresample
VLX_LIBAV_ENTRY(Resample, swr_alloc_set_opts2, 9)
VLX_LIBAV_ENTRY(Resample, swr_convert, 5)
VLX_LIBAV_ENTRY(Resample, swr_free, 1)
VLX_LIBAV_ENTRY(Resample, swr_get_delay, 2)
VLX_LIBAV_ENTRY(Resample, swr_init, 1)
// clang-format on
