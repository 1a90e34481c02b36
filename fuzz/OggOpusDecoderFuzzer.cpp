// Whole Ogg Opus files: page sync, serial-number handling, the identification
// header, granule trimming and the end-of-stream checks.
#include "OggFuzzInput.h"
#include "decoders/OggOpusDecoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    velvox::fuzz::decodeEverything<velvox::OggOpusDecoder>(data, size);
    return 0;
}
