#pragma once
// What the lossy encoder tests share: tone sources of any sample size and
// channel count, decoding through the reference tools, a signal-to-noise
// measure that a channel swap or a wrong sample scale cannot pass, and a
// private temporary folder that shows what an operation leaves behind.

#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/JobsTestSupport.h"
#include "support/TestSupport.h"

namespace velvox::test {

using ScopedTemporaryFolder = PrivateTemporaryFolder;

// A missing reference tool fails the test: a skipped oracle proves nothing.
inline void requireTools(std::initializer_list<const char*> tools) {
    for (const char* tool : tools)
        ASSERT_TRUE(haveTool(tool)) << tool << " is not installed (scripts/setup.sh installs it)";
}

// Interleaved sines at half scale, a different pitch in every channel (so
// that a swapped or misplaced channel shows as noise), at `bits` bits. The
// low-frequency channel of a 5.1 source gets a bass tone, since codecs may
// band-limit that channel.
inline std::vector<int32_t> tones(uint32_t frames, uint32_t channels, uint32_t bits,
                                  double sampleRate) {
    std::vector<int32_t> out(size_t(frames) * channels);
    const double scale = std::ldexp(0.5, int(bits) - 1);
    for (uint32_t f = 0; f < frames; ++f)
        for (uint32_t c = 0; c < channels; ++c) {
            const double hz = channels == 6 && c == 3 ? 55.0 : 220.0 * (c + 1) + 35.0 * c * c;
            out[size_t(f) * channels + c] =
                int32_t(std::lround(scale * std::sin(2.0 * M_PI * hz * f / sampleRate)));
        }
    return out;
}

// Signed 16-bit little-endian samples from a raw byte block.
inline std::vector<int16_t> samples16(const std::vector<uint8_t>& raw) {
    std::vector<int16_t> out(raw.size() / 2);
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = int16_t(uint16_t(raw[2 * i] | (raw[2 * i + 1] << 8)));
    return out;
}

// Signal-to-noise ratio (dB) of one channel of decoded 16-bit PCM against the
// source samples of `bits` bits, skipping `skip` frames at each end.
inline double channelSNR(const std::vector<int16_t>& decoded, const std::vector<int32_t>& source,
                         uint32_t channels, uint32_t channel, uint32_t bits, size_t skip = 2048) {
    const size_t frames = std::min(decoded.size(), source.size()) / channels;
    double signal = 0, noise = 0;
    const double toUnit = std::ldexp(1.0, -int(bits) + 1);
    for (size_t f = skip; f + skip < frames; ++f) {
        const double s = source[f * channels + channel] * toUnit;
        const double d = decoded[f * channels + channel] / 32768.0;
        signal += s * s;
        noise += (s - d) * (s - d);
    }
    return 10.0 * std::log10(signal / std::max(noise, 1e-12));
}

// Runs a command with its standard error folded into the output.
inline CommandResult runWithErrors(const std::string& command) {
    return runCommand(command + " 2>&1");
}

// The file decoded by ffmpeg to 16-bit stereo-or-whatever-it-has PCM.
inline std::vector<int16_t> decodeWithFFmpeg(const std::string& path, const std::string& scratch) {
    const CommandResult r = runCommand("ffmpeg -nostdin -v error -y -i " + shellQuote(path) +
                                       " -f s16le -acodec pcm_s16le " + shellQuote(scratch));
    EXPECT_EQ(r.exitCode, 0) << "ffmpeg could not decode " << path;
    return samples16(readFile(scratch));
}

// Prints mutagen's view of a file (one python expression's value).
inline std::string mutagen(const std::string& script, const std::string& path) {
    return runCommand("/usr/bin/python3 -c " + shellQuote(script) + " " + shellQuote(path)).output;
}

} // namespace velvox::test
