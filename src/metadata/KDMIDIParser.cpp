#include "metadata/KDMIDIParser.h"

#include <algorithm>
#include <cstring>

namespace velvox {

namespace {

constexpr size_t kHeaderSize = 14;
constexpr size_t kChunkHeaderSize = 8;

uint16_t bigEndian16(std::span<const uint8_t> data, size_t at) {
    return uint16_t((uint16_t(data[at]) << 8) | data[at + 1]);
}

uint32_t bigEndian32(std::span<const uint8_t> data, size_t at) {
    return (uint32_t(data[at]) << 24) | (uint32_t(data[at + 1]) << 16) |
           (uint32_t(data[at + 2]) << 8) | uint32_t(data[at + 3]);
}

} // namespace

std::unique_ptr<KDMIDIParser> KDMIDIParser::parserWithData(std::span<const uint8_t> data) {
    auto parser = std::make_unique<KDMIDIParser>();
    if (!parser->initWithData(data))
        return nullptr;
    return parser;
}

bool KDMIDIParser::initWithData(std::span<const uint8_t> data) {
    *this = KDMIDIParser();
    if (data.size() < 6 || std::memcmp(data.data(), "MThd", 4) != 0)
        return false;

    // A header cut short keeps the fields it does hold; the rest stay 0 and
    // there are no tracks to read.
    if (data.size() >= 8)
        headerChunkSize_ = bigEndian32(data, 4);
    if (data.size() >= 10)
        format_ = bigEndian16(data, 8);
    if (data.size() >= 12)
        trackCount_ = bigEndian16(data, 10);
    if (data.size() < kHeaderSize)
        return true;

    const uint16_t division = bigEndian16(data, 12);
    if (division & 0x8000) {
        timeFormat_ = 1;
        framesPerSecond_ = (division >> 8) & 0x7F;
        ticksPerFrame_ = division & 0xFF;
    } else {
        ticksPerBeat_ = division;
    }

    // The header is taken to be 14 bytes whatever its length field says.
    // Chunk identifiers are left to the track's own check, so a foreign
    // chunk simply yields no track.
    uint64_t offset = kHeaderSize;
    for (uint32_t i = 0; i < trackCount_; ++i) {
        if (data.size() - offset < kChunkHeaderSize)
            break;
        const uint64_t end = offset + kChunkHeaderSize + bigEndian32(data, size_t(offset) + 4);
        // A chunk that claims more than is there gets what is there, and
        // nothing after it can be found.
        const uint64_t available = std::min<uint64_t>(end, data.size());
        KDMIDITrack track;
        if (track.initWithData(data.subspan(size_t(offset), size_t(available - offset))))
            tracks_.push_back(std::move(track));
        if (end > data.size())
            break;
        offset = end;
    }
    return true;
}

} // namespace velvox
