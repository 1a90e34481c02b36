// The families read through the container decoders: the PCM and MPEG-4
// containers and MP3 (libsndfile or FFmpeg behind CoreAudioDecoder, FFmpeg
// after it), and what FFmpeg alone reads (RealMedia, video, Windows Media).
#include "formats/FormatTable.h"

#include "decoders/CoreAudioDecoder.h"
#include "decoders/FFMPEGDecoder.h"
#include "metadata/AudioMetadata.h"

namespace velvox {

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

const FormatEntry kMP3Format{
    .name = "mp3",
    .displayName = "MP3",
    .extensions = {"mp3"},
    .readMetadata = &AudioMetadata::metadataFromMP3File,
};

const FormatEntry kMP4Format{
    .name = "mp4",
    .displayName = "MPEG-4 Audio",
    .extensions = {"mp4", "m4a", "aac"},
    .readMetadata = &AudioMetadata::metadataFromMP4File,
    .sameTypeByDataFormat = true,
};

const FormatEntry kAIFFFormat{
    .name = "aiff",
    .displayName = "AIFF",
    .extensions = {"aif", "aiff"},
    .readMetadata = &AudioMetadata::metadataFromAIFFFile,
    .sameTypeByDataFormat = true,
};

const FormatEntry kWAVEFormat{
    .name = "wav",
    .displayName = "WAVE",
    .extensions = {"wav", "wave"},
    .readMetadata = &AudioMetadata::metadataFromWAVEFile,
    .sameTypeByDataFormat = true,
};

const FormatEntry kCoreAudioFormat{
    .name = "coreaudio",
    .displayName = "Core Audio containers",
    .extensions = {"aifc", "m4b", "m4r", "mp2", "aacp", "sd2", "3ga", "3gp", "3gpp", "3gs", "3g2",
                   "caf", "snd", "au", "amr", "sdir"},
    .sameTypeByDataFormat = true,
};

} // namespace velvox
