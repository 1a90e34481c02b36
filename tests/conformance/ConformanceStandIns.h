#pragma once
// Two registry rows that exist only for the conformance suite: a stand-in
// encoder (plain WAVE, written through the shared encode loop) that proves a
// new codec needs only its classes and one row, and a decoder of headerless
// PCM that cannot tell its length, so that every encoder also meets an input
// of unknown length.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "core/FormatEntry.h"
#include "core/KDDecoder.h"
#include "encoders/StreamEncodeOperation.h"
#include "jobs/EncoderDescriptor.h"

namespace velvox::test {

// Writes canonical WAVE (integer PCM, little-endian) with the sizes filled
// in when the stream ends.
class StandInWaveEncodeOperation : public StreamEncodeOperation {
public:
    bool isItunesCompatible() const override { return false; }
    void writeMetadata() override {}

protected:
    std::string formatWord() const override { return "Stand-In"; }
    std::string unsupportedSampleSizeText() const override {
        return "Stand-In does not take %u bit input.";
    }
    uint32_t readBufferSize(uint32_t bits) const override {
        return bits == 8 || bits == 16 || bits == 24 || bits == 32 ? 32768 : 0;
    }
    void setUpCodec(const std::string& path) override;
    void encodeChunk(const AudioBufferList& list, uint32_t frames) override;
    void finishCodec() override;
    void releaseCodec() noexcept override;

private:
    void writeHeader(uint32_t dataBytes);
    std::FILE* file_ = nullptr;
    uint64_t dataBytes_ = 0;
};

// "VLXRAW" + channels, bits, rate (little-endian 32-bit each) + PCM. The
// decoder never says how long it is.
class RawStreamDecoder : public KDDecoder {
public:
    const char* className() const override { return "RawStreamDecoder"; }
    bool initWithFilename(const std::string& path) override;
    void fillPCMBuffer() override;
    ~RawStreamDecoder() override;

private:
    std::FILE* file_ = nullptr;
};

void writeRawStream(const std::string& path, uint32_t channels, uint32_t bits, uint32_t rate,
                    const std::vector<uint8_t>& pcm);

extern const FormatEntry kStandInFormat;
extern const FormatEntry kRawStreamFormat;

} // namespace velvox::test
