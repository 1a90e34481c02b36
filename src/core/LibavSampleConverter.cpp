#include "core/LibavSampleConverter.h"

extern "C" {
#include <libavutil/mathematics.h>
}

namespace velvox {

LibavSampleConverter::~LibavSampleConverter() {
    av_channel_layout_uninit(&inputLayout_);
    av_channel_layout_uninit(&outputLayout_);
}

void LibavSampleConverter::setOutputLayout(const AVChannelLayout& layout, int channels) {
    av_channel_layout_uninit(&outputLayout_);
    if (layout.order != AV_CHANNEL_ORDER_UNSPEC && layout.nb_channels == channels)
        av_channel_layout_copy(&outputLayout_, &layout);
    else
        av_channel_layout_default(&outputLayout_, channels);
}

// Without a rate change swresample keeps nothing from one call to the next
// (no resampler history, no dither unless asked for), so reusing a context
// gives exactly what a fresh one per frame would, without rebuilding the
// conversion tables each time.
int LibavSampleConverter::prepare(const AVFrame* frame, AVSampleFormat outFormat, int outRate) {
    const auto format = AVSampleFormat(frame->format);
    if (swr_ && format == inputFormat_ && frame->sample_rate == inputRate_ &&
        av_channel_layout_compare(&frame->ch_layout, &inputLayout_) == 0)
        return 0;
    av_channel_layout_uninit(&inputLayout_);
    av_channel_layout_copy(&inputLayout_, &frame->ch_layout);
    AVChannelLayout input{};
    if (frame->ch_layout.order == AV_CHANNEL_ORDER_UNSPEC)
        av_channel_layout_default(&input, frame->ch_layout.nb_channels);
    else
        av_channel_layout_copy(&input, &frame->ch_layout);
    SwrContext* raw = nullptr;
    int err = swr_alloc_set_opts2(&raw, &outputLayout_, outFormat, outRate, &input, format,
                                  frame->sample_rate, 0, nullptr);
    av_channel_layout_uninit(&input);
    swr_.reset(raw);
    if (err >= 0)
        err = swr_init(swr_.get());
    if (err < 0) {
        swr_.reset();
        return err;
    }
    inputFormat_ = format;
    inputRate_ = frame->sample_rate;
    return 0;
}

int LibavSampleConverter::capacityFor(const AVFrame* frame, int outRate) const {
    return int(av_rescale_rnd(swr_get_delay(swr_.get(), frame->sample_rate) + frame->nb_samples,
                              outRate, frame->sample_rate, AV_ROUND_UP));
}

} // namespace velvox
