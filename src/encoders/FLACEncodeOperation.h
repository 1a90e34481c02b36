#pragma once
// Native FLAC output through libFLAC's stream encoder, tagged afterwards with
// TagLib (Xiph comment plus one front-cover picture block).
//
// Every file gets a seek table with a point every ten seconds and 8 KiB of
// padding, so that tags can later grow without rewriting the audio.
// Compression levels 0 to 8 are libFLAC's; any higher level writes every
// subframe verbatim (uncompressed FLAC).

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <FLAC/metadata.h>
#include <FLAC/stream_encoder.h>

#include "encoders/StreamEncodeOperation.h"

namespace velvox {

class FLACEncodeOperation : public StreamEncodeOperation {
public:
    FLACEncodeOperation();
    ~FLACEncodeOperation() override;

    void encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) override;
    bool isItunesCompatible() const override { return false; }
    void writeMetadata() override;

protected:
    std::string formatWord() const override { return "FLAC"; }
    std::string unsupportedSampleSizeText() const override {
        return "FLAC does not suport %u bit input files.";
    }
    void setUpCodec(const std::string& tempFilePath) override;
    void finishCodec() override;
    void releaseCodec() noexcept override;

    // The part of the set-up that differs by container: the metadata blocks
    // and starting the encoder on the temporary path. The encoder has its
    // stream parameters, compression and verify setting when it is called.
    virtual void addMetadataAndStart(const std::string& tempFilePath);
    // "FLAC <version>": the encoder as the encoded-by tag names it.
    static std::string flacCodecName();

    struct EncoderDeleter {
        void operator()(FLAC__StreamEncoder* encoder) const;
    };
    struct MetadataDeleter {
        void operator()(FLAC__StreamMetadata* block) const;
    };

    // libFLAC's view of what went wrong, for assertion texts.
    const char* resolvedState() const;
    // A fresh 8 KiB padding block in padding_.
    FLAC__StreamMetadata* makePadding();
    // The source's CUESHEET block in cueSheet_, when the source is a FLAC
    // file with one and its sample positions still hold for this output (the
    // same rate, every track inside the length); else null.
    FLAC__StreamMetadata* sourceCueSheet();

    // The blocks must outlive the encoder, which reads them until it has
    // finished (the seek table is filled in then), so they are declared first
    // and released last.
    std::unique_ptr<FLAC__StreamMetadata, MetadataDeleter> seekTable_;
    std::unique_ptr<FLAC__StreamMetadata, MetadataDeleter> padding_;
    std::unique_ptr<FLAC__StreamMetadata, MetadataDeleter> cueSheet_;
    std::unique_ptr<FLAC__StreamEncoder, EncoderDeleter> flac;

private:
    // Per-channel sample arrays for libFLAC, kept between chunks.
    std::vector<std::vector<FLAC__int32>> channelBuffers_;
    std::vector<const FLAC__int32*> channelPointers_;
};

} // namespace velvox
