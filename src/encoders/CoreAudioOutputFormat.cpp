#include "encoders/CoreAudioOutputFormat.h"

#include "jobs/EncoderSettings.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

bool isMP4Type(uint32_t fileType) {
    return fileType == kAudioFileM4AType || fileType == kAudioFileMPEG4Type;
}

// Whether this build has a coder for the codec in the container, and which
// library it is.
std::optional<CoreAudioOutputFormat::BackEnd> backEndFor(uint32_t fileType,
                                                         AudioFormatID formatID) {
    using BackEnd = CoreAudioOutputFormat::BackEnd;
    const bool caf = fileType == kAudioFileCAFType;
    switch (formatID) {
    case kAudioFormatMPEG4AAC:
    case kAudioFormatAppleLossless:
        if (isMP4Type(fileType) || caf)
            return BackEnd::Libav;
        return std::nullopt;
    case kAudioFormatAppleIMA4:
        if (caf || fileType == kAudioFileAIFCType)
            return BackEnd::Libav;
        if (fileType == kAudioFileWAVEType)
            return BackEnd::SndFile; // as Microsoft IMA ADPCM, WAV's own flavour
        return std::nullopt;
    case kAudioFormatLinearPCM:
        if (caf || fileType == kAudioFileWAVEType || fileType == kAudioFileAIFFType ||
            fileType == kAudioFileAIFCType || fileType == kAudioFileNextType)
            return BackEnd::SndFile;
        return std::nullopt;
    case kAudioFormatALaw:
    case kAudioFormatULaw:
        // Plain AIFF has no compression type; AIFC does.
        if (caf || fileType == kAudioFileWAVEType || fileType == kAudioFileAIFCType ||
            fileType == kAudioFileNextType)
            return BackEnd::SndFile;
        return std::nullopt;
    default:
        return std::nullopt;
    }
}

} // namespace

std::optional<CoreAudioOutputFormat>
CoreAudioOutputFormat::formatFor(uint32_t fileType, AudioFormatID formatID,
                                 AudioFormatFlags formatFlags) {
    const std::optional<BackEnd> backEnd = backEndFor(fileType, formatID);
    if (!backEnd)
        return std::nullopt;
    CoreAudioOutputFormat format;
    format.backEnd_ = *backEnd;
    format.fileType_ = fileType;
    format.formatID_ = formatID;
    const bool askedBig = (formatFlags & kAudioFormatFlagIsBigEndian) != 0;
    format.bigEndian_ =
        fileType == kAudioFileAIFFType || fileType == kAudioFileNextType ||
        ((fileType == kAudioFileAIFCType || fileType == kAudioFileCAFType) && askedBig);
    format.isFloat_ = formatID == kAudioFormatLinearPCM && (formatFlags & kAudioFormatFlagIsFloat);
    return format;
}

std::optional<std::string> CoreAudioOutputFormat::cannotWriteReason(uint32_t fileType,
                                                                    AudioFormatID formatID) {
    if (backEndFor(fileType, formatID))
        return std::nullopt;
    EncoderSettings described;
    described.setEncoderType(EncoderTypeCoreAudio);
    described.setFileType(fileType);
    described.setFormatID(formatID);
    std::string codec = described.encodingDescription();
    if (codec.empty())
        codec = stringWithFormat("'%@'", fourCharCodeString(int32_t(formatID)));
    std::string container = described.outputFormatDescription();
    if (container.empty())
        container = stringWithFormat("'%@'", fourCharCodeString(int32_t(fileType)));
    return stringWithFormat("The Core Audio Encoder Can Not Write %@ To %@ Files.", codec,
                            container);
}

bool CoreAudioOutputFormat::isLossy() const {
    return formatID_ != kAudioFormatLinearPCM && formatID_ != kAudioFormatAppleLossless;
}

uint32_t CoreAudioOutputFormat::codecBitsPerChannel(uint32_t wantedBits) const {
    switch (formatID_) {
    case kAudioFormatAppleLossless:
        return wantedBits <= 16 ? 16 : 24;
    case kAudioFormatALaw:
    case kAudioFormatULaw:
    case kAudioFormatAppleIMA4:
        return 16;
    case kAudioFormatMPEG4AAC:
        return wantedBits;
    default:
        // WAV's 8-bit samples are unsigned, the rest signed: libsndfile
        // handles both from the same signed PCM.
        if (isFloat_)
            return 32;
        return wantedBits == 8 || wantedBits == 16 || wantedBits == 24 || wantedBits == 32
                   ? wantedBits
                   : 16;
    }
}

const char* CoreAudioOutputFormat::muxerName() const {
    if (fileType_ == kAudioFileM4AType)
        return "ipod"; // MP4 with the M4A brand, as players expect of .m4a
    if (fileType_ == kAudioFileMPEG4Type)
        return "mp4";
    if (fileType_ == kAudioFileAIFCType)
        return "aiff";
    return "caf";
}

const char* CoreAudioOutputFormat::codecName() const {
    switch (formatID_) {
    case kAudioFormatMPEG4AAC:
        return "aac";
    case kAudioFormatAppleLossless:
        return "alac";
    default:
        return "adpcm_ima_qt";
    }
}

} // namespace velvox
