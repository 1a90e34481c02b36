#pragma once
// The Ogg Opus identification header ("OpusHead", RFC 7845 section 5.1).

#include <array>
#include <cstdint>
#include <span>

namespace velvox {

struct OpusHeader {
    int version = 0;
    int channels = 0;
    uint32_t preskip = 0;
    uint32_t input_sample_rate = 0;
    int gain = 0; // Q7.8 dB
    int channel_mapping = 0;
    // Multistream layout; derived for mapping family 0.
    int nb_streams = 0;
    int nb_coupled = 0;
    std::array<uint8_t, 255> stream_map{};
};

// Parses an "OpusHead" packet; false when it is not one or breaks the rules
// a decoder depends on (channel and stream counts, the mapping table). Every
// read is bounded by the packet's length.
bool opus_header_parse(std::span<const uint8_t> packet, OpusHeader& header);

} // namespace velvox
