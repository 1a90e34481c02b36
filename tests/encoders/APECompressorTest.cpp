// The Monkey's Audio compressor against the two independent decoders we
// have: every level, sample size and channel count must decode bit for bit
// through both FFmpeg and jmac, including frame boundaries, silence, full
// scale and noise.

#include <cmath>
#include <cstring>
#include <string>

#include <gtest/gtest.h>

#include "encoders/APECompressor.h"
#include "encoders/EncoderTestHarness.h"
#include "support/TestSupport.h"

using namespace velvox;

namespace {

// Music-like material with the hard parts in it: tones, noise, a stretch of
// silence, full-scale square edges, and a jump from one extreme to the other.
std::vector<int32_t> testSignal(uint32_t frames, uint32_t channels, uint32_t bits) {
    const std::vector<int32_t> noise = test::makeSignal(frames, channels, bits, 3);
    const double full = double((1 << (bits - 1)) - 1);
    const int32_t lowest = -(1 << (bits - 1));
    std::vector<int32_t> s(size_t(frames) * channels);
    for (uint32_t f = 0; f < frames; ++f) {
        for (uint32_t c = 0; c < channels; ++c) {
            int32_t v;
            const uint32_t region = (f * 8) / frames;
            const double t = f / 44100.0;
            if (region == 2)
                v = 0;
            else if (region == 5)
                v = ((f / (40 + c)) % 2) ? int32_t(full) : lowest;
            else if (region == 6)
                v = noise[size_t(f) * channels + c];
            else
                v = int32_t(std::lround(full * (0.45 * std::sin(2 * M_PI * (220 + 110 * c) * t) +
                                                0.3 * std::sin(2 * M_PI * 1375.5 * t)) +
                                        noise[size_t(f) * channels + c] / 64));
            s[size_t(f) * channels + c] = v;
        }
    }
    return s;
}

// The wave layout the compressor takes: 8-bit unsigned, otherwise signed.
std::vector<uint8_t> waveBytes(const std::vector<int32_t>& samples, uint32_t bits) {
    std::vector<uint8_t> bytes = test::packLittleEndian(samples, bits);
    if (bits == 8)
        for (uint8_t& b : bytes)
            b ^= 0x80;
    return bytes;
}

// The samples of a canonical WAVE file, found through its data chunk.
std::vector<uint8_t> waveData(const std::vector<uint8_t>& file) {
    size_t at = 12;
    while (at + 8 <= file.size()) {
        uint32_t size;
        std::memcpy(&size, &file[at + 4], 4);
        if (std::memcmp(&file[at], "data", 4) == 0)
            return std::vector<uint8_t>(file.begin() + long(at + 8),
                                        file.begin() + long(std::min(file.size(), at + 8 + size)));
        at += 8 + size + (size & 1);
    }
    return {};
}

class APECompressorTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* tool : {"ffmpeg", "jmac"})
            ASSERT_TRUE(test::haveTool(tool)) << tool << " is not installed";
    }

    std::string compress(const std::vector<uint8_t>& pcm, uint32_t bits, uint32_t channels,
                         int level, int64_t maxBytes, size_t chunk = 65536) {
        const std::string path = dir.file("out.ape");
        APEWaveFormat format;
        EXPECT_EQ(APECompressor::fillWaveFormat(format, 44100, bits, channels), 0);
        APECompressor compressor;
        EXPECT_EQ(compressor.start(path, format, maxBytes, level), 0);
        for (size_t at = 0; at < pcm.size(); at += chunk)
            EXPECT_EQ(compressor.addData(pcm.data() + at, std::min(chunk, pcm.size() - at)), 0);
        EXPECT_EQ(compressor.finish(), 0);
        return path;
    }

    std::vector<uint8_t> ffmpegDecode(const std::string& ape, uint32_t bits) {
        const char* format = bits == 8 ? "u8" : bits == 16 ? "s16le" : "s24le";
        const std::string raw = dir.file("ffmpeg.raw");
        const auto r = test::runCommand("ffmpeg -v error -y -i " + test::shellQuote(ape) + " -f " +
                                        format + " " + test::shellQuote(raw));
        EXPECT_EQ(r.exitCode, 0);
        return test::readFile(raw);
    }

    std::vector<uint8_t> jmacDecode(const std::string& ape) {
        const std::string wav = dir.file("jmac.wav");
        std::filesystem::remove(wav);
        const auto r = test::runCommand("jmac d " + test::shellQuote(ape) + " " +
                                        test::shellQuote(wav) + " >/dev/null");
        EXPECT_EQ(r.exitCode, 0);
        return waveData(test::readFile(wav));
    }

    test::TempDir dir;
};

} // namespace

