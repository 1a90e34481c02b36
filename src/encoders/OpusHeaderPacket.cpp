#include "encoders/OpusHeaderPacket.h"

namespace velvox {

namespace {

// Appends little-endian fields and refuses to run past the end.
class PacketWriter {
public:
    PacketWriter(unsigned char* data, int capacity) : data_(data), capacity_(capacity) {}
    bool bytes(const char* text, int n) {
        if (n > capacity_ - position_)
            return false;
        for (int i = 0; i < n; ++i)
            data_[position_++] = static_cast<unsigned char>(text[i]);
        return true;
    }
    bool le(uint32_t value, int width) {
        if (width > capacity_ - position_)
            return false;
        for (int i = 0; i < width; ++i)
            data_[position_++] = static_cast<unsigned char>(value >> (8 * i));
        return true;
    }
    int position() const { return position_; }

private:
    unsigned char* data_;
    int capacity_;
    int position_ = 0;
};

} // namespace

int opus_header_to_packet(const OpusHeader& h, unsigned char* packet, int len) {
    if (!packet || len <= 0 || h.channels < 1 || h.channels > 255)
        return 0;
    if (h.channel_mapping == 0 && h.channels > 2)
        return 0;
    PacketWriter out(packet, len);
    bool ok = out.bytes("OpusHead", 8) && out.le(uint32_t(h.version), 1) &&
              out.le(uint32_t(h.channels), 1) && out.le(uint32_t(h.preskip), 2) &&
              out.le(h.input_sample_rate, 4) && out.le(uint32_t(h.gain) & 0xFFFF, 2) &&
              out.le(uint32_t(h.channel_mapping), 1);
    // Family 0 implies one stream (two channels coupled when stereo) and
    // carries no table.
    if (ok && h.channel_mapping != 0) {
        ok = out.le(uint32_t(h.nb_streams), 1) && out.le(uint32_t(h.nb_coupled), 1);
        for (int c = 0; ok && c < h.channels; ++c)
            ok = out.le(h.stream_map[c], 1);
    }
    return ok ? out.position() : 0;
}

} // namespace velvox
