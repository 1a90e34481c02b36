#include "decoders/TrueAudioDecoder.h"

#include "core/UtilityFunctions.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"

namespace velvox {

TrueAudioDecoder::TrueAudioDecoder() = default;
TrueAudioDecoder::~TrueAudioDecoder() = default;

bool TrueAudioDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;
    auto& log = ErrorLog::sharedController();
    const int err = stream_.open(path, AV_CODEC_ID_TTA);
    if (err == AVERROR(ENOENT) || err == AVERROR(EACCES) || err == AVERROR(EISDIR)) {
        log.logMessage(stringWithFormat("tta_open_read failed to open file: %@", path));
        return false;
    }
    if (err < 0) {
        log.logMessage(stringWithFormat("TTA Decoder init_get_info failed") + ": " + path);
        return false;
    }

    const uint32_t bits = stream_.bitsPerChannel();
    const uint32_t channels = stream_.channels();
    decodeFormat_.mSampleRate = double(stream_.sampleRate());
    decodeFormat_.mFormatID = kAudioFormatLinearPCM;
    decodeFormat_.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    decodeFormat_.mBitsPerChannel = bits;
    decodeFormat_.mChannelsPerFrame = channels;
    decodeFormat_.mBytesPerFrame = ((bits + 7) / 8) * channels;
    decodeFormat_.mFramesPerPacket = 1;
    decodeFormat_.mBytesPerPacket = decodeFormat_.mBytesPerFrame;
    if (decodeFormat_.mBytesPerFrame == 0 || stream_.sampleRate() == 0) {
        log.logMessage("Failed To Determine mBytesPerFrame.");
        return false;
    }
    setChannelLayout(createChannelLayoutWithTag(channels == 1   ? kAudioChannelLayoutTag_Mono
                                                : channels == 2 ? kAudioChannelLayoutTag_Stereo
                                                                : kAudioChannelLayoutTag_Unknown));
    return true;
}

void TrueAudioDecoder::fillPCMBuffer() {
    const int frames = stream_.decodeNextPacket(pcmBuffer());
    if (frames < 0)
        throw Exception(
            "TTAException", "TTA Decoder process_stream Error",
            {{"errorCode", std::to_string(frames)}, {"errorString", avErrorString(frames)}});
    if (frames == 0)
        setEndOfFile(true);
}

} // namespace velvox
