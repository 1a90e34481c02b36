#pragma once
// One track chunk of a Standard MIDI File, scanned only for its tempo and key
// signature; note data is skipped. When a track holds several tempo or key
// events, the last one wins.

#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace velvox {

class KDMIDITrack {
public:
    KDMIDITrack() = default;

    // The track for the bytes of one chunk (its 8-byte header included), or
    // null when they do not begin with "MTrk".
    static std::unique_ptr<KDMIDITrack> trackWithData(std::span<const uint8_t> data);

    bool initWithData(std::span<const uint8_t> data);

    // Beats per minute of the last tempo event; 0 when there was none.
    uint32_t bpm() const { return bpm_; }
    // "D Major", "Bb Minor"...; absent when no usable key signature was seen.
    const std::optional<std::string>& key() const { return key_; }

private:
    uint32_t bpm_ = 0;
    std::optional<std::string> key_;
};

} // namespace velvox
