#pragma once
// The formats of the desktop's own audio file service: AIFF/AIFC, WAVE (also
// RF64 and Wave64), CAF, AU/SND, Sound Designer II, MP3 and the other MPEG
// audio layers, AAC, Apple Lossless, AMR and 3GPP.
//
// On Linux the uncompressed family is read with libsndfile and the coded
// formats with libavformat/libavcodec. The delivered PCM follows the desktop
// service's rules: integer samples at the source's own depth (16 bits for
// lossy formats, Apple Lossless by its source-depth flag), and the file's
// channel layout with channel bitmaps turned into layout tags.

#include <memory>
#include <string>
#include <vector>

#include <sndfile.h>

#include "core/KDDecoder.h"
#include "core/LibavSampleConverter.h"

namespace velvox {

class CoreAudioDecoder : public KDDecoder {
public:
    CoreAudioDecoder();
    ~CoreAudioDecoder() override;

    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "CoreAudioDecoder"; }
    int64_t totalFrames() const override { return totalFrames_; }
    bool decodesInRealTime() const override { return true; }
    void fillPCMBuffer() override;
    // libsndfile counts the frames of the uncompressed family exactly; the
    // coded formats' figure is the container's estimate.
    bool totalFramesIsExact() const override { return sndfile_ != nullptr && totalFrames_ >= 0; }

    // The file's own data format: rate, channels, format ID, and either its
    // bits per channel (uncompressed data) or 0 with format flags (coded data;
    // Apple Lossless carries its source depth in the flags).
    const AudioStreamBasicDescription& sourceFormat() const { return sourceFormat_; }

    // The delivered sample size for a source: Apple Lossless by its
    // source-depth flag (20 bits keep 2 bytes per sample), anything else its
    // own bits per channel, or 16 where the source gives none.
    static uint32_t decodeBitsForSourceFormat(const AudioStreamBasicDescription& source);
    // The layout the decoder announces for the file's own layout (null: the
    // file has none): channel bitmaps become tags by channel count, one- and
    // two-channel descriptions become Mono and Stereo, tags stay as they are.
    static std::unique_ptr<AudioChannelLayout>
    adjustedChannelLayout(std::unique_ptr<AudioChannelLayout> fileLayout, uint32_t channels);

private:
    enum class OpenResult {
        Opened,
        NotHandled, // this library cannot read the file; the reason says why
        Failed,     // readable, but unusable; already logged
    };

    OpenResult openWithSndfile(const std::string& path, std::string& reason);
    // The frames the header of a cut-off WAVE or AIFF file announces, which
    // libsndfile trims to what is there and notes in its log; -1 when the
    // file is whole or the log says nothing.
    static int64_t framesAnnouncedBeyondEnd(SNDFILE* file, uint32_t bytesPerFrame);
    OpenResult openWithLibav(const std::string& path, std::string& reason);
    std::unique_ptr<AudioChannelLayout> sndfileChannelLayout() const;
    std::unique_ptr<AudioChannelLayout> libavChannelLayout() const;

    uint32_t readSndfile(uint8_t* out, uint32_t frames);
    uint32_t readLibav(uint8_t* out, uint32_t frames);
    // Decodes until one frame of PCM is waiting in pending_; false at the end.
    bool decodeNextLibavFrame();
    void convertLibavFrame(const AVFrame* frame);
    void resampleLibavFrame(const AVFrame* frame);
    void checkTrailingPadding();

    struct SndfileDeleter {
        void operator()(SNDFILE* file) const;
    };

    AudioStreamBasicDescription sourceFormat_{};
    int64_t totalFrames_ = -1;

    // Uncompressed family.
    std::unique_ptr<SNDFILE, SndfileDeleter> sndfile_;
    int sndfileFormat_ = 0;
    bool sndfileIsFloat_ = false;
    std::vector<int16_t> shortScratch_;
    std::vector<int32_t> intScratch_;
    std::vector<double> doubleScratch_;

    // Coded formats.
    AVFormatContextPtr format_;
    AVCodecContextPtr codec_;
    AVPacketPtr packet_;
    AVFramePtr frame_;
    LibavSampleConverter converter_;
    int streamIndex_ = -1;
    bool inputEnded_ = false;
    int64_t framesDelivered_ = 0;
    int64_t frameLimit_ = -1; // -1: up to the decoder's last frame
    // Converted PCM of the last decoded frame that did not fit yet.
    std::vector<uint8_t> pending_;
    size_t pendingOffset_ = 0;
    std::vector<uint8_t> swrScratch_;
};

} // namespace velvox
