#include "core/KDDecoder.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <mutex>
#include <string_view>

#include "core/FormatRegistry.h"
#include "core/UtilityFunctions.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

std::unique_ptr<KDDecoder> decoderOfClass(const DecoderClass& decoderClass,
                                          const std::string& path) {
    std::unique_ptr<KDDecoder> decoder = decoderClass.make();
    if (!decoder || !decoder->initWithFilename(path))
        return nullptr;
    return decoder;
}

std::unique_ptr<KDDecoder> fallbackDecoder(const std::string& path) {
    const std::vector<const DecoderClass*> chain = FormatRegistry::fallbackDecoders();
    for (size_t i = 0; i < chain.size(); ++i) {
        if (auto decoder = decoderOfClass(*chain[i], path))
            return decoder;
        if (i + 1 < chain.size())
            ErrorLog::sharedController().logMessage(
                "Failed To Create Core Audio Decoder.  Attempting To Fall Back To FFMPEG Decoder");
    }
    return nullptr;
}

} // namespace

KDDecoder::~KDDecoder() = default;

std::unique_ptr<KDDecoder> KDDecoder::decoderWithFilename(const std::string& path) {
    const FormatRegistry::Match match = FormatRegistry::match(path);
    if (match.isOgg) {
        VLX_ASSERT(match.oggStreamType != OggStreamTypeInvalid,
                   "This Ogg File Does Not Appear To Be Valid.");
        VLX_ASSERT(match.entry != nullptr && match.entry->decoder != nullptr,
                   "The Ogg File's Data Format Is Unknown.");
    }
    if (match.entry && match.entry->decoder)
        return decoderOfClass(*match.entry->decoder, path);
    return fallbackDecoder(path);
}

void KDDecoder::setLayoutForChannelCount(uint32_t channels) {
    setChannelLayout(createChannelLayoutWithTag(channels == 1   ? kAudioChannelLayoutTag_Mono
                                                : channels == 2 ? kAudioChannelLayoutTag_Stereo
                                                                : kAudioChannelLayoutTag_Unknown));
}

bool KDDecoder::setIntegerDecodeFormat(double sampleRate, uint32_t bits, uint32_t channels,
                                       uint32_t bytesPerSample) {
    decodeFormat_.mSampleRate = sampleRate;
    decodeFormat_.mFormatID = kAudioFormatLinearPCM;
    decodeFormat_.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    decodeFormat_.mBitsPerChannel = bits;
    decodeFormat_.mChannelsPerFrame = channels;
    decodeFormat_.mBytesPerFrame = (bytesPerSample != 0 ? bytesPerSample : bits / 8) * channels;
    decodeFormat_.mFramesPerPacket = 1;
    decodeFormat_.mBytesPerPacket = decodeFormat_.mBytesPerFrame;
    return decodeFormat_.mBytesPerFrame != 0;
}

bool KDDecoder::unknownFrameSize() {
    ErrorLog::sharedController().logMessage("Failed To Determine mBytesPerFrame.");
    return false;
}

bool KDDecoder::initWithFilename(const std::string& path) {
    pcmBuffer_ = std::make_unique<RingBuffer>();
    inFilePath_ = path;
    decodeFormat_ = AudioStreamBasicDescription{};
    mChannelLayout_.reset();
    isEndOfFile_ = false;
    cancelled_ = false;
    return true;
}

uint32_t KDDecoder::readAudio(AudioBufferList* bufferList, uint32_t frameCount) {
    VLX_PARAMETER_ASSERT(NULL != bufferList);
    VLX_PARAMETER_ASSERT(0 < bufferList->mNumberBuffers);
    VLX_PARAMETER_ASSERT(0 < frameCount);
    // The list's count and its storage agree in every list we build; a list
    // that says it has buffers but holds none is a caller error too.
    VLX_PARAMETER_ASSERT_TEXT(!bufferList->mBuffers.empty(), "0 < bufferList->mNumberBuffers");

    uint32_t byteCount = decodeFormat_.mBytesPerFrame * frameCount;
    AudioBuffer& out = bufferList->mBuffers[0];
    VLX_PARAMETER_ASSERT_TEXT(out.mDataByteSize >= byteCount,
                              "bufferList->mBuffers[0].mDataByteSize >= byteCount");

    if (pcmBuffer_->bytesAvailable() < byteCount)
        fillPCMBuffer();
    if (pcmBuffer_->bytesAvailable() < byteCount)
        byteCount = pcmBuffer_->bytesAvailable();

    const uint32_t copied = pcmBuffer_->getData(out.mData, byteCount);
    out.mNumberChannels = decodeFormat_.mChannelsPerFrame;
    out.mDataByteSize = copied;

    const uint32_t frames =
        decodeFormat_.mBytesPerFrame ? copied / decodeFormat_.mBytesPerFrame : 0;
    currentFrame_ += frames;
    return frames;
}

bool KDDecoder::decodeToFile(const std::string&) { return false; }

} // namespace velvox
