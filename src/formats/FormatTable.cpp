#include "formats/FormatTable.h"

extern "C" {
#include <libavutil/log.h>
}

#include "core/FormatRegistry.h"

namespace velvox {

void FormatTable::installBuiltinFormats() {
    // FFmpeg prints its own diagnostics to the terminal (a damaged frame, a
    // guessed format). Velvox reports through its error log instead, naming
    // the file; the lines FFmpeg would print say nothing a user can act on.
    av_log_set_level(AV_LOG_QUIET);

    // The decoder factory tries the rows in this order; the first row that
    // holds a file's extension wins.
    FormatRegistry::install(
        {
            &kFLACFormat,         &kRealMediaFormat, &kVideoFormat,
            &kWindowsMediaFormat, &kASFFormat,       &kMonkeysAudioFormat,
            &kMusepackFormat,     &kWavPackFormat,   &kTrueAudioFormat,
            &kModFormat,          &kDSDFormat,       &kOggVorbisFormat,
            &kOggFLACFormat,      &kOggSpeexFormat,  &kOggOpusFormat,
            &kMP3Format,          &kMP4Format,       &kAIFFFormat,
            &kWAVEFormat,         &kCoreAudioFormat, &kSoundDesignerIIFormat,
        },
        {&kCoreAudioDecoderClass, &kFFMPEGDecoderClass});
}

} // namespace velvox
