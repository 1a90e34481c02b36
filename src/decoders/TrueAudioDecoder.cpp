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
    // A 20-bit stream keeps three bytes per sample.
    return takeStreamFormat((stream_.bitsPerChannel() + 7) / 8);
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
