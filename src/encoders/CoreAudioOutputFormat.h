#pragma once
// Which library writes a platform-encoder output, decided once from the
// settings' container (fileType) and codec (formatID, formatFlags).
//
// FFmpeg's encoders and muxers write AAC and Apple Lossless (MP4, CAF) and
// Apple's IMA 4:1 (CAF, AIFC), which libsndfile has no coder for; libsndfile
// writes linear PCM, A-law and μ-law in every container it knows, and
// Microsoft IMA ADPCM in WAV. The codecs of the desktop platform that no
// Debian library encodes (HE-AAC, AAC-LD/ELD, AMR, iLBC, QCELP) are refused
// here, before a batch starts, never half way through it.

#include <cstdint>
#include <optional>
#include <string>

#include "platform/CoreAudioTypes.h"

namespace velvox {

// Container four-character codes as the settings store them.
constexpr uint32_t kAudioFileM4AType = fourCharCode("m4af");
constexpr uint32_t kAudioFileMPEG4Type = fourCharCode("mp4f");
constexpr uint32_t kAudioFileCAFType = fourCharCode("caff");
constexpr uint32_t kAudioFileWAVEType = fourCharCode("WAVE");
constexpr uint32_t kAudioFileAIFFType = fourCharCode("AIFF");
constexpr uint32_t kAudioFileAIFCType = fourCharCode("AIFC");
constexpr uint32_t kAudioFileNextType = fourCharCode("NeXT");
constexpr AudioFormatID kAudioFormatAppleIMA4 = fourCharCode("ima4");

class CoreAudioOutputFormat {
public:
    enum class BackEnd { Libav, SndFile };

    // Null when the pairing cannot be written here; thread-agnostic.
    static std::optional<CoreAudioOutputFormat> formatFor(uint32_t fileType, AudioFormatID formatID,
                                                          AudioFormatFlags formatFlags);
    // Absent when the pairing can be written, else the error-log line that
    // says why not. Any thread (the controller asks when a format is added).
    static std::optional<std::string> cannotWriteReason(uint32_t fileType, AudioFormatID formatID);
    static bool canWrite(uint32_t fileType, AudioFormatID formatID) {
        return !cannotWriteReason(fileType, formatID);
    }

    BackEnd backEnd() const { return backEnd_; }
    uint32_t fileType() const { return fileType_; }
    AudioFormatID formatID() const { return formatID_; }
    bool isMP4() const {
        return fileType_ == kAudioFileM4AType || fileType_ == kAudioFileMPEG4Type;
    }
    bool isLossy() const;
    // Samples stored big-endian (AIFF always, AIFC and CAF by the flag, AU
    // always); WAV is little-endian whatever the flag says.
    bool bigEndian() const { return bigEndian_; }
    // 32-bit samples stored as IEEE floats (the float flag).
    bool isFloat() const { return isFloat_; }

    // The sample size the codec is fed for a wanted one (the settings'
    // bitDepth, or the source's when that is 0): Apple Lossless takes 16 and
    // 24 bits, the companding and ADPCM coders 16, AAC any (it is fed
    // floats), linear PCM what was asked.
    uint32_t codecBitsPerChannel(uint32_t wantedBits) const;

    // For the libav back end: the muxer and encoder names.
    const char* muxerName() const;
    const char* codecName() const;

private:
    BackEnd backEnd_ = BackEnd::SndFile;
    uint32_t fileType_ = 0;
    AudioFormatID formatID_ = 0;
    bool bigEndian_ = false;
    bool isFloat_ = false;
};

} // namespace velvox
