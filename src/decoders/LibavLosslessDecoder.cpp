#include "decoders/LibavLosslessDecoder.h"

namespace velvox {

bool LibavLosslessDecoder::takeStreamFormat(uint32_t bytesPerSample) {
    const uint32_t channels = stream_.channels();
    if (!setIntegerDecodeFormat(double(stream_.sampleRate()), stream_.bitsPerChannel(), channels,
                                bytesPerSample) ||
        stream_.sampleRate() == 0)
        return unknownFrameSize();
    setLayoutForChannelCount(channels);
    return true;
}

} // namespace velvox
