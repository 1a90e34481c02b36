// Files for the library-backed decoders (WavPack, Musepack, Monkey's Audio,
// True Audio, tracker modules) with arbitrary contents: the first byte picks
// the kind, the rest is the file. Decoding may fail with an exception or end
// early, never crash; rendering is capped so that endless modules end.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "core/FormatRegistry.h"
#include "core/KDDecoder.h"
#include "formats/FormatTable.h"
#include "platform/Exception.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    // The first byte picks a registry row (every family Velvox reads); the
    // rest is the file, named with that row's first extension.
    static const std::vector<const velvox::FormatEntry*> rows = [] {
        velvox::FormatTable::installBuiltinFormats();
        std::vector<const velvox::FormatEntry*> out;
        for (const velvox::FormatEntry* entry : *velvox::FormatRegistry::entries())
            if (!entry->extensions.empty())
                out.push_back(entry);
        return out;
    }();
    const std::string path = "/tmp/velvox-fuzz-" + std::to_string(getpid()) + "." +
                             rows[data[0] % rows.size()]->extensions.front();
    if (std::FILE* file = std::fopen(path.c_str(), "wb")) {
        std::fwrite(data + 1, 1, size - 1, file);
        std::fclose(file);
    } else {
        return 0;
    }
    try {
        if (auto decoder = velvox::KDDecoder::decoderWithFilename(path)) {
            const uint32_t bytesPerFrame = decoder->decodeFormat().mBytesPerFrame;
            std::vector<uint8_t> buffer(65536);
            const uint32_t frames = uint32_t(buffer.size()) / bytesPerFrame;
            uint64_t total = 0;
            for (int idle = 0; total < 2'000'000 && idle < 1000;) {
                auto list =
                    velvox::AudioBufferList::single(buffer.data(), uint32_t(buffer.size()),
                                                    decoder->decodeFormat().mChannelsPerFrame);
                const uint32_t n = decoder->readAudio(&list, frames);
                if (n == 0 && decoder->isEndOfFile())
                    break;
                idle = n == 0 ? idle + 1 : 0;
                total += n;
            }
        }
    } catch (const velvox::Exception&) {
    }
    std::remove(path.c_str());
    return 0;
}
