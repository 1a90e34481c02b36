#pragma once
// Monkey's Audio (APE) output through Velvox's own compressor, tagged
// afterwards with an APEv2 tag through TagLib.
//
// Levels are the format's own numbers: 1000 Fast, 2000 Normal, 3000 High,
// 4000 Extra High, 5000 Insane. The format takes 8, 16 and 24-bit mono or
// stereo PCM.

#include <memory>
#include <string>
#include <vector>

#include "encoders/APECompressor.h"
#include "encoders/StreamEncodeOperation.h"

namespace velvox {

class MonkeysAudioEncodeOperation : public StreamEncodeOperation {
public:
    MonkeysAudioEncodeOperation();
    ~MonkeysAudioEncodeOperation() override;

    // Encode thread.
    void encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) override;
    bool isItunesCompatible() const override { return false; }
    // Tagging thread (and the update-metadata action on its own).
    void writeMetadata() override;

    // The compressor's name and version, as the encoded-by tag gives it.
    static const char* compressorVersion() { return "4.11"; }

protected:
    std::string formatWord() const override { return "Monkey's Audio"; }
    std::string unsupportedSampleSizeText() const override {
        return "Monkey's Audio Does Not Support %u Bit Files.";
    }
    void setUpCodec(const std::string& tempFilePath) override;
    void finishCodec() override;
    void releaseCodec() noexcept override;

private:
    std::unique_ptr<APECompressor> compressor_;
    // The chunk in the compressor's layout (8-bit samples unsigned).
    std::vector<uint8_t> waveBytes_;
};

} // namespace velvox
