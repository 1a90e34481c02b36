// The FLAC family: native FLAC and FLAC in Ogg, read by libFLAC and written by
// its stream encoder.
#include "formats/FormatTable.h"

#include "decoders/FLACDecoder.h"
#include "decoders/OggFLACDecoder.h"
#include "encoders/FLACEncodeOperation.h"
#include "encoders/OggFLACEncodeOperation.h"
#include "formats/CommonSettings.h"
#include "jobs/EncoderDescriptor.h"
#include "metadata/AudioMetadata.h"

namespace velvox {

namespace {

std::vector<SettingSpec> flacSettings(const char* extension) {
    return settings::join({
        settings::common(extension),
        {{.name = "level",
          .aliases = {"flacCompressionLevel"},
          .key = "flacCompressionLevel",
          .kind = SettingKind::Choice,
          .defaultValue = 5,
          // Above 8 every subframe is written verbatim.
          .choices = {{"0", 0},
                      {"1", 1},
                      {"2", 2},
                      {"3", 3},
                      {"4", 4},
                      {"5", 5},
                      {"6", 6},
                      {"7", 7},
                      {"8", 8},
                      {"uncompressed", 9}},
          .expected = "0 to 8, or uncompressed"},
         {.name = "verify",
          .aliases = {"flacVerifyEncoding"},
          .key = "flacVerifyEncoding",
          .kind = SettingKind::Boolean,
          .defaultValue = false,
          .expected = "true or false"},
         settings::bitDepth({8, 16, 24})},
        settings::rateAndChannels(),
    });
}

const SampleSupport kFLACSamples{
    .bitDepths = {8, 16, 24}, .minimumRate = 1, .maximumRate = 655350, .maximumChannels = 8};

const EncoderDescriptor kFLACEncoder{
    .encoderType = EncoderTypeFLAC,
    .formatName = "flac",
    .className = "FLACEncodeOperation",
    .make = makeEncoder<FLACEncodeOperation>,
    .settings = flacSettings("flac"),
    .tagKinds = {"Xiph comment", "FLAC picture"},
    .samples = kFLACSamples,
    .reference = {.argv = {"flac", "-d", "-s", "-f", "-o", "{out}", "{in}"}, .lossless = true},
};

const EncoderDescriptor kOggFLACEncoder{
    .encoderType = EncoderTypeOggFLAC,
    .formatName = "oggflac",
    .className = "OggFLACEncodeOperation",
    .make = makeEncoder<OggFLACEncodeOperation>,
    .settings = flacSettings("oga"),
    .tagKinds = {"Xiph comment", "METADATA_BLOCK_PICTURE"},
    .samples = kFLACSamples,
    .reference = {.argv = {"flac", "-d", "--ogg", "-s", "-f", "-o", "{out}", "{in}"},
                  .lossless = true},
};

const DecoderClass kFLACDecoder{"FLACDecoder", makeDecoder<FLACDecoder>};
const DecoderClass kOggFLACDecoder{"OggFLACDecoder", makeDecoder<OggFLACDecoder>};

} // namespace

const FormatEntry kFLACFormat{
    .name = "flac",
    .displayName = "FLAC",
    .extensions = {"flac"},
    .decoder = &kFLACDecoder,
    .readMetadata = &AudioMetadata::metadataFromFLACFile,
    .encoder = &kFLACEncoder,
};

const FormatEntry kOggFLACFormat{
    .name = "oggflac",
    .displayName = "Ogg FLAC",
    .extensions = oggExtensions(),
    .recognition = FormatRecognition::OggStream,
    .oggStreamType = OggStreamTypeFLAC,
    .decoder = &kOggFLACDecoder,
    .readMetadata = &AudioMetadata::metadataFromOggFLACFile,
    .encoder = &kOggFLACEncoder,
};

} // namespace velvox
