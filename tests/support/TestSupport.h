#pragma once
// Helpers shared by the tests: temporary folders, running reference tools,
// and small PCM utilities.

#include <cstdint>
#include <filesystem>
#include <string>
#include <vector>

namespace velvox::test {

// A fresh folder removed (with its contents) at the end of the test.
class TempDir {
public:
    TempDir();
    ~TempDir();
    TempDir(const TempDir&) = delete;
    TempDir& operator=(const TempDir&) = delete;
    const std::filesystem::path& path() const { return path_; }
    std::string file(const std::string& name) const { return (path_ / name).string(); }

private:
    std::filesystem::path path_;
};

struct CommandResult {
    int exitCode = -1;
    std::string output; // standard output
};

// Runs a shell command; standard error is passed through to the test log.
CommandResult runCommand(const std::string& command);
// Single-quotes a string for the shell.
std::string shellQuote(const std::string& s);
// Whether a program is on PATH.
bool haveTool(const std::string& name);

std::vector<uint8_t> readFile(const std::string& path);
void writeFile(const std::string& path, const std::vector<uint8_t>& bytes);
std::string md5Hex(const std::vector<uint8_t>& bytes);

// Deterministic test signal: interleaved signed samples of `bits` bits with
// full-scale-ish content that changes per channel (so channel swaps show).
std::vector<int32_t> makeSignal(uint32_t frames, uint32_t channels, uint32_t bits,
                                uint32_t seed = 1);
// Packs samples as little-endian signed integers of bits/8 bytes.
std::vector<uint8_t> packLittleEndian(const std::vector<int32_t>& samples, uint32_t bits);
// The reverse: little-endian signed samples of bits/8 bytes, sign-extended.
std::vector<int32_t> unpackLittleEndian(const std::vector<uint8_t>& bytes, uint32_t bits);
// Writes a canonical PCM WAVE file (WAVE_FORMAT_PCM, or EXTENSIBLE with the
// given channel mask when it is non-zero).
void writeWav(const std::string& path, const std::vector<int32_t>& samples, uint32_t channels,
              uint32_t sampleRate, uint32_t bits, uint32_t channelMask = 0);

} // namespace velvox::test
