#pragma once
// Ogg Opus output: libopus's multistream encoder, the Speex resampler for
// sources whose rate Opus cannot code directly, and our own Ogg packaging
// (identification and comment packets, pages of at most one second and 255
// lacing values, granule positions that trim the stream to the exact input
// length). Tagged afterwards through TagLib as a Xiph comment with picture.
//
// Every method runs on the operation's own thread, except writeMetadata(),
// which runs on the tagging thread.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <ogg/ogg.h>

#include "encoders/OpusHeaderPacket.h"
#include "encoders/StreamEncodeOperation.h"

struct OpusMSEncoder;
struct SpeexResamplerState_;

namespace velvox {

class OggPageWriter;
class SincResampler;

class OggOpusEncodeOperation : public StreamEncodeOperation {
public:
    OggOpusEncodeOperation();
    ~OggOpusEncodeOperation() override;

    void encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) override;
    bool isItunesCompatible() const override { return false; }
    void writeMetadata() override;

    // The identification header of the running (or last) encode.
    const OpusHeader& header() const { return header_; }

protected:
    std::string formatWord() const override { return "Opus"; }
    std::string unsupportedSampleSizeText() const override {
        return "Opus Does Not Support Sample Sizes Of %u Bits";
    }
    // The Speex encoder's words, kept for the last stage on purpose.
    std::string moveFailedText() const override {
        return "Ogg Speex Encode Operation Failed To Encode File: %@.  Error:%@";
    }
    uint32_t readBufferSize(uint32_t decoderBitsPerChannel) const override;
    uint32_t outputBitsPerChannel(const AudioStreamBasicDescription&) const override { return 32; }
    // Whether chunks come in the decoder's own sample format (no rate change,
    // no down-mix) rather than converted to float by the loop.
    bool takesDecoderSamples() const;
    void adjustOutputFormat(AudioStreamBasicDescription& format) const override;
    void setUpCodec(const std::string& tempFilePath) override;
    void finishCodec() override;
    void releaseCodec() noexcept override;

private:
    struct EncoderDeleter {
        void operator()(OpusMSEncoder* encoder) const;
    };
    struct ResamplerDeleter {
        void operator()(SpeexResamplerState_* resampler) const;
    };

    void createEncoder();
    void configureEncoder();
    void createResampler();
    bool resampling() const { return sincResampler_ || resampler; }
    uint32_t resamplerInputLatency() const;
    void writeHeaderPackets(const std::string& tempFilePath);
    // Takes interleaved float frames at sourceSampleRate (already in Opus
    // channel order) into the coding-rate buffer, through the resampler.
    void appendSource(const float* frames, uint32_t frameCount);
    // One chunk into floats_, in Opus channel order.
    void toFloat(const uint8_t* in, uint32_t frameCount);
    void resampleWaiting(uint32_t keepFrames);
    // Encodes whole frames while more than `reserve` frames would be left.
    void encodeWaiting(uint32_t reserve);
    void encodeOneFrame(const float* pcm, bool last, int64_t lastGranule);
    void writePagesBeforePacket(int segments, bool packetIsSmall);
    void writePagesAfterPacket(bool last);
    void writePage(const ogg_page& page);
    void rememberTail(const float* frames, uint32_t frameCount);
    std::vector<float> predictedContinuation(uint32_t frameCount) const;

    int32_t sourceSampleRate_ = 0;
    int32_t sourceChannels = 0;
    int32_t coding_rate = 48000;
    int32_t frame_size = 960;
    std::unique_ptr<OpusMSEncoder, EncoderDeleter> st;
    // The exact-phase resampler where the rate ratio allows it, else
    // libspeexdsp's (at most one of the two is set).
    std::unique_ptr<SincResampler> sincResampler_;
    std::unique_ptr<SpeexResamplerState_, ResamplerDeleter> resampler;
    std::vector<float> resamplerBuffer;
    uint32_t bufferedResamplerSamples = 0;
    std::vector<float> input;
    uint32_t bufferedSamples = 0;
    std::vector<unsigned char> packet;
    int32_t max_frame_bytes = 0;
    std::unique_ptr<OggPageWriter> writer_;
    int64_t pid = -1;
    int64_t enc_granulepos = 0;
    int64_t last_granulepos = 0;
    int32_t last_segments = 0;
    int64_t original_samples = 0;
    int32_t lookahead_ = 0;
    int32_t resamplerLatency_ = 0;
    OpusHeader header_;
    // Opus channel i is source channel order_[i].
    std::vector<int> order_;
    // What a chunk holds: the decoder's samples or the loop's floats.
    size_t inputSampleBytes_ = 4;
    bool inputIsFloat_ = true;
    // The last frames received, for the prediction past the end.
    std::vector<float> tail_;
    std::vector<float> floats_;
};

} // namespace velvox
