#include "core/ChannelMixMap.h"

#include <algorithm>

namespace velvox {

namespace {

// ---------------------------------------------------------------------------
// Weights, and why.
//
// The down-mix weights are those of ITU-R BS.775 (Table 2): a speaker that the
// destination lacks is folded into its neighbours at -3 dB (1/sqrt 2), and the
// low-frequency channel is left out of every down-mix. Larger layouts (side
// plus rear surrounds, wides, heights) are first folded onto the nearest 5.1
// speaker at full weight, as 7.1 material is usually folded to 5.1, and from
// there by the BS.775 rules. Folds compose: a surround that must reach a mono
// destination goes surround -> front (-3 dB) -> centre (-3 dB), 0.5 in all,
// which is the BS.775 3/2 -> 1/0 surround coefficient.
// ---------------------------------------------------------------------------

constexpr double kMinus3dB = 0.70710678118654752440; // 1/sqrt(2)

// A speaker present on both sides keeps its signal unchanged.
constexpr double kSameSpeaker = 1.0;
// BS.775 3/x -> 2/x: the centre goes into left and right at -3 dB, so that a
// centre-panned voice keeps its power.
constexpr double kCentreIntoFrontPair = kMinus3dB;
// BS.775 3/2 -> 3/0 and -> 2/0: each surround goes into the front speaker on
// its side at -3 dB.
constexpr double kSurroundIntoFront = kMinus3dB;
// BS.775 2/0 -> 1/0: left and right go into the mono channel at -3 dB.
constexpr double kFrontIntoCentre = kMinus3dB;
// BS.775 3/1 -> 3/2: the single rear channel is spread over both surrounds
// at -3 dB (and, folded further, reaches each front speaker at 0.5).
constexpr double kCentreSurroundIntoSurroundPair = kMinus3dB;
// Extra speakers of 7.1-and-larger layouts (rear surrounds, left/right of
// centre, wides, direct surrounds, heights) feed the speaker nearest to them
// unchanged, the usual 7.1 -> 5.1 fold.
constexpr double kNeighbourIntoSpeaker = 1.0;
// A lone mono channel is put on left and right unchanged, so that mono to
// stereo is an exact copy (the mono channel is one speaker's signal; sending
// it to both halves of a pair is how it is meant to be heard).
constexpr double kMonoIntoFrontPair = 1.0;
// Two-channel sources are folded to one channel by the mixer with a master
// gain of 1/sqrt 2 applied after the weights; the weights of such a fold are
// divided by it so that the result is still the BS.775 2/0 -> 1/0 fold
// (0.7071 L + 0.7071 R), which makes the stereo weights exactly 1.0.
constexpr double kTwoChannelMasterGain = kMinus3dB;

// Published channel orders of the layout tags we know.
struct TagOrder {
    AudioChannelLayoutTag tag;
    std::vector<AudioChannelLabel> labels;
};

constexpr AudioChannelLabel L = kAudioChannelLabel_Left;
constexpr AudioChannelLabel R = kAudioChannelLabel_Right;
constexpr AudioChannelLabel C = kAudioChannelLabel_Center;
constexpr AudioChannelLabel LFE = kAudioChannelLabel_LFEScreen;
constexpr AudioChannelLabel Ls = kAudioChannelLabel_LeftSurround;
constexpr AudioChannelLabel Rs = kAudioChannelLabel_RightSurround;
constexpr AudioChannelLabel Lc = kAudioChannelLabel_LeftCenter;
constexpr AudioChannelLabel Rc = kAudioChannelLabel_RightCenter;
constexpr AudioChannelLabel Cs = kAudioChannelLabel_CenterSurround;
constexpr AudioChannelLabel Rls = kAudioChannelLabel_RearSurroundLeft;
constexpr AudioChannelLabel Rrs = kAudioChannelLabel_RearSurroundRight;

const TagOrder kTagOrders[] = {
    {kAudioChannelLayoutTag_Mono, {C}},
    {kAudioChannelLayoutTag_Stereo, {L, R}},
    {kAudioChannelLayoutTag_MPEG_3_0_A, {L, R, C}},
    {kAudioChannelLayoutTag_MPEG_3_0_B, {C, L, R}},
    {kAudioChannelLayoutTag_Quadraphonic, {L, R, Ls, Rs}},
    {kAudioChannelLayoutTag_MPEG_4_0_A, {L, R, C, Cs}},
    {kAudioChannelLayoutTag_MPEG_4_0_B, {C, L, R, Cs}},
    {kAudioChannelLayoutTag_MPEG_5_0_A, {L, R, C, Ls, Rs}},
    {kAudioChannelLayoutTag_MPEG_5_0_B, {L, R, Ls, Rs, C}},
    {kAudioChannelLayoutTag_MPEG_5_0_C, {L, C, R, Ls, Rs}},
    {kAudioChannelLayoutTag_MPEG_5_0_D, {C, L, R, Ls, Rs}},
    {kAudioChannelLayoutTag_MPEG_5_1_A, {L, R, C, LFE, Ls, Rs}},
    {kAudioChannelLayoutTag_MPEG_5_1_B, {L, R, Ls, Rs, C, LFE}},
    {kAudioChannelLayoutTag_MPEG_5_1_C, {L, C, R, Ls, Rs, LFE}},
    {kAudioChannelLayoutTag_MPEG_5_1_D, {C, L, R, Ls, Rs, LFE}},
    {kAudioChannelLayoutTag_MPEG_6_1_A, {L, R, C, LFE, Ls, Rs, Cs}},
    {kAudioChannelLayoutTag_MPEG_7_1_A, {L, R, C, LFE, Ls, Rs, Lc, Rc}},
    {kAudioChannelLayoutTag_MPEG_7_1_B, {C, Lc, Rc, L, R, Ls, Rs, LFE}},
    {kAudioChannelLayoutTag_MPEG_7_1_C, {L, R, C, LFE, Ls, Rs, Rls, Rrs}},
    {kAudioChannelLayoutTag_DVD_4, {L, R, LFE}},
    {kAudioChannelLayoutTag_DVD_5, {L, R, LFE, Cs}},
    {kAudioChannelLayoutTag_DVD_6, {L, R, LFE, Ls, Rs}},
    {kAudioChannelLayoutTag_DVD_10, {L, R, C, LFE}},
    {kAudioChannelLayoutTag_DVD_11, {L, R, C, LFE, Cs}},
    {kAudioChannelLayoutTag_DVD_18, {L, R, Ls, Rs, LFE}},
};

// Channel bitmap bit k names the speaker whose label is k + 1, for the
// eighteen speakers a bitmap can name (left up to top back right).
constexpr uint32_t kBitmapBitCount = 18;

// Speakers we can place: the eighteen bitmap speakers, the rear surrounds,
// the wides and the second low-frequency channel. Mono has been turned into
// Center before this is asked.
bool isPlaceable(AudioChannelLabel label) {
    if (label >= kAudioChannelLabel_Left && label <= kAudioChannelLabel_TopBackRight)
        return true;
    switch (label) {
    case kAudioChannelLabel_RearSurroundLeft:
    case kAudioChannelLabel_RearSurroundRight:
    case kAudioChannelLabel_LeftWide:
    case kAudioChannelLabel_RightWide:
    case kAudioChannelLabel_LFE2:
        return true;
    default:
        return false;
    }
}

// Builds one row of the map: where a source speaker's signal goes in the
// destination, following the folds above until it reaches speakers the
// destination has.
class RowBuilder {
public:
    RowBuilder(const std::vector<AudioChannelLabel>& destination, bool sourceIsMono)
        : destination_(destination), sourceIsMono_(sourceIsMono) {}

