// FLAC decoding through Velvox's pull interface against a bare libFLAC loop
// on the same file. The interesting number is the ratio of the two times:
// the ring buffer and the 64 KiB reads should cost next to nothing.
//
// The fixture, ten minutes of 16-bit stereo at 44.1 kHz, is synthesised by sox
// and encoded by flac on first use and kept in the build folder.

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include <FLAC/stream_decoder.h>
#include <benchmark/benchmark.h>

#include "core/KDDecoder.h"
#include "formats/FormatTable.h"

namespace {

std::string fixture(int minutes) {
    const std::string path = "bench-fixture-" + std::to_string(minutes) + "min.flac";
    if (!std::filesystem::exists(path)) {
        const std::string wav = path + ".wav";
        const std::string cmd =
            "sox -n -r 44100 -b 16 -c 2 " + wav + " synth " + std::to_string(minutes * 60) +
            " pinknoise sine 440 gain -6 && flac -s -5 -f " + wav + " -o " + path + " && rm " + wav;
        if (std::system(cmd.c_str()) != 0)
            return {};
    }
    return path;
}

struct Sink {
    std::vector<int16_t> interleaved;
    uint64_t frames = 0;
};

FLAC__StreamDecoderWriteStatus bareWrite(const FLAC__StreamDecoder*, const FLAC__Frame* frame,
                                         const FLAC__int32* const buffer[], void* client) {
    auto* sink = static_cast<Sink*>(client);
    const uint32_t n = frame->header.blocksize;
    const uint32_t channels = frame->header.channels;
    sink->interleaved.resize(size_t(n) * channels);
    int16_t* out = sink->interleaved.data();
    for (uint32_t i = 0; i < n; ++i)
        for (uint32_t c = 0; c < channels; ++c)
            *out++ = int16_t(buffer[c][i]);
    benchmark::DoNotOptimize(sink->interleaved.data());
    sink->frames += n;
    return FLAC__STREAM_DECODER_WRITE_STATUS_CONTINUE;
}

void bareError(const FLAC__StreamDecoder*, FLAC__StreamDecoderErrorStatus, void*) {}

void BM_BareLibFLAC(benchmark::State& state) {
    const std::string path = fixture(int(state.range(0)));
    if (path.empty()) {
        state.SkipWithError("could not make the fixture (sox and flac needed)");
        return;
    }
    for (auto _ : state) {
        Sink sink;
        FLAC__StreamDecoder* d = FLAC__stream_decoder_new();
        FLAC__stream_decoder_init_file(d, path.c_str(), bareWrite, nullptr, bareError, &sink);
        FLAC__stream_decoder_process_until_end_of_stream(d);
        FLAC__stream_decoder_finish(d);
        FLAC__stream_decoder_delete(d);
        state.counters["frames"] = double(sink.frames);
    }
}

void BM_VelvoxReadAudio(benchmark::State& state) {
    const std::string path = fixture(int(state.range(0)));
    if (path.empty()) {
        state.SkipWithError("could not make the fixture (sox and flac needed)");
        return;
    }
    velvox::FormatTable::installBuiltinFormats();
    std::vector<uint8_t> buffer(65536);
    for (auto _ : state) {
        auto decoder = velvox::KDDecoder::decoderWithFilename(path);
        const uint32_t bytesPerFrame = decoder->decodeFormat().mBytesPerFrame;
        const uint32_t framesPerRead = uint32_t(buffer.size()) / bytesPerFrame;
        uint64_t frames = 0;
        for (;;) {
            auto list = velvox::AudioBufferList::single(buffer.data(), uint32_t(buffer.size()), 2);
            const uint32_t n = decoder->readAudio(&list, framesPerRead);
            if (n == 0 && decoder->isEndOfFile())
                break;
            benchmark::DoNotOptimize(buffer.data());
            frames += n;
        }
        state.counters["frames"] = double(frames);
        // The ring buffer must not grow with the file: compare the 1- and
        // 10-minute runs.
        state.counters["ringBufferBytes"] = double(decoder->pcmBuffer().size());
    }
}

} // namespace

BENCHMARK(BM_BareLibFLAC)->Arg(10)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(3);
BENCHMARK(BM_VelvoxReadAudio)->Arg(10)->Arg(1)->Unit(benchmark::kMillisecond)->MinTime(3);

BENCHMARK_MAIN();
