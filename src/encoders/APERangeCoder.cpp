#include "encoders/APERangeCoder.h"

namespace velvox {

namespace {

constexpr uint32_t kTop = 1u << 31;
constexpr uint32_t kBottom = kTop >> 8;
constexpr uint32_t kShiftBits = 23;

// The overflow (quotient) symbols below 21 share a fixed distribution over
// 16 bits; 21 to 63 take one count each at the top, and 63 escapes to a raw
// 32-bit overflow.
constexpr uint32_t kSymbolStart[22] = {
    0,     19578, 36160, 48417, 56323, 60899, 63265, 64435, 64971, 65232, 65351,
    65416, 65447, 65466, 65476, 65482, 65485, 65488, 65490, 65491, 65492, 65493,
};
constexpr uint32_t kTableSymbols = 21;
constexpr uint32_t kEscapeSymbol = 63;

} // namespace

void APERangeCoder::start(std::vector<uint8_t>& out) {
    out_ = &out;
    low_ = 0;
    range_ = kTop;
    pending_ = 0;
    // The first byte out is this initial buffer, which decoders skip.
    buffer_ = 0;
}

void APERangeCoder::normalise() {
    while (range_ <= kBottom) {
        if (low_ < (0xFFu << kShiftBits)) {
            // No carry can reach the held byte any more.
            emit(buffer_);
            for (; pending_ > 0; --pending_)
                emit(0xFF);
            buffer_ = uint8_t(low_ >> kShiftBits);
        } else if (low_ & kTop) {
            // The carry has arrived.
            emit(uint8_t(buffer_ + 1));
            for (; pending_ > 0; --pending_)
                emit(0x00);
            buffer_ = uint8_t(low_ >> kShiftBits);
        } else {
            // 0xFF: whether it overflows is not known yet.
            ++pending_;
        }
        range_ <<= 8;
        low_ = (low_ << 8) & (kTop - 1);
    }
}

void APERangeCoder::encodeFrequency(uint32_t count, uint32_t lowCount, uint32_t total) {
    normalise();
    const uint32_t step = range_ / total;
    low_ += step * lowCount;
    range_ = step * count;
}

void APERangeCoder::encodeShift(uint32_t count, uint32_t lowCount, uint32_t shift) {
    normalise();
    const uint32_t step = range_ >> shift;
    low_ += step * lowCount;
    range_ = step * count;
}

void APERangeCoder::encodeValue(int32_t value, Model& model) {
    // Signed to unsigned: positives odd, zero and negatives even.
    const uint32_t x =
        value > 0 ? (uint32_t(value) << 1) - 1 : uint32_t(0) - (uint32_t(value) << 1);

    uint32_t pivot = model.kSum >> 5;
    if (pivot == 0)
        pivot = 1;
    const uint32_t overflow = x / pivot;
    const uint32_t base = x % pivot;

    if (overflow < kTableSymbols) {
        encodeShift(kSymbolStart[overflow + 1] - kSymbolStart[overflow], kSymbolStart[overflow],
                    16);
    } else if (overflow < kEscapeSymbol) {
        encodeShift(1, 65535 - kEscapeSymbol + overflow, 16);
    } else {
        encodeShift(1, 65535, 16);
        encodeShift(1, overflow >> 16, 16);
        encodeShift(1, overflow & 0xFFFF, 16);
    }

    if (pivot < 0x10000) {
        encodeFrequency(1, base, pivot);
    } else {
        // Too wide for one step: the high part against the pivot's top 16
        // bits, then the low bits.
        uint32_t bits = 0;
        while ((pivot >> bits) & ~0xFFFFu)
            ++bits;
        encodeFrequency(1, base >> bits, (pivot >> bits) + 1);
        encodeFrequency(1, base & ((1u << bits) - 1), 1u << bits);
    }

    // The model follows a running sum of recent magnitudes.
    const uint32_t limit = model.k ? 1u << (model.k + 4) : 0;
    model.kSum += ((x + 1) / 2) - ((model.kSum + 16) >> 5);
    if (model.kSum < limit)
        --model.k;
    else if (model.kSum >= (1u << (model.k + 5)))
        ++model.k;
}

void APERangeCoder::finish() {
    normalise();
    // Any value in the final interval decodes the same symbols; this one
    // needs a single significant byte after the held ones.
    const uint32_t last = (low_ >> kShiftBits) + 1;
    if (last > 0xFF) {
        emit(uint8_t(buffer_ + 1));
        for (; pending_ > 0; --pending_)
            emit(0x00);
    } else {
        emit(buffer_);
        for (; pending_ > 0; --pending_)
            emit(0xFF);
    }
    emit(uint8_t(last & 0xFF));
    emit(0);
    emit(0);
    emit(0);
    out_ = nullptr;
}

} // namespace velvox
