#pragma once
// Ogg Speex output: libspeex's narrow-, wide- or ultra-wideband coder chosen
// by the sample rate, the optional libspeexdsp preprocessor (denoise,
// automatic gain), our own Ogg packaging with the granule positions of the
// Ogg Speex mapping. Speex takes 16-bit mono or stereo; the shared loop
// converts and folds the source to that. Tags go in afterwards through
// TagLib as a Xiph comment with picture.
//
// Every method runs on the operation's own thread, except writeMetadata(),
// which runs on the tagging thread.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include <speex/speex_bits.h>

#include "encoders/StreamEncodeOperation.h"

struct SpeexPreprocessState_;

namespace velvox {

class OggPageWriter;

class OggSpeexEncodeOperation : public StreamEncodeOperation {
public:
    OggSpeexEncodeOperation();
    ~OggSpeexEncodeOperation() override;

    void encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) override;
    bool isItunesCompatible() const override { return false; }
    void writeMetadata() override;

    // The rate Speex codes a source of the given rate at (0: the input's).
    static int32_t speexRateFor(int64_t requestedRate, double decoderRate);

protected:
    std::string formatWord() const override { return "Ogg Speex"; }
    std::string unsupportedSampleSizeText() const override {
        return "Ogg Speex Does Not Support Sample Sizes Of %u Bits";
    }
    uint32_t readBufferSize(uint32_t decoderBitsPerChannel) const override;
    uint32_t outputBitsPerChannel(const AudioStreamBasicDescription&) const override { return 16; }
    double outputSampleRate(const AudioStreamBasicDescription& decodeFormat) const override;
    uint32_t maximumChannels() const override { return 2; }
    void setUpCodec(const std::string& tempFilePath) override;
    void finishCodec() override;
    void releaseCodec() noexcept override;

private:
    struct EncoderDeleter {
        void operator()(void* state) const;
    };
    struct PreprocessDeleter {
        void operator()(SpeexPreprocessState_* state) const;
    };

    void createEncoder(const void* mode);
    void writeHeaderPackets(const void* mode);
    void encodeFrame();
    // Closes the packet of framesPerPacket frames and queues it; the one
    // before it goes into the stream now, so that the last can be marked
    // as the end.
    void completePacket();
    void submitPending(bool last);

    int32_t rate_ = 0;
    int32_t channels_ = 1;
    int32_t frameSize_ = 0;
    int32_t lookahead_ = 0;
    int32_t framesPerPacket_ = 1;
    std::unique_ptr<void, EncoderDeleter> state_;
    std::unique_ptr<SpeexPreprocessState_, PreprocessDeleter> preprocess_;
    SpeexBits bits_{};
    bool bitsReady_ = false;
    std::unique_ptr<OggPageWriter> writer_;
    std::vector<int16_t> frame_;
    int32_t framedSamples_ = 0;
    int64_t framesInPacket_ = 0;
    int64_t framesEncoded_ = 0;
    int64_t packetsDone_ = 0;
    int64_t inputSamples_ = 0;
    std::vector<unsigned char> pending_;
    bool havePending_ = false;
};

} // namespace velvox
