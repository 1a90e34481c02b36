#include "metadata/CoreAudioFileInfo.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <fstream>
#include <memory>

#include <sys/stat.h>

#include <sndfile.h>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
}

#include "core/LibavHandles.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

// Layout tags beyond the ones the shared header names (published values).
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_Ambisonic_B_Format = layoutTag(107, 4);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_Hexagonal = layoutTag(110, 6);
constexpr AudioChannelLayoutTag kAudioChannelLayoutTag_Octagonal = layoutTag(111, 8);

// Format IDs the shared header does not name.
constexpr AudioFormatID kAudioFormatMPEG4AAC_HE = fourCharCode("aach");
constexpr AudioFormatID kAudioFormatMPEG4AAC_HE_V2 = fourCharCode("aacp");
constexpr AudioFormatID kAudioFormatMPEG4AAC_LD = fourCharCode("aacl");
constexpr AudioFormatID kAudioFormatMPEG4AAC_ELD = fourCharCode("aace");
constexpr AudioFormatID kAudioFormatAMR_WB = fourCharCode("sawb");
constexpr AudioFormatID kAudioFormatAC3 = fourCharCode("ac-3");
constexpr AudioFormatID kAudioFormatEnhancedAC3 = fourCharCode("ec-3");
constexpr AudioFormatID kAudioFormatFLAC = fourCharCode("flac");
constexpr AudioFormatID kAudioFormatOpus = fourCharCode("opus");
constexpr AudioFormatID kAudioFormatAppleIMA4 = fourCharCode("ima4");
constexpr AudioFormatID kAudioFormatMicrosoftGSM = fourCharCode("agsm");
constexpr AudioFormatID kAudioFormatiLBC = fourCharCode("ilbc");
constexpr AudioFormatID kAudioFormatQDesign2 = fourCharCode("QDM2");
constexpr AudioFormatID kAudioFormatQDesign = fourCharCode("QDMC");
constexpr AudioFormatID kAudioFormatMACE3 = fourCharCode("MAC3");
constexpr AudioFormatID kAudioFormatMACE6 = fourCharCode("MAC6");
// WAVE format tags carried as format IDs ('ms' followed by the tag).
constexpr AudioFormatID kWaveFormatMSADPCM = 0x6D730002;
constexpr AudioFormatID kWaveFormatIMAADPCM = 0x6D730011;
constexpr AudioFormatID kWaveFormatGSM610 = 0x6D730031;

