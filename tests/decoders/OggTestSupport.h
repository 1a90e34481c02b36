#pragma once
// Shared by the Ogg decoder tests: pulling all PCM out of a decoder the way
// an encode operation does, sox-made fixtures, raw PCM from the reference
// decoders, and the SNR between two renderings of the same audio.

#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "core/KDDecoder.h"
#include "support/TestSupport.h"

namespace velvox::test {

inline std::vector<int16_t> decodeAll16(KDDecoder& decoder, uint32_t framesPerRead = 16384) {
    const auto format = decoder.decodeFormat();
    EXPECT_EQ(format.mBitsPerChannel, 16u);
    std::vector<uint8_t> buffer(size_t(framesPerRead) * format.mBytesPerFrame);
    std::vector<int16_t> out;
    for (int idle = 0; idle < 1000;) {
        auto list = AudioBufferList::single(buffer.data(), uint32_t(buffer.size()),
                                            format.mChannelsPerFrame);
        const uint32_t n = decoder.readAudio(&list, framesPerRead);
        if (n == 0) {
            if (decoder.isEndOfFile())
                break;
            ++idle;
            continue;
        }
        const size_t samples = size_t(n) * format.mChannelsPerFrame;
        const size_t at = out.size();
        out.resize(at + samples);
        std::memcpy(out.data() + at, buffer.data(), samples * 2);
    }
    return out;
}

inline std::vector<int16_t> samplesOf(const std::vector<uint8_t>& raw) {
    std::vector<int16_t> s(raw.size() / 2);
    std::memcpy(s.data(), raw.data(), s.size() * 2);
    return s;
}

inline void run(const std::string& command) {
    ASSERT_EQ(runCommand(command).exitCode, 0) << command;
}

// sox synthesis: one tone per channel over pink noise, comfortably below full
// scale so that lossy codecs do not clip.
inline std::string makeWav(const TempDir& dir, const std::string& name, uint32_t rate,
                           uint32_t channels, double seconds) {
    const std::string path = dir.file(name);
    std::string tones;
    for (uint32_t c = 0; c < channels; ++c)
        tones += " sine " + std::to_string(220 + 110 * c);
    run("sox -n -r " + std::to_string(rate) + " -b 16 -c " + std::to_string(channels) + " " +
        shellQuote(path) + " synth " + std::to_string(seconds) + tones +
        " synth pinknoise mix gain -9");
    return path;
}

// Signal-to-noise ratio in dB of `test` against `reference` (same length).
inline double snrDb(const std::vector<int16_t>& reference, const std::vector<int16_t>& test) {
    double signal = 0, noise = 0;
    for (size_t i = 0; i < reference.size() && i < test.size(); ++i) {
        signal += double(reference[i]) * reference[i];
        const double d = double(reference[i]) - test[i];
        noise += d * d;
    }
    return noise == 0 ? INFINITY : 10 * std::log10(signal / noise);
}

} // namespace velvox::test
