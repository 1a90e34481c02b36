#pragma once
// What the Ogg Opus and Ogg Speex encoder tests share: tone sources whose
// channels can be told apart, PCM comparison after an independent decoder,
// a tagged source with a picture, and an empty private temporary folder.

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "support/JobsTestSupport.h"
#include "support/TestSupport.h"

namespace velvox::test {

// Fails (never skips) when a reference tool is missing.
inline void requireTools(std::initializer_list<const char*> tools) {
    for (const char* tool : tools)
        ASSERT_TRUE(haveTool(tool)) << tool << " is not installed (scripts/setup.sh)";
}

// Half-scale sines, channel c at baseHz * (c + 1) plus a slow second
// partial, so that a swapped channel or a shifted signal shows.
inline std::vector<int32_t> tones(uint32_t frames, uint32_t channels, uint32_t rate, uint32_t bits,
                                  double baseHz = 220.0) {
    const double scale = double((int64_t(1) << (bits - 1)) - 1) * 0.5;
    std::vector<int32_t> out(size_t(frames) * channels);
    for (uint32_t f = 0; f < frames; ++f)
        for (uint32_t c = 0; c < channels; ++c) {
            const double t = double(f) / rate;
            const double v = 0.8 * std::sin(2 * M_PI * baseHz * (c + 1) * t) +
                             0.2 * std::sin(2 * M_PI * 97.0 * t + c);
            out[size_t(f) * channels + c] = int32_t(std::lround(v * scale));
        }
    return out;
}

// Little-endian 16-bit samples as read from a raw decoder output.
inline std::vector<double> rawS16(const std::string& path) {
    const auto bytes = readFile(path);
    std::vector<double> out(bytes.size() / 2);
    for (size_t i = 0; i < out.size(); ++i)
        out[i] = int16_t(uint16_t(bytes[2 * i] | (bytes[2 * i + 1] << 8))) / 32768.0;
    return out;
}

inline std::vector<double> normalised(const std::vector<int32_t>& samples, uint32_t bits) {
    std::vector<double> out(samples.size());
    const double full = double(int64_t(1) << (bits - 1));
    for (size_t i = 0; i < samples.size(); ++i)
        out[i] = samples[i] / full;
    return out;
}

// Signal-to-noise ratio in dB of `decoded` against `source` (one channel of
// interleaved frames), the decoded one shifted by `lag` frames.
inline double snrDb(const std::vector<double>& source, const std::vector<double>& decoded,
                    uint32_t channels, uint32_t channel, long lag) {
    double signal = 0, noise = 0;
    const long frames = long(std::min(source.size(), decoded.size()) / channels);
    for (long f = 200; f < frames - 200; ++f) {
        const long g = f + lag;
        if (g < 0 || g >= frames)
            continue;
        const double s = source[size_t(f) * channels + channel];
        const double d = decoded[size_t(g) * channels + channel];
        signal += s * s;
        noise += (s - d) * (s - d);
    }
    return 10 * std::log10(signal / std::max(noise, 1e-20));
}

// The shift (in frames, within +-maxLag) at which decoded best matches source.
inline long bestLag(const std::vector<double>& source, const std::vector<double>& decoded,
                    uint32_t channels, long maxLag = 64) {
    long best = 0;
    double bestSnr = -1e9;
    for (long lag = -maxLag; lag <= maxLag; ++lag) {
        const double snr = snrDb(source, decoded, channels, 0, lag);
        if (snr > bestSnr) {
            bestSnr = snr;
            best = lag;
        }
    }
    return best;
}

// A FLAC source with text tags and a front cover made by the reference
// tools; returns the cover's bytes.
inline std::vector<uint8_t> makeTaggedFLAC(const TempDir& dir, const std::string& flacPath,
                                           uint32_t rate, uint32_t channels) {
    const std::string wav = dir.file("tagged-source.wav");
    writeWav(wav, tones(rate * 2, channels, rate, 16), channels, rate, 16);
    const std::string cover = dir.file("cover.png");
    EXPECT_EQ(runCommand("ffmpeg -v error -y -f lavfi -i color=c=red:s=8x8 -frames:v 1 " +
                         shellQuote(cover))
                  .exitCode,
              0);
    EXPECT_EQ(runCommand("flac -s -f -o " + shellQuote(flacPath) + " " + shellQuote(wav)).exitCode,
              0);
    EXPECT_EQ(runCommand("metaflac --set-tag=TITLE=Träume --set-tag=ARTIST=Velvox "
                         "--set-tag=ALBUM=Tones --set-tag=TRACKNUMBER=3 --set-tag=DATE=2024 "
                         "--import-picture-from=" +
                         shellQuote("3||front||" + cover) + " " + shellQuote(flacPath))
                  .exitCode,
              0);
    return readFile(cover);
}

// Python code run with the system interpreter and mutagen; its standard
// output.
inline std::string mutagen(const std::string& script, const std::string& path) {
    const auto r = runCommand("/usr/bin/python3 -c " + shellQuote(script) + " " + shellQuote(path));
    EXPECT_EQ(r.exitCode, 0) << script;
    return r.output;
}

// Reads back title, artist and the picture's bytes (hex MD5) with mutagen.
inline constexpr const char* kMutagenTagsScript = R"PY(
import sys, base64, hashlib, mutagen
from mutagen.flac import Picture
f = mutagen.File(sys.argv[1])
t = f.tags
print(t['title'][0]); print(t['artist'][0]); print(t['tracknumber'][0])
pics = [Picture(base64.b64decode(v)) for v in t.get('metadata_block_picture', [])]
print(len(pics))
for p in pics: print(p.type, p.mime, hashlib.md5(p.data).hexdigest())
)PY";

} // namespace velvox::test
