#include "encoders/CoreAudioEncodeOperation.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include <sndfile.h>

extern "C" {
#include <libavcodec/version.h>
}

#include "Version.h"
#include "encoders/LibavMuxerBackEnd.h"
#include "encoders/SndFileBackEnd.h"
#include "jobs/FormatSpecifiers.h"
#include "metadata/CoreAudioFileInfo.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

constexpr int64_t kDefaultAACBitrate = 256000;

} // namespace

// The library that coded the audio, with its version, for the encoded-by
// tag: "libsndfile-1.2.0" or "Lavc59.37.100".
std::string CoreAudioEncodeOperation::codecLibraryName() const {
    const std::optional<CoreAudioOutputFormat> format =
        settings() ? CoreAudioOutputFormat::formatFor(
                         settings()->fileType(), settings()->formatID(), settings()->formatFlags())
                   : std::nullopt;
    if (format && format->backEnd() == CoreAudioOutputFormat::BackEnd::SndFile)
        return sf_version_string();
    return LIBAVCODEC_IDENT;
}

CoreAudioEncodeOperation::CoreAudioEncodeOperation() = default;

CoreAudioEncodeOperation::~CoreAudioEncodeOperation() { releaseCodec(); }

CoreAudioOutputFormat CoreAudioEncodeOperation::outputFormat() const {
    const uint32_t fileType = settings() ? settings()->fileType() : 0;
    const AudioFormatID formatID = settings() ? settings()->formatID() : 0;
    const AudioFormatFlags flags = settings() ? settings()->formatFlags() : 0;
    const std::optional<CoreAudioOutputFormat> format =
        CoreAudioOutputFormat::formatFor(fileType, formatID, flags);
    if (!format)
        throw Exception("IllegalInputException",
                        CoreAudioOutputFormat::cannotWriteReason(fileType, formatID).value_or(""));
    return *format;
}

uint32_t CoreAudioEncodeOperation::readBufferSize(uint32_t decoderBitsPerChannel) const {
    // 32-bit sources (integer or float) are welcome here: LPCM keeps them.
    if (decoderBitsPerChannel == 32)
        return 65536;
    return StreamEncodeOperation::readBufferSize(decoderBitsPerChannel);
}

uint32_t CoreAudioEncodeOperation::outputBitsPerChannel(
    const AudioStreamBasicDescription& decodeFormat) const {
    const CoreAudioOutputFormat format = outputFormat();
    if (format.formatID() == kAudioFormatMPEG4AAC)
        return decodeFormat.mBitsPerChannel; // fed as floats whatever the size
    return format.codecBitsPerChannel(StreamEncodeOperation::outputBitsPerChannel(decodeFormat));
}

double
CoreAudioEncodeOperation::outputSampleRate(const AudioStreamBasicDescription& decodeFormat) const {
    const double rate = StreamEncodeOperation::outputSampleRate(decodeFormat);
    // AAC stops at 96 kHz; a higher source is resampled rather than refused.
    if (outputFormat().formatID() == kAudioFormatMPEG4AAC && rate > kMaximumAACRate)
        return kMaximumAACRate;
    return rate;
}

void CoreAudioEncodeOperation::adjustOutputFormat(AudioStreamBasicDescription& format) const {
    // The back ends take signed integers; a float source is converted here.
    format.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
}

void CoreAudioEncodeOperation::setUpCodec(const std::string& tempFilePath) {
    const CoreAudioOutputFormat format = outputFormat();
    gapless_.reset();
    if (format.backEnd() == CoreAudioOutputFormat::BackEnd::Libav)
        backEnd_ = std::make_unique<LibavMuxerBackEnd>();
    else
        backEnd_ = std::make_unique<SndFileBackEnd>();
    CoreAudioBackEnd::Stream stream;
    stream.sampleRate = sourceSampleRate();
    stream.channels = targetChannels();
    stream.bitsPerChannel = sourceBitsPerChannel();
    const int64_t bitrate = settings() ? settings()->bitrate() : 0;
    stream.bitrate = bitrate > 0 ? bitrate : kDefaultAACBitrate;
    stream.expectedFrames = std::max<int64_t>(totalFrames(), 0);
    backEnd_->open(tempFilePath, format, stream);
}

