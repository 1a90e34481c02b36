#pragma once
// Ogg Vorbis output through libvorbisenc and libogg, tagged afterwards with
// TagLib (Xiph comment, artwork as METADATA_BLOCK_PICTURE inside it).
//
// The stream keeps the decoder's channel count and sample rate: neither the
// sample-rate converter nor the channel mixer runs. Rate-managed modes have
// their bit rate kept inside the band libvorbis has tunings for at the
// source's rate and channel count (boundedBitrate).

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include <ogg/ogg.h>
#include <vorbis/codec.h>

#include "encoders/StreamEncodeOperation.h"

namespace velvox {

class OggVorbisEncodeOperation : public StreamEncodeOperation {
public:
    OggVorbisEncodeOperation();
    ~OggVorbisEncodeOperation() override;

    // The bit rate (bit/s) given to libvorbis for a requested total rate.
    static int64_t boundedBitrate(int64_t requested, uint32_t channels, double sampleRate);
    // Where each decoder channel goes in Vorbis's fixed speaker order: the
    // result's element c is the Vorbis channel that source channel c feeds.
    static std::vector<uint32_t> vorbisChannelOrder(const AudioChannelLayout* layout,
                                                    uint32_t channels);

    // Encode thread.
    void encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) override;
    bool isItunesCompatible() const override { return false; }
    // Tagging thread. Also rewrites the tags of an existing file in place.
    void writeMetadata() override;

protected:
    std::string formatWord() const override { return "Ogg Vorbis"; }
    std::string unsupportedSampleSizeText() const override {
        return "Ogg Vorbis Does Not Support Sample Sizes Of %u Bits";
    }
    uint32_t readBufferSize(uint32_t decoderBitsPerChannel) const override;
    bool takesDecoderPCM() const override { return true; }

    // Encode thread.
    void setUpCodec(const std::string& tempFilePath) override;
    void finishCodec() override;
    void releaseCodec() noexcept override;

private:
    struct FileCloser {
        void operator()(FILE* file) const { std::fclose(file); }
    };

    void initEncoder(uint32_t channels, long sampleRate);
    // Takes every finished block out of libvorbis and writes the pages.
    void drain();
    void writePage(const ogg_page& page);

    std::unique_ptr<FILE, FileCloser> outFile;
    // The libvorbis and libogg states of one run; each flag says that its
    // state was initialised and must be cleared.
    vorbis_info vi{};
    vorbis_comment vc{};
    vorbis_dsp_state vd{};
    vorbis_block vb{};
    ogg_stream_state os{};
    bool viReady_ = false, vcReady_ = false, vdReady_ = false, vbReady_ = false, osReady_ = false;
    bool endOfStream_ = false;
    std::vector<uint32_t> channelOrder_;
};

} // namespace velvox
