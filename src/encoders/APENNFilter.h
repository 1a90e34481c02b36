#pragma once
// One adaptive FIR stage of the Monkey's Audio compressor: a sign-sign LMS
// filter over the last `order` inputs (saturated to 16 bits) whose
// prediction, scaled down by `shift` bits, is taken off each input.
//
// The adaption steps follow the input's size against a running average of
// recent magnitudes, and older steps fade (halved one, two and eight
// samples on), as the decoders undo it sample by sample.

#include <cstdint>
#include <vector>

namespace velvox {

class APENNFilter {
public:
    APENNFilter(uint32_t order, uint32_t shift);

    // Forgets all history, as at the start of every frame.
    void reset();
    // Filters one sample and returns the residual.
    int32_t compress(int32_t input);

private:
    // The history slides along a buffer this much longer than the order and
    // is moved back to its front when it reaches the end.
    static constexpr uint32_t kWindow = 512;

    uint32_t order_;
    uint32_t shift_;
    int32_t roundOffset_;
    std::vector<int16_t> coefficients_;
    std::vector<int16_t> inputs_;
    std::vector<int16_t> steps_;
    uint32_t position_ = 0; // index of the newest sample + 1
    int32_t averageMagnitude_ = 0;
};

} // namespace velvox
