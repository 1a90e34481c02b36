#pragma once
// Shared by the decoder tests: pulling a whole file through readAudio() the
// way an encode operation does, fixtures made with the reference tools, and
// comparisons against what the reference decoders write.

#include <cmath>
#include <cstring>
#include <initializer_list>
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

// Reads until the decoder says it has ended, in reads of the given sizes
// taken in turn (uneven sizes make coded formats carry partial frames over
// between calls). Each read must fill the buffer it reports and no more.
inline Decoded decodeAll(KDDecoder& decoder, std::initializer_list<uint32_t> sizes = {16384}) {
    Decoded d;
    const auto format = decoder.decodeFormat();
    const std::vector<uint32_t> reads(sizes);
    uint32_t largest = 0;
    for (uint32_t size : reads)
        largest = std::max(largest, size);
    std::vector<uint8_t> buffer(size_t(largest) * format.mBytesPerFrame);
    size_t call = 0;
    // Packets of other streams may leave a read empty without ending it.
    for (int idle = 0; idle < 100000;) {
        const uint32_t want = reads[call++ % reads.size()];
        auto list = AudioBufferList::single(buffer.data(), uint32_t(buffer.size()),
                                            format.mChannelsPerFrame);
        const uint32_t n = decoder.readAudio(&list, want);
        if (n == 0) {
            if (decoder.isEndOfFile())
                break;
            ++idle;
            continue;
        }
        EXPECT_LE(n, want);
        EXPECT_EQ(list.mBuffers[0].mDataByteSize, n * format.mBytesPerFrame);
        d.pcm.insert(d.pcm.end(), buffer.begin(), buffer.begin() + n * format.mBytesPerFrame);
        d.frames += n;
    }
    return d;
}

// Little-endian 16-bit samples from a raw byte block.
inline std::vector<int16_t> samplesOf(const std::vector<uint8_t>& raw) {
    std::vector<int16_t> s(raw.size() / 2);
    std::memcpy(s.data(), raw.data(), s.size() * 2);
    return s;
}

// A 16-bit decoder's whole output as samples.
inline std::vector<int16_t> decodeAll16(KDDecoder& decoder, uint32_t framesPerRead = 16384) {
    EXPECT_EQ(decoder.decodeFormat().mBitsPerChannel, 16u);
    return samplesOf(decodeAll(decoder, {framesPerRead}).pcm);
}

inline void run(const std::string& command) {
    ASSERT_EQ(runCommand(command).exitCode, 0) << command;
}

// A tool's standard output as bytes.
inline std::vector<uint8_t> outputOf(const std::string& command) {
    const CommandResult r = runCommand(command);
    EXPECT_EQ(r.exitCode, 0) << command;
    return std::vector<uint8_t>(r.output.begin(), r.output.end());
}

// ffmpeg's own decoding of the file's first audio stream, in a raw format
// ("s16le", "s32le", ...).
inline std::vector<uint8_t> ffmpegRaw(const std::string& path, const std::string& format) {
    return outputOf("ffmpeg -v error -i " + shellQuote(path) + " -map 0:a:0 -f " + format + " -");
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

// Signal-to-noise ratio in dB of `test` against `reference` (16-bit samples).
inline double snrDb(const std::vector<int16_t>& reference, const std::vector<int16_t>& test) {
    double signal = 0, noise = 0;
    for (size_t i = 0; i < reference.size() && i < test.size(); ++i) {
        signal += double(reference[i]) * reference[i];
        const double d = double(reference[i]) - test[i];
        noise += d * d;
    }
    return noise == 0 ? INFINITY : 10 * std::log10(signal / noise);
}
inline double snr16(const std::vector<uint8_t>& reference, const std::vector<uint8_t>& test) {
    return snrDb(samplesOf(reference), samplesOf(test));
}

} // namespace velvox::test