void CoreAudioEncodeOperation::encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) {
    VLX_PARAMETER_ASSERT_TEXT(!bufferList.mBuffers.empty(), "0 < bufferList->mNumberBuffers");
    const AudioBuffer& buffer = bufferList.mBuffers[0];
    VLX_PARAMETER_ASSERT_TEXT(buffer.mNumberChannels == targetChannels() &&
                                  buffer.mDataByteSize >= size_t(frameCount) *
                                                              buffer.mNumberChannels *
                                                              (sourceBitsPerChannel() / 8),
                              "bufferList->mBuffers[0].mDataByteSize >= byteCount");
    backEnd_->write(static_cast<const uint8_t*>(buffer.mData), frameCount);
}

void CoreAudioEncodeOperation::finishCodec() {
    backEnd_->finish();
    if (backEnd_->primingFrames() > 0)
        gapless_ = CoreAudioTagWriter::Gapless{backEnd_->primingFrames(), backEnd_->paddingFrames(),
                                               backEnd_->framesWritten()};
}

void CoreAudioEncodeOperation::releaseCodec() noexcept {
    if (backEnd_)
        backEnd_->close();
    backEnd_.reset();
}

bool CoreAudioEncodeOperation::isItunesCompatible() const {
    if (!settings())
        return false;
    const uint32_t fileType = settings()->fileType();
    const AudioFormatID formatID = settings()->formatID();
    if (fileType == kAudioFileM4AType || fileType == kAudioFileMPEG4Type)
        return formatID == kAudioFormatMPEG4AAC || formatID == kAudioFormatAppleLossless;
    return fileType == kAudioFileWAVEType || fileType == kAudioFileAIFFType;
}

uint32_t CoreAudioEncodeOperation::containerType() const {
    // A tags-only update has no container in its settings: the file's own
    // content says which tag store it has.
    if (settings() && settings()->encoderAction() != EncoderActionUpdateMetadata &&
        settings()->fileType() != 0)
        return settings()->fileType();
    const std::optional<CoreAudioFileInfo> info =
        CoreAudioFileInfo::infoWithFile(tempFilePath().value_or(""));
    if (!info)
        return 0;
    const std::string& name = info->fileTypeName();
    if (name == "WAVE")
        return kAudioFileWAVEType;
    if (name == "AIFF" || name == "AIFC")
        return kAudioFileAIFFType;
    if (name == "CAF")
        return kAudioFileCAFType;
    if (name == "NeXT/Sun")
        return kAudioFileNextType;
    if (name.find("MPEG-4") != std::string::npos)
        return kAudioFileM4AType;
    return 0;
}

void CoreAudioEncodeOperation::writeMetadata() {
    const std::optional<std::string> temp = tempFilePath();
    std::error_code ec;
    if (!temp || !std::filesystem::exists(*temp, ec))
        return;
    const std::shared_ptr<AudioMetadata> record = metadataForTags();
    if (!record)
        return;
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    const std::optional<std::string> encodedBy = encodedByText(codecLibraryName());
    const std::optional<std::string> comment = commentText();

    const CoreAudioTagWriter writer(*record, encodedBy, comment);
    bool saved = true;
    switch (containerType()) {
    case kAudioFileM4AType:
    case kAudioFileMPEG4Type:
        saved = writer.writeMP4(*temp, gapless_);
        break;
    case kAudioFileWAVEType: {
        const std::vector<uint8_t>* broadcast = nullptr;
        if (defaults.boolForKey("preserveBroadcastWavData") && record->userData()) {
            const auto found = record->userData()->find("bext");
            if (found != record->userData()->end() && !found->second.empty())
                broadcast = &found->second.front();
        }
        saved = writer.writeWAV(*temp, broadcast);
        break;
    }
    case kAudioFileAIFFType:
    case kAudioFileAIFCType:
        saved = writer.writeAIFF(*temp);
        break;
    case kAudioFileCAFType:
        saved = writer.writeCAF(*temp);
        break;
    case kAudioFileNextType:
        if (const std::string lost = writer.fieldsWithoutStore(); !lost.empty())
            ErrorLog::sharedController().logMessage(stringWithFormat(
                "Core Audio Encode Operation Could Not Write Metadata To %@.  NeXT/Sun Files "
                "Have No Place For: %@",
                std::filesystem::path(inFilePath()).filename().string(), lost));
        break;
    default:
        saved = false;
        break;
    }
    if (!saved)
        ErrorLog::sharedController().logMessage(
            stringWithFormat("Core Audio Encode Operation Could Not Write Metadata To %@.",
                             std::filesystem::path(inFilePath()).filename().string()));
}

} // namespace velvox
