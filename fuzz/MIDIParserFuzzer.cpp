// Standard MIDI File bytes as found inside audio files: the header and every
// track chunk, with lengths that may point anywhere.
#include <cstddef>
#include <cstdint>
#include <span>

#include "metadata/KDMIDIParser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    auto parser = velvox::KDMIDIParser::parserWithData(std::span<const uint8_t>(data, size));
    if (parser) {
        size_t events = 0;
        for (const velvox::KDMIDITrack& track : parser->tracks())
            events += sizeof(track);
        (void)events;
    }
    return 0;
}
