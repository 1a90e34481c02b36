// Decodes one file the way the encoders read it, through KDDecoder::readAudio
// in 64 KiB reads, and throws the PCM away: the Velvox side of the
// library-decoder benchmarks, timed by their script against the reference
// decoders writing raw PCM to /dev/null.

#include <cstdio>
#include <vector>

#include "core/KDDecoder.h"
#include "decoders/DecoderRegistration.h"
#include "platform/Exception.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s FILE\n", argv[0]);
        return 2;
    }
    velvox::DecoderRegistration::registerAll();
    try {
        auto decoder = velvox::KDDecoder::decoderWithFilename(argv[1]);
        if (!decoder) {
            std::fprintf(stderr, "%s: cannot be decoded\n", argv[1]);
            return 1;
        }
        const uint32_t bytesPerFrame = decoder->decodeFormat().mBytesPerFrame;
        const uint32_t frames = 65536 / bytesPerFrame;
        std::vector<uint8_t> buffer(size_t(frames) * bytesPerFrame);
        unsigned long long total = 0;
        for (;;) {
            auto list = velvox::AudioBufferList::single(buffer.data(), uint32_t(buffer.size()),
                                                        decoder->decodeFormat().mChannelsPerFrame);
            const uint32_t n = decoder->readAudio(&list, frames);
            if (n == 0 && decoder->isEndOfFile())
                break;
            total += n;
        }
        std::printf("%llu\n", total);
    } catch (const velvox::Exception& e) {
        std::fprintf(stderr, "%s: %s\n", argv[1], e.reason().c_str());
        return 1;
    }
    return 0;
}
