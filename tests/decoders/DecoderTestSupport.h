#pragma once
// Shared by the tests of the library-backed decoders: pulling a whole file
// through readAudio() and making fixtures with the reference tools.

#include <cmath>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/KDDecoder.h"
#include "support/TestSupport.h"

namespace velvox::test {

struct Decoded {
    std::vector<uint8_t> pcm;
    uint64_t frames = 0;
};

// Reads until the decoder says it has ended, in reads of the size the
// encoders use.
inline Decoded decodeAll(KDDecoder& decoder, uint32_t framesPerRead = 16384) {
    Decoded d;
    const auto format = decoder.decodeFormat();
    std::vector<uint8_t> buffer(size_t(framesPerRead) * format.mBytesPerFrame);
    for (int idle = 0; idle < 10000;) {
        auto list = AudioBufferList::single(buffer.data(), uint32_t(buffer.size()),
                                            format.mChannelsPerFrame);
        const uint32_t n = decoder.readAudio(&list, framesPerRead);
        if (n == 0) {
            if (decoder.isEndOfFile())
                break;
            ++idle;
            continue;
        }
        d.pcm.insert(d.pcm.end(), buffer.begin(), buffer.begin() + n * format.mBytesPerFrame);
        d.frames += n;
    }
    return d;
}

inline void mustRun(const std::string& command) {
    ASSERT_EQ(runCommand(command).exitCode, 0) << command;
}

// A tool's standard output as bytes.
inline std::vector<uint8_t> outputOf(const std::string& command) {
    const CommandResult r = runCommand(command);
    EXPECT_EQ(r.exitCode, 0) << command;
    return std::vector<uint8_t>(r.output.begin(), r.output.end());
}

// The sample data of a canonical WAVE file (the "data" chunk), as written by
// the reference decoders.
inline std::vector<uint8_t> wavData(const std::string& path) {
    const std::vector<uint8_t> bytes = readFile(path);
    size_t at = 12;
    while (at + 8 <= bytes.size()) {
        const uint32_t size = uint32_t(bytes[at + 4]) | uint32_t(bytes[at + 5]) << 8 |
                              uint32_t(bytes[at + 6]) << 16 | uint32_t(bytes[at + 7]) << 24;
        if (std::string(bytes.begin() + long(at), bytes.begin() + long(at) + 4) == "data") {
            const size_t end = std::min(bytes.size(), at + 8 + size_t(size));
            return std::vector<uint8_t>(bytes.begin() + long(at) + 8, bytes.begin() + long(end));
        }
        at += 8 + size + (size & 1);
    }
    ADD_FAILURE() << "no data chunk in " << path;
    return {};
}

// 8-bit WAVE and raw data are unsigned; the decoders deliver signed bytes.
inline std::vector<uint8_t> flipSign8(std::vector<uint8_t> bytes) {
    for (uint8_t& b : bytes)
        b ^= 0x80;
    return bytes;
}

// Signal-to-noise ratio in dB of `test` against `reference` (16-bit samples).
inline double snr16(const std::vector<uint8_t>& reference, const std::vector<uint8_t>& test) {
    const size_t n = std::min(reference.size(), test.size()) / 2;
    double signal = 0, noise = 0;
    for (size_t i = 0; i < n; ++i) {
        const double r = int16_t(reference[2 * i] | reference[2 * i + 1] << 8);
        const double t = int16_t(test[2 * i] | test[2 * i + 1] << 8);
        signal += r * r;
        noise += (r - t) * (r - t);
    }
    return noise == 0 ? INFINITY : 10 * std::log10(signal / noise);
}

} // namespace velvox::test
