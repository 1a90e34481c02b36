#include "decoders/NoiseShapedDither.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace velvox {

std::atomic<uint32_t> NoiseShapedDither::randomState_{22222};

namespace {

// Error-feedback filter taps per rate class: four on the quantisation-error
// history, four on the filter's own history.
constexpr float kCoefficients[3][8] = {
    {2.2374f, -0.7339f, -0.1251f, -0.6033f, 0.9030f, 0.0116f, -0.5853f, -0.2571f},
    {2.2061f, -0.4706f, -0.2534f, -0.6214f, 1.0587f, 0.0676f, -0.6054f, -0.2738f},
    {1.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f, 0.f},
};

void pushFront(float* history, float value) {
    history[3] = history[2];
    history[2] = history[1];
    history[1] = history[0];
    history[0] = value;
}

} // namespace

NoiseShapedDither::NoiseShapedDither(uint32_t channels, uint32_t sampleRate)
    : channels_(channels), rateClass_(sampleRate == 48000   ? 0
                                      : sampleRate == 44100 ? 1
                                                            : 2),
      quantHistory_(size_t(channels) * 4, 0.f), filterHistory_(size_t(channels) * 4, 0.f) {}

void NoiseShapedDither::toShort(int16_t* out, const float* in, uint32_t frames) {
    const float* b = kCoefficients[rateClass_];
    const float gain = rateClass_ == 2 ? 32765.f : 32753.f;
    if (mute_ > 64)
        std::fill(filterHistory_.begin(), filterHistory_.end(), 0.f);
    uint32_t random = randomState_.load(std::memory_order_relaxed);

    for (uint32_t frame = 0; frame < frames; ++frame) {
        bool silent = true;
        for (uint32_t c = 0; c < channels_; ++c) {
            const float input = in[size_t(frame) * channels_ + c];
            silent = silent && input == 0.f;
            float* quant = &quantHistory_[size_t(c) * 4];
            float* filter = &filterHistory_[size_t(c) * 4];
            float err = 0.f;
            for (int j = 0; j < 4; ++j)
                err += b[j] * quant[j] - b[j + 4] * filter[j];
            pushFront(quant, quant[0]);
            pushFront(filter, err);
            const float s = input * gain - err;
            float r = 0.f;
            if (mute_ <= 16) {
                const float u1 = float(nextRandom(random)) * (1.f / 4294967296.f);
                const float u2 = float(nextRandom(random)) * (1.f / 4294967296.f);
                r = u1 - u2;
            }
            const float sample = std::floor(std::clamp(s + r, -32768.f, 32767.f) + .5f);
            quant[0] = mute_ > 16 ? 0.f : std::clamp(sample - s, -1.5f, 1.5f);
            out[size_t(frame) * channels_ + c] = int16_t(sample);
        }
        mute_ = silent ? mute_ + 1 : 0;
    }
    mute_ = std::min(mute_, 960);
    randomState_.store(random, std::memory_order_relaxed);
}

} // namespace velvox