struct SndfileDeleter {
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SndfilePtr = std::unique_ptr<SNDFILE, SndfileDeleter>;

uint32_t readBigEndian32(const std::vector<uint8_t>& bytes, size_t offset) {
    return (uint32_t(bytes[offset]) << 24) | (uint32_t(bytes[offset + 1]) << 16) |
           (uint32_t(bytes[offset + 2]) << 8) | uint32_t(bytes[offset + 3]);
}

// AIFF and AIFC share a reader in both libraries; the form type tells them apart.
bool isAIFC(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    char header[12] = {};
    if (!in.read(header, sizeof header))
        return false;
    return std::memcmp(header + 8, "AIFC", 4) == 0;
}

uint32_t clampBitRate(double bitsPerSecond) {
    if (!(bitsPerSecond > 0))
        return 0;
    if (bitsPerSecond >= 4294967295.0)
        return UINT32_MAX;
    return uint32_t(std::lround(bitsPerSecond));
}

// The tag a channel-layout chunk ('chan' in CAF, 'CHAN' in AIFF) stores first.
std::optional<AudioChannelLayoutTag>
layoutTagFromChunks(const std::vector<CoreAudioFileInfo::Chunk>& chunks) {
    for (const auto& chunk : chunks) {
        if ((chunk.identifier == "chan" || chunk.identifier == "CHAN") && chunk.bytes.size() >= 4)
            return readBigEndian32(chunk.bytes, 0);
    }
    return std::nullopt;
}

std::optional<AudioChannelLayoutTag> monoOrStereoLayoutTag(int channels) {
    if (channels == 1)
        return kAudioChannelLayoutTag_Mono;
    if (channels == 2)
        return kAudioChannelLayoutTag_Stereo;
    return std::nullopt;
}

std::optional<AudioChannelLayoutTag> layoutTagForSndfileMap(std::vector<int> map) {
    std::sort(map.begin(), map.end());
    auto is = [&](std::vector<int> positions) {
        std::sort(positions.begin(), positions.end());
        return positions == map;
    };
    if (is({SF_CHANNEL_MAP_MONO}) || is({SF_CHANNEL_MAP_CENTER}) ||
        is({SF_CHANNEL_MAP_FRONT_CENTER}))
        return kAudioChannelLayoutTag_Mono;
    if (is({SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT}) ||
        is({SF_CHANNEL_MAP_FRONT_LEFT, SF_CHANNEL_MAP_FRONT_RIGHT}))
        return kAudioChannelLayoutTag_Stereo;
    if (is({SF_CHANNEL_MAP_FRONT_LEFT, SF_CHANNEL_MAP_FRONT_RIGHT, SF_CHANNEL_MAP_REAR_LEFT,
            SF_CHANNEL_MAP_REAR_RIGHT}))
        return kAudioChannelLayoutTag_Quadraphonic;
    if (is({SF_CHANNEL_MAP_AMBISONIC_B_W, SF_CHANNEL_MAP_AMBISONIC_B_X,
            SF_CHANNEL_MAP_AMBISONIC_B_Y, SF_CHANNEL_MAP_AMBISONIC_B_Z}))
        return kAudioChannelLayoutTag_Ambisonic_B_Format;
    return std::nullopt;
}

std::optional<AudioChannelLayoutTag> layoutTagForAVLayout(const AVChannelLayout& layout) {
    if (layout.order == AV_CHANNEL_ORDER_NATIVE) {
        switch (layout.u.mask) {
        case AV_CH_LAYOUT_MONO:
            return kAudioChannelLayoutTag_Mono;
        case AV_CH_LAYOUT_STEREO:
            return kAudioChannelLayoutTag_Stereo;
        case AV_CH_LAYOUT_STEREO_DOWNMIX:
            return kAudioChannelLayoutTag_MatrixStereo;
        case AV_CH_LAYOUT_QUAD:
            return kAudioChannelLayoutTag_Quadraphonic;
        case AV_CH_LAYOUT_HEXAGONAL:
            return kAudioChannelLayoutTag_Hexagonal;
        case AV_CH_LAYOUT_OCTAGONAL:
            return kAudioChannelLayoutTag_Octagonal;
        default:
            return std::nullopt;
        }
    }
    if (layout.order == AV_CHANNEL_ORDER_AMBISONIC && layout.nb_channels == 4)
        return kAudioChannelLayoutTag_Ambisonic_B_Format;
    if (layout.order == AV_CHANNEL_ORDER_UNSPEC)
        return monoOrStereoLayoutTag(layout.nb_channels);
    return std::nullopt;
}

// libsndfile's strings under the service's info-dictionary keys.
constexpr std::pair<int, const char*> kSndfileStringKeys[] = {
    {SF_STR_TITLE, "title"},
    {SF_STR_ARTIST, "artist"},
    {SF_STR_ALBUM, "album"},
    {SF_STR_COMMENT, "comments"},
    {SF_STR_DATE, "year"},
    {SF_STR_GENRE, "genre"},
    {SF_STR_TRACKNUMBER, "track number"},
    {SF_STR_COPYRIGHT, "copyright"},
    {SF_STR_SOFTWARE, "encoding application"},
};

// libavformat's metadata keys (compared without case) under the same keys.
constexpr std::pair<const char*, const char*> kLibavMetadataKeys[] = {
    {"title", "title"},
    {"artist", "artist"},
    {"album", "album"},
    {"comment", "comments"},
    {"date", "year"},
    {"genre", "genre"},
    {"track", "track number"},
    {"copyright", "copyright"},
    {"composer", "composer"},
    {"lyricist", "lyricist"},
    {"encoder", "encoding application"},
    // A CAF file's own info strings, as libavformat passes them on.
    {"comments", "comments"},
    {"year", "year"},
    {"track number", "track number"},
    {"tempo", "tempo"},
    {"key signature", "key signature"},
    {"encoding application", "encoding application"},
    {"TBPM", "tempo"},
    {"TSRC", "ISRC"},
    {"ISRC", "ISRC"},
};

AudioFormatID formatIDForCodec(AVCodecID id, int profile) {
    switch (id) {
    case AV_CODEC_ID_MP1:
        return kAudioFormatMPEGLayer1;
    case AV_CODEC_ID_MP2:
        return kAudioFormatMPEGLayer2;
    case AV_CODEC_ID_MP3:
        return kAudioFormatMPEGLayer3;
    case AV_CODEC_ID_AAC:
    case AV_CODEC_ID_AAC_LATM:
        switch (profile) {
        case FF_PROFILE_AAC_HE:
            return kAudioFormatMPEG4AAC_HE;
        case FF_PROFILE_AAC_HE_V2:
            return kAudioFormatMPEG4AAC_HE_V2;
        case FF_PROFILE_AAC_LD:
            return kAudioFormatMPEG4AAC_LD;
        case FF_PROFILE_AAC_ELD:
            return kAudioFormatMPEG4AAC_ELD;
        default:
            return kAudioFormatMPEG4AAC;
        }
    case AV_CODEC_ID_ALAC:
        return kAudioFormatAppleLossless;
    case AV_CODEC_ID_AMR_NB:
        return kAudioFormatAMR;
    case AV_CODEC_ID_AMR_WB:
        return kAudioFormatAMR_WB;
    case AV_CODEC_ID_AC3:
        return kAudioFormatAC3;
    case AV_CODEC_ID_EAC3:
        return kAudioFormatEnhancedAC3;
    case AV_CODEC_ID_FLAC:
        return kAudioFormatFLAC;
    case AV_CODEC_ID_OPUS:
        return kAudioFormatOpus;
    case AV_CODEC_ID_PCM_MULAW:
        return kAudioFormatULaw;
    case AV_CODEC_ID_PCM_ALAW:
        return kAudioFormatALaw;
    case AV_CODEC_ID_ADPCM_IMA_QT:
        return kAudioFormatAppleIMA4;
    case AV_CODEC_ID_ADPCM_IMA_WAV:
        return kWaveFormatIMAADPCM;
    case AV_CODEC_ID_ADPCM_MS:
        return kWaveFormatMSADPCM;
    case AV_CODEC_ID_GSM_MS:
        return kWaveFormatGSM610;
    case AV_CODEC_ID_ILBC:
        return kAudioFormatiLBC;
    case AV_CODEC_ID_QDM2:
        return kAudioFormatQDesign2;
    case AV_CODEC_ID_QDMC:
        return kAudioFormatQDesign;
    case AV_CODEC_ID_MACE3:
        return kAudioFormatMACE3;
    case AV_CODEC_ID_MACE6:
        return kAudioFormatMACE6;
    default:
        return id >= AV_CODEC_ID_FIRST_AUDIO && id < AV_CODEC_ID_ADPCM_IMA_QT
                   ? kAudioFormatLinearPCM
                   : 0;
    }
}

// The service's file type name for what libavformat found; empty for
// containers the service does not open.
std::string fileTypeNameForDemuxer(const AVFormatContext* context, AVCodecID codec,
                                   const std::string& path) {
    const std::string name = context->iformat->name;
    if (name == "mp3") {
        if (codec == AV_CODEC_ID_MP1)
            return "MPEG Layer 1";
        if (codec == AV_CODEC_ID_MP2)
            return "MPEG Layer 2";
        return "MPEG Layer 3";
    }
    if (name.rfind("mov,mp4,m4a", 0) == 0) {
        const AVDictionaryEntry* brand = av_dict_get(context->metadata, "major_brand", nullptr, 0);
        const std::string major = brand && brand->value ? brand->value : "";
        if (major.rfind("qt", 0) == 0)
            return ""; // a QuickTime movie, not an audio file
        if (major.rfind("M4B", 0) == 0)
            return "Apple MPEG-4 AudioBooks";
        if (major.rfind("M4A", 0) == 0 || major.rfind("M4P", 0) == 0)
            return "Apple MPEG-4 Audio";
        if (major.rfind("3g2", 0) == 0)
            return "3GPP-2 Audio";
        if (major.rfind("3gp", 0) == 0)
            return "3GP Audio";
        return "MPEG-4 Audio";
    }
    if (name == "aac")
        return "AAC ADTS";
    if (name == "loas")
        return "LATM/LOAS";
    if (name == "amr" || name == "amrnb" || name == "amrwb")
        return "AMR";
    if (name == "ac3")
        return "AC3";
    if (name == "eac3")
        return "EC3";
    if (name == "caf")
        return "CAF";
    if (name == "wav")
        return "WAVE";
    if (name == "w64")
        return "Wave64";
    if (name == "aiff")
        return isAIFC(path) ? "AIFC" : "AIFF";
    if (name == "au")
        return "NeXT/Sun";
    if (name == "flac")
        return "FLAC";
    return "";
}

} // namespace

