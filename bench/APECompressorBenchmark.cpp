// Monkey's Audio compression of one WAV file per level, for bench/ape-ratio.sh,
// which times jmac on the same file and prints the ratios. The file comes
// from the environment (VELVOX_APE_BENCH_WAV); without it nothing runs.

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

#include <benchmark/benchmark.h>

#include "encoders/APECompressor.h"

namespace {

struct Wave {
    uint32_t rate = 0, bits = 0, channels = 0;
    std::vector<uint8_t> data;
};

// A canonical PCM WAVE file as sox writes it.
Wave readWave(const char* path) {
    std::ifstream in(path, std::ios::binary);
    std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)), {});
    Wave w;
    for (size_t at = 12; at + 8 <= file.size();) {
        uint32_t size;
        std::memcpy(&size, &file[at + 4], 4);
        if (std::memcmp(&file[at], "fmt ", 4) == 0) {
            w.channels = file[at + 10] | file[at + 11] << 8;
            std::memcpy(&w.rate, &file[at + 12], 4);
            w.bits = file[at + 22] | file[at + 23] << 8;
        } else if (std::memcmp(&file[at], "data", 4) == 0) {
            w.data.assign(file.begin() + long(at + 8),
                          file.begin() + long(std::min(file.size(), at + 8 + size)));
            break;
        }
        at += 8 + size + (size & 1);
    }
    return w;
}

void APECompress(benchmark::State& state) {
    const char* path = std::getenv("VELVOX_APE_BENCH_WAV");
    if (!path) {
        state.SkipWithError("VELVOX_APE_BENCH_WAV is not set");
        return;
    }
    static const Wave wave = readWave(path);
    const int level = int(state.range(0));
    const std::string out = std::string(path) + "." + std::to_string(level) + ".velvox.ape";
    for (auto _ : state) {
        velvox::APEWaveFormat format;
        velvox::APECompressor::fillWaveFormat(format, wave.rate, wave.bits, wave.channels);
        velvox::APECompressor compressor;
        if (compressor.start(out, format, int64_t(wave.data.size()), level) != 0 ||
            compressor.addData(wave.data.data(), wave.data.size()) != 0 || compressor.finish() != 0)
            state.SkipWithError("compression failed");
    }
    state.counters["bytes"] = double(std::filesystem::file_size(out));
}

} // namespace

BENCHMARK(APECompress)->DenseRange(1000, 5000, 1000)->Unit(benchmark::kMillisecond)->Iterations(1);
