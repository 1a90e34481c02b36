#include "support/TestSupport.h"

#include <array>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <random>
#include <stdexcept>

#include <sys/wait.h>

#include "platform/MD5.h"

namespace velvox::test {

TempDir::TempDir() {
    const char* base = std::getenv("VELVOX_TEST_TMP");
    std::filesystem::path root = base ? base : std::filesystem::temp_directory_path();
    std::filesystem::create_directories(root);
    std::string pattern = (root / "velvox-test-XXXXXX").string();
    if (!mkdtemp(pattern.data()))
        throw std::runtime_error("mkdtemp failed");
    path_ = pattern;
}

TempDir::~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
}

CommandResult runCommand(const std::string& command) {
    CommandResult result;
    FILE* pipe = popen(command.c_str(), "r");
    if (!pipe)
        return result;
    std::array<char, 4096> buffer;
    size_t n;
    while ((n = fread(buffer.data(), 1, buffer.size(), pipe)) > 0)
        result.output.append(buffer.data(), n);
    const int status = pclose(pipe);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

std::string shellQuote(const std::string& s) {
    std::string out = "'";
    for (char c : s) {
        if (c == '\'')
            out += "'\\''";
        else
            out += c;
    }
    return out + "'";
}

bool haveTool(const std::string& name) {
    return runCommand("command -v " + shellQuote(name) + " >/dev/null 2>&1").exitCode == 0;
}

std::vector<uint8_t> readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::vector<uint8_t>((std::istreambuf_iterator<char>(in)),
                                std::istreambuf_iterator<char>());
}

void writeFile(const std::string& path, const std::vector<uint8_t>& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()), std::streamsize(bytes.size()));
}

std::string md5Hex(const std::vector<uint8_t>& bytes) {
    return MD5::hexDigestOf(bytes.data(), bytes.size());
}

std::vector<int32_t> makeSignal(uint32_t frames, uint32_t channels, uint32_t bits, uint32_t seed) {
    std::mt19937 rng(seed);
    const int64_t maxValue = (int64_t(1) << (bits - 1)) - 1;
    const int64_t minValue = -(int64_t(1) << (bits - 1));
    std::vector<int32_t> out(size_t(frames) * channels);
    for (uint32_t f = 0; f < frames; ++f) {
        for (uint32_t c = 0; c < channels; ++c) {
            // A per-channel ramp plus noise, reaching both extremes now and then.
            int64_t v = int64_t((f * (c + 1) * 7919u) % 65536u) - 32768;
            v = v * (maxValue / 32768 + 1) + int64_t(rng() % 64) - 32;
            if (f % 977 == 0)
                v = (c % 2) ? maxValue : minValue;
            if (v > maxValue)
                v = maxValue;
            if (v < minValue)
                v = minValue;
            out[size_t(f) * channels + c] = int32_t(v);
        }
    }
    return out;
}

std::vector<uint8_t> packLittleEndian(const std::vector<int32_t>& samples, uint32_t bits) {
    const uint32_t bytes = bits / 8;
    std::vector<uint8_t> out(samples.size() * bytes);
    for (size_t i = 0; i < samples.size(); ++i)
        for (uint32_t b = 0; b < bytes; ++b)
            out[i * bytes + b] = uint8_t(uint32_t(samples[i]) >> (8 * b));
    return out;
}

std::vector<int32_t> unpackLittleEndian(const std::vector<uint8_t>& bytes, uint32_t bits) {
    const size_t width = bits / 8;
    std::vector<int32_t> samples(bytes.size() / width);
    const int shift = int(32 - bits);
    for (size_t i = 0; i < samples.size(); ++i) {
        uint32_t u = 0;
        for (size_t b = 0; b < width; ++b)
            u |= uint32_t(bytes[i * width + b]) << (8 * b);
        samples[i] = int32_t(u << shift) >> shift;
    }
    return samples;
}

namespace {
void put16(std::vector<uint8_t>& v, uint32_t x) {
    v.push_back(uint8_t(x));
    v.push_back(uint8_t(x >> 8));
}
void put32(std::vector<uint8_t>& v, uint32_t x) {
    put16(v, x & 0xFFFF);
    put16(v, x >> 16);
}
} // namespace

void writeWav(const std::string& path, const std::vector<int32_t>& samples, uint32_t channels,
              uint32_t sampleRate, uint32_t bits, uint32_t channelMask) {
    std::vector<uint8_t> data;
    if (bits == 8) { // 8-bit WAVE is unsigned
        for (int32_t s : samples)
            data.push_back(uint8_t(s + 128));
    } else {
        data = packLittleEndian(samples, bits);
    }
    const bool extensible = channelMask != 0 || channels > 2 || bits > 16;
    const uint32_t blockAlign = channels * bits / 8;
    std::vector<uint8_t> fmt;
    put16(fmt, extensible ? 0xFFFE : 1);
    put16(fmt, channels);
    put32(fmt, sampleRate);
    put32(fmt, sampleRate * blockAlign);
    put16(fmt, blockAlign);
    put16(fmt, bits);
    if (extensible) {
        put16(fmt, 22);
        put16(fmt, bits);
        put32(fmt, channelMask);
        // KSDATAFORMAT_SUBTYPE_PCM
        const uint8_t guid[16] = {0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x10, 0x00,
                                  0x80, 0x00, 0x00, 0xAA, 0x00, 0x38, 0x9B, 0x71};
        fmt.insert(fmt.end(), guid, guid + 16);
    }
    std::vector<uint8_t> file = {'R', 'I', 'F', 'F'};
    put32(file, uint32_t(4 + 8 + fmt.size() + 8 + data.size() + (data.size() & 1)));
    file.insert(file.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
    put32(file, uint32_t(fmt.size()));
    file.insert(file.end(), fmt.begin(), fmt.end());
    file.insert(file.end(), {'d', 'a', 't', 'a'});
    put32(file, uint32_t(data.size()));
    file.insert(file.end(), data.begin(), data.end());
    if (data.size() & 1)
        file.push_back(0);
    writeFile(path, file);
}

} // namespace velvox::test