std::string CoreAudioFileInfo::formatNameForFormat(AudioFormatID formatID,
                                                   AudioFormatFlags /*flags*/) {
    switch (formatID) {
    case kAudioFormatLinearPCM:
        return "Linear PCM";
    case kAudioFormatAppleLossless:
        return "Apple Lossless";
    case kAudioFormatMPEG4AAC:
        return "AAC";
    case kAudioFormatMPEG4AAC_HE:
        return "HE-AAC";
    case kAudioFormatMPEG4AAC_HE_V2:
        return "HE-AAC v2";
    case kAudioFormatMPEG4AAC_LD:
        return "AAC-LD";
    case kAudioFormatMPEG4AAC_ELD:
        return "AAC-ELD";
    case kAudioFormatMPEGLayer1:
        return "MPEG Layer 1";
    case kAudioFormatMPEGLayer2:
        return "MPEG Layer 2";
    case kAudioFormatMPEGLayer3:
        return "MPEG Layer 3";
    case kAudioFormatULaw:
        return "\xC2\xB5Law 2:1";
    case kAudioFormatALaw:
        return "aLaw 2:1";
    case kAudioFormatAppleIMA4:
        return "IMA 4:1";
    case kAudioFormatAMR:
        return "AMR Narrowband";
    case kAudioFormatAMR_WB:
        return "AMR Wideband";
    case kAudioFormatAC3:
        return "AC-3";
    case kAudioFormatEnhancedAC3:
        return "Enhanced AC-3";
    case kAudioFormatFLAC:
        return "FLAC";
    case kAudioFormatOpus:
        return "Opus";
    case kAudioFormatMicrosoftGSM:
    case kWaveFormatGSM610:
        return "GSM 6.10";
    case kWaveFormatMSADPCM:
        return "MS ADPCM";
    case kWaveFormatIMAADPCM:
        return "IMA ADPCM";
    case kAudioFormatiLBC:
        return "iLBC";
    case kAudioFormatQDesign2:
        return "QDesign Music 2";
    case kAudioFormatQDesign:
        return "QDesign Music";
    case kAudioFormatMACE3:
        return "MACE 3:1";
    case kAudioFormatMACE6:
        return "MACE 6:1";
    default:
        return "";
    }
}

