#pragma once
// Velvox's table of channel-mixing weights from one channel layout to
// another, the numbers the channel mixer puts on its crosspoints.
//
// Every layout is first reduced to the list of speaker labels of its
// channels, in channel order: a layout tag by the published order of that
// tag, a list of channel descriptions by their labels, a channel bitmap by its
// set bits from the lowest up. The weights are then chosen by label, so two
// layouts that name the same speakers in another order give a permutation and
// any pair of layouts the decoders produce gives a down-mix or up-mix.
//
// The map has one row per source channel and one column per destination
// channel: weights[i * destinationCount + j] is the weight of source channel i
// in destination channel j.

#include <cstdint>
#include <optional>
#include <vector>

#include "platform/CoreAudioTypes.h"

namespace velvox {

class ChannelMixMap {
public:
    // The speaker labels of a layout in channel order, or nothing when the
    // layout does not say which speaker each channel feeds (the Unknown tag,
    // a tag not in our table, an empty or inconsistent description list, a
    // bitmap with bits we cannot name, or the same speaker named twice). The
    // label Mono is reported as Center: a single front speaker either way.
    static std::optional<std::vector<AudioChannelLabel>>
    channelLabels(const AudioChannelLayout& layout);

    // The weights from source to destination (rows by source channel), or
    // nothing when either layout has no labels or a source speaker other than
    // the low-frequency channel has nowhere to go in the destination.
    static std::optional<std::vector<float>> mixMap(const AudioChannelLayout& source,
                                                    const AudioChannelLayout& destination);
    static std::optional<std::vector<float>>
    mixMap(const std::vector<AudioChannelLabel>& source,
           const std::vector<AudioChannelLabel>& destination);
};

} // namespace velvox
