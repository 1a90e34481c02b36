// Tag and stream-fact reading over files of any contents: the first byte
// picks an extension that some registry row claims (every family Velvox
// reads, including the container files whose chunks our own code takes
// apart: 'info', Apple Loops, 'chan'), the rest is the file. Reading may
// fail and log, never crash.
#include <unistd.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "core/FormatRegistry.h"
#include "formats/FormatTable.h"
#include "metadata/AudioMetadata.h"
#include "platform/ErrorLog.h"

namespace {

// Every extension of every row, first claim first, in registry order (the
// seed script computes the selector byte from `velvox codecs --json` the
// same way).
const std::vector<std::string>& registryExtensions() {
    static const std::vector<std::string> extensions = [] {
        velvox::FormatTable::installBuiltinFormats();
        std::vector<std::string> out;
        for (const velvox::FormatEntry* entry : *velvox::FormatRegistry::entries())
            for (const std::string& extension : entry->extensions)
                if (std::find(out.begin(), out.end(), extension) == out.end())
                    out.push_back(extension);
        return out;
    }();
    return extensions;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    const std::vector<std::string>& extensions = registryExtensions();
    // A folder of its own: readers look beside the file (artwork named by
    // pattern), and a shared /tmp would make every input a folder scan.
    static const struct Folder {
        Folder() {
            char pattern[] = "/tmp/velvox-metadata-fuzz-XXXXXX";
            path = mkdtemp(pattern) ? pattern : "/tmp";
        }
        ~Folder() { rmdir(path.c_str()); }
        std::string path;
    } folder;
    const std::string path = folder.path + "/input." + extensions[data[0] % extensions.size()];
    std::FILE* file = std::fopen(path.c_str(), "wb");
    if (!file)
        return 0;
    std::fwrite(data + 1, 1, size - 1, file);
    std::fclose(file);
    if (auto metadata = velvox::AudioMetadata::metadataFromFile(path)) {
        (void)metadata->toJSON();
        (void)metadata->toInfoJSON();
    }
    std::remove(path.c_str());
    // Failed reads log a line each; a long run must not keep them all.
    velvox::ErrorLog::sharedController().clear();
    return 0;
}