    // Adds `weight` times the speaker's signal into `row`; false when the
    // signal cannot reach any destination speaker.
    bool place(AudioChannelLabel label, double weight, std::vector<double>& row,
               int depth = 0) const {
        // Every fold moves a speaker closer to the front centre, so chains are
        // short; the limit only guards against a table mistake.
        if (depth > 8)
            return false;
        if (const auto j = indexOf(label)) {
            row[*j] += weight;
            return true;
        }
        auto to = [&](AudioChannelLabel next, double w) {
            return place(next, weight * w, row, depth + 1);
        };
        auto toPair = [&](AudioChannelLabel a, AudioChannelLabel b, double w) {
            return place(a, weight * w, row, depth + 1) && place(b, weight * w, row, depth + 1);
        };
        switch (label) {
        case kAudioChannelLabel_LFEScreen:
        case kAudioChannelLabel_LFE2:
            // The second low-frequency channel joins the first where there is
            // one; otherwise low frequencies are left out of a down-mix.
            if (label == kAudioChannelLabel_LFE2 && has(kAudioChannelLabel_LFEScreen))
                return to(kAudioChannelLabel_LFEScreen, kNeighbourIntoSpeaker);
            return true;
        case kAudioChannelLabel_Center:
            if (!has(L) || !has(R))
                return false;
            return toPair(L, R, sourceIsMono_ ? kMonoIntoFrontPair : kCentreIntoFrontPair);
        case kAudioChannelLabel_Left:
        case kAudioChannelLabel_Right:
            if (!has(C))
                return false;
            return to(C, kFrontIntoCentre);
        case kAudioChannelLabel_LeftSurround:
            if (has(Rls))
                return to(Rls, kNeighbourIntoSpeaker);
            return to(L, kSurroundIntoFront);
        case kAudioChannelLabel_RightSurround:
            if (has(Rrs))
                return to(Rrs, kNeighbourIntoSpeaker);
            return to(R, kSurroundIntoFront);
        case kAudioChannelLabel_RearSurroundLeft:
            if (has(Ls))
                return to(Ls, kNeighbourIntoSpeaker);
            return to(L, kSurroundIntoFront);
        case kAudioChannelLabel_RearSurroundRight:
            if (has(Rs))
                return to(Rs, kNeighbourIntoSpeaker);
            return to(R, kSurroundIntoFront);
        case kAudioChannelLabel_CenterSurround:
            if (!(has(Ls) && has(Rs)) && has(Rls) && has(Rrs))
                return toPair(Rls, Rrs, kCentreSurroundIntoSurroundPair);
            return toPair(Ls, Rs, kCentreSurroundIntoSurroundPair);
        case kAudioChannelLabel_LeftCenter:
        case kAudioChannelLabel_LeftWide:
        case kAudioChannelLabel_VerticalHeightLeft:
            return to(L, kNeighbourIntoSpeaker);
        case kAudioChannelLabel_RightCenter:
        case kAudioChannelLabel_RightWide:
        case kAudioChannelLabel_VerticalHeightRight:
            return to(R, kNeighbourIntoSpeaker);
        case kAudioChannelLabel_LeftSurroundDirect:
        case kAudioChannelLabel_TopBackLeft:
            return to(Ls, kNeighbourIntoSpeaker);
        case kAudioChannelLabel_RightSurroundDirect:
        case kAudioChannelLabel_TopBackRight:
            return to(Rs, kNeighbourIntoSpeaker);
        case kAudioChannelLabel_TopBackCenter:
            return to(Cs, kNeighbourIntoSpeaker);
        case kAudioChannelLabel_TopCenterSurround:
        case kAudioChannelLabel_VerticalHeightCenter:
            return to(C, kNeighbourIntoSpeaker);
        default:
            return false;
        }
    }

private:
    std::optional<size_t> indexOf(AudioChannelLabel label) const {
        const auto it = std::find(destination_.begin(), destination_.end(), label);
        if (it == destination_.end())
            return std::nullopt;
        return size_t(it - destination_.begin());
    }
    bool has(AudioChannelLabel label) const { return indexOf(label).has_value(); }

