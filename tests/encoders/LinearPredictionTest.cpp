// The prediction that continues a signal past its end (used by the Opus
// encoder's last frames): it must carry on what it has heard and never blow up.

#include <cmath>
#include <cstdio>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "encoders/LinearPrediction.h"

using namespace velvox;

TEST(LinearPredictionTest, ContinuesTonesAndStaysBoundedOnNoiseAndSilence) {
    constexpr int kOrder = 32;
    constexpr int kHistory = 1024;
    constexpr int kAhead = 480;
    auto tone = [](int i) {
        return float(0.6 * std::sin(0.031 * i) + 0.3 * std::sin(0.17 * i + 1.0));
    };
    std::vector<float> history(kHistory);
    for (int i = 0; i < kHistory; ++i)
        history[size_t(i)] = tone(i);
    std::vector<float> lpc(kOrder), ahead(kAhead);
    vorbis_lpc_from_data(history.data(), lpc.data(), kHistory, kOrder);
    vorbis_lpc_predict(lpc.data(), history.data() + kHistory - kOrder, kOrder, ahead.data(),
                       kAhead);
    // The first 2.5 ms (at 48 kHz) follow the tones far better than
    // silence would (0 dB); the damping makes the rest fade, not drift.
    double error = 0, energy = 0;
    for (int i = 0; i < 120; ++i) {
        const double truth = tone(kHistory + i);
        error += (ahead[size_t(i)] - truth) * (ahead[size_t(i)] - truth);
        energy += truth * truth;
    }
    const double snr = 10 * std::log10(energy / error);
    std::printf("[ lpc ] continuation SNR over 120 samples: %.1f dB\n", snr);
    EXPECT_GT(snr, 8.0);
    EXPECT_NEAR(ahead[0], tone(kHistory), 0.02) << "the continuation starts with a step";

    std::mt19937 rng(7);
    std::uniform_real_distribution<float> uniform(-1.0f, 1.0f);
    for (float& s : history)
        s = uniform(rng);
    vorbis_lpc_from_data(history.data(), lpc.data(), kHistory, kOrder);
    vorbis_lpc_predict(lpc.data(), history.data() + kHistory - kOrder, kOrder, ahead.data(),
                       kAhead);
    for (float s : ahead)
        EXPECT_LE(std::fabs(s), 1.5f);

    std::fill(history.begin(), history.end(), 0.0f);
    EXPECT_EQ(vorbis_lpc_from_data(history.data(), lpc.data(), kHistory, kOrder), 0.0f);
    vorbis_lpc_predict(lpc.data(), history.data() + kHistory - kOrder, kOrder, ahead.data(),
                       kAhead);
    for (float s : ahead)
        EXPECT_EQ(s, 0.0f);
}
