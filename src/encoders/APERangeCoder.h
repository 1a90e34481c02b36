#pragma once
// The carry-propagating range coder of Monkey's Audio frames, with the
// adaptive value model of file version 3990 on top of it.
//
// The coder keeps 31 bits of `low` plus a carry bit; a byte whose value may
// still change through a carry is held back (`buffer_`, and a run of pending
// 0xFF bytes in `pending_`) until the carry is settled. Every coding step
// normalises first, exactly as the decoders do before each symbol, so both
// sides scale the range at the same moments.

#include <cstdint>
#include <vector>

namespace velvox {

class APERangeCoder {
public:
    // Starts a frame's coded data after whatever `out` already holds.
    void start(std::vector<uint8_t>& out);
    // Codes one residual with the channel's adaptive model (see resetModel()).
    struct Model {
        uint32_t k = 10;
        uint32_t kSum = (1u << 10) * 16;
    };
    void encodeValue(int32_t value, Model& model);
    // Writes the bytes that settle the last interval; the decoders read a
    // few bytes past the last symbol, so those are written as well.
    void finish();

private:
    void normalise();
    void emit(uint8_t byte) { out_->push_back(byte); }
    // Narrows the interval to [lowCount, lowCount + count) of `total`.
    void encodeFrequency(uint32_t count, uint32_t lowCount, uint32_t total);
    // The same with a total of 1 << shift.
    void encodeShift(uint32_t count, uint32_t lowCount, uint32_t shift);

    std::vector<uint8_t>* out_ = nullptr;
    uint32_t low_ = 0;
    uint32_t range_ = 0;
    uint32_t pending_ = 0;
    uint8_t buffer_ = 0;
};

} // namespace velvox
