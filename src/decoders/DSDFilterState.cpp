#include "decoders/DSDFilterState.h"

#include <span>

#include "decoders/DSDFilterCoefficients.h"

namespace velvox {

namespace {

std::span<const double> halfFilter(int decimation) {
    switch (decimation) {
    case 16:
        return kDSDHalfFilter16;
    case 32:
        return kDSDHalfFilter32;
    default:
        return kDSDHalfFilter8;
    }
}

constexpr std::array<uint8_t, 256> makeBitReverse() {
    std::array<uint8_t, 256> table{};
    for (int v = 0; v < 256; ++v) {
        uint8_t r = 0;
        for (int b = 0; b < 8; ++b)
            if (v & (1 << b))
                r |= uint8_t(0x80 >> b);
        table[size_t(v)] = r;
    }
    return table;
}

constexpr std::array<uint8_t, 256> kBitReverse = makeBitReverse();

} // namespace

DSDFilterState::DSDFilterState(int decimation, bool lsbFirst)
    : decimation_(decimation == 16 || decimation == 32 ? decimation : 8), lsbFirst_(lsbFirst) {
    ring_.fill(kIdlePattern);
    const std::span<const double> coefficients = halfFilter(decimation_);
    tableCount_ = coefficients.size() / 8;
    tables_.resize(tableCount_);
    // Table T-1-t holds, for every byte value, the contribution of the eight
    // taps 8t..8t+7 counted from the centre; a set bit is +1, a clear one -1.
    for (size_t t = 0; t < tableCount_; ++t) {
        auto& table = tables_[tableCount_ - 1 - t];
        for (int e = 0; e < 256; ++e) {
            double acc = 0;
            for (int k = 0; k < 8; ++k) {
                const int bit = lsbFirst_ ? k : 7 - k;
                acc += ((e >> bit) & 1 ? 1.0 : -1.0) * coefficients[8 * t + size_t(k)];
            }
            table[size_t(e)] = float(acc);
        }
    }
}

void DSDFilterState::translate(size_t samples, const uint8_t* in, ptrdiff_t inStride, float* out,
                               ptrdiff_t outStride) {
    const size_t T = tableCount_;
    const size_t bytesPerSample = size_t(decimation_ / 8);
    size_t p = position_;
    for (size_t n = 0; n < samples; ++n) {
        for (size_t b = 0; b < bytesPerSample; ++b) {
            ring_[p] = *in;
            in += inStride;
            uint8_t& middle = ring_[(p - T) & (kRingSize - 1)];
            middle = kBitReverse[middle];
            if (b + 1 < bytesPerSample)
                p = (p + 1) & (kRingSize - 1);
        }
        double acc = 0;
        for (size_t i = 0; i < T; ++i) {
            acc += tables_[i][ring_[(p - i) & (kRingSize - 1)]];
            acc += tables_[i][ring_[(p - 2 * T + 1 + i) & (kRingSize - 1)]];
        }
        *out = float(acc);
        out += outStride;
        p = (p + 1) & (kRingSize - 1);
    }
    position_ = p;
}

} // namespace velvox
