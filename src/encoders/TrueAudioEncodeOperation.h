#pragma once
// True Audio (TTA) output through FFmpeg's TTA encoder and muxer, tagged
// afterwards with ID3v1 and ID3v2 through TagLib.
//
// The file keeps the decoder's channel count: the channel mode setting does
// not apply. Sample rate and size may be converted; TTA holds 8, 16 and 24
// bits. Cancellation and the progress text are looked at after every chunk.
//
// FFmpeg's encoder takes whole frames of 256/245 seconds (the last may be
// shorter), so chunks are gathered into frames here before encoding.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/LibavHandles.h"
#include "encoders/StreamEncodeOperation.h"

namespace velvox {

class TrueAudioEncodeOperation : public StreamEncodeOperation {
public:
    TrueAudioEncodeOperation();
    ~TrueAudioEncodeOperation() override;

    // Operation thread.
    void encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) override;
    bool isItunesCompatible() const override { return false; }
    // Tagging thread: ID3v1 and ID3v2.4 (created when missing), one save.
    void writeMetadata() override;

protected:
    std::string formatWord() const override { return "True Audio"; }
    std::string encodeFailedText() const override {
        return "TTA Encode Operation Failed To Encode File: %@.  Error:%@";
    }
    std::string unsupportedSampleSizeText() const override {
        return "True Audio Does Not Support %u Bit Files.";
    }
    bool mixesChannels() const override { return false; }
    uint32_t cancelCheckInterval() const override { return 1; }
    // Operation thread.
    void setUpCodec(const std::string& tempFilePath) override;
    void finishCodec() override;
    void releaseCodec() noexcept override;

private:
    struct FileDescriptor {
        int fd = -1;
        ~FileDescriptor();
    };
    struct IOContextDeleter {
        void operator()(AVIOContext* context) const;
    };
    struct OutputContextDeleter {
        void operator()(AVFormatContext* context) const { avformat_free_context(context); }
    };

    void reserveTagRoom();
    void openEncoder(uint32_t channels);
    void openMuxer();
    // Sends the gathered frame (or, with null, the end of stream) to the
    // encoder and writes every packet it has ready.
    void sendFrame(bool endOfStream);

    // The output file, written through our own I/O callbacks.
    std::unique_ptr<FileDescriptor> file_;
    std::unique_ptr<AVIOContext, IOContextDeleter> io_;
    std::unique_ptr<AVFormatContext, OutputContextDeleter> muxer_;
    AVCodecContextPtr codec_;
    AVFramePtr frame_;
    AVPacketPtr packet_;
    AVStream* stream_ = nullptr;
    bool headerWritten_ = false;
    // Frames gathered in frame_ so far.
    int gathered_ = 0;
    int64_t nextPts_ = 0;
};

} // namespace velvox
