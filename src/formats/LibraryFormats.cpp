// The families read through their own libraries (WavPack, Musepack, the
// module player, DSD) or through FFmpeg's lossless decoders (Monkey's Audio,
// True Audio), two of which Velvox also writes.
#include "formats/FormatTable.h"

#include "decoders/DSDDecoder.h"
#include "decoders/ModDecoder.h"
#include "decoders/MonkeysAudioDecoder.h"
#include "decoders/MusepackDecoder.h"
#include "decoders/TrueAudioDecoder.h"
#include "decoders/WavPackDecoder.h"
#include "encoders/MonkeysAudioEncodeOperation.h"
#include "encoders/TrueAudioEncodeOperation.h"
#include "formats/CommonSettings.h"
#include "jobs/EncoderDescriptor.h"
#include "metadata/AudioMetadata.h"

namespace velvox {

namespace {

const EncoderDescriptor kMonkeysAudioEncoder{
    .encoderType = EncoderTypeMonkeysAudio,
    .formatName = "ape",
    .className = "MonkeysAudioEncodeOperation",
    .make = makeEncoder<MonkeysAudioEncodeOperation>,
    .settings =
        settings::join({settings::common("ape"),
                        // The stored value is the library's own level number; the words and
                        // 1 to 5 are what people call them.
                        {{.name = "level",
                          .aliases = {"macCompressionLevel"},
                          .key = "macCompressionLevel",
                          .kind = SettingKind::Choice,
                          .defaultValue = 2000,
                          .choices = {{"fast", 1000},
                                      {"normal", 2000},
                                      {"high", 3000},
                                      {"extra", 4000},
                                      {"extrahigh", 4000},
                                      {"extra-high", 4000},
                                      {"insane", 5000},
                                      {"1", 1000},
                                      {"2", 2000},
                                      {"3", 3000},
                                      {"4", 4000},
                                      {"5", 5000},
                                      {"1000", 1000},
                                      {"2000", 2000},
                                      {"3000", 3000},
                                      {"4000", 4000},
                                      {"5000", 5000}},
                          .expected = "fast, normal, high, extra, insane, 1 to 5 or 1000 to 5000"},
                         settings::bitDepth({8, 16, 24}),
                         settings::sampleRate()}}),
    .tagKinds = {"APEv2"},
    .samples = {.bitDepths = {8, 16, 24}, .maximumChannels = 2},
    .reference = ffmpegReference(true),
};

const EncoderDescriptor kTrueAudioEncoder{
    .encoderType = EncoderTypeTrueAudio,
    .formatName = "tta",
    .className = "TrueAudioEncodeOperation",
    .make = makeEncoder<TrueAudioEncodeOperation>,
    .settings = settings::join(
        {settings::common("tta"), {settings::bitDepth({8, 16, 24}), settings::sampleRate()}}),
    .tagKinds = {"ID3v2", "ID3v1"},
    .samples = {.bitDepths = {8, 16, 24}, .maximumChannels = 8},
    .reference = ffmpegReference(true),
};

const DecoderClass kMonkeysAudioDecoder{"MonkeysAudioDecoder", makeDecoder<MonkeysAudioDecoder>};
const DecoderClass kMusepackDecoder{"MusepackDecoder", makeDecoder<MusepackDecoder>};
const DecoderClass kWavPackDecoder{"WavPackDecoder", makeDecoder<WavPackDecoder>};
const DecoderClass kTrueAudioDecoder{"TrueAudioDecoder", makeDecoder<TrueAudioDecoder>};
const DecoderClass kModDecoder{"ModDecoder", makeDecoder<ModDecoder>};
const DecoderClass kDSDDecoder{"DSDDecoder", makeDecoder<DSDDecoder>};

// A family read through its own decoder and metadata reader.
FormatEntry libraryFamily(const char* name, const char* displayName,
                          std::vector<std::string> extensions, const DecoderClass& decoder,
                          std::unique_ptr<AudioMetadata> (*readMetadata)(const std::string&),
                          const EncoderDescriptor* encoder = nullptr) {
    return {.name = name,
            .displayName = displayName,
            .extensions = std::move(extensions),
            .decoder = &decoder,
            .readMetadata = readMetadata,
            .encoder = encoder};
}

} // namespace

const FormatEntry kMonkeysAudioFormat =
    libraryFamily("ape", "Monkey's Audio", {"ape"}, kMonkeysAudioDecoder,
                  &AudioMetadata::metadataFromMonkeysAudioFile, &kMonkeysAudioEncoder);
const FormatEntry kMusepackFormat = libraryFamily("musepack", "Musepack", {"mpc"}, kMusepackDecoder,
                                                  &AudioMetadata::metadataFromMusepackFile);
const FormatEntry kWavPackFormat = libraryFamily("wavpack", "WavPack", {"wv"}, kWavPackDecoder,
                                                 &AudioMetadata::metadataFromWavPackFile);
const FormatEntry kTrueAudioFormat =
    libraryFamily("tta", "True Audio", {"tta"}, kTrueAudioDecoder,
                  &AudioMetadata::metadataFromTrueAudioFile, &kTrueAudioEncoder);
const FormatEntry kModFormat =
    libraryFamily("mod", "Tracker module",
                  {"mod", "s3m", "xm",  "it",  "669", "amf", "ams", "dbm", "dmf", "dsm", "far",
                   "mdl", "med", "mtm", "okt", "ptm", "stm", "ult", "umx", "mt2", "psm", "abc"},
                  kModDecoder, &AudioMetadata::metadataFromModFile);
const FormatEntry kDSDFormat = libraryFamily("dsd", "DSD (DSF, DSDIFF)", {"dff", "dsf"},
                                             kDSDDecoder, &AudioMetadata::metadataFromDSDFile);

} // namespace velvox
