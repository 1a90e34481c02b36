#pragma once
// A small Standard MIDI File reader that only looks for tempo and key: it
// reads the "MThd" header and hands each track chunk to KDMIDITrack. Used for
// MIDI data stored inside audio files; the bytes are untrusted, so a length
// that points past the data ends the scan with what was found so far.

#include <cstdint>
#include <memory>
#include <span>
#include <vector>

#include "metadata/KDMIDITrack.h"

namespace velvox {

class KDMIDIParser {
public:
    KDMIDIParser() = default;

    // The parser, or null when the data is shorter than 6 bytes or does not
    // begin with "MThd".
    static std::unique_ptr<KDMIDIParser> parserWithData(std::span<const uint8_t> data);

    bool initWithData(std::span<const uint8_t> data);

    uint32_t headerChunkSize() const { return headerChunkSize_; }
    uint32_t format() const { return format_; }
    uint32_t trackCount() const { return trackCount_; }
    // 1 for frame-based (SMPTE) timing, 0 for metrical timing.
    int32_t timeFormat() const { return timeFormat_; }
    uint16_t ticksPerBeat() const { return ticksPerBeat_; }
    uint16_t framesPerSecond() const { return framesPerSecond_; }
    uint16_t ticksPerFrame() const { return ticksPerFrame_; }
    // The track chunks that parsed, in file order.
    const std::vector<KDMIDITrack>& tracks() const { return tracks_; }

private:
    uint32_t headerChunkSize_ = 0;
    uint32_t format_ = 0;
    uint32_t trackCount_ = 0;
    int32_t timeFormat_ = 0;
    uint16_t ticksPerBeat_ = 0;
    uint16_t framesPerSecond_ = 0;
    uint16_t ticksPerFrame_ = 0;
    std::vector<KDMIDITrack> tracks_;
};

} // namespace velvox
