#pragma once
// The prediction stage of one Monkey's Audio channel (or the pair of a
// stereo frame): a fixed first-order filter, then an adaptive predictor from
// the channel's own past and, in stereo, from the other channel, then the
// level's chain of NN filters over what is left.
//
// State starts over at every frame, so each frame decodes on its own.

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "encoders/APENNFilter.h"

namespace velvox {

class APEPredictor {
public:
    // `level` is 1000 to 5000; it picks the NN filters.
    explicit APEPredictor(int level);

    void reset();
    // A mono sample to its residual.
    int32_t compressMono(int32_t sample);
    // One stereo block: the difference channel `y`, then the mid channel
    // `x`, each to its residual.
    void compressStereo(int32_t x, int32_t y, int32_t& residualX, int32_t& residualY);

private:
    struct Channel {
        int32_t lastA = 0;     // first-order residual of the previous sample
        int32_t filtered = 0;  // the previous sample itself
        int32_t otherLast = 0; // the other channel's previous sample
        std::array<int32_t, 4> historyA{};
        std::array<int32_t, 5> historyB{};
        std::array<int32_t, 4> weightsA{};
        std::array<int32_t, 5> weightsB{};
        std::vector<std::unique_ptr<APENNFilter>> filters;
    };

    int32_t predict(Channel& channel, int32_t sample, const int32_t* other);
    static void setUpFilters(Channel& channel, int level);

    Channel x_;
    Channel y_;
};

} // namespace velvox
