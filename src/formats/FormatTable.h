#pragma once
// The formats of this build: every registry row, in the order the decoder
// factory tries them, and the fallback decoders. This header names the rows;
// each is defined in the file of its family (FLACFormats.cpp, ...).

#include <memory>
#include <string>
#include <vector>

#include "core/FormatEntry.h"
#include "jobs/EncodeOperation.h"
#include "jobs/EncoderDescriptor.h"

namespace velvox {

class FormatTable {
public:
    // Installs every built-in row into FormatRegistry. Call once at start-up
    // on the main thread (repeated calls install the same rows again).
    static void installBuiltinFormats();
};

template <typename T>
std::unique_ptr<EncodeOperation> makeEncoder() {
    return std::make_unique<T>();
}

// FFmpeg as the independent decoder of an encoder's output, to 32-bit PCM.
inline ReferenceDecoder ffmpegReference(bool lossless) {
    return {.argv = {"ffmpeg", "-v", "error", "-y", "-i", "{in}", "-c:a", "pcm_s32le", "{out}"},
            .lossless = lossless};
}

// The extensions every Ogg family shares; the first packet decides.
inline std::vector<std::string> oggExtensions() { return {"ogg", "oga", "oggflac", "spx", "opus"}; }

extern const FormatEntry kFLACFormat;
extern const FormatEntry kOggFLACFormat;
extern const FormatEntry kRealMediaFormat;
extern const FormatEntry kVideoFormat;
extern const FormatEntry kWindowsMediaFormat;
extern const FormatEntry kASFFormat;
extern const FormatEntry kMonkeysAudioFormat;
extern const FormatEntry kMusepackFormat;
extern const FormatEntry kWavPackFormat;
extern const FormatEntry kTrueAudioFormat;
extern const FormatEntry kModFormat;
extern const FormatEntry kDSDFormat;
extern const FormatEntry kOggVorbisFormat;
extern const FormatEntry kOggSpeexFormat;
extern const FormatEntry kOggOpusFormat;
extern const FormatEntry kMP3Format;
extern const FormatEntry kMP4Format;
extern const FormatEntry kAIFFFormat;
extern const FormatEntry kWAVEFormat;
extern const FormatEntry kCoreAudioFormat;
extern const FormatEntry kSoundDesignerIIFormat;
extern const DecoderClass kCoreAudioDecoderClass;
extern const DecoderClass kFFMPEGDecoderClass;

} // namespace velvox