std::vector<std::pair<std::string, std::string>>
CoreAudioFileInfo::parseInfoChunk(const std::vector<uint8_t>& bytes) {
    std::vector<std::pair<std::string, std::string>> pairs;
    if (bytes.size() < 4)
        return pairs;
    const uint32_t count = readBigEndian32(bytes, 0);
    size_t offset = 4;
    auto nextString = [&](std::string& out) {
        const auto begin = bytes.begin() + ptrdiff_t(offset);
        const auto end = std::find(begin, bytes.end(), uint8_t(0));
        if (end == bytes.end())
            return false;
        out.assign(begin, end);
        offset = size_t(end - bytes.begin()) + 1;
        return true;
    };
    for (uint32_t i = 0; i < count && offset < bytes.size(); ++i) {
        std::string key, value;
        if (!nextString(key) || !nextString(value))
            break;
        pairs.emplace_back(std::move(key), std::move(value));
    }
    return pairs;
}

std::vector<const std::vector<uint8_t>*>
CoreAudioFileInfo::userData(const std::string& identifier) const {
    std::vector<const std::vector<uint8_t>*> items;
    for (const auto& chunk : chunks_)
        if (chunk.identifier == identifier)
            items.push_back(&chunk.bytes);
    return items;
}

std::optional<CoreAudioFileInfo> CoreAudioFileInfo::infoWithFile(const std::string& path) {
    struct stat status {};
    if (::stat(path.c_str(), &status) != 0 || !S_ISREG(status.st_mode))
        return std::nullopt;
    const auto fileSize = uint64_t(status.st_size);

    CoreAudioFileInfo info;
    if (info.readWithSndfile(path, fileSize))
        return info;
    info = CoreAudioFileInfo();
    if (info.readWithLibav(path, fileSize))
        return info;
    return std::nullopt;
}

