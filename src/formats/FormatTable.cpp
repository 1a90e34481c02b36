#include "formats/FormatTable.h"

#include "core/FormatRegistry.h"

namespace velvox {

void FormatTable::installBuiltinFormats() {
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
