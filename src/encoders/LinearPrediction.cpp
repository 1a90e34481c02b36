#include "encoders/LinearPrediction.h"

#include <vector>

namespace velvox {

float vorbis_lpc_from_data(const float* data, float* lpci, int n, int m) {
    if (m <= 0)
        return 0.0f;
    for (int j = 0; j < m; ++j)
        lpci[j] = 0.0f;
    if (!data || n <= m)
        return 0.0f;

    // Autocorrelation in double: a second of full-scale audio sums to a
    // value that float would round away the small lags of.
    std::vector<double> aut(size_t(m) + 1, 0.0);
    for (int lag = 0; lag <= m; ++lag) {
        double sum = 0.0;
        for (int i = lag; i < n; ++i)
            sum += double(data[i]) * double(data[i - lag]);
        aut[size_t(lag)] = sum;
    }
    if (aut[0] <= 0.0)
        return 0.0f;

    // A tiny white-noise floor keeps the recursion well conditioned on
    // pure tones and digital silence with dither.
    double error = aut[0] * (1.0 + 1e-9);
    std::vector<double> lpc(size_t(m), 0.0);
    for (int i = 0; i < m; ++i) {
        double r = -aut[size_t(i) + 1];
        for (int j = 0; j < i; ++j)
            r -= lpc[size_t(j)] * aut[size_t(i - j)];
        r /= error;
        // Symmetric update of the earlier coefficients with the new
        // reflection coefficient.
        lpc[size_t(i)] = r;
        for (int j = 0; j < i / 2; ++j) {
            const double low = lpc[size_t(j)];
            const double high = lpc[size_t(i - 1 - j)];
            lpc[size_t(j)] = low + r * high;
            lpc[size_t(i - 1 - j)] = high + r * low;
        }
        if (i % 2 == 1)
            lpc[size_t(i / 2)] += lpc[size_t(i / 2)] * r;
        error *= 1.0 - r * r;
        if (error <= 0.0)
            break;
    }

    // Bandwidth expansion: pulls the poles slightly inside the unit circle
    // so that a long prediction decays rather than growing.
    double g = 0.999;
    double damp = g;
    for (int j = 0; j < m; ++j) {
        lpci[j] = float(lpc[size_t(j)] * damp);
        damp *= g;
    }
    return float(error);
}

void vorbis_lpc_predict(const float* coeff, const float* prime, int m, float* data, long n) {
    if (n <= 0)
        return;
    // The history followed by the prediction, so each new sample reads the
    // m before it from one array.
    std::vector<float> work(size_t(m) + size_t(n), 0.0f);
    for (int i = 0; i < m; ++i)
        work[size_t(i)] = prime ? prime[i] : 0.0f;
    for (long i = 0; i < n; ++i) {
        double y = 0.0;
        const size_t at = size_t(m) + size_t(i);
        for (int j = 0; j < m; ++j)
            y -= double(coeff[j]) * double(work[at - 1 - size_t(j)]);
        work[at] = float(y);
        data[i] = float(y);
    }
}

} // namespace velvox
