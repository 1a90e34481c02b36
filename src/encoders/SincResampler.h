#pragma once
// Band-limited sample-rate conversion for the Opus encoder: the windowed-sinc
// filter of the Speex resampler at its quality 5 (80 taps when raising the
// rate, a 94 % pass band, a Kaiser window good for about 100 dB), with every
// phase of the filter computed once into a table.
//
// libspeexdsp as Debian builds it keeps a 16-times oversampled filter and
// interpolates four neighbours for every tap whenever the rate ratio has more
// than 16 phases, as 44.1 -> 48 kHz (160 phases) has; that costs four
// multiplications per tap where a table of the exact phases needs one, and
// made resampling the largest part of an Opus encode after libopus itself.
// opusenc builds its resampler to use the exact table for up to 441 phases;
// so does this class. The output is the same filter evaluated exactly, and it
// runs late by the same number of samples as libspeexdsp's, so the pre-skip
// it implies is unchanged.
//
// Used by one encode operation on its own thread.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace velvox {

class SincResampler {
public:
    // Null when the ratio of the two rates, in lowest terms, has more than
    // kMaxPhases output phases: the table would be too large to be worth it.
    static std::unique_ptr<SincResampler> create(uint32_t channels, uint32_t inRate,
                                                 uint32_t outRate);

    // The most filter phases the table is built for.
    static constexpr uint32_t kMaxPhases = 441;

    // Takes interleaved frames and appends every output frame that they
    // complete to out, which holds outFrames frames before the call (grown as
    // needed). Returns the new count of frames in out.
    size_t process(const float* in, size_t inFrames, std::vector<float>& out, size_t outFrames);

    // Input frames held back inside the filter at any time; pushing this many
    // frames of anything through brings the last real input out.
    uint32_t inputLatency() const { return filterLength_ / 2; }
    // The delay of the output behind the input, in output frames.
    uint32_t outputLatency() const;
    uint32_t filterLength() const { return filterLength_; }

private:
    SincResampler(uint32_t channels, uint32_t num, uint32_t den, uint32_t filterLength,
                  double cutoff);
    void buildTable(double cutoff);
    float dot(const float* taps, const float* samples) const;
    // Both channels of a stereo stream under the same taps.
    void dotPair(const float* taps, const float* left, const float* right, float* out) const;

    uint32_t channels_;
    // The input/output rate ratio in lowest terms: den_ phases, each output
    // advancing the input by num_ / den_ frames.
    uint32_t num_;
    uint32_t den_;
    uint32_t filterLength_;
    std::vector<float> table_; // den_ phases of filterLength_ taps
    // Per channel, the input not yet passed by the filter; it starts with
    // filterLength_ - 1 frames of silence, the filter's run-in.
    std::vector<std::vector<float>> history_;
    size_t position_ = 0; // first frame under the filter for the next output
    uint32_t phase_ = 0;  // the next output's phase, 0 to den_ - 1
};

} // namespace velvox
