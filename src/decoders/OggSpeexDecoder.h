#pragma once
// Ogg Speex files: libogg pages, libspeex frames (with the in-band stereo
// decoder for two channels), 16-bit PCM at the header's rate. The decoder's
// look-ahead is trimmed at the start and the last page's granule position
// cuts the end, so the length is what the encoder was given.

#include <memory>
#include <vector>

#include <ogg/ogg.h>
#include <speex/speex.h>
#include <speex/speex_callbacks.h>
#include <speex/speex_stereo.h>

#include "core/KDDecoder.h"
#include "decoders/OggPageReader.h"

namespace velvox {

// Used by the one encode operation that made it, on that operation's thread.
class OggSpeexDecoder : public KDDecoder {
public:
    OggSpeexDecoder();
    ~OggSpeexDecoder() override;

    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "OggSpeexDecoder"; }
    int64_t totalFrames() const override { return totalSamples_; }
    bool decodesInRealTime() const override { return true; }
    // Decodes whole packets while the ring buffer has room for one.
    void fillPCMBuffer() override;

    void incrementPacketCount() { ++packetCount_; }
    int nframes() const { return nframes_; }
    void setNframes(int value) { nframes_ = value; }
    int extra_headers() const { return extra_headers_; }
    void setExtra_headers(int value) { extra_headers_ = value; }
    int64_t packetCount() const { return packetCount_; }
    void setPacketCount(int64_t value) { packetCount_ = value; }

private:
    struct DecoderDeleter {
        void operator()(void* st) const { speex_decoder_destroy(st); }
    };
    struct StereoDeleter {
        void operator()(SpeexStereoState* s) const { speex_stereo_state_destroy(s); }
    };

    void takePage();
    void readHeader(const ogg_packet& packet);
    void noteFirstAudioPage();
    void decodePacket(ogg_packet& packet);
    void completeTail();
    void writeFrame(const int16_t* frame);

    std::unique_ptr<OggPageReader> ogg_;
    SpeexBits bits_{};
    bool bitsInitialised_ = false;
    std::unique_ptr<void, DecoderDeleter> st_;
    std::unique_ptr<SpeexStereoState, StereoDeleter> stereo_;
    SpeexCallback stereoCallback_{};
    std::vector<int16_t> frame_;

    uint32_t channels_ = 0;
    int frame_size = 0;
    int granule_frame_size = 0;
    int nframes_ = 1;
    int extra_headers_ = 0;
    int64_t packetCount_ = 1; // the header packet
    int lookahead = 0;
    int encoderLookahead_ = 0;
    int64_t skip_samples = 0;
    int64_t page_granule = 0;
    int64_t last_granule = 0;
    bool pageIsLast_ = false;
    bool firstAudioPageSeen_ = false;
    int64_t written_ = 0;
    int32_t speex_serialno = -1;
    int64_t totalSamples_ = -1;
    bool endsWithLastPage_ = true;
};

} // namespace velvox
