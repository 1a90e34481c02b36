// The Xiph codecs in Ogg: Vorbis, Speex and Opus, each read through its own
// library and written through it with Velvox's own Ogg packaging where the
// library has none.
#include "formats/FormatTable.h"

#include "decoders/OggOpusDecoder.h"
#include "decoders/OggSpeexDecoder.h"
#include "decoders/OggVorbisDecoder.h"
#include "encoders/OggOpusEncodeOperation.h"
#include "encoders/OggSpeexEncodeOperation.h"
#include "encoders/OggVorbisEncodeOperation.h"
#include "formats/CommonSettings.h"
#include "jobs/EncoderDescriptor.h"
#include "metadata/AudioMetadata.h"

namespace velvox {

namespace {

const std::vector<const char*> kXiphTags = {"Xiph comment", "METADATA_BLOCK_PICTURE"};

SettingSpec kbitBitrate(int64_t defaultValue, int64_t minimum, int64_t maximum,
                        const char* expected) {
    return {.name = "bitrate",
            .key = "bitrate",
            .kind = SettingKind::Bitrate,
            .defaultValue = defaultValue,
            .minimum = minimum,
            .maximum = maximum,
            .commandLineScale = 1000,
            .expected = expected};
}

const EncoderDescriptor kVorbisEncoder{
    .encoderType = EncoderTypeOggVorbis,
    .formatName = "vorbis",
    .className = "OggVorbisEncodeOperation",
    .make = makeEncoder<OggVorbisEncodeOperation>,
    .settings = settings::join({
        settings::common("ogg"),
        {settings::method(
             {{"cbr", BitrateMethodCBR}, {"abr", BitrateMethodABR}, {"vbr", BitrateMethodVBR}},
             BitrateMethodVBR),
         // libvorbis quality -0.1 to 1.0, in tenths.
         {.name = "quality",
          .aliases = {"vbrQuality", "q"},
          .key = "vbrQuality",
          .kind = SettingKind::Integer,
          .defaultValue = 5,
          .minimum = -1,
          .maximum = 10,
          .expected = "-1 to 10"},
         kbitBitrate(160000, 8000, 500000, "kbit/s such as 160")},
    }),
    .tagKinds = kXiphTags,
    .samples = {.bitDepths = {8, 16, 24, 32}, .maximumChannels = 8},
    // oggdec writes surround channels in a WAVE order of its own; FFmpeg's
    // are the standard ones.
    .reference = ffmpegReference(false),
    .methodForBitrateAlone = BitrateMethodABR,
};

const EncoderDescriptor kSpeexEncoder{
    .encoderType = EncoderTypeOggSpeex,
    .formatName = "speex",
    .className = "OggSpeexEncodeOperation",
    .make = makeEncoder<OggSpeexEncodeOperation>,
    .settings = settings::join({
        settings::common("spx"),
        {settings::method(
             {{"cbr", BitrateMethodCBR}, {"abr", BitrateMethodABR}, {"vbr", BitrateMethodVBR}},
             BitrateMethodVBR),
         {.name = "quality",
          .aliases = {"vbrQuality"},
          .key = "vbrQuality",
          .kind = SettingKind::Integer,
          .defaultValue = 8,
          .minimum = 0,
          .maximum = 10,
          .expected = "0 to 10"},
         kbitBitrate(24000, 2000, 48000, "kbit/s such as 24"),
         {.name = "complexity",
          .key = "quality",
          .kind = SettingKind::Integer,
          .defaultValue = 3,
          .minimum = 0,
          .maximum = 10,
          .expected = "a complexity from 0 to 10"},
         {.name = "frames",
          .aliases = {"framesPerPacket"},
          .key = "framesPerPacket",
          .kind = SettingKind::Integer,
          .defaultValue = 1,
          .minimum = 1,
          .maximum = 10,
          .expected = "1 to 10"},
         // Wideband unless asked otherwise: speech-grade, and what speexenc
         // users pick with -w.
         {.name = "rate",
          .aliases = {"sampleRate"},
          .key = "sampleRate",
          .kind = SettingKind::SampleRate,
          .defaultValue = 16000,
          .expected = "8k (narrowband), 16k (wideband), 32k (ultra-wideband) or same"},
         {.name = "denoise",
          .aliases = {"speexDenoise"},
          .key = "speexDenoise",
          .kind = SettingKind::Boolean,
          .defaultValue = false,
          .expected = "true or false"},
         {.name = "agc",
          .aliases = {"speexAdaptiveGainControl"},
          .key = "speexAdaptiveGainControl",
          .kind = SettingKind::Boolean,
          .defaultValue = false,
          .expected = "true or false"},
         {.name = "vad",
          .aliases = {"speexVoiceActivityDetection"},
          .key = "speexVoiceActivityDetection",
          .kind = SettingKind::Boolean,
          .defaultValue = false,
          .expected = "true or false"},
         {.name = "dtx",
          .aliases = {"speexDiscontinuousTransmission"},
          .key = "speexDiscontinuousTransmission",
          .kind = SettingKind::Boolean,
          .defaultValue = false,
          .expected = "true or false"}},
    }),
    .tagKinds = kXiphTags,
    .samples = {.bitDepths = {8, 16, 24, 32}, .maximumChannels = 2},
    .reference = {.argv = {"speexdec", "--quiet", "{in}", "{out}"}, .lossless = false},
    .methodForBitrateAlone = BitrateMethodCBR,
};

const EncoderDescriptor kOpusEncoder{
    .encoderType = EncoderTypeOpus,
    .formatName = "opus",
    .className = "OggOpusEncodeOperation",
    .make = makeEncoder<OggOpusEncodeOperation>,
    .settings = settings::join({
        settings::common("opus"),
        {settings::method({{"cbr", BitrateMethodCBR},
                           {"vbr", BitrateMethodVBR},
                           {"cvbr", BitrateMethodConstrainedVBR}},
                          BitrateMethodVBR),
         kbitBitrate(128000, 501, 8 * 1024000, "kbit/s such as 128"),
         {.name = "complexity",
          .aliases = {"quality"},
          .key = "quality",
          .kind = SettingKind::Integer,
          .defaultValue = 10,
          .minimum = 0,
          .maximum = 10,
          .expected = "a complexity from 0 to 10"},
         // Frame durations, stored in 48 kHz samples.
         {.name = "frame",
          .aliases = {"frames", "framesPerPacket"},
          .key = "framesPerPacket",
          .kind = SettingKind::Choice,
          .defaultValue = 960,
          .choices = {{"2.5", 120},
                      {"5", 240},
                      {"10", 480},
                      {"20", 960},
                      {"40", 1920},
                      {"60", 2880},
                      {"2.5ms", 120},
                      {"5ms", 240},
                      {"10ms", 480},
                      {"20ms", 960},
                      {"40ms", 1920},
                      {"60ms", 2880}},
          .expected = "2.5, 5, 10, 20, 40 or 60 (ms)"}},
        settings::rateAndChannels(),
    }),
    .tagKinds = kXiphTags,
    .samples = {.bitDepths = {8, 16, 24, 32}, .maximumChannels = 8},
    .reference = {.argv = {"opusdec", "--quiet", "--rate", "48000", "{in}", "{out}"},
                  .lossless = false},
};

const DecoderClass kVorbisDecoder{"OggVorbisDecoder", makeDecoder<OggVorbisDecoder>};
const DecoderClass kSpeexDecoder{"OggSpeexDecoder", makeDecoder<OggSpeexDecoder>};
const DecoderClass kOpusDecoder{"OggOpusDecoder", makeDecoder<OggOpusDecoder>};

} // namespace

const FormatEntry kOggVorbisFormat{
    .name = "vorbis",
    .displayName = "Ogg Vorbis",
    .extensions = oggExtensions(),
    .recognition = FormatRecognition::OggStream,
    .oggStreamType = OggStreamTypeVorbis,
    .decoder = &kVorbisDecoder,
    .readMetadata = &AudioMetadata::metadataFromOggVorbisFile,
    .encoder = &kVorbisEncoder,
};

const FormatEntry kOggSpeexFormat{
    .name = "speex",
    .displayName = "Ogg Speex",
    .extensions = oggExtensions(),
    .recognition = FormatRecognition::OggStream,
    .oggStreamType = OggStreamTypeSpeex,
    .decoder = &kSpeexDecoder,
    .readMetadata = &AudioMetadata::metadataFromOggSpeexFile,
    .encoder = &kSpeexEncoder,
};

const FormatEntry kOggOpusFormat{
    .name = "opus",
    .displayName = "Ogg Opus",
    .extensions = oggExtensions(),
    .recognition = FormatRecognition::OggStream,
    .oggStreamType = OggStreamTypeOpus,
    .decoder = &kOpusDecoder,
    .readMetadata = &AudioMetadata::metadataFromOpusFile,
    .encoder = &kOpusEncoder,
};

} // namespace velvox
