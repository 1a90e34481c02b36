#pragma once
// Musepack (SV7 and SV8) through libmpcdec, delivered as 16-bit PCM.

#include <memory>
#include <vector>

#include <mpc/mpcdec.h>

#include "core/KDDecoder.h"

namespace velvox {

class MusepackDecoder : public KDDecoder {
public:
    MusepackDecoder();
    ~MusepackDecoder() override;

    // Called on the encode operation's thread, like every member below.
    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "MusepackDecoder"; }
    int64_t totalFrames() const override { return totalFrames_; }
    bool decodesInRealTime() const override { return true; }
    void fillPCMBuffer() override;
    bool totalFramesIsExact() const override { return totalFrames_ >= 0; }

private:
    struct ReaderDeleter {
        void operator()(mpc_reader* reader) const;
    };
    struct DemuxDeleter {
        void operator()(mpc_demux* demux) const { mpc_demux_exit(demux); }
    };

    void convertSamples(const MPC_SAMPLE_FORMAT* samples, size_t count, uint8_t* out) const;

    // Declared before the demuxer, which reads through it: destroyed after.
    std::unique_ptr<mpc_reader, ReaderDeleter> reader_;
    std::unique_ptr<mpc_demux, DemuxDeleter> demux_;
    std::vector<MPC_SAMPLE_FORMAT> samples_;
    int64_t totalFrames_ = -1;
};

} // namespace velvox
