#include "encoders/APENNFilter.h"

#include <algorithm>
#include <cstring>

namespace velvox {

namespace {

// Wrapping 16-bit add, the width the coefficients live in.
inline int16_t add16(int16_t a, int32_t b) { return int16_t(uint16_t(uint32_t(a) + uint32_t(b))); }

inline int16_t saturate16(int32_t v) { return int16_t(std::clamp(v, -32768, 32767)); }

} // namespace

APENNFilter::APENNFilter(uint32_t order, uint32_t shift)
    : order_(order), shift_(shift), roundOffset_(int32_t(1u << (shift - 1))), coefficients_(order),
      inputs_(order + kWindow), steps_(order + kWindow) {
    reset();
}

void APENNFilter::reset() {
    std::fill(coefficients_.begin(), coefficients_.end(), int16_t(0));
    std::fill(inputs_.begin(), inputs_.end(), int16_t(0));
    std::fill(steps_.begin(), steps_.end(), int16_t(0));
    position_ = order_;
    averageMagnitude_ = 0;
}

int32_t APENNFilter::compress(int32_t input) {
    const int16_t* history = inputs_.data() + position_ - order_;
    const int16_t* steps = steps_.data() + position_ - order_;
    int16_t* coefficients = coefficients_.data();
    const uint32_t order = order_;

    // 32-bit wrapping dot product, as the decoders compute it.
    uint32_t dot = 0;
    for (uint32_t j = 0; j < order; ++j)
        dot += uint32_t(int32_t(history[j]) * int32_t(coefficients[j]));
    const int32_t prediction = int32_t(dot + uint32_t(roundOffset_)) >> shift_;
    const int32_t output = int32_t(uint32_t(input) - uint32_t(prediction));

    // Each coefficient moves by its step, against the residual's sign.
    if (output > 0) {
        for (uint32_t j = 0; j < order; ++j)
            coefficients[j] = int16_t(uint16_t(coefficients[j] - steps[j]));
    } else if (output < 0) {
        for (uint32_t j = 0; j < order; ++j)
            coefficients[j] = add16(coefficients[j], steps[j]);
    }

    const uint32_t at = position_;
    inputs_[at] = saturate16(input);
    // 32-bit wrapping throughout, as the decoders compute it.
    const int32_t magnitude = int32_t(input < 0 ? 0u - uint32_t(input) : uint32_t(input));
    const auto average = uint32_t(averageMagnitude_);
    int16_t step = 0;
    if (input != 0) {
        // 32, 16 or 8 against the input's sign: smaller for inputs well below
        // the recent average.
        int32_t size = 32;
        if (magnitude <= int32_t(average * 3))
            size >>= 1;
        if (magnitude <= int32_t(average * 4) / 3)
            size >>= 1;
        step = int16_t(input < 0 ? size : -size);
    }
    steps_[at] = step;
    averageMagnitude_ += int32_t(uint32_t(magnitude) - average) / 16;
    steps_[at - 1] >>= 1;
    steps_[at - 2] >>= 1;
    steps_[at - 8] >>= 1;

    if (++position_ == order_ + kWindow) {
        std::memmove(inputs_.data(), inputs_.data() + kWindow, order_ * sizeof(int16_t));
        std::memmove(steps_.data(), steps_.data() + kWindow, order_ * sizeof(int16_t));
        position_ = order_;
    }
    return output;
}

} // namespace velvox