    const std::vector<AudioChannelLabel>& destination_;
    bool sourceIsMono_;
};

} // namespace

std::optional<std::vector<AudioChannelLabel>>
ChannelMixMap::channelLabels(const AudioChannelLayout& layout) {
    std::vector<AudioChannelLabel> labels;
    const AudioChannelLayoutTag tag = layout.mChannelLayoutTag;
    if (tag == kAudioChannelLayoutTag_UseChannelDescriptions) {
        const uint32_t count = layout.mNumberChannelDescriptions;
        if (count == 0 || count > layout.mChannelDescriptions.size())
            return std::nullopt;
        for (uint32_t i = 0; i < count; ++i)
            labels.push_back(layout.mChannelDescriptions[i].mChannelLabel);
    } else if (tag == kAudioChannelLayoutTag_UseChannelBitmap) {
        const AudioChannelBitmap bitmap = layout.mChannelBitmap;
        if (bitmap == 0 || (bitmap >> kBitmapBitCount) != 0)
            return std::nullopt;
        for (uint32_t bit = 0; bit < kBitmapBitCount; ++bit)
            if (bitmap & (1u << bit))
                labels.push_back(AudioChannelLabel(bit + 1));
    } else {
        const auto it = std::find_if(std::begin(kTagOrders), std::end(kTagOrders),
                                     [tag](const TagOrder& t) { return t.tag == tag; });
        if (it == std::end(kTagOrders))
            return std::nullopt; // includes kAudioChannelLayoutTag_Unknown
        labels.assign(it->labels.begin(), it->labels.end());
    }

    for (auto& label : labels) {
        if (label == kAudioChannelLabel_Mono)
            label = kAudioChannelLabel_Center;
        if (!isPlaceable(label))
            return std::nullopt;
    }
    // A speaker named twice leaves it open which channel carries it.
    std::vector<AudioChannelLabel> sorted = labels;
    std::sort(sorted.begin(), sorted.end());
    if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end())
        return std::nullopt;
    return labels;
}

