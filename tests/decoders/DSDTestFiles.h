#pragma once
// DSF and DSDIFF files made byte by byte from 1-bit streams that the tests
// generate themselves (a first-order sigma-delta modulator, or a constant
// byte pattern).

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

namespace velvox::test {

// One channel's 1-bit stream, one entry (0 or 1) per DSD sample, oldest first.
using DSDBits = std::vector<uint8_t>;

// A first-order sigma-delta modulator driven by a sine of `amplitude`
// (full scale 1.0) at `frequency`.
inline DSDBits sigmaDeltaSine(double frequency, double amplitude, double rate, size_t samples) {
    DSDBits bits(samples);
    double integrator = 0, feedback = -1;
    for (size_t n = 0; n < samples; ++n) {
        const double x = amplitude * std::sin(2 * M_PI * frequency * double(n) / rate);
        integrator += x - feedback;
        bits[n] = integrator >= 0;
        feedback = bits[n] ? 1.0 : -1.0;
    }
    return bits;
}

// The bits that a file of the given bit order stores as `byte` repeated.
inline DSDBits repeatedPattern(uint8_t byte, size_t samples, bool lsbFirst) {
    DSDBits bits(samples);
    for (size_t n = 0; n < samples; ++n)
        bits[n] = (byte >> (lsbFirst ? n % 8 : 7 - n % 8)) & 1;
    return bits;
}

inline void putLE(std::vector<uint8_t>& out, uint64_t v, int width) {
    for (int i = 0; i < width; ++i)
        out.push_back(uint8_t(v >> (8 * i)));
}

inline void putBE(std::vector<uint8_t>& out, uint64_t v, int width) {
    for (int i = width - 1; i >= 0; --i)
        out.push_back(uint8_t(v >> (8 * i)));
}

inline void putID(std::vector<uint8_t>& out, const char* id) {
    for (int i = 0; i < 4; ++i)
        out.push_back(uint8_t(id[i]));
}

// Bits [start, start + 8) of a channel as a byte; missing bits are 0.
inline uint8_t packByte(const DSDBits& bits, size_t start, bool lsbFirst) {
    uint8_t byte = 0;
    for (int k = 0; k < 8; ++k)
        if (start + size_t(k) < bits.size() && bits[start + size_t(k)])
            byte |= uint8_t(lsbFirst ? 1 << k : 0x80 >> k);
    return byte;
}

// A DSF file: blocks of `blockSize` bytes per channel, the last one padded.
inline std::vector<uint8_t> makeDSF(const std::vector<DSDBits>& channels, uint32_t rate,
                                    uint32_t blockSize = 4096) {
    const uint64_t samples = channels.at(0).size();
    const uint64_t bytesPerChannel = (samples + 7) / 8;
    const uint64_t blocks = (bytesPerChannel + blockSize - 1) / blockSize;
    const uint64_t dataBytes = blocks * blockSize * channels.size();
    std::vector<uint8_t> out;
    putID(out, "DSD ");
    putLE(out, 28, 8);
    putLE(out, 28 + 52 + 12 + dataBytes, 8);
    putLE(out, 0, 8); // no metadata
    putID(out, "fmt ");
    putLE(out, 52, 8);
    putLE(out, 1, 4); // version
    putLE(out, 0, 4); // raw DSD
    putLE(out, channels.size() == 2 ? 2 : 1, 4);
    putLE(out, channels.size(), 4);
    putLE(out, rate, 4);
    putLE(out, 1, 4);
    putLE(out, samples, 8);
    putLE(out, blockSize, 4);
    putLE(out, 0, 4);
    putID(out, "data");
    putLE(out, 12 + dataBytes, 8);
    for (uint64_t b = 0; b < blocks; ++b)
        for (const DSDBits& bits : channels)
            for (uint64_t i = 0; i < blockSize; ++i)
                out.push_back(packByte(bits, size_t((b * blockSize + i) * 8), true));
    return out;
}

struct DFFOptions {
    const char* compression = "DSD ";
};

// A DSDIFF file with FVER, PROP (FS, CMPR with its odd-length name, CHNL) and
// the sound data interleaved byte by byte.
inline std::vector<uint8_t> makeDFF(const std::vector<DSDBits>& channels, uint32_t rate,
                                    DFFOptions options = {}) {
    const size_t bytesPerChannel = (channels.at(0).size() + 7) / 8;
    std::vector<uint8_t> prop;
    putID(prop, "SND ");
    putID(prop, "FS  ");
    putBE(prop, 4, 8);
    putBE(prop, rate, 4);
    putID(prop, "CMPR");
    const std::string name = "not compressed";
    putBE(prop, 4 + 1 + name.size(), 8);
    putID(prop, options.compression);
    prop.push_back(uint8_t(name.size()));
    prop.insert(prop.end(), name.begin(), name.end());
    prop.push_back(0); // pad to an even length
    putID(prop, "CHNL");
    putBE(prop, 2 + 4 * channels.size(), 8);
    putBE(prop, channels.size(), 2);
    for (size_t c = 0; c < channels.size(); ++c)
        putID(prop, channels.size() == 2 ? (c == 0 ? "SLFT" : "SRGT") : "C000");

    std::vector<uint8_t> out;
    putID(out, "FRM8");
    const size_t formSize = 4 + 16 + 12 + prop.size() + 12 + bytesPerChannel * channels.size();
    putBE(out, formSize, 8);
    putID(out, "DSD ");
    putID(out, "FVER");
    putBE(out, 4, 8);
    putBE(out, 0x01050000, 4);
    putID(out, "PROP");
    putBE(out, prop.size(), 8);
    out.insert(out.end(), prop.begin(), prop.end());
    putID(out, "DSD ");
    putBE(out, bytesPerChannel * channels.size(), 8);
    for (size_t i = 0; i < bytesPerChannel; ++i)
        for (const DSDBits& bits : channels)
            out.push_back(packByte(bits, i * 8, false));
    return out;
}

} // namespace velvox::test
