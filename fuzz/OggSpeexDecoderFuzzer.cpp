// Whole Ogg Speex files: page sync, the Speex header's declared counts,
// extra headers and the start and end trimming.
#include "OggFuzzInput.h"
#include "decoders/OggSpeexDecoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    velvox::fuzz::decodeEverything<velvox::OggSpeexDecoder>(data, size);
    return 0;
}