std::optional<std::vector<float>> ChannelMixMap::mixMap(const AudioChannelLayout& source,
                                                        const AudioChannelLayout& destination) {
    const auto sourceLabels = channelLabels(source);
    const auto destinationLabels = channelLabels(destination);
    if (!sourceLabels || !destinationLabels)
        return std::nullopt;
    return mixMap(*sourceLabels, *destinationLabels);
}

std::optional<std::vector<float>>
ChannelMixMap::mixMap(const std::vector<AudioChannelLabel>& source,
                      const std::vector<AudioChannelLabel>& destination) {
    if (source.empty() || destination.empty())
        return std::nullopt;
    const size_t sourceCount = source.size();
    const size_t destinationCount = destination.size();

    const bool sourceIsMono = sourceCount == 1 && source[0] == kAudioChannelLabel_Center;
    const RowBuilder builder(destination, sourceIsMono);
    std::vector<double> weights(sourceCount * destinationCount, 0.0);
    std::vector<double> row(destinationCount);
    for (size_t i = 0; i < sourceCount; ++i) {
        std::fill(row.begin(), row.end(), 0.0);
        if (!builder.place(source[i], kSameSpeaker, row))
            return std::nullopt;
        std::copy(row.begin(), row.end(), weights.begin() + long(i * destinationCount));
    }

    if (destinationCount == 1 && sourceCount > 1) {
        // Folding to a single channel. Two channels: the mixer's master gain
        // does the -3 dB, see kTwoChannelMasterGain. More channels: the BS.775
        // mono fold adds up to 3.4 (+10.7 dB) for a signal that is the same in
        // every channel (0.7071 L + 0.7071 R + C + 0.5 Ls + 0.5 Rs), which is
        // common in mono-compatible mixes and would clip hard. We scale the
        // fold so its weights add up to 1: the BS.775 balance between the
        // speakers is kept, and a full-scale signal in every channel comes
        // out at exactly full scale.
        double sum = 0.0;
        for (double w : weights)
            sum += w;
        if (sourceCount == 2) {
            for (double& w : weights)
                w /= kTwoChannelMasterGain;
        } else if (sum > 1.0) {
            for (double& w : weights)
                w /= sum;
        }
    }

    std::vector<float> result(weights.size());
    std::transform(weights.begin(), weights.end(), result.begin(),
                   [](double w) { return float(w); });
    return result;
}

} // namespace velvox