TEST_F(APECompressorTest, EveryLevelSizeAndLayoutDecodesBitExactlyThroughFFmpegAndJmac) {
    for (uint32_t bits : {8u, 16u, 24u}) {
        for (uint32_t channels : {1u, 2u}) {
            // Past one 73,728-block frame, so that the seek table and the
            // second frame's reset are exercised.
            const uint32_t frames = 90001;
            const auto pcm = waveBytes(testSignal(frames, channels, bits), bits);
            for (int level : {1000, 2000, 3000, 4000, 5000}) {
                SCOPED_TRACE(testing::Message()
                             << bits << "-bit, " << channels << " channel(s), level " << level);
                if (bits == 24 && level >= 4000) {
                    // Refused: FFmpeg would not decode these as written.
                    APECompressor refused;
                    APEWaveFormat format;
                    ASSERT_EQ(APECompressor::fillWaveFormat(format, 44100, bits, channels), 0);
                    EXPECT_NE(refused.start(dir.file("refused.ape"), format, 0, level), 0);
                    continue;
                }
                const std::string ape = compress(pcm, bits, channels, level, int64_t(pcm.size()));
                EXPECT_TRUE(test::sameBytes(ffmpegDecode(ape, bits), pcm));
                EXPECT_TRUE(test::sameBytes(jmacDecode(ape), pcm));
                EXPECT_LT(std::filesystem::file_size(ape), pcm.size());
            }
        }
    }
}

TEST_F(APECompressorTest, WrongLengthEstimateStillGivesOneSeekEntryPerFrame) {
    const auto pcm = waveBytes(testSignal(200000, 2, 16), 16);
    // 200,000 blocks make three frames; the estimates say one and twenty.
    for (int64_t estimate : {int64_t(1000), int64_t(pcm.size()) * 7, int64_t(0)}) {
        SCOPED_TRACE(estimate);
        const std::string ape = compress(pcm, 16, 2, 2000, estimate, 4097);
        const auto file = test::readFile(ape);
        uint32_t seekBytes, frames;
        std::memcpy(&seekBytes, &file[16], 4);
        std::memcpy(&frames, &file[52 + 12], 4);
        EXPECT_EQ(frames, 3u);
        EXPECT_EQ(seekBytes, 12u);
        EXPECT_TRUE(test::sameBytes(ffmpegDecode(ape, 16), pcm));
        EXPECT_TRUE(test::sameBytes(jmacDecode(ape), pcm));
        const auto verify = test::runCommand("jmac v " + test::shellQuote(ape) + " 2>&1");
        EXPECT_EQ(verify.exitCode, 0) << verify.output;
    }
}

TEST_F(APECompressorTest, RefusesWhatTheFormatCannotHold) {
    APEWaveFormat format;
    EXPECT_NE(APECompressor::fillWaveFormat(format, 44100, 32, 2), 0);
    EXPECT_NE(APECompressor::fillWaveFormat(format, 44100, 16, 6), 0);
    ASSERT_EQ(APECompressor::fillWaveFormat(format, 44100, 16, 2), 0);
    APECompressor compressor;
    EXPECT_NE(compressor.start(dir.file("x.ape"), format, 0, 2500), 0);
    EXPECT_NE(compressor.start(dir.file("missing/x.ape"), format, 0, 2000), 0);
}
