#pragma once
// Sound Designer II output through libsndfile.
//
// No sample-rate conversion and no channel mixing: the file has the
// decoder's rate, and the settings' bitDepth chooses only the subtype that
// libsndfile reduces the samples to (8, 16 or 24 bits; 32 is capped at 24,
// the most the container holds; anything else, 0 included, is 16).
//
// libsndfile keeps the file's resource fork in an AppleDouble companion
// "._name" beside it, which moves with the file into place.
//
// Tags go into libsndfile's string store where the container has one. Sound
// Designer II has none, so the error log names the tags that could not be
// carried rather than dropping them silently.

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <sndfile.h>

#include "encoders/StreamEncodeOperation.h"

namespace velvox {

class LibsndfileEncodeOperation : public StreamEncodeOperation {
public:
    LibsndfileEncodeOperation();
    ~LibsndfileEncodeOperation() override;

    // Operation thread.
    void encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) override;
    bool isItunesCompatible() const override { return false; }
    // Tagging thread.
    void writeMetadata() override;

    // The subtype written for a settings bitDepth.
    static int subtypeForBitDepth(uint32_t bitDepth);

protected:
    std::string formatWord() const override { return "Libsndfile"; }
    std::string encodeFailedText() const override {
        return "Libsndfil Encode Operation Failed To Encode File: %@.  Error:%@";
    }
    std::string unsupportedSampleSizeText() const override {
        return "Libsndfile Does Not Support %u Bit Files.";
    }
    uint32_t readBufferSize(uint32_t decoderBitsPerChannel) const override;
    bool takesDecoderPCM() const override { return true; }
    // Operation thread.
    void setUpCodec(const std::string& tempFilePath) override;
    void finishCodec() override;
    void releaseCodec() noexcept override;

private:
    struct SndfileDeleter {
        void operator()(SNDFILE* file) const { sf_close(file); }
    };
    // One tag as the container's info dictionary names it.
    struct InfoField {
        const char* key;
        int stringType; // SF_STR_*, 0 where libsndfile has none
        std::optional<std::string> value;
    };
    std::vector<InfoField> infoDictionary();

    std::unique_ptr<SNDFILE, SndfileDeleter> file_;
    // The chunk widened to left-justified 32-bit samples.
    std::vector<int> widened_;
};

} // namespace velvox
