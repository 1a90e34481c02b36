#pragma once

namespace velvox {

class KDDecoder;

// Receives progress while a decoder that cannot decode in real time writes its
// whole input to a file first.
class DecoderDelegate {
public:
    virtual ~DecoderDelegate() = default;
    // progress: a fraction from 0.0 to 1.0
    virtual void decoderDidUpdateProgressPercent(KDDecoder& decoder, double progress) = 0;
};

} // namespace velvox