bool CoreAudioFileInfo::readWithSndfile(const std::string& path, uint64_t fileSize) {
    SF_INFO sfinfo{};
    SndfilePtr file(sf_open(path.c_str(), SFM_READ, &sfinfo));
    if (!file || sfinfo.channels <= 0 || sfinfo.samplerate <= 0)
        return false;

    const int major = sfinfo.format & SF_FORMAT_TYPEMASK;
    const int subtype = sfinfo.format & SF_FORMAT_SUBMASK;
    const bool bigEndian = (sfinfo.format & SF_FORMAT_ENDMASK) == SF_ENDIAN_BIG ||
                           ((sfinfo.format & SF_FORMAT_ENDMASK) == SF_ENDIAN_FILE &&
                            (major == SF_FORMAT_AIFF || major == SF_FORMAT_AU ||
                             major == SF_FORMAT_CAF || major == SF_FORMAT_SD2));
    switch (major) {
    case SF_FORMAT_WAV:
    case SF_FORMAT_WAVEX:
        fileTypeName_ = "WAVE";
        break;
    case SF_FORMAT_AIFF:
        fileTypeName_ = isAIFC(path) ? "AIFC" : "AIFF";
        break;
    case SF_FORMAT_AU:
        fileTypeName_ = "NeXT/Sun";
        break;
    case SF_FORMAT_CAF:
        fileTypeName_ = "CAF";
        break;
    case SF_FORMAT_W64:
        fileTypeName_ = "Wave64";
        break;
    case SF_FORMAT_RF64:
        fileTypeName_ = "RF64";
        break;
    case SF_FORMAT_SD2:
        fileTypeName_ = "Sound Designer II";
        break;
    default:
        // MPEG, Ogg, FLAC and libsndfile's many other formats: not the
        // uncompressed family, or not a format of the service at all.
        return false;
    }

    AudioStreamBasicDescription& format = dataFormat_;
    format.mSampleRate = double(sfinfo.samplerate);
    format.mChannelsPerFrame = uint32_t(sfinfo.channels);
    const bool appleContainer = major == SF_FORMAT_AIFF || major == SF_FORMAT_CAF;
    switch (subtype) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_PCM_32:
    case SF_FORMAT_FLOAT:
    case SF_FORMAT_DOUBLE: {
        static constexpr std::pair<int, uint32_t> kBits[] = {
            {SF_FORMAT_PCM_S8, 8},  {SF_FORMAT_PCM_U8, 8},  {SF_FORMAT_PCM_16, 16},
            {SF_FORMAT_PCM_24, 24}, {SF_FORMAT_PCM_32, 32}, {SF_FORMAT_FLOAT, 32},
            {SF_FORMAT_DOUBLE, 64},
        };
        for (const auto& [type, bits] : kBits)
            if (type == subtype)
                format.mBitsPerChannel = bits;
        format.mFormatID = kAudioFormatLinearPCM;
        if (subtype == SF_FORMAT_FLOAT || subtype == SF_FORMAT_DOUBLE)
            format.mFormatFlags = kAudioFormatFlagsNativeFloatPacked;
        else if (subtype == SF_FORMAT_PCM_U8)
            format.mFormatFlags = kAudioFormatFlagIsPacked;
        else
            format.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
        if (bigEndian && format.mBitsPerChannel > 8)
            format.mFormatFlags |= kAudioFormatFlagIsBigEndian;
        format.mFramesPerPacket = 1;
        format.mBytesPerFrame = format.mBitsPerChannel / 8 * format.mChannelsPerFrame;
        format.mBytesPerPacket = format.mBytesPerFrame;
        break;
    }
    case SF_FORMAT_ULAW:
    case SF_FORMAT_ALAW:
        format.mFormatID = subtype == SF_FORMAT_ULAW ? kAudioFormatULaw : kAudioFormatALaw;
        format.mBitsPerChannel = 8;
        format.mFramesPerPacket = 1;
        format.mBytesPerFrame = format.mChannelsPerFrame;
        format.mBytesPerPacket = format.mBytesPerFrame;
        break;
    case SF_FORMAT_ALAC_16:
    case SF_FORMAT_ALAC_20:
    case SF_FORMAT_ALAC_24:
    case SF_FORMAT_ALAC_32:
        format.mFormatID = kAudioFormatAppleLossless;
        format.mFormatFlags =
            subtype == SF_FORMAT_ALAC_20   ? kAppleLosslessFormatFlag_20BitSourceData
            : subtype == SF_FORMAT_ALAC_24 ? kAppleLosslessFormatFlag_24BitSourceData
            : subtype == SF_FORMAT_ALAC_32 ? kAppleLosslessFormatFlag_32BitSourceData
                                           : kAppleLosslessFormatFlag_16BitSourceData;
        format.mFramesPerPacket = 4096;
        break;
    case SF_FORMAT_IMA_ADPCM:
        format.mFormatID = appleContainer ? kAudioFormatAppleIMA4 : kWaveFormatIMAADPCM;
        break;
    case SF_FORMAT_MS_ADPCM:
        format.mFormatID = kWaveFormatMSADPCM;
        break;
    case SF_FORMAT_GSM610:
        format.mFormatID = appleContainer ? kAudioFormatMicrosoftGSM : kWaveFormatGSM610;
        break;
    case SF_FORMAT_VORBIS:
    case SF_FORMAT_OPUS:
    case SF_FORMAT_MPEG_LAYER_I:
    case SF_FORMAT_MPEG_LAYER_II:
    case SF_FORMAT_MPEG_LAYER_III:
        // Coded data inside a PCM-family container: libav knows its facts.
        return false;
    default:
        format.mFormatID = 0;
        break;
    }
    formatName_ = formatNameForFormat(format.mFormatID, format.mFormatFlags);
    if (formatName_.empty()) {
        SF_FORMAT_INFO subtypeInfo{};
        subtypeInfo.format = subtype;
        if (sf_command(nullptr, SFC_GET_FORMAT_INFO, &subtypeInfo, sizeof subtypeInfo) == 0 &&
            subtypeInfo.name)
            formatName_ = subtypeInfo.name;
    }

    if (sfinfo.frames > 0 && sfinfo.frames != SF_COUNT_MAX)
        estimatedDuration_ = double(sfinfo.frames) / double(sfinfo.samplerate);
    if (format.mBitsPerChannel > 0)
        bitRate_ =
            clampBitRate(format.mSampleRate * format.mChannelsPerFrame * format.mBitsPerChannel);
    else if (estimatedDuration_ > 0)
        bitRate_ = clampBitRate(double(fileSize) * 8.0 / estimatedDuration_);

    // Every chunk libsndfile saw, without the container header and without
    // the samples themselves. A chunk's id is only reported by a data read,
    // so each chunk is first read with room for nothing to learn its id.
    // Declared sizes are not trusted beyond the file's own size.
    for (SF_CHUNK_ITERATOR* it = sf_get_chunk_iterator(file.get(), nullptr); it;
         it = sf_next_chunk_iterator(it)) {
        SF_CHUNK_INFO peek{};
        uint8_t none[1];
        peek.data = none;
        peek.datalen = 0;
        if (sf_get_chunk_data(it, &peek) != SF_ERR_NO_ERROR || peek.id_size != 4)
            continue;
        const std::string identifier(peek.id, 4);
        if (identifier == "RIFF" || identifier == "RIFX" || identifier == "RF64" ||
            identifier == "FORM" || identifier == "caff" || identifier == "data" ||
            identifier == "SSND")
            continue;
        SF_CHUNK_INFO sized{};
        if (sf_get_chunk_size(it, &sized) != SF_ERR_NO_ERROR || sized.datalen > fileSize)
            continue;
        Chunk chunk{identifier, std::vector<uint8_t>(sized.datalen)};
        if (sized.datalen > 0) {
            SF_CHUNK_INFO full{};
            full.data = chunk.bytes.data();
            full.datalen = sized.datalen;
            if (sf_get_chunk_data(it, &full) != SF_ERR_NO_ERROR)
                continue;
        }
        chunks_.push_back(std::move(chunk));
    }

    for (const auto& [type, key] : kSndfileStringKeys) {
        if (const char* value = sf_get_string(file.get(), type))
            infoDictionary_[key] = value;
    }
    for (const auto& chunk : chunks_) {
        if (chunk.identifier != "info")
            continue;
        for (auto& [key, value] : parseInfoChunk(chunk.bytes))
            infoDictionary_[key] = value;
    }

    channelLayoutTag_ = layoutTagFromChunks(chunks_);
    if (!channelLayoutTag_) {
        std::vector<int> map(size_t(sfinfo.channels));
        if (sf_command(file.get(), SFC_GET_CHANNEL_MAP_INFO, map.data(),
                       int(sizeof(int) * map.size())) == SF_TRUE)
            channelLayoutTag_ = layoutTagForSndfileMap(map);
        else
            channelLayoutTag_ = monoOrStereoLayoutTag(sfinfo.channels);
    }
    return true;
}

