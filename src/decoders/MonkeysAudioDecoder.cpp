#include "decoders/MonkeysAudioDecoder.h"

#include "core/UtilityFunctions.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"

namespace velvox {

MonkeysAudioDecoder::MonkeysAudioDecoder() = default;
MonkeysAudioDecoder::~MonkeysAudioDecoder() = default;

bool MonkeysAudioDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;
    // The caller's exception handler names the file.
    VLX_ASSERT(stream_.open(path, AV_CODEC_ID_APE) >= 0, "Unable to open the input file.");

    const uint32_t bits = stream_.bitsPerChannel();
    const uint32_t channels = stream_.channels();
    decodeFormat_.mSampleRate = double(stream_.sampleRate());
    decodeFormat_.mFormatID = kAudioFormatLinearPCM;
    decodeFormat_.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    decodeFormat_.mBitsPerChannel = bits;
    decodeFormat_.mChannelsPerFrame = channels;
    decodeFormat_.mBytesPerFrame = (bits / 8) * channels;
    decodeFormat_.mFramesPerPacket = 1;
    decodeFormat_.mBytesPerPacket = decodeFormat_.mBytesPerFrame;
    if (decodeFormat_.mBytesPerFrame == 0 || stream_.sampleRate() == 0) {
        ErrorLog::sharedController().logMessage("Failed To Determine mBytesPerFrame.");
        return false;
    }
    setChannelLayout(createChannelLayoutWithTag(channels == 1   ? kAudioChannelLayoutTag_Mono
                                                : channels == 2 ? kAudioChannelLayoutTag_Stereo
                                                                : kAudioChannelLayoutTag_Unknown));
    return true;
}

void MonkeysAudioDecoder::fillPCMBuffer() {
    VLX_ASSERT(decodeFormat_.mBytesPerFrame != 0,
               "Unable to determine the Monkey's Audio block size.");
    const int frames = stream_.decodeNextPacket(pcmBuffer());
    VLX_ASSERT(frames >= 0, "Error Decoding Monkey's Audio Frame: %lld. Error %d",
               (long long)stream_.packetsRead(), frames);
    if (frames == 0)
        setEndOfFile(true);
}

} // namespace velvox
