#pragma once
// WavPack files through libwavpack, at the source's own sample size (8, 16,
// 24 or 32 bits). A correction file beside the input (name.wvc) is used, so
// hybrid files decode losslessly; DSD files come out as PCM. Float files are
// converted to 32-bit integers, since the rest of the pipeline reads integers.

#include <memory>
#include <vector>

#include <wavpack/wavpack.h>

#include "core/KDDecoder.h"

namespace velvox {

class WavPackDecoder : public KDDecoder {
public:
    WavPackDecoder();
    ~WavPackDecoder() override;

    // Called on the encode operation's thread, like every member below.
    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "WavPackDecoder"; }
    int64_t totalFrames() const override { return totalFrames_; }
    bool decodesInRealTime() const override { return true; }
    void fillPCMBuffer() override;
    bool totalFramesIsExact() const override { return totalFrames_ >= 0; }

private:
    struct Deleter {
        void operator()(WavpackContext* context) const { WavpackCloseFile(context); }
    };

    void narrow(const int32_t* samples, size_t count, uint8_t* out) const;

    std::unique_ptr<WavpackContext, Deleter> wpc_;
    std::vector<int32_t> samples_;
    int64_t totalFrames_ = -1;
    bool isFloat_ = false;
};

} // namespace velvox
