// DSF and DSDIFF headers with chunk sizes, counts and rates that may say
// anything. A file the parser accepts has one block read and filtered, the
// way the decoder starts.
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "decoders/DSDFilterState.h"
#include "decoders/VLXDSDFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size == 0)
        return 0;
    std::vector<uint8_t> bytes(data, data + size);
    FILE* stream = fmemopen(bytes.data(), bytes.size(), "r");
    if (!stream)
        return 0;
    velvox::VLXDSDFile file;
    velvox::VLXDSDFile::Error error;
    if (!file.initWithStream(stream, "fuzz.dsd", 32, &error))
        return 0;
    std::vector<uint8_t> block(file.blockSize());
    file.read(block.data(), 1, block.size());
    const bool dsf = file.dsdFormat() == 1;
    const uint32_t frames =
        file.totalBlocks() > 1 ? file.PCMSamplesPerBlock() : file.lastBlockPCMSampleCount();
    std::vector<float> pcm(size_t(frames) * file.channels());
    for (uint32_t c = 0; c < file.channels(); ++c) {
        velvox::DSDFilterState state(32, dsf);
        const uint8_t* in = dsf ? block.data() + size_t(c) * file.DSDStride() : block.data() + c;
        state.translate(frames, in, dsf ? 1 : ptrdiff_t(file.channels()), pcm.data() + c,
                        ptrdiff_t(file.channels()));
    }
    return 0;
}
