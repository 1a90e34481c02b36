#include "encoders/SincResampler.h"

#include <algorithm>
#include <cmath>
#include <numeric>

#if defined(__SSE__)
#include <xmmintrin.h>
#endif

namespace velvox {

namespace {

// Quality 5 of the Speex resampler: taps when raising the rate, and the pass
// band as a fraction of the lower Nyquist frequency when raising or lowering.
constexpr uint32_t kBaseLength = 80;
constexpr double kUpsampleBandwidth = 0.940;
constexpr double kDownsampleBandwidth = 0.922;
// A Kaiser window of this shape parameter keeps the side lobes near -100 dB.
constexpr double kKaiserBeta = 10.0;
constexpr double kPi = 3.14159265358979323846;

// The modified Bessel function of the first kind, order 0, by its series.
double besselI0(double x) {
    double sum = 1.0;
    double term = 1.0;
    const double quarterSquare = x * x / 4.0;
    for (int k = 1; k < 64 && term > sum * 1e-17; ++k) {
        term *= quarterSquare / (double(k) * double(k));
        sum += term;
    }
    return sum;
}

// The low-pass filter's tap at x input samples from its centre.
double windowedSinc(double cutoff, double x, uint32_t length) {
    const double half = double(length) / 2.0;
    if (std::fabs(x) < 1e-6)
        return cutoff;
    if (std::fabs(x) > half)
        return 0.0;
    const double t = x / half;
    const double window = besselI0(kKaiserBeta * std::sqrt(1.0 - t * t)) / besselI0(kKaiserBeta);
    const double arg = kPi * x * cutoff;
    return cutoff * std::sin(arg) / arg * window;
}

} // namespace

std::unique_ptr<SincResampler> SincResampler::create(uint32_t channels, uint32_t inRate,
                                                     uint32_t outRate) {
    if (channels == 0 || inRate == 0 || outRate == 0)
        return nullptr;
    const uint32_t divisor = std::gcd(inRate, outRate);
    const uint32_t num = inRate / divisor;
    const uint32_t den = outRate / divisor;
    if (den > kMaxPhases)
        return nullptr;
    uint32_t length = kBaseLength;
    double cutoff = kUpsampleBandwidth;
    if (num > den) {
        // Lowering the rate: the pass band shrinks with the ratio and the
        // filter grows to keep its steepness, rounded up to whole groups of 8.
        cutoff = kDownsampleBandwidth * double(den) / double(num);
        length = uint32_t(uint64_t(length) * num / den);
        length = ((length - 1) & ~7u) + 8;
    }
    return std::unique_ptr<SincResampler>(new SincResampler(channels, num, den, length, cutoff));
}

SincResampler::SincResampler(uint32_t channels, uint32_t num, uint32_t den, uint32_t filterLength,
                             double cutoff)
    : channels_(channels), num_(num), den_(den), filterLength_(filterLength),
      history_(channels, std::vector<float>(filterLength - 1, 0.0f)) {
    buildTable(cutoff);
}

void SincResampler::buildTable(double cutoff) {
    table_.resize(size_t(den_) * filterLength_);
    const double centre = double(filterLength_ / 2) - 1.0;
    for (uint32_t phase = 0; phase < den_; ++phase)
        for (uint32_t j = 0; j < filterLength_; ++j)
            table_[size_t(phase) * filterLength_ + j] = float(windowedSinc(
                cutoff, double(j) - centre - double(phase) / double(den_), filterLength_));
}

uint32_t SincResampler::outputLatency() const {
    return uint32_t((uint64_t(filterLength_ / 2) * den_ + (num_ >> 1)) / num_);
}

float SincResampler::dot(const float* taps, const float* samples) const {
#if defined(__SSE__)
    // The filter length is a multiple of 8: two independent sums of four.
    __m128 a = _mm_setzero_ps();
    __m128 b = _mm_setzero_ps();
    for (uint32_t j = 0; j < filterLength_; j += 8) {
        a = _mm_add_ps(a, _mm_mul_ps(_mm_loadu_ps(taps + j), _mm_loadu_ps(samples + j)));
        b = _mm_add_ps(b, _mm_mul_ps(_mm_loadu_ps(taps + j + 4), _mm_loadu_ps(samples + j + 4)));
    }
    a = _mm_add_ps(a, b);
    a = _mm_add_ps(a, _mm_movehl_ps(a, a));
    a = _mm_add_ss(a, _mm_shuffle_ps(a, a, 0x55));
    return _mm_cvtss_f32(a);
#else
    float sum = 0.0f;
    for (uint32_t j = 0; j < filterLength_; ++j)
        sum += taps[j] * samples[j];
    return sum;
#endif
}

void SincResampler::dotPair(const float* taps, const float* left, const float* right,
                            float* out) const {
#if defined(__SSE__)
    // Each tap is loaded once for both channels.
    __m128 l = _mm_setzero_ps();
    __m128 r = _mm_setzero_ps();
    for (uint32_t j = 0; j < filterLength_; j += 4) {
        const __m128 t = _mm_loadu_ps(taps + j);
        l = _mm_add_ps(l, _mm_mul_ps(t, _mm_loadu_ps(left + j)));
        r = _mm_add_ps(r, _mm_mul_ps(t, _mm_loadu_ps(right + j)));
    }
    // Horizontal sums of both at once: (l0+l1, l2+l3, r0+r1, r2+r3) pairs.
    const __m128 lo = _mm_unpacklo_ps(l, r); // l0 r0 l1 r1
    const __m128 hi = _mm_unpackhi_ps(l, r); // l2 r2 l3 r3
    const __m128 sum = _mm_add_ps(lo, hi);   // l0+l2 r0+r2 l1+l3 r1+r3
    const __m128 both = _mm_add_ps(sum, _mm_movehl_ps(sum, sum));
    out[0] = _mm_cvtss_f32(both);
    out[1] = _mm_cvtss_f32(_mm_shuffle_ps(both, both, 0x55));
#else
    out[0] = dot(taps, left);
    out[1] = dot(taps, right);
#endif
}

size_t SincResampler::process(const float* in, size_t inFrames, std::vector<float>& out,
                              size_t outFrames) {
    // One contiguous run per channel keeps the filter's inner loop a plain
    // dot product.
    for (uint32_t c = 0; c < channels_; ++c) {
        std::vector<float>& history = history_[c];
        const size_t start = history.size();
        history.resize(start + inFrames);
        for (size_t f = 0; f < inFrames; ++f)
            history[start + f] = in[f * channels_ + c];
    }
    const size_t available = history_[0].size();
    if (available < filterLength_ || position_ > available - filterLength_)
        return outFrames;
    // Outputs are due while the filter still lies wholly inside the input.
    const size_t span = available - filterLength_ - position_ + 1;
    const size_t most = span * den_ / num_ + 2;
    if (out.size() < (outFrames + most) * channels_)
        out.resize((outFrames + most) * channels_);

    const uint32_t wholeStep = num_ / den_;
    const uint32_t fractionStep = num_ % den_;
    float* dst = out.data() + outFrames * channels_;
    while (position_ + filterLength_ <= available) {
        const float* taps = table_.data() + size_t(phase_) * filterLength_;
        if (channels_ == 2) {
            dotPair(taps, history_[0].data() + position_, history_[1].data() + position_, dst);
            dst += 2;
        } else {
            for (uint32_t c = 0; c < channels_; ++c)
                *dst++ = dot(taps, history_[c].data() + position_);
        }
        ++outFrames;
        position_ += wholeStep;
        phase_ += fractionStep;
        if (phase_ >= den_) {
            phase_ -= den_;
            ++position_;
        }
    }
    // What the filter has passed is of no more use.
    const size_t passed = std::min(position_, available);
    for (std::vector<float>& history : history_)
        history.erase(history.begin(), history.begin() + long(passed));
    position_ -= passed;
    return outFrames;
}

} // namespace velvox
