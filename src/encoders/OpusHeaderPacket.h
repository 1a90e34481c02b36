#pragma once
// The Ogg Opus identification header ("OpusHead", RFC 7845 section 5.1) as
// it goes into the first packet of a stream; the record is the one the
// decoder parses.

#include <cstddef>
#include <cstdint>

#include "decoders/OpusHeader.h"

namespace velvox {

// Writes the header into packet (at most len bytes) and returns the packet's
// length, or 0 when it does not fit or the header cannot be written (a
// channel count out of 1..255, or family 0 with more than two channels).
int opus_header_to_packet(const OpusHeader& h, unsigned char* packet, int len);

} // namespace velvox
