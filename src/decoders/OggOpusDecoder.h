#pragma once
// Ogg Opus files: libogg pages, the libopus multistream decoder at 48 kHz,
// the Speex resampler down to the rate the encoder was given, pre-skip and
// end trimming by granule position, and noise-shaped dither to 16 bits.

#include <memory>
#include <vector>

#include <ogg/ogg.h>
#include <opus/opus_multistream.h>
#include <speex/speex_resampler.h>

#include "core/KDDecoder.h"
#include "decoders/NoiseShapedDither.h"
#include "decoders/OggPageReader.h"
#include "decoders/OpusHeader.h"

namespace velvox {

// Used by the one encode operation that made it, on that operation's thread.
class OggOpusDecoder : public KDDecoder {
public:
    OggOpusDecoder();
    ~OggOpusDecoder() override;

    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "OggOpusDecoder"; }
    // In 48 kHz samples whatever the output rate, and including the
    // pre-skip: an estimate for progress, not the delivered length.
    int64_t totalFrames() const override { return totalSamples_; }
    bool decodesInRealTime() const override { return true; }
    // Decodes one audio packet per call, reading pages as needed.
    void fillPCMBuffer() override;

    void incrementPacketCount() { ++packet_count_; }

private:
    struct DecoderDeleter {
        void operator()(OpusMSDecoder* d) const { opus_multistream_decoder_destroy(d); }
    };
    struct ResamplerDeleter {
        void operator()(SpeexResamplerState* r) const { speex_resampler_destroy(r); }
    };

    void takePage();
    bool processHeader(const ogg_packet& packet);
    void startResampler();
    void handleAudioPacket(const ogg_packet& packet);
    void startNewLink(const ogg_packet& packet);
    int64_t maxOut() const;
    uint32_t writeFrames(const float* pcm, uint32_t frames, int64_t maxout);
    void flushResampler();

    std::unique_ptr<OggPageReader> ogg_;
    int32_t opus_serialno_ = -1;
    OpusHeader header_;
    std::unique_ptr<OpusMSDecoder, DecoderDeleter> st_;
    std::unique_ptr<SpeexResamplerState, ResamplerDeleter> resampler_;
    std::unique_ptr<NoiseShapedDither> shapemem_;
    std::vector<float> output_;
    std::vector<float> resampled_;
    std::vector<int16_t> shorts_;
    uint32_t rate_ = 48000;
    uint32_t channels_ = 0;
    uint32_t preskip_ = 0;
    int32_t gran_offset_ = 0;
    int64_t page_granule_ = 0;
    int64_t last_granule_ = 0;
    int64_t link_out_ = 0;
    int64_t link_decoded_ = 0; // 48 kHz frames decoded in this link, pre-skip included
    bool lastPage_ = false;
    uint64_t packet_count_ = 0;
    int64_t totalSamples_ = -1;
    bool linkFlushed_ = false;
    bool endsWithLastPage_ = true;
};

} // namespace velvox
