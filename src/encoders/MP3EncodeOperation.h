#pragma once
// MP3 output through LAME, tagged afterwards with TagLib (ID3v2, ID3v1 and
// APE, each by its own preference).
//
// LAME resamples and folds stereo to mono itself, so the shared loop hands it
// the decoder's PCM untouched: neither the sample-rate converter nor the
// channel mixer runs. After the flush the Xing/LAME information frame at the
// head of the file is rewritten with the final counts; its encoder delay and
// padding are what gapless players trim.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <lame/lame.h>

#include "encoders/StreamEncodeOperation.h"

namespace velvox {

class MP3EncodeOperation : public StreamEncodeOperation {
public:
    MP3EncodeOperation();
    ~MP3EncodeOperation() override;

    // Encode thread.
    void encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) override;
    bool isItunesCompatible() const override { return true; }
    // Tagging thread. Also rewrites the tags of an existing MP3 in place.
    void writeMetadata() override;

protected:
    std::string formatWord() const override { return "MP3"; }
    std::string decoderFailedText() const override {
        return "MP3 Encode Operation Aborting. Could Not Initialize Any Decoder For File: %@.";
    }
    std::string decoderExceptionText() const override {
        return "MP3 Encode Operation Aborting. Could Not Initialize Any Decoder For File: %@. "
               "Exception: %@";
    }
    std::string unsupportedSampleSizeText() const override {
        return "Sample Size Of %u bit Not Supported! Lame Supports 8, 16, 24, and 32 Bit Sample "
               "Sizes. Aborting Operation";
    }
    uint32_t readBufferSize(uint32_t decoderBitsPerChannel) const override;
    // LAME converts the decoder's PCM itself.
    bool takesDecoderPCM() const override { return true; }

    // Encode thread.
    void setUpCodec(const std::string& tempFilePath) override;
    void finishCodec() override;
    void releaseCodec() noexcept override;

private:
    struct LameDeleter {
        void operator()(lame_global_flags* gfp) const { lame_close(gfp); }
    };
    struct FileCloser {
        void operator()(FILE* file) const { std::fclose(file); }
    };

    void applySettings();
    void writeBytes(const unsigned char* bytes, int count, const char* failureText);
    // Closes outFile, reporting a failing close as an IOException.
    void closeOutputFile();

    std::unique_ptr<lame_global_flags, LameDeleter> gfp;
    std::unique_ptr<FILE, FileCloser> outFile;
    std::string tempPath_;

    // Per-channel samples and the MP3 bytes of one chunk, kept between chunks.
    std::vector<short> shortLeft_, shortRight_;
    std::vector<int> intLeft_, intRight_;
    std::vector<unsigned char> mp3Buffer_;
};

} // namespace velvox
