#include "metadata/MetadataFixtures.h"

#include <cstdio>
#include <cstring>

#include <gtest/gtest.h>
#include <stb_image_write.h>

#include "support/TestSupport.h"

namespace velvox::test {

void appendLE(Bytes& out, uint64_t value, int bytes) {
    for (int i = 0; i < bytes; ++i)
        out.push_back(uint8_t(value >> (8 * i)));
}

void appendBE(Bytes& out, uint64_t value, int bytes) {
    for (int i = bytes - 1; i >= 0; --i)
        out.push_back(uint8_t(value >> (8 * i)));
}

void appendText(Bytes& out, std::string_view text) {
    out.insert(out.end(), text.begin(), text.end());
}

Bytes concat(const std::vector<Bytes>& parts) {
    Bytes out;
    for (const auto& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

namespace {

Bytes makePixels(int width, int height) {
    Bytes pixels(size_t(width) * size_t(height) * 3);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = uint8_t(i * 37 + i / 7);
    return pixels;
}

void appendTo(void* context, void* data, int size) {
    auto* out = static_cast<Bytes*>(context);
    out->insert(out->end(), static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
}

// The 80-bit extended float of an AIFF sample rate (whole numbers only).
Bytes extendedRate(uint32_t rate) {
    Bytes out;
    int exponent = 16383 + 31;
    uint64_t mantissa = uint64_t(rate) << 32;
    while (mantissa && !(mantissa & (uint64_t(1) << 63))) {
        mantissa <<= 1;
        --exponent;
    }
    appendBE(out, rate ? uint64_t(exponent) : 0, 2);
    appendBE(out, mantissa, 8);
    return out;
}

} // namespace

Bytes pngBytes(int width, int height) {
    const Bytes pixels = makePixels(width, height);
    Bytes out;
    EXPECT_TRUE(stbi_write_png_to_func(appendTo, &out, width, height, 3, pixels.data(), width * 3));
    return out;
}

Bytes jpegBytes(int width, int height) {
    const Bytes pixels = makePixels(width, height);
    Bytes out;
    EXPECT_TRUE(stbi_write_jpg_to_func(appendTo, &out, width, height, 3, pixels.data(), 90));
    return out;
}

Bytes riffChunk(std::string_view id, const Bytes& payload, int64_t declaredSize) {
    Bytes out;
    appendText(out, id);
    appendLE(out, declaredSize < 0 ? payload.size() : uint64_t(declaredSize), 4);
    out.insert(out.end(), payload.begin(), payload.end());
    if (payload.size() % 2)
        out.push_back(0);
    return out;
}

Bytes iffChunk(std::string_view id, const Bytes& payload, int64_t declaredSize) {
    Bytes out;
    appendText(out, id);
    appendBE(out, declaredSize < 0 ? payload.size() : uint64_t(declaredSize), 4);
    out.insert(out.end(), payload.begin(), payload.end());
    if (payload.size() % 2)
        out.push_back(0);
    return out;
}

Bytes cafChunk(std::string_view id, const Bytes& payload, int64_t declaredSize) {
    Bytes out;
    appendText(out, id);
    appendBE(out, declaredSize < 0 ? payload.size() : uint64_t(declaredSize), 8);
    out.insert(out.end(), payload.begin(), payload.end());
    return out;
}

Bytes wavFile(uint32_t channels, uint32_t sampleRate, uint32_t frames,
              const std::vector<Bytes>& extraChunks) {
    Bytes fmt;
    appendLE(fmt, 1, 2);
    appendLE(fmt, channels, 2);
    appendLE(fmt, sampleRate, 4);
    appendLE(fmt, sampleRate * channels * 2, 4);
    appendLE(fmt, channels * 2, 2);
    appendLE(fmt, 16, 2);
    const std::vector<int32_t> samples = makeSignal(frames, channels, 16);
    Bytes body;
    appendText(body, "WAVE");
    body = concat({body, riffChunk("fmt ", fmt), concat(extraChunks),
                   riffChunk("data", packLittleEndian(samples, 16))});
    Bytes out;
    appendText(out, "RIFF");
    appendLE(out, body.size(), 4);
    return concat({out, body});
}

Bytes aiffFile(uint32_t channels, uint32_t sampleRate, uint32_t frames,
               const std::vector<Bytes>& extraChunks) {
    Bytes comm;
    appendBE(comm, channels, 2);
    appendBE(comm, frames, 4);
    appendBE(comm, 8, 2);
    comm = concat({comm, extendedRate(sampleRate)});
    Bytes ssnd;
    appendBE(ssnd, 0, 4);
    appendBE(ssnd, 0, 4);
    for (uint32_t i = 0; i < frames * channels; ++i)
        ssnd.push_back(uint8_t((i * 13) & 0x3F));
    Bytes body;
    appendText(body, "AIFF");
    body = concat({body, iffChunk("COMM", comm), concat(extraChunks), iffChunk("SSND", ssnd)});
    Bytes out;
    appendText(out, "FORM");
    appendBE(out, body.size(), 4);
    return concat({out, body});
}

Bytes cafFile(uint32_t channels, uint32_t sampleRate, uint32_t frames,
              const std::vector<Bytes>& extraChunks) {
    Bytes desc;
    double rate = sampleRate;
    uint64_t rateBits = 0;
    std::memcpy(&rateBits, &rate, 8);
    appendBE(desc, rateBits, 8);
    appendText(desc, "lpcm");
    appendBE(desc, 0, 4); // big-endian signed integer
    appendBE(desc, channels * 2, 4);
    appendBE(desc, 1, 4);
    appendBE(desc, channels, 4);
    appendBE(desc, 16, 4);
    Bytes data;
    appendBE(data, 0, 4); // edit count
    for (uint32_t i = 0; i < frames * channels; ++i)
        appendBE(data, (i * 97) & 0x7FFF, 2);
    Bytes out;
    appendText(out, "caff");
    appendBE(out, 1, 2);
    appendBE(out, 0, 2);
    return concat({out, cafChunk("desc", desc), concat(extraChunks), cafChunk("data", data)});
}

Bytes infoPairs(const std::vector<std::pair<std::string, std::string>>& pairs) {
    Bytes out;
    appendBE(out, pairs.size(), 4);
    for (const auto& [key, value] : pairs) {
        appendText(out, key);
        out.push_back(0);
        appendText(out, value);
        out.push_back(0);
    }
    return out;
}

Bytes dsfFile(uint32_t channels, uint32_t sampleRate, uint64_t samplesPerChannel,
              const Bytes& metadata) {
    const uint32_t blockSize = 4096;
    const uint64_t bytesPerChannel = (samplesPerChannel + 7) / 8;
    const uint64_t blocks = (bytesPerChannel + blockSize - 1) / blockSize;
    const uint64_t dataBytes = blocks * blockSize * channels;
    const uint64_t dataChunk = 12 + dataBytes;
    const uint64_t total = 28 + 52 + dataChunk + metadata.size();

    Bytes out;
    appendText(out, "DSD ");
    appendLE(out, 28, 8);
    appendLE(out, total, 8);
    appendLE(out, metadata.empty() ? 0 : 28 + 52 + dataChunk, 8);
    appendText(out, "fmt ");
    appendLE(out, 52, 8);
    appendLE(out, 1, 4);                     // format version
    appendLE(out, 0, 4);                     // raw DSD
    appendLE(out, channels == 1 ? 1 : 2, 4); // channel type
    appendLE(out, channels, 4);
    appendLE(out, sampleRate, 4);
    appendLE(out, 1, 4); // bits per sample
    appendLE(out, samplesPerChannel, 8);
    appendLE(out, blockSize, 4);
    appendLE(out, 0, 4);
    appendText(out, "data");
    appendLE(out, dataChunk, 8);
    out.resize(out.size() + dataBytes, 0x69); // DSD silence pattern
    return concat({out, metadata});
}

bool runOrFail(const std::string& command) {
    const CommandResult result = runCommand(command);
    EXPECT_EQ(result.exitCode, 0) << command;
    return result.exitCode == 0;
}

bool makeFLAC(const std::string& path) {
    const std::string wav = path + ".source.wav";
    writeWav(wav, makeSignal(44100 * 5 / 2, 2, 16), 2, 44100, 16); // 2.5 seconds
    const bool ok = runOrFail("flac -s -f -o " + shellQuote(path) + " " + shellQuote(wav));
    std::remove(wav.c_str());
    return ok;
}

} // namespace velvox::test
