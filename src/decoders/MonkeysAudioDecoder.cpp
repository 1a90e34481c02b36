#include "decoders/MonkeysAudioDecoder.h"

#include "core/UtilityFunctions.h"
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
    return takeStreamFormat(stream_.bitsPerChannel() / 8);
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
