#pragma once
// The swresample context that turns decoded frames into one output shape
// (sample format, rate and channel layout), kept for as long as the frames'
// input shape stays the same.

#include "core/LibavHandles.h"

namespace velvox {

// Called on the thread that decodes.
class LibavSampleConverter {
public:
    LibavSampleConverter() = default;
    ~LibavSampleConverter();
    LibavSampleConverter(const LibavSampleConverter&) = delete;
    LibavSampleConverter& operator=(const LibavSampleConverter&) = delete;

    // The layout written: `layout` when it names its channels and has
    // `channels` of them, the default order for `channels` otherwise.
    void setOutputLayout(const AVChannelLayout& layout, int channels);

    // Readies the context for `frame`. A frame whose sample format, rate or
    // channel layout differ from the last one's gets a new context; an
    // unordered input layout is taken in the default order. Answers
    // swresample's error (negative) when it cannot be set up.
    int prepare(const AVFrame* frame, AVSampleFormat outFormat, int outRate);

    // Room, in frames per channel, for what `frame` and the delay give.
    int capacityFor(const AVFrame* frame, int outRate) const;

    SwrContext* context() const { return swr_.get(); }

private:
    SwrContextPtr swr_;
    AVSampleFormat inputFormat_ = AV_SAMPLE_FMT_NONE;
    int inputRate_ = 0;
    AVChannelLayout inputLayout_{};
    AVChannelLayout outputLayout_{};
};

} // namespace velvox
