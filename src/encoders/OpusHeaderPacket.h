#pragma once
// The Ogg Opus identification header ("OpusHead", RFC 7845 section 5.1), as
// the encoder fills it in and as it goes into the first packet of a stream.

#include <cstddef>
#include <cstdint>

namespace velvox {

struct OpusHeader {
    int version = 1;
    int channels = 0;
    int preskip = 0;
    uint32_t input_sample_rate = 0;
    int gain = 0; // Q7.8 dB, signed
    int channel_mapping = 0;
    // Only written for mapping families other than 0.
    int nb_streams = 1;
    int nb_coupled = 0;
    unsigned char stream_map[255] = {};
};

// Writes the header into packet (at most len bytes) and returns the packet's
// length, or 0 when it does not fit or the header cannot be written (a
// channel count out of 1..255, or family 0 with more than two channels).
int opus_header_to_packet(const OpusHeader& h, unsigned char* packet, int len);

} // namespace velvox
