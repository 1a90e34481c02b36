// The families read through the container decoders: the PCM and MPEG-4
// containers and MP3 (libsndfile or FFmpeg behind CoreAudioDecoder, FFmpeg
// after it), and what FFmpeg alone reads (RealMedia, video, Windows Media).
#include "formats/FormatTable.h"

#include <sndfile.h>

#include <stdexcept>

#include "decoders/CoreAudioDecoder.h"
#include "decoders/FFMPEGDecoder.h"
#include "encoders/CoreAudioEncodeOperation.h"
#include "encoders/LibsndfileEncodeOperation.h"
#include "formats/CommonSettings.h"
#include "jobs/EncoderDescriptor.h"
#include "jobs/EncoderSettings.h"
#include "metadata/AudioMetadata.h"
#include "platform/CoreAudioTypes.h"

namespace velvox {

namespace {

struct Container {
    uint32_t fileType;
    const char* extension;
    uint32_t defaultFormatID;
};

const Container kContainers[] = {
    {fourCharCode("m4af"), "m4a", fourCharCode("aac ")},
    {fourCharCode("mp4f"), "mp4", fourCharCode("aac ")},
    {fourCharCode("WAVE"), "wav", fourCharCode("lpcm")},
    {fourCharCode("AIFF"), "aiff", fourCharCode("lpcm")},
    {fourCharCode("AIFC"), "aifc", fourCharCode("lpcm")},
    {fourCharCode("caff"), "caf", fourCharCode("lpcm")},
    {fourCharCode("NeXT"), "au", fourCharCode("lpcm")},
};

const Container* containerFor(uint32_t fileType) {
    for (const Container& c : kContainers)
        if (c.fileType == fileType)
            return &c;
    return nullptr;
}

// The container a codec usually comes in; CAF holds any of them.
uint32_t defaultFileTypeFor(uint32_t formatID) {
    switch (formatID) {
    case fourCharCode("aac "):
    case fourCharCode("alac"):
        return fourCharCode("m4af");
    case fourCharCode("lpcm"):
    case fourCharCode("alaw"):
    case fourCharCode("ulaw"):
        return fourCharCode("WAVE");
    default:
        return fourCharCode("caff");
    }
}

// The platform encoder's keys depend on one another: a container implies a
// codec and an extension, a codec a container, and LPCM's byte order follows
// the container. Whatever the user left out is filled from what was given;
// a pairing no library here can write is refused before any batch.
void completeCoreAudio(EncoderSettings& s, const std::set<std::string>& given) {
    const bool haveFileType = given.count("fileType") != 0;
    const bool haveFormatID = given.count("formatID") != 0;
    if (!haveFileType && !haveFormatID) {
        s.setFileType(fourCharCode("m4af"));
        s.setFormatID(fourCharCode("aac "));
    } else if (!haveFileType) {
        s.setFileType(defaultFileTypeFor(s.formatID()));
    } else if (!haveFormatID) {
        const Container* container = containerFor(s.fileType());
        s.setFormatID(container ? container->defaultFormatID : fourCharCode("lpcm"));
    }
    if (const auto reason = CoreAudioEncodeOperation::cannotWriteReason(s.fileType(), s.formatID()))
        throw std::invalid_argument(*reason);
    if (!given.count("extension")) {
        const Container* container = containerFor(s.fileType());
        s.setExtension(std::string(container ? container->extension : "caf"));
    }
    if (!given.count("formatFlags") && s.formatID() == kAudioFormatLinearPCM) {
        AudioFormatFlags flags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
        if (s.fileType() != fourCharCode("WAVE"))
            flags |= kAudioFormatFlagIsBigEndian; // AIFF, CAF and NeXT are big-endian
        s.setFormatFlags(flags);
    }
}

nlohmann::json codes(uint32_t fileType, uint32_t formatID) {
    return {{"fileType", fileType}, {"formatID", formatID}};
}

const std::vector<const char*> kMP4Tags = {"MP4 items"};
const std::vector<const char*> kWAVETags = {"ID3v2", "RIFF INFO"};
const std::vector<const char*> kAIFFTags = {"ID3v2"};
const std::vector<const char*> kCAFTags = {"CAF info"};

std::vector<SettingSpec> coreAudioSettings() {
    std::vector<SettingSpec> specs = settings::common("");
    specs[1].defaultValue = nullptr; // the container chooses the extension
    const std::vector<SettingSpec> own = {
        {.name = "container",
         .aliases = {"fileType"},
         .key = "fileType",
         .kind = SettingKind::FourCharCode,
         .expected = "a four-character code such as WAVE"},
        {.name = "codec",
         .aliases = {"formatID"},
         .key = "formatID",
         .kind = SettingKind::FourCharCode,
         .expected = "a four-character code such as lpcm"},
        {.name = "flags",
         .aliases = {"formatFlags"},
         .key = "formatFlags",
         .kind = SettingKind::Integer,
         .minimum = 0,
         .maximum = 0xFFFFFFFF,
         .expected = "a number such as 0xC or 14"},
        {.name = "endian",
         .key = "formatFlags",
         .kind = SettingKind::Choice,
         .choices = {{"le", 0xC}, {"be", 0xE}, {"little", 0xC}, {"big", 0xE}},
         .expected = "le or be"},
        {.name = "bitrate",
         .key = "bitrate",
         .kind = SettingKind::Bitrate,
         .defaultValue = 256000,
         .minimum = 8000,
         .maximum = 1536000,
         .commandLineScale = 1000,
         .expected = "kbit/s such as 256"},
        {.name = "quality",
         .key = "quality",
         .kind = SettingKind::Integer,
         .defaultValue = 127,
         .minimum = 0,
         .maximum = 127,
         .expected = "0 to 127"},
        {.name = "method",
         .key = "method",
         .kind = SettingKind::Choice,
         .defaultValue = int32_t(BitrateMethodConstrainedVBR),
         .choices = {{"cbr", BitrateMethodCBR},
                     {"abr", BitrateMethodABR},
                     {"vbr", BitrateMethodVBR},
                     {"cvbr", BitrateMethodConstrainedVBR}},
         .expected = "cbr, abr, vbr or cvbr"},
        settings::bitDepth({8, 16, 24, 32}),
    };
    specs.insert(specs.end(), own.begin(), own.end());
    const std::vector<SettingSpec> rate = settings::rateAndChannels();
    specs.insert(specs.end(), rate.begin(), rate.end());
    return specs;
}

const EncoderDescriptor kCoreAudioEncoder{
    .encoderType = EncoderTypeCoreAudio,
    .formatName = "coreaudio",
    .className = "CoreAudioEncodeOperation",
    .make = makeEncoder<CoreAudioEncodeOperation>,
    .settings = coreAudioSettings(),
    .presets =
        {
            {"aac",
             "AAC in MPEG-4",
             codes(fourCharCode("m4af"), fourCharCode("aac ")),
             false,
             {},
             kMP4Tags},
            {"alac",
             "Apple Lossless in MPEG-4",
             codes(fourCharCode("m4af"), fourCharCode("alac")),
             true,
             {16, 24},
             kMP4Tags,
             2},
            {"wav",
             "LPCM in WAVE",
             codes(fourCharCode("WAVE"), fourCharCode("lpcm")),
             true,
             {},
             kWAVETags},
            {"aiff",
             "LPCM in AIFF",
             codes(fourCharCode("AIFF"), fourCharCode("lpcm")),
             true,
             {},
             kAIFFTags},
            {"aifc",
             "LPCM in AIFC",
             codes(fourCharCode("AIFC"), fourCharCode("lpcm")),
             true,
             {},
             kAIFFTags},
            {"caf",
             "LPCM in Core Audio Format",
             codes(fourCharCode("caff"), fourCharCode("lpcm")),
             true,
             {},
             kCAFTags},
            {"au",
             "LPCM in NeXT/Sun audio",
             codes(fourCharCode("NeXT"), fourCharCode("lpcm")),
             true,
             {},
             std::vector<const char*>{}},
            {"alaw",
             "A-law in WAVE",
             codes(fourCharCode("WAVE"), fourCharCode("alaw")),
             false,
             {},
             kWAVETags},
            {"ulaw",
             "μ-law in WAVE",
             codes(fourCharCode("WAVE"), fourCharCode("ulaw")),
             false,
             {},
             kWAVETags},
            {"ima4",
             "IMA 4:1 in Core Audio Format",
             codes(fourCharCode("caff"), fourCharCode("ima4")),
             false,
             {},
             kCAFTags,
             2},
        },
    .tagKinds = {"MP4 items", "ID3v2", "RIFF INFO", "CAF info"},
    .samples = {.bitDepths = {8, 16, 24, 32}, .maximumChannels = 8},
    .reference = ffmpegReference(true),
    .complete = completeCoreAudio,
};

const EncoderDescriptor kSndFileEncoder{
    .encoderType = EncoderTypeSndFile,
    .formatName = "sd2",
    .className = "LibsndfileEncodeOperation",
    .make = makeEncoder<LibsndfileEncodeOperation>,
    .settings = settings::join({settings::common("sd2"), {settings::bitDepth({8, 16, 24, 32})}}),
    // Sound Designer II holds big-endian linear PCM. Naming the codec lets
    // formats that differ only in sample size tell apart.
    .fixedValues = {{"fileType", SF_FORMAT_SD2},
                    {"formatID", kAudioFormatLinearPCM},
                    {"formatFlags", kAudioFormatFlagIsBigEndian | kAudioFormatFlagIsSignedInteger |
                                        kAudioFormatFlagIsPacked}},
    // Without a chosen size every source is written 16-bit.
    .samples = {.bitDepths = {16}, .maximumChannels = 8},
    .reference = {.argv = {"sndfile-convert", "-pcm32", "{in}", "{out}"}, .lossless = true},
};

} // namespace

const DecoderClass kCoreAudioDecoderClass{"CoreAudioDecoder", makeDecoder<CoreAudioDecoder>};
const DecoderClass kFFMPEGDecoderClass{"FFMPEGDecoder", makeDecoder<FFMPEGDecoder>};

const FormatEntry kRealMediaFormat{
    .name = "realmedia",
    .displayName = "RealMedia",
    .extensions = {"ra", "rm", "rmf", "rmj"},
    .decoder = &kFFMPEGDecoderClass,
    .readMetadata = &AudioMetadata::metadataFromFFMPEGFile,
};

const FormatEntry kVideoFormat{
    .name = "video",
    .displayName = "Video soundtrack",
    .extensions = {"mpg", "mpeg", "avi", "mov"},
    .decoder = &kFFMPEGDecoderClass,
};

const FormatEntry kWindowsMediaFormat{
    .name = "wma",
    .displayName = "Windows Media Audio",
    .extensions = {"wma"},
    .decoder = &kFFMPEGDecoderClass,
    .readMetadata = &AudioMetadata::metadataFromWMAFile,
};

const FormatEntry kASFFormat{
    .name = "asf",
    .displayName = "Windows Media",
    .extensions = {"wmv", "asf"},
    .decoder = &kFFMPEGDecoderClass,
};

// The families below have no decoder of their own: the fallback decoders
// read them, as they read any extension no row claims.

const FormatEntry kMP4Format{
    .name = "mp4",
    .displayName = "MPEG-4 Audio",
    .extensions = {"mp4", "m4a", "aac"},
    .readMetadata = &AudioMetadata::metadataFromMP4File,
    .sameTypeByDataFormat = true,
    .encoder = &kCoreAudioEncoder,
};

const FormatEntry kAIFFFormat{
    .name = "aiff",
    .displayName = "AIFF",
    .extensions = {"aif", "aiff"},
    .readMetadata = &AudioMetadata::metadataFromAIFFFile,
    .sameTypeByDataFormat = true,
    .encoder = &kCoreAudioEncoder,
};

const FormatEntry kWAVEFormat{
    .name = "wav",
    .displayName = "WAVE",
    .extensions = {"wav", "wave"},
    .readMetadata = &AudioMetadata::metadataFromWAVEFile,
    .sameTypeByDataFormat = true,
    .encoder = &kCoreAudioEncoder,
};

const FormatEntry kCoreAudioFormat{
    .name = "coreaudio",
    .displayName = "Core Audio containers",
    .extensions = {"aifc", "m4b", "m4r", "mp2", "aacp", "sd2", "3ga", "3gp", "3gpp", "3gs", "3g2",
                   "caf", "snd", "au", "amr", "sdir"},
    .sameTypeByDataFormat = true,
    .encoder = &kCoreAudioEncoder,
};

// Written only: Sound Designer II files are read as Core Audio containers.
const FormatEntry kSoundDesignerIIFormat{
    .name = "sd2",
    .displayName = "Sound Designer II",
    .encoder = &kSndFileEncoder,
};

} // namespace velvox
