#pragma once
// Base of every decoder: turns one input file into interleaved little-endian
// signed-integer PCM (decodeFormat) and hands it out through readAudio(),
// refilling its ring buffer through the subclass's fillPCMBuffer().
//
// Decoders are made by the factory decoderWithFilename(), which picks the
// class from the format registry by extension (and, for Ogg files, by
// content). Concrete classes live in the decoders subsystem and reach the
// factory through their registry rows, so this core class does not depend on
// them.

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "core/DecoderDelegate.h"
#include "core/RingBuffer.h"
#include "platform/CoreAudioTypes.h"

namespace velvox {

class KDDecoder {
public:
    KDDecoder() = default;
    virtual ~KDDecoder();
    KDDecoder(const KDDecoder&) = delete;
    KDDecoder& operator=(const KDDecoder&) = delete;

    // The decoder for a file, or null (the reason is in the error log). Ogg
    // files that are not valid or of an unknown codec raise assertions.
    static std::unique_ptr<KDDecoder> decoderWithFilename(const std::string& path);

    // Two-phase construction: a subclass calls this first and returns false
    // (after logging) when it cannot open its file.
    virtual bool initWithFilename(const std::string& path);
    virtual const char* className() const = 0;

    const std::string& inFilePath() const { return inFilePath_; }
    RingBuffer& pcmBuffer() { return *pcmBuffer_; }
    AudioStreamBasicDescription decodeFormat() const { return decodeFormat_; }
    const AudioChannelLayout* channelLayout() const { return mChannelLayout_.get(); }

    // Copies up to frameCount frames into the first buffer of the list and
    // returns the frames delivered; 0 means the stream has ended.
    uint32_t readAudio(AudioBufferList* bufferList, uint32_t frameCount);

    void cancel() { cancelled_ = true; }
    bool isCancelled() const { return cancelled_; }

    // -1 when the length is not known.
    virtual int64_t totalFrames() const { return -1; }
    virtual int64_t currentFrame() const { return currentFrame_; }
    virtual void fillPCMBuffer() {}
    bool isEndOfFile() const { return isEndOfFile_; }
    virtual bool decodesInRealTime() const { return true; }
    virtual bool decodeToFile(const std::string& path);
    // Whether totalFrames() is the exact length (and not an estimate), so that
    // delivering fewer frames means the file is damaged.
    virtual bool totalFramesIsExact() const { return false; }
    // Why the audio delivered is not the whole of the file (a lost page, a
    // frame that failed its checksum), or empty. The decoder goes on past
    // such damage so that what can be read stays available; whoever consumes
    // the audio decides whether a damaged file may pass. Read on the thread
    // that decodes.
    const std::string& damage() const { return damage_; }

    DecoderDelegate* delegate() const { return delegate_; }
    void setDelegate(DecoderDelegate* delegate) { delegate_ = delegate; }

protected:
    void setEndOfFile(bool value) { isEndOfFile_ = value; }
    // Keeps the first cause: later damage usually follows from it.
    void noteDamage(const std::string& what) {
        if (damage_.empty())
            damage_ = what;
    }
    void setChannelLayout(std::unique_ptr<AudioChannelLayout> layout) {
        mChannelLayout_ = std::move(layout);
    }
    // The usual layout for one or two channels; Unknown for more.
    void setLayoutForChannelCount(uint32_t channels);
    // Describes the PCM delivered as packed signed little-endian integers of
    // `bits`, each in `bytesPerSample` bytes (bits / 8 when 0). False when
    // that makes no bytes per frame.
    bool setIntegerDecodeFormat(double sampleRate, uint32_t bits, uint32_t channels,
                                uint32_t bytesPerSample = 0);
    // Logs that the frame size is unknown; answers false for initWithFilename.
    static bool unknownFrameSize();

    AudioStreamBasicDescription decodeFormat_{};

private:
    std::string inFilePath_;
    std::unique_ptr<AudioChannelLayout> mChannelLayout_;
    std::unique_ptr<RingBuffer> pcmBuffer_;
    int64_t currentFrame_ = 0;
    std::string damage_;
    bool isEndOfFile_ = false;
    std::atomic<bool> cancelled_ = false;
    DecoderDelegate* delegate_ = nullptr;
};

} // namespace velvox
