// "OpusHead" packets with any counts and mapping tables. Accepted headers
// must describe a layout libopus can build a decoder for.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include <opus/opus_multistream.h>

#include "decoders/OpusHeader.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    velvox::OpusHeader h;
    if (!velvox::opus_header_parse({data, size}, h))
        return 0;
    int err = OPUS_OK;
    OpusMSDecoder* d = opus_multistream_decoder_create(48000, h.channels, h.nb_streams,
                                                       h.nb_coupled, h.stream_map.data(), &err);
    if (d)
        opus_multistream_decoder_destroy(d);
    return 0;
}
