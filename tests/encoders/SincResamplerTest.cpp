// The Opus encoder's exact-phase resampler against libspeexdsp's resampler at
// the same quality: the same filter, so the same output to within the
// library's interpolation of the filter, sample for sample and with the same
// delay (which the Opus pre-skip is computed from).

#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include <gtest/gtest.h>
#include <speex/speex_resampler.h>

#include "encoders/SincResampler.h"

using namespace velvox;

namespace {

// Tones across the pass band with a little noise, different per channel.
std::vector<float> signal(size_t frames, uint32_t channels, uint32_t rate) {
    std::vector<float> pcm(frames * channels);
    std::mt19937 noise(7);
    std::uniform_real_distribution<float> small(-0.01f, 0.01f);
    for (size_t f = 0; f < frames; ++f)
        for (uint32_t c = 0; c < channels; ++c) {
            const double t = double(f) / rate;
            pcm[f * channels + c] = float(0.4 * std::sin(2 * M_PI * (220.0 * (c + 1)) * t) +
                                          0.2 * std::sin(2 * M_PI * (rate * 0.21 + 50 * c) * t)) +
                                    small(noise);
        }
    return pcm;
}

// Feeds the input in uneven pieces, as the encode loop's chunks arrive.
std::vector<float> ours(const std::vector<float>& in, uint32_t channels, uint32_t from, uint32_t to,
                        size_t* latency = nullptr) {
    auto resampler = SincResampler::create(channels, from, to);
    EXPECT_NE(resampler, nullptr);
    if (!resampler)
        return {};
    if (latency)
        *latency = resampler->outputLatency();
    std::vector<float> out;
    size_t produced = 0;
    const size_t frames = in.size() / channels;
    std::mt19937 sizes(3);
    for (size_t done = 0; done < frames;) {
        const size_t take = std::min<size_t>(frames - done, 1 + sizes() % 5000);
        produced = resampler->process(in.data() + done * channels, take, out, produced);
        done += take;
    }
    out.resize(produced * channels);
    return out;
}

std::vector<float> speex(const std::vector<float>& in, uint32_t channels, uint32_t from,
                         uint32_t to, size_t* latency) {
    int error = 0;
    SpeexResamplerState* st = speex_resampler_init(channels, from, to, 5, &error);
    *latency = speex_resampler_get_output_latency(st);
    std::vector<float> out(in.size() * to / from + 64 * channels);
    spx_uint32_t inLength = spx_uint32_t(in.size() / channels);
    spx_uint32_t outLength = spx_uint32_t(out.size() / channels);
    speex_resampler_process_interleaved_float(st, in.data(), &inLength, out.data(), &outLength);
    speex_resampler_destroy(st);
    out.resize(size_t(outLength) * channels);
    return out;
}

} // namespace

TEST(SincResamplerTest, MatchesTheSpeexResamplerUpAndDown) {
    struct Case {
        uint32_t from, to, channels;
    };
    for (const Case c : {Case{44100, 48000, 2}, Case{22050, 24000, 1}, Case{96000, 48000, 2},
                         Case{11025, 12000, 3}}) {
        SCOPED_TRACE(std::to_string(c.from) + " -> " + std::to_string(c.to));
        const std::vector<float> in = signal(c.from * 2, c.channels, c.from);
        size_t ourLatency = 0, theirLatency = 0;
        const std::vector<float> a = ours(in, c.channels, c.from, c.to, &ourLatency);
        const std::vector<float> b = speex(in, c.channels, c.from, c.to, &theirLatency);
        EXPECT_EQ(ourLatency, theirLatency);
        // Both stop where the filter runs out of input; they may differ by a
        // frame in where exactly.
        ASSERT_NEAR(double(a.size() / c.channels), double(b.size() / c.channels), 1.0);
        const size_t n = std::min(a.size(), b.size());
        double energy = 0, error = 0;
        for (size_t i = 0; i < n; ++i) {
            energy += double(b[i]) * b[i];
            error += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
        }
        const double snr = 10 * std::log10(energy / error);
        std::printf("[ resampler ] %u -> %u Hz: %.1f dB from libspeexdsp's output\n", c.from, c.to,
                    snr);
        // A frame of offset or a wrong phase would be near 0 dB; the two
        // windows and the library's filter interpolation differ far below
        // the 16-bit noise floor.
        EXPECT_GT(snr, 95.0);
    }
}

TEST(SincResamplerTest, ChunkingDoesNotChangeTheOutputAndHugeRatiosAreLeftToTheLibrary) {
    const std::vector<float> in = signal(30000, 2, 44100);
    auto whole = SincResampler::create(2, 44100, 48000);
    std::vector<float> once;
    once.resize(whole->process(in.data(), in.size() / 2, once, 0) * 2);
    std::vector<float> pieces = ours(in, 2, 44100, 48000);
    EXPECT_EQ(once, pieces);
    // 44,056 Hz to 48 kHz has 6,000 phases: libspeexdsp's interpolation is
    // the better deal there.
    EXPECT_EQ(SincResampler::create(2, 44056, 48000), nullptr);
}
