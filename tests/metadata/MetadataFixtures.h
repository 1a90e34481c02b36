#pragma once
// Fixture builders for the metadata-reading tests: container files assembled
// byte by byte (so that every chunk, count and length is exactly what a test
// needs, including wrong ones), pictures, and files made by the reference
// tools.

#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace velvox::test {

using Bytes = std::vector<uint8_t>;

void appendLE(Bytes& out, uint64_t value, int bytes);
void appendBE(Bytes& out, uint64_t value, int bytes);
void appendText(Bytes& out, std::string_view text);
Bytes concat(const std::vector<Bytes>& parts);

Bytes pngBytes(int width, int height);
Bytes jpegBytes(int width, int height);

// RIFF (little-endian size, padded to even) and IFF (big-endian) chunks; the
// declared size can be overridden to make a lying chunk.
Bytes riffChunk(std::string_view id, const Bytes& payload, int64_t declaredSize = -1);
Bytes iffChunk(std::string_view id, const Bytes& payload, int64_t declaredSize = -1);
// CAF chunk: identifier and a 64-bit big-endian size.
Bytes cafChunk(std::string_view id, const Bytes& payload, int64_t declaredSize = -1);

// A RIFF/WAVE file: "fmt " and "data" for 16-bit PCM with the given extra
// chunks between them.
Bytes wavFile(uint32_t channels, uint32_t sampleRate, uint32_t frames,
              const std::vector<Bytes>& extraChunks = {});
// An AIFF file with 8-bit samples (kept small) and extra chunks before SSND.
Bytes aiffFile(uint32_t channels, uint32_t sampleRate, uint32_t frames,
               const std::vector<Bytes>& extraChunks = {});
// A CAF file with 16-bit big-endian PCM and extra chunks before the data.
Bytes cafFile(uint32_t channels, uint32_t sampleRate, uint32_t frames,
              const std::vector<Bytes>& extraChunks = {});

// A CAF 'info' chunk payload: a count, then the pairs.
Bytes infoPairs(const std::vector<std::pair<std::string, std::string>>& pairs);

// A DSF file: header, fmt, data (silence of the given samples per channel)
// and, when not empty, the metadata block at the end.
Bytes dsfFile(uint32_t channels, uint32_t sampleRate, uint64_t samplesPerChannel,
              const Bytes& metadata);

// Runs a shell command and fails the current test when it does not succeed.
bool runOrFail(const std::string& command);
// A FLAC file of a short 16-bit stereo signal, made with the reference encoder.
bool makeFLAC(const std::string& path);

} // namespace velvox::test
