#include "decoders/OpusHeader.h"

#include <cstring>

namespace velvox {

namespace {

class Reader {
public:
    explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}
    bool byte(int& value) {
        if (pos_ + 1 > bytes_.size())
            return false;
        value = bytes_[pos_++];
        return true;
    }
    bool le16(uint32_t& value) {
        if (pos_ + 2 > bytes_.size())
            return false;
        value = uint32_t(bytes_[pos_]) | uint32_t(bytes_[pos_ + 1]) << 8;
        pos_ += 2;
        return true;
    }
    bool le32(uint32_t& value) {
        uint32_t low = 0, high = 0;
        if (!le16(low) || !le16(high))
            return false;
        value = low | high << 16;
        return true;
    }

private:
    std::span<const uint8_t> bytes_;
    size_t pos_ = 8; // after the magic, checked by the caller
};

bool parseMappingTable(Reader& in, OpusHeader& h) {
    if (!in.byte(h.nb_streams) || h.nb_streams < 1)
        return false;
    if (!in.byte(h.nb_coupled) || h.nb_coupled > h.nb_streams)
        return false;
    // Each coupled stream decodes to two channels, each other stream to one.
    if (h.nb_streams + h.nb_coupled > 255)
        return false;
    for (int i = 0; i < h.channels; ++i) {
        int index = 0;
        if (!in.byte(index))
            return false;
        if (index != 255 && index >= h.nb_streams + h.nb_coupled)
            return false;
        h.stream_map[size_t(i)] = uint8_t(index);
    }
    return true;
}

} // namespace

bool opus_header_parse(std::span<const uint8_t> packet, OpusHeader& header) {
    if (packet.size() < 19 || std::memcmp(packet.data(), "OpusHead", 8) != 0)
        return false;
    OpusHeader h;
    Reader in(packet);
    uint32_t preskip = 0, rate = 0, gain = 0;
    if (!in.byte(h.version) || !in.byte(h.channels) || !in.le16(preskip) || !in.le32(rate) ||
        !in.le16(gain) || !in.byte(h.channel_mapping))
        return false;
    // Only the minor part of the version may grow without breaking the layout.
    if ((h.version & 0xF0) != 0 || h.channels < 1)
        return false;
    h.preskip = preskip;
    h.input_sample_rate = rate;
    h.gain = int16_t(uint16_t(gain));

    if (h.channel_mapping == 0) {
        if (h.channels > 2)
            return false;
        h.nb_streams = 1;
        h.nb_coupled = h.channels - 1;
        h.stream_map[0] = 0;
        h.stream_map[1] = 1;
    } else {
        if (h.channel_mapping == 1 && h.channels > 8)
            return false;
        if (!parseMappingTable(in, h))
            return false;
    }
    header = h;
    return true;
}

} // namespace velvox
