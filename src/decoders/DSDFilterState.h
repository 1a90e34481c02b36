#pragma once
// The per-channel state of the DSD-to-PCM conversion: a ring of the most
// recent DSD bytes and byte lookup tables of a decimating low-pass FIR.
//
// The filter is symmetric, so each output sample needs only the half-filter:
// the newest half of the window is read from the ring as it is, the older
// half bit-reversed (done once per byte as it crosses the middle), and both
// are looked up in the same tables, one table per byte position. Building the
// tables is the expensive part; the decoder serialises it across threads.
// One state is used by one decoder on its operation thread.

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

namespace velvox {

class DSDFilterState {
public:
    // decimation is 8, 16 or 32 (anything else is taken as 8); lsbFirst is the
    // bit order of the input bytes (DSF stores the oldest bit in bit 0, DSDIFF
    // in bit 7).
    DSDFilterState(int decimation, bool lsbFirst);

    // Converts one channel: reads (decimation / 8) bytes per output sample from
    // `in`, `inStride` bytes apart, and writes `samples` floats to `out`,
    // `outStride` floats apart. The filter runs on across calls.
    void translate(size_t samples, const uint8_t* in, ptrdiff_t inStride, float* out,
                   ptrdiff_t outStride);

    int decimation() const { return decimation_; }
    size_t tableCount() const { return tableCount_; }

private:
    static constexpr size_t kRingSize = 128;
    // The idle pattern DSD players send for silence.
    static constexpr uint8_t kIdlePattern = 0x69;

    int decimation_;
    size_t tableCount_;
    bool lsbFirst_;
    std::array<uint8_t, kRingSize> ring_;
    size_t position_ = 0;
    std::vector<std::array<float, 256>> tables_;
};

} // namespace velvox
