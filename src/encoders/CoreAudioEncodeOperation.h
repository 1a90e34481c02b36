#pragma once
// The platform encoder: AAC and Apple Lossless in MP4 and CAF; linear PCM,
// A-law, μ-law and IMA 4:1 in WAV, AIFF, AIFC, CAF and NeXT/Sun files. The
// settings' fileType chooses the container, formatID and formatFlags the
// codec; CoreAudioOutputFormat picks the library that writes the pair and
// the operation drives it through the shared encode loop.
//
// AAC output records its priming and padding twice, as players expect: an
// MP4 edit list and an "iTunSMPB" item, so the decoded length is the
// source's.

#include <memory>
#include <optional>
#include <string>

#include "encoders/CoreAudioBackEnd.h"
#include "encoders/CoreAudioOutputFormat.h"
#include "encoders/CoreAudioTagWriter.h"
#include "encoders/StreamEncodeOperation.h"

namespace velvox {

class CoreAudioEncodeOperation : public StreamEncodeOperation {
public:
    CoreAudioEncodeOperation();
    ~CoreAudioEncodeOperation() override;

    // Any thread: whether a settings record's container and codec can be
    // written by this build, and if not the line that says so. Formats are
    // checked when they are added, never half way through a batch.
    static std::optional<std::string> cannotWriteReason(uint32_t fileType, AudioFormatID formatID) {
        return CoreAudioOutputFormat::cannotWriteReason(fileType, formatID);
    }

    // Operation thread.
    void encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) override;
    // AAC, Apple Lossless, WAV and AIFF go into the music library.
    bool isItunesCompatible() const override;
    // Tagging thread.
    void writeMetadata() override;

protected:
    static constexpr double kMaximumAACRate = 96000;

    std::string formatWord() const override { return "Core Audio"; }
    std::string unsupportedSampleSizeText() const override {
        return "Core Audio does not suport %u bit input files.";
    }
    uint32_t readBufferSize(uint32_t decoderBitsPerChannel) const override;
    uint32_t outputBitsPerChannel(const AudioStreamBasicDescription& decodeFormat) const override;
    double outputSampleRate(const AudioStreamBasicDescription& decodeFormat) const override;
    void adjustOutputFormat(AudioStreamBasicDescription& format) const override;
    void setUpCodec(const std::string& tempFilePath) override;
    void finishCodec() override;
    void releaseCodec() noexcept override;

private:
    // The output format of the settings; throws when it cannot be written.
    CoreAudioOutputFormat outputFormat() const;
    std::string codecLibraryName() const;
    // Which container's tag store the file at the temporary path has.
    uint32_t containerType() const;
    std::optional<CoreAudioTagWriter::Gapless> gapless_;
    std::unique_ptr<CoreAudioBackEnd> backEnd_;
};

} // namespace velvox
