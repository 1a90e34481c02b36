#include "encoders/APEPredictor.h"

namespace velvox {

namespace {

// Arithmetic wraps at 32 bits, as in every decoder of the format.
inline int32_t wrapAdd(int32_t a, int32_t b) { return int32_t(uint32_t(a) + uint32_t(b)); }
inline int32_t wrapSub(int32_t a, int32_t b) { return int32_t(uint32_t(a) - uint32_t(b)); }
inline int32_t wrapMul(int32_t a, int32_t b) { return int32_t(uint32_t(a) * uint32_t(b)); }

inline int32_t signOf(int32_t v) { return (v > 0) - (v < 0); }

// The first-order filter: a sample less 31/32 of the one before it.
inline int32_t firstOrder(int32_t sample, int32_t previous) {
    return wrapSub(sample, wrapMul(previous, 31) >> 5);
}

} // namespace

APEPredictor::APEPredictor(int level) {
    setUpFilters(x_, level);
    setUpFilters(y_, level);
    reset();
}

void APEPredictor::setUpFilters(Channel& channel, int level) {
    // Orders and shifts per level, in the order the compressor runs them
    // (the decoders undo them from the last).
    struct Stage {
        uint32_t order, shift;
    };
    std::vector<Stage> stages;
    switch (level) {
    case 2000:
        stages = {{16, 11}};
        break;
    case 3000:
        stages = {{64, 11}};
        break;
    case 4000:
        stages = {{256, 13}, {32, 10}};
        break;
    case 5000:
        stages = {{1280, 15}, {256, 13}, {16, 11}};
        break;
    default:
        break;
    }
    for (const Stage& s : stages)
        channel.filters.push_back(std::make_unique<APENNFilter>(s.order, s.shift));
}

void APEPredictor::reset() {
    for (Channel* c : {&x_, &y_}) {
        c->lastA = c->filtered = c->otherLast = 0;
        c->historyA = {};
        c->historyB = {};
        c->weightsA = {360, 317, -109, 98};
        c->weightsB = {};
        for (auto& filter : c->filters)
            filter->reset();
    }
}

int32_t APEPredictor::predict(Channel& c, int32_t sample, const int32_t* other) {
    auto& a = c.historyA;
    a[3] = a[2];
    a[2] = a[1];
    a[1] = wrapSub(c.lastA, a[0]);
    a[0] = c.lastA;
    int32_t prediction = 0;
    for (int k = 0; k < 4; ++k)
        prediction = wrapAdd(prediction, wrapMul(a[k], c.weightsA[k]));

    if (other) {
        auto& b = c.historyB;
        const int32_t filteredOther = firstOrder(*other, c.otherLast);
        c.otherLast = *other;
        b[4] = b[3];
        b[3] = b[2];
        b[2] = b[1];
        b[1] = wrapSub(filteredOther, b[0]);
        b[0] = filteredOther;
        int32_t predictionB = 0;
        for (int k = 0; k < 5; ++k)
            predictionB = wrapAdd(predictionB, wrapMul(b[k], c.weightsB[k]));
        prediction = wrapAdd(prediction, predictionB >> 1);
    }

    const int32_t lastA = firstOrder(sample, c.filtered);
    const int32_t residual = wrapSub(lastA, prediction >> 10);
    c.lastA = lastA;
    c.filtered = sample;

    // Sign-sign adaption of the weights.
    const int32_t direction = signOf(residual);
    if (direction != 0) {
        for (int k = 0; k < 4; ++k)
            c.weightsA[k] += signOf(a[k]) * direction;
        if (other)
            for (int k = 0; k < 5; ++k)
                c.weightsB[k] += signOf(c.historyB[k]) * direction;
    }

    int32_t out = residual;
    for (auto& filter : c.filters)
        out = filter->compress(out);
    return out;
}

int32_t APEPredictor::compressMono(int32_t sample) { return predict(y_, sample, nullptr); }

void APEPredictor::compressStereo(int32_t x, int32_t y, int32_t& residualX, int32_t& residualY) {
    // The difference channel looks at the mid channel's previous sample,
    // the mid channel at the difference channel's current one.
    const int32_t previousX = x_.filtered;
    residualY = predict(y_, y, &previousX);
    residualX = predict(x_, x, &y);
}

} // namespace velvox
