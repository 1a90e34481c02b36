#pragma once
// libsndfile as a platform-encoder back end: linear PCM (8 to 32-bit
// integers, 32-bit float), A-law, μ-law and Microsoft IMA ADPCM in WAV,
// AIFF/AIFC, CAF and NeXT/Sun files.

#include <memory>
#include <vector>

#include <sndfile.h>

#include "encoders/CoreAudioBackEnd.h"

namespace velvox {

class SndFileBackEnd : public CoreAudioBackEnd {
public:
    ~SndFileBackEnd() override { close(); }

    void open(const std::string& path, const CoreAudioOutputFormat& format,
              const Stream& stream) override;
    void write(const uint8_t* samples, uint32_t frames) override;
    void finish() override;
    void close() noexcept override;
    uint64_t framesWritten() const override { return framesWritten_; }

    // The libsndfile format word for a container, codec and sample size;
    // 0 when libsndfile cannot take the combination.
    static int sndfileFormat(const CoreAudioOutputFormat& format, uint32_t bitsPerChannel);

private:
    struct SndFileCloser {
        void operator()(SNDFILE* file) const { sf_close(file); }
    };
    std::unique_ptr<SNDFILE, SndFileCloser> file_;
    Stream stream_;
    std::vector<int32_t> widened_; // samples moved to the top of 32 bits
    uint64_t framesWritten_ = 0;
};

} // namespace velvox
