// MP3: read by the container decoders (FFmpeg's MPEG audio decoder behind
// them), written by LAME.
#include "formats/FormatTable.h"

#include "encoders/MP3EncodeOperation.h"
#include "formats/CommonSettings.h"
#include "jobs/EncoderDescriptor.h"
#include "metadata/AudioMetadata.h"

namespace velvox {

namespace {

const EncoderDescriptor kMP3Encoder{
    .encoderType = EncoderTypeMP3,
    .formatName = "mp3",
    .className = "MP3EncodeOperation",
    .make = makeEncoder<MP3EncodeOperation>,
    .settings = settings::join({
        settings::common("mp3"),
        {settings::method(
             {{"cbr", BitrateMethodCBR}, {"abr", BitrateMethodABR}, {"vbr", BitrateMethodVBR}},
             BitrateMethodVBR),
         // Typed on LAME's -V scale (0 best); stored as 10 - V.
         {.name = "V",
          .aliases = {"vbrQuality"},
          .key = "vbrQuality",
          .kind = SettingKind::Integer,
          .defaultValue = 8,
          .minimum = 0,
          .maximum = 9,
          .invertFrom = 10,
          .expected = "LAME's -V 0 to 9, 0 best"},
         // Stored in kbit/s already.
         {.name = "bitrate",
          .key = "bitrate",
          .kind = SettingKind::Bitrate,
          .defaultValue = 192,
          .minimum = 8,
          .maximum = 320,
          .expected = "kbit/s from 8 to 320"},
         {.name = "quality",
          .key = "quality",
          .kind = SettingKind::Integer,
          .defaultValue = 7,
          .minimum = 0,
          .maximum = 10,
          .expected = "0 to 10, 10 best"}},
        settings::rateAndChannels(),
    }),
    .tagKinds = {"ID3v2", "ID3v1", "APEv2"},
    .samples = {.bitDepths = {8, 16, 24, 32}, .maximumChannels = 2},
    // FFmpeg honours the LAME frame's delay and padding.
    .reference = ffmpegReference(false),
    .methodForBitrateAlone = BitrateMethodCBR,
};

} // namespace

const FormatEntry kMP3Format{
    .name = "mp3",
    .displayName = "MP3",
    .extensions = {"mp3"},
    .readMetadata = &AudioMetadata::metadataFromMP3File,
    .encoder = &kMP3Encoder,
};

} // namespace velvox
