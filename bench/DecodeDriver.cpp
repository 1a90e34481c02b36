// Decodes one file through KDDecoder::readAudio in 64 KiB reads and writes
// the PCM to standard output, nothing else: the process the ratio scripts
// time against the reference decoders writing raw PCM.

#include <cstdio>
#include <vector>

#include "core/KDDecoder.h"
#include "formats/FormatTable.h"
#include "platform/Exception.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: velvox_decode_driver FILE > PCM\n");
        return 2;
    }
    velvox::FormatTable::installBuiltinFormats();
    try {
        auto decoder = velvox::KDDecoder::decoderWithFilename(argv[1]);
        if (!decoder)
            return 1;
        const auto format = decoder->decodeFormat();
        std::vector<uint8_t> buffer(65536);
        const uint32_t frames = uint32_t(buffer.size()) / format.mBytesPerFrame;
        for (;;) {
            auto list = velvox::AudioBufferList::single(buffer.data(), uint32_t(buffer.size()),
                                                        format.mChannelsPerFrame);
            const uint32_t n = decoder->readAudio(&list, frames);
            if (n == 0 && decoder->isEndOfFile())
                break;
            std::fwrite(buffer.data(), 1, list.mBuffers[0].mDataByteSize, stdout);
        }
    } catch (const velvox::Exception& e) {
        std::fprintf(stderr, "%s\n", e.reason().c_str());
        return 1;
    }
    return 0;
}
