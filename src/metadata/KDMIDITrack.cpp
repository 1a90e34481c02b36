#include "metadata/KDMIDITrack.h"

#include <algorithm>
#include <cstring>

namespace velvox {

namespace {

constexpr const char* kSharpKeys[] = {"C", "G", "D", "A", "E", "B", "F#", "C#", "G#", "D#", "A#"};
constexpr const char* kFlatKeys[] = {"C",  "F",  "Bb", "Eb",  "Ab", "Db",
                                     "Gb", "Cb", "Fb", "Bbb", "Ebb"};

// Variable-length quantities keep consuming bytes while the top bit is set,
// but their value saturates here: any length this large already points past
// every chunk we can be handed, and the arithmetic stays far from overflow.
constexpr uint64_t kQuantityLimit = uint64_t(1) << 32;

// Bounds-checked reads over the chunk; every read that would pass the end of
// the bytes fails, which ends the scan.
class Cursor {
public:
    explicit Cursor(std::span<const uint8_t> data) : data_(data) {}

    uint64_t offset = 0;

    bool peek(uint8_t& out) const {
        if (offset >= data_.size())
            return false;
        out = data_[offset];
        return true;
    }
    bool readByte(uint8_t& out) {
        if (!peek(out))
            return false;
        ++offset;
        return true;
    }
    bool readQuantity(uint64_t& value) {
        value = 0;
        uint8_t byte = 0;
        do {
            if (!readByte(byte))
                return false;
            value = std::min((value << 7) | (byte & 0x7F), kQuantityLimit);
        } while (byte & 0x80);
        return true;
    }
    bool available(uint64_t count) const {
        return offset <= data_.size() && data_.size() - offset >= count;
    }
    uint8_t at(uint64_t index) const { return data_[index]; }

private:
    std::span<const uint8_t> data_;
};

} // namespace

std::unique_ptr<KDMIDITrack> KDMIDITrack::trackWithData(std::span<const uint8_t> data) {
    auto track = std::make_unique<KDMIDITrack>();
    if (!track->initWithData(data))
        return nullptr;
    return track;
}

bool KDMIDITrack::initWithData(std::span<const uint8_t> data) {
    bpm_ = 0;
    key_.reset();
    if (data.size() < 4 || std::memcmp(data.data(), "MTrk", 4) != 0)
        return false;
    // A chunk cut off inside its length field has nothing to scan.
    if (data.size() < 8)
        return true;
    const uint32_t length = (uint32_t(data[4]) << 24) | (uint32_t(data[5]) << 16) |
                            (uint32_t(data[6]) << 8) | uint32_t(data[7]);
    if (length == 0)
        return true;
    // The scan covers the chunk, header included, and never more than the
    // bytes we were given.
    const size_t end = size_t(std::min<uint64_t>(uint64_t(length) + 8, data.size()));

    // The scan starts at the chunk header itself. Under the initial running
    // status of 0 the header bytes parse as harmless events (as long as no
    // byte of the length has its top bit set), and the events after them
    // are then read in step. This is the established reading of such chunks
    // (tempo and key tags taken from them must not change), so the header
    // is deliberately not skipped.
    Cursor cursor(data.first(end));
    uint8_t status = 0;
    while (cursor.offset < end) {
        uint64_t deltaTime = 0;
        if (!cursor.readQuantity(deltaTime))
            break;

        uint8_t next = 0;
        if (!cursor.peek(next))
            break;
        if (next & 0x80) {
            status = next;
            ++cursor.offset;
        }

        if (status == 0xF0) {
            uint64_t skip = 0;
            if (!cursor.readQuantity(skip))
                break;
            cursor.offset += skip;
        } else if (status < 0xFF) {
            switch (status >> 4) {
            case 0x8:
            case 0x9:
            case 0xA:
            case 0xB:
            case 0xE:
                cursor.offset += 2;
                break;
            case 0xC:
            case 0xD:
                cursor.offset += 1;
                break;
            default:
                break;
            }
        } else {
            uint8_t type = 0;
            uint64_t eventLength = 0;
            if (!cursor.readByte(type) || !cursor.readQuantity(eventLength))
                break;
            const uint64_t start = cursor.offset;
            if (type == 0x51) {
                if (!cursor.available(3))
                    break;
                const uint32_t microsecondsPerBeat = (uint32_t(cursor.at(start)) << 16) |
                                                     (uint32_t(cursor.at(start + 1)) << 8) |
                                                     uint32_t(cursor.at(start + 2));
                if (microsecondsPerBeat != 0)
                    bpm_ = 60000000u / microsecondsPerBeat;
            } else if (type == 0x59) {
                if (!cursor.available(2))
                    break;
                // Read as sign and magnitude: the top bit picks the flat
                // table, so the usual two's-complement flat counts
                // (0xF9-0xFF) fall outside both tables and give no key.
                const uint8_t keyByte = cursor.at(start);
                const uint8_t mode = cursor.at(start + 1);
                const uint8_t index = keyByte & 0x7F;
                if (index <= 10) {
                    const char* name = (keyByte & 0x80) ? kFlatKeys[index] : kSharpKeys[index];
                    key_ = std::string(name) + (mode != 0 ? " Minor" : " Major");
                }
            }
            cursor.offset = start + eventLength;
        }
    }
    return true;
}

} // namespace velvox
