// CAF files as the tag writer finds them: any chunk sizes, a data chunk of
// unknown size anywhere, old 'info' chunks in the middle or at the end. The
// bytes go to a temporary file because the writer edits files in place.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <unistd.h>

#include "metadata/CAFInfoChunkWriter.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    char path[] = "/tmp/velvox-caf-fuzz-XXXXXX";
    const int fd = mkstemp(path);
    if (fd < 0)
        return 0;
    const bool written = write(fd, data, size) == ssize_t(size);
    close(fd);
    if (written)
        velvox::CAFInfoChunkWriter::replaceInfoChunk(path, {{"title", "Fuzz"}, {"artist", ""}});
    unlink(path);
    return 0;
}
