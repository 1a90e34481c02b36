#pragma once
// Float to 16-bit conversion with noise-shaped triangular dither, shaped for
// 48 and 44.1 kHz (flat at other rates), that falls silent on digital
// silence so that silence stays exactly zero.

#include <atomic>
#include <cstdint>
#include <vector>

namespace velvox {

// Owned by one decoder and used on its thread. The random generator's state is
// shared by the whole program; each block takes and returns it once.
class NoiseShapedDither {
public:
    NoiseShapedDither(uint32_t channels, uint32_t sampleRate);

    // Converts `frames` interleaved frames of `channels` floats (full scale 1.0).
    void toShort(int16_t* out, const float* in, uint32_t frames);

private:
    static uint32_t nextRandom(uint32_t& state) {
        state = state * 96314165u + 907633515u;
        return state;
    }

    uint32_t channels_;
    int rateClass_; // 0: 48000 Hz, 1: 44100 Hz, 2: any other rate
    // Per channel, newest first: the quantisation errors and the shaping
    // filter's outputs.
    std::vector<float> quantHistory_;
    std::vector<float> filterHistory_;
    int mute_ = 960;

    static std::atomic<uint32_t> randomState_;
};

} // namespace velvox