bool CoreAudioFileInfo::readWithLibav(const std::string& path, uint64_t fileSize) {
    AVFormatContext* raw = nullptr;
    if (avformat_open_input(&raw, path.c_str(), nullptr, nullptr) < 0)
        return false;
    AVFormatContextPtr context(raw);
    avformat_find_stream_info(context.get(), nullptr);

    const AVStream* stream = nullptr;
    for (unsigned i = 0; i < context->nb_streams; ++i) {
        if (context->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
            stream = context->streams[i];
            break;
        }
    }
    if (!stream)
        return false;
    const AVCodecParameters* parameters = stream->codecpar;
    fileTypeName_ = fileTypeNameForDemuxer(context.get(), parameters->codec_id, path);
    if (fileTypeName_.empty())
        return false;

    AudioStreamBasicDescription& format = dataFormat_;
    format.mSampleRate = double(std::max(0, parameters->sample_rate));
    format.mChannelsPerFrame = uint32_t(std::max(0, parameters->ch_layout.nb_channels));
    format.mFormatID = formatIDForCodec(parameters->codec_id, parameters->profile);
    if (format.mFormatID == kAudioFormatLinearPCM) {
        const int bits = av_get_bits_per_sample(parameters->codec_id);
        format.mBitsPerChannel =
            uint32_t(bits > 0 ? bits : std::max(0, parameters->bits_per_coded_sample));
        const auto sampleFormat = av_get_packed_sample_fmt(AVSampleFormat(parameters->format));
        const char* codecName = avcodec_get_name(parameters->codec_id);
        const bool isFloat = sampleFormat == AV_SAMPLE_FMT_FLT || sampleFormat == AV_SAMPLE_FMT_DBL;
        format.mFormatFlags = isFloat ? kAudioFormatFlagsNativeFloatPacked
                                      : kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
        const size_t nameLength = std::strlen(codecName);
        if (nameLength > 2 && std::strcmp(codecName + nameLength - 2, "be") == 0)
            format.mFormatFlags |= kAudioFormatFlagIsBigEndian;
        format.mFramesPerPacket = 1;
        format.mBytesPerFrame = format.mBitsPerChannel / 8 * format.mChannelsPerFrame;
        format.mBytesPerPacket = format.mBytesPerFrame;
    } else if (format.mFormatID == kAudioFormatULaw || format.mFormatID == kAudioFormatALaw) {
        format.mBitsPerChannel = 8;
    } else if (format.mFormatID == kAudioFormatAppleLossless) {
        // The source depth lives in the magic cookie, which the decoder reads.
        int bits = parameters->bits_per_raw_sample;
        if (const AVCodec* codec = avcodec_find_decoder(parameters->codec_id)) {
            AVCodecContextPtr decoder(avcodec_alloc_context3(codec));
            if (decoder && avcodec_parameters_to_context(decoder.get(), parameters) >= 0 &&
                avcodec_open2(decoder.get(), codec, nullptr) >= 0)
                bits = decoder->bits_per_raw_sample;
        }
        format.mFormatFlags = bits == 20   ? kAppleLosslessFormatFlag_20BitSourceData
                              : bits == 24 ? kAppleLosslessFormatFlag_24BitSourceData
                              : bits == 32 ? kAppleLosslessFormatFlag_32BitSourceData
                                           : kAppleLosslessFormatFlag_16BitSourceData;
        format.mFramesPerPacket = 4096;
    }
    formatName_ = formatNameForFormat(format.mFormatID, format.mFormatFlags);
    if (formatName_.empty()) {
        const AVCodecDescriptor* descriptor = avcodec_descriptor_get(parameters->codec_id);
        if (descriptor && descriptor->long_name)
            formatName_ = descriptor->long_name;
    }

    if (stream->duration != AV_NOPTS_VALUE && stream->duration > 0)
        estimatedDuration_ = double(stream->duration) * av_q2d(stream->time_base);
    else if (context->duration != AV_NOPTS_VALUE && context->duration > 0)
        estimatedDuration_ = double(context->duration) / AV_TIME_BASE;
    if (parameters->bit_rate > 0)
        bitRate_ = clampBitRate(double(parameters->bit_rate));
    else if (context->bit_rate > 0)
        bitRate_ = clampBitRate(double(context->bit_rate));
    else if (estimatedDuration_ > 0)
        bitRate_ = clampBitRate(double(fileSize) * 8.0 / estimatedDuration_);

    channelLayoutTag_ = layoutTagForAVLayout(parameters->ch_layout);

    const AVDictionaryEntry* entry = nullptr;
    while ((entry = av_dict_get(context->metadata, "", entry, AV_DICT_IGNORE_SUFFIX))) {
        if (!entry->key || !entry->value)
            continue;
        const std::string key = lowercaseASCII(entry->key);
        for (const auto& [libavKey, infoKey] : kLibavMetadataKeys)
            if (key == lowercaseASCII(libavKey))
                infoDictionary_[infoKey] = entry->value;
    }
    return true;
}

} // namespace velvox
