#include "decoders/CoreAudioDecoder.h"

#include <algorithm>
#include <bit>
#include <cerrno>
#include <climits>
#include <cmath>
#include <cstdio>
#include <cstring>

#include "core/UtilityFunctions.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

// The desktop service's status for data it has no decoder for.
constexpr OSStatus kAudioFileUnsupportedDataFormatError = OSStatus(fourCharCode("fmt?"));

// Channel bits beyond the ones the shared header names; the WAVE speaker mask,
// FFmpeg's native channel mask and the desktop channel bitmap agree on all 18.
constexpr AudioChannelBitmap kAudioChannelBit_VerticalHeightLeft = 1u << 12;
constexpr AudioChannelBitmap kAudioChannelBit_VerticalHeightCenter = 1u << 13;
constexpr AudioChannelBitmap kAudioChannelBit_VerticalHeightRight = 1u << 14;
constexpr AudioChannelBitmap kAudioChannelBit_TopBackLeft = 1u << 15;
constexpr AudioChannelBitmap kAudioChannelBit_TopBackCenter = 1u << 16;
constexpr AudioChannelBitmap kAudioChannelBit_TopBackRight = 1u << 17;
constexpr AudioChannelBitmap kKnownChannelBits = (1u << 18) - 1;

constexpr AudioChannelLabel kAudioChannelLabel_Ambisonic_W = 200;
constexpr AudioChannelLabel kAudioChannelLabel_Ambisonic_X = 201;
constexpr AudioChannelLabel kAudioChannelLabel_Ambisonic_Y = 202;
constexpr AudioChannelLabel kAudioChannelLabel_Ambisonic_Z = 203;

struct SndfileChannel {
    int position;
    AudioChannelLabel label;
    AudioChannelBitmap bit; // 0: no bitmap bit for this channel
};

// libsndfile's channel positions, as labels and as speaker-mask bits.
constexpr SndfileChannel kSndfileChannels[] = {
    {SF_CHANNEL_MAP_MONO, kAudioChannelLabel_Mono, kAudioChannelBit_Center},
    {SF_CHANNEL_MAP_LEFT, kAudioChannelLabel_Left, kAudioChannelBit_Left},
    {SF_CHANNEL_MAP_RIGHT, kAudioChannelLabel_Right, kAudioChannelBit_Right},
    {SF_CHANNEL_MAP_CENTER, kAudioChannelLabel_Center, kAudioChannelBit_Center},
    {SF_CHANNEL_MAP_FRONT_LEFT, kAudioChannelLabel_Left, kAudioChannelBit_Left},
    {SF_CHANNEL_MAP_FRONT_RIGHT, kAudioChannelLabel_Right, kAudioChannelBit_Right},
    {SF_CHANNEL_MAP_FRONT_CENTER, kAudioChannelLabel_Center, kAudioChannelBit_Center},
    {SF_CHANNEL_MAP_REAR_CENTER, kAudioChannelLabel_CenterSurround,
     kAudioChannelBit_CenterSurround},
    {SF_CHANNEL_MAP_REAR_LEFT, kAudioChannelLabel_LeftSurround, kAudioChannelBit_LeftSurround},
    {SF_CHANNEL_MAP_REAR_RIGHT, kAudioChannelLabel_RightSurround, kAudioChannelBit_RightSurround},
    {SF_CHANNEL_MAP_LFE, kAudioChannelLabel_LFEScreen, kAudioChannelBit_LFEScreen},
    {SF_CHANNEL_MAP_FRONT_LEFT_OF_CENTER, kAudioChannelLabel_LeftCenter,
     kAudioChannelBit_LeftCenter},
    {SF_CHANNEL_MAP_FRONT_RIGHT_OF_CENTER, kAudioChannelLabel_RightCenter,
     kAudioChannelBit_RightCenter},
    {SF_CHANNEL_MAP_SIDE_LEFT, kAudioChannelLabel_LeftSurroundDirect,
     kAudioChannelBit_LeftSurroundDirect},
    {SF_CHANNEL_MAP_SIDE_RIGHT, kAudioChannelLabel_RightSurroundDirect,
     kAudioChannelBit_RightSurroundDirect},
    {SF_CHANNEL_MAP_TOP_CENTER, kAudioChannelLabel_TopCenterSurround,
     kAudioChannelBit_TopCenterSurround},
    {SF_CHANNEL_MAP_TOP_FRONT_LEFT, kAudioChannelLabel_VerticalHeightLeft,
     kAudioChannelBit_VerticalHeightLeft},
    {SF_CHANNEL_MAP_TOP_FRONT_RIGHT, kAudioChannelLabel_VerticalHeightRight,
     kAudioChannelBit_VerticalHeightRight},
    {SF_CHANNEL_MAP_TOP_FRONT_CENTER, kAudioChannelLabel_VerticalHeightCenter,
     kAudioChannelBit_VerticalHeightCenter},
    {SF_CHANNEL_MAP_TOP_REAR_LEFT, kAudioChannelLabel_TopBackLeft, kAudioChannelBit_TopBackLeft},
    {SF_CHANNEL_MAP_TOP_REAR_RIGHT, kAudioChannelLabel_TopBackRight, kAudioChannelBit_TopBackRight},
    {SF_CHANNEL_MAP_TOP_REAR_CENTER, kAudioChannelLabel_TopBackCenter,
     kAudioChannelBit_TopBackCenter},
    {SF_CHANNEL_MAP_AMBISONIC_B_W, kAudioChannelLabel_Ambisonic_W, 0},
    {SF_CHANNEL_MAP_AMBISONIC_B_X, kAudioChannelLabel_Ambisonic_X, 0},
    {SF_CHANNEL_MAP_AMBISONIC_B_Y, kAudioChannelLabel_Ambisonic_Y, 0},
    {SF_CHANNEL_MAP_AMBISONIC_B_Z, kAudioChannelLabel_Ambisonic_Z, 0},
};

const SndfileChannel* sndfileChannel(int position) {
    for (const SndfileChannel& channel : kSndfileChannels)
        if (channel.position == position)
            return &channel;
    return nullptr;
}

// FFmpeg's AVChannel numbers 0-17 are the speaker-mask bits; a few more have
// desktop labels of their own.
AudioChannelLabel labelForAVChannel(AVChannel channel) {
    static constexpr AudioChannelLabel kFirst18[] = {
        kAudioChannelLabel_Left,
        kAudioChannelLabel_Right,
        kAudioChannelLabel_Center,
        kAudioChannelLabel_LFEScreen,
        kAudioChannelLabel_LeftSurround,
        kAudioChannelLabel_RightSurround,
        kAudioChannelLabel_LeftCenter,
        kAudioChannelLabel_RightCenter,
        kAudioChannelLabel_CenterSurround,
        kAudioChannelLabel_LeftSurroundDirect,
        kAudioChannelLabel_RightSurroundDirect,
        kAudioChannelLabel_TopCenterSurround,
        kAudioChannelLabel_VerticalHeightLeft,
        kAudioChannelLabel_VerticalHeightCenter,
        kAudioChannelLabel_VerticalHeightRight,
        kAudioChannelLabel_TopBackLeft,
        kAudioChannelLabel_TopBackCenter,
        kAudioChannelLabel_TopBackRight,
    };
    if (channel >= 0 && size_t(channel) < std::size(kFirst18))
        return kFirst18[channel];
    switch (channel) {
    case AV_CHAN_STEREO_LEFT:
        return kAudioChannelLabel_Left;
    case AV_CHAN_STEREO_RIGHT:
        return kAudioChannelLabel_Right;
    case AV_CHAN_WIDE_LEFT:
        return kAudioChannelLabel_LeftWide;
    case AV_CHAN_WIDE_RIGHT:
        return kAudioChannelLabel_RightWide;
    case AV_CHAN_SURROUND_DIRECT_LEFT:
        return kAudioChannelLabel_LeftSurroundDirect;
    case AV_CHAN_SURROUND_DIRECT_RIGHT:
        return kAudioChannelLabel_RightSurroundDirect;
    case AV_CHAN_LOW_FREQUENCY_2:
        return kAudioChannelLabel_LFE2;
    default:
        return kAudioChannelLabel_Unknown;
    }
}

// The desktop service's formats among FFmpeg's decoders. Anything else is
// left to the FFmpeg decoder, which the factory falls back to.
bool isPlatformCodec(AVCodecID id) {
    if (id >= AV_CODEC_ID_FIRST_AUDIO && id < AV_CODEC_ID_ADPCM_IMA_QT)
        return true; // linear PCM, µ-law and A-law in any container
    switch (id) {
    case AV_CODEC_ID_MP1:
    case AV_CODEC_ID_MP2:
    case AV_CODEC_ID_MP3:
    case AV_CODEC_ID_AAC:
    case AV_CODEC_ID_AAC_LATM:
    case AV_CODEC_ID_ALAC:
    case AV_CODEC_ID_AMR_NB:
    case AV_CODEC_ID_AMR_WB:
    case AV_CODEC_ID_ILBC:
    case AV_CODEC_ID_QDM2:
    case AV_CODEC_ID_QDMC:
    case AV_CODEC_ID_MACE3:
    case AV_CODEC_ID_MACE6:
    case AV_CODEC_ID_ADPCM_IMA_QT:
    case AV_CODEC_ID_ADPCM_IMA_WAV:
    case AV_CODEC_ID_ADPCM_MS:
    case AV_CODEC_ID_GSM_MS:
    case AV_CODEC_ID_AC3:
    case AV_CODEC_ID_EAC3:
    case AV_CODEC_ID_FLAC:
    case AV_CODEC_ID_OPUS:
        return true;
    default:
        return false;
    }
}

AudioFormatID formatIDForCodec(AVCodecID id) {
    switch (id) {
    case AV_CODEC_ID_MP1:
        return kAudioFormatMPEGLayer1;
    case AV_CODEC_ID_MP2:
        return kAudioFormatMPEGLayer2;
    case AV_CODEC_ID_MP3:
        return kAudioFormatMPEGLayer3;
    case AV_CODEC_ID_AAC:
    case AV_CODEC_ID_AAC_LATM:
        return kAudioFormatMPEG4AAC;
    case AV_CODEC_ID_ALAC:
        return kAudioFormatAppleLossless;
    case AV_CODEC_ID_AMR_NB:
        return kAudioFormatAMR;
    case AV_CODEC_ID_PCM_MULAW:
        return kAudioFormatULaw;
    case AV_CODEC_ID_PCM_ALAW:
        return kAudioFormatALaw;
    default:
        return id >= AV_CODEC_ID_FIRST_AUDIO && id < AV_CODEC_ID_ADPCM_IMA_QT
                   ? kAudioFormatLinearPCM
                   : 0;
    }
}

uint32_t roundUpToBytes(uint32_t bits) { return (bits + 7) / 8 * 8; }

// Writes left-justified 32-bit samples as little-endian integers of the
// decode depth. 20-bit data keep two bytes per sample: the top 16 bits.
void storeSamples(const int32_t* in, size_t count, uint32_t bits, uint8_t* out) {
    switch (bits) {
    case 8:
        for (size_t k = 0; k < count; ++k)
            out[k] = uint8_t(uint32_t(in[k]) >> 24);
        break;
    case 16:
    case 20:
        for (size_t k = 0; k < count; ++k) {
            const uint32_t s = uint32_t(in[k]) >> 16;
            out[2 * k] = uint8_t(s);
            out[2 * k + 1] = uint8_t(s >> 8);
        }
        break;
    case 24:
        for (size_t k = 0; k < count; ++k) {
            const uint32_t s = uint32_t(in[k]) >> 8;
            out[3 * k] = uint8_t(s);
            out[3 * k + 1] = uint8_t(s >> 8);
            out[3 * k + 2] = uint8_t(s >> 16);
        }
        break;
    default:
        if constexpr (std::endian::native == std::endian::little) {
            std::memcpy(out, in, count * 4);
        } else {
            for (size_t k = 0; k < count; ++k) {
                const uint32_t s = uint32_t(in[k]);
                out[4 * k] = uint8_t(s);
                out[4 * k + 1] = uint8_t(s >> 8);
                out[4 * k + 2] = uint8_t(s >> 16);
                out[4 * k + 3] = uint8_t(s >> 24);
            }
        }
        break;
    }
}

// Full scale maps to the integer range, rounding to nearest and clipping what
// lies beyond it; NaN becomes silence.
int32_t floatToInt32(double value) {
    const double scaled = value * 2147483648.0;
    if (!(scaled > double(INT32_MIN)))
        return std::isnan(scaled) ? 0 : INT32_MIN;
    if (scaled >= double(INT32_MAX))
        return INT32_MAX;
    return int32_t(std::nearbyint(scaled));
}

// Gathers one frame of integer samples, interleaved and left-justified.
template <typename T, typename ToInt32>
void gatherSamples(const AVFrame* frame, bool planar, uint32_t channels, int32_t* out,
                   ToInt32 toInt32) {
    const size_t n = size_t(frame->nb_samples);
    if (planar) {
        for (uint32_t c = 0; c < channels; ++c) {
            const auto* src = reinterpret_cast<const T*>(frame->extended_data[c]);
            for (size_t i = 0; i < n; ++i)
                out[i * channels + c] = toInt32(src[i]);
        }
    } else {
        const auto* src = reinterpret_cast<const T*>(frame->data[0]);
        for (size_t k = 0; k < n * channels; ++k)
            out[k] = toInt32(src[k]);
    }
}

std::string joinReasons(const std::string& a, const std::string& b) {
    if (a.empty())
        return b;
    if (b.empty())
        return a;
    return a + "; " + b;
}

} // namespace

void CoreAudioDecoder::SndfileDeleter::operator()(SNDFILE* file) const { sf_close(file); }

CoreAudioDecoder::CoreAudioDecoder() = default;

CoreAudioDecoder::~CoreAudioDecoder() = default;

uint32_t CoreAudioDecoder::decodeBitsForSourceFormat(const AudioStreamBasicDescription& source) {
    if (source.mFormatID == kAudioFormatAppleLossless) {
        switch (source.mFormatFlags) {
        case kAppleLosslessFormatFlag_20BitSourceData:
            return 20;
        case kAppleLosslessFormatFlag_24BitSourceData:
            return 24;
        case kAppleLosslessFormatFlag_32BitSourceData:
            return 32;
        default:
            return 16;
        }
    }
    if (source.mBitsPerChannel == 0)
        return 16;
    // 64-bit floating point is delivered at the deepest integer size the
    // pipeline carries.
    return std::min<uint32_t>(32, roundUpToBytes(source.mBitsPerChannel));
}

std::unique_ptr<AudioChannelLayout>
CoreAudioDecoder::adjustedChannelLayout(std::unique_ptr<AudioChannelLayout> layout,
                                        uint32_t channels) {
    if (!layout) {
        // A file without layout information: WAVE (without a speaker mask),
        // AIFF, AU and CAF all define one channel as mono and two as left and
        // right, so those are stated; for more channels the order is anyone's
        // guess and stays unknown.
        if (channels == 1)
            return createChannelLayoutWithTag(kAudioChannelLayoutTag_Mono);
        if (channels == 2)
            return createChannelLayoutWithTag(kAudioChannelLayoutTag_Stereo);
        return createChannelLayoutWithTag(kAudioChannelLayoutTag_Unknown);
    }
    if (layout->mChannelLayoutTag == kAudioChannelLayoutTag_UseChannelBitmap) {
        static constexpr AudioChannelLayoutTag kTagByCount[] = {
            kAudioChannelLayoutTag_Mono,       kAudioChannelLayoutTag_Stereo,
            kAudioChannelLayoutTag_MPEG_3_0_A, kAudioChannelLayoutTag_DVD_10,
            kAudioChannelLayoutTag_DVD_11,     kAudioChannelLayoutTag_MPEG_5_1_A,
            kAudioChannelLayoutTag_MPEG_6_1_A, kAudioChannelLayoutTag_MPEG_7_1_C,
        };
        if (channels >= 1 && channels <= std::size(kTagByCount))
            return createChannelLayoutWithTag(kTagByCount[channels - 1]);
        return layout;
    }
    if (layout->mChannelLayoutTag == kAudioChannelLayoutTag_UseChannelDescriptions) {
        if (channels == 1)
            return createChannelLayoutWithTag(kAudioChannelLayoutTag_Mono);
        if (channels == 2)
            return createChannelLayoutWithTag(kAudioChannelLayoutTag_Stereo);
    }
    return layout;
}

bool CoreAudioDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;
    auto& log = ErrorLog::sharedController();
    if (path.empty()) {
        log.logMessage(stringWithFormat("Failed To Make Path Into File URL: %@", path));
        return false;
    }

    // libsndfile first: it reads the uncompressed family sample for sample and
    // knows its exact length. Coded formats, and files it cannot read at all,
    // go to FFmpeg's demuxers and decoders.
    std::string sndfileReason;
    std::string libavReason;
    OpenResult result = openWithSndfile(path, sndfileReason);
    if (result == OpenResult::NotHandled)
        result = openWithLibav(path, libavReason);
    if (result == OpenResult::Failed)
        return false;
    if (result == OpenResult::NotHandled) {
        log.logMessage(stringWithFormat("ExtAudioFileOpenURL Failed With Error: %@",
                                        joinReasons(sndfileReason, libavReason)));
        return false;
    }

    const uint32_t bits = decodeBitsForSourceFormat(sourceFormat_);
    decodeFormat_ = sourceFormat_;
    decodeFormat_.mFormatID = kAudioFormatLinearPCM;
    decodeFormat_.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    decodeFormat_.mBitsPerChannel = bits;
    decodeFormat_.mBytesPerFrame = (bits / 8) * sourceFormat_.mChannelsPerFrame;
    decodeFormat_.mFramesPerPacket = 1;
    decodeFormat_.mBytesPerPacket = decodeFormat_.mBytesPerFrame;
    if (decodeFormat_.mBytesPerFrame == 0) {
        log.logMessage("Failed To Determine mBytesPerFrame.");
        return false;
    }
    if (decodeFormat_.mSampleRate <= 0) {
        log.logMessage(
            stringWithFormat("Audio File Set Property Client Data Format Failed With Error: %@",
                             fourCharCodeString(kAudioFileUnsupportedDataFormatError)));
        return false;
    }

    setChannelLayout(adjustedChannelLayout(sndfile_ ? sndfileChannelLayout() : libavChannelLayout(),
                                           decodeFormat_.mChannelsPerFrame));
    return true;
}

// ---------------------------------------------------------------------------
// libsndfile

CoreAudioDecoder::OpenResult CoreAudioDecoder::openWithSndfile(const std::string& path,
                                                               std::string& reason) {
    SF_INFO info{};
    std::unique_ptr<SNDFILE, SndfileDeleter> file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file) {
        reason = std::string("libsndfile: ") + sf_strerror(nullptr);
        return OpenResult::NotHandled;
    }
    const int subtype = info.format & SF_FORMAT_SUBMASK;
    uint32_t bits = 0;
    AudioFormatID formatID = kAudioFormatLinearPCM;
    AudioFormatFlags flags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    switch (subtype) {
    case SF_FORMAT_PCM_S8:
    case SF_FORMAT_PCM_U8:
    case SF_FORMAT_DPCM_8:
        bits = 8;
        break;
    case SF_FORMAT_PCM_16:
    case SF_FORMAT_DPCM_16:
    case SF_FORMAT_DWVW_16:
        bits = 16;
        break;
    case SF_FORMAT_PCM_24:
    case SF_FORMAT_DWVW_24:
        bits = 24;
        break;
    case SF_FORMAT_PCM_32:
        bits = 32;
        break;
    case SF_FORMAT_FLOAT:
        bits = 32;
        flags = kAudioFormatFlagsNativeFloatPacked;
        break;
    case SF_FORMAT_DOUBLE:
        bits = 64;
        flags = kAudioFormatFlagsNativeFloatPacked;
        break;
    case SF_FORMAT_ULAW:
        formatID = kAudioFormatULaw;
        flags = 0;
        break;
    case SF_FORMAT_ALAW:
        formatID = kAudioFormatALaw;
        flags = 0;
        break;
    case SF_FORMAT_VORBIS:
    case SF_FORMAT_OPUS:
    case SF_FORMAT_ALAC_16:
    case SF_FORMAT_ALAC_20:
    case SF_FORMAT_ALAC_24:
    case SF_FORMAT_ALAC_32:
    case SF_FORMAT_MPEG_LAYER_I:
    case SF_FORMAT_MPEG_LAYER_II:
    case SF_FORMAT_MPEG_LAYER_III:
        // Coded formats with decoders of their own in FFmpeg, which also knows
        // their source depth and priming.
        return OpenResult::NotHandled;
    default:
        // ADPCM, GSM and the like: libsndfile decodes them to 16 bits.
        formatID = 0;
        flags = 0;
        break;
    }
    if (info.channels <= 0 || info.samplerate <= 0)
        return OpenResult::NotHandled;

    sourceFormat_ = AudioStreamBasicDescription{};
    sourceFormat_.mSampleRate = double(info.samplerate);
    sourceFormat_.mFormatID = formatID;
    if (flags != 0 && (info.format & SF_FORMAT_ENDMASK) == SF_ENDIAN_BIG)
        flags |= kAudioFormatFlagIsBigEndian;
    sourceFormat_.mFormatFlags = flags;
    sourceFormat_.mChannelsPerFrame = uint32_t(info.channels);
    sourceFormat_.mBitsPerChannel = bits;
    sourceFormat_.mFramesPerPacket = 1;
    sourceFormat_.mBytesPerFrame = (bits / 8) * uint32_t(info.channels);
    sourceFormat_.mBytesPerPacket = sourceFormat_.mBytesPerFrame;

    sndfile_ = std::move(file);
    sndfileFormat_ = info.format;
    sndfileIsFloat_ = subtype == SF_FORMAT_FLOAT || subtype == SF_FORMAT_DOUBLE;
    totalFrames_ = info.frames;
    // A file cut short still counts what it promised, so that the encode
    // sees the difference instead of taking the stump for the whole.
    if (bits > 0) {
        const int64_t announced =
            framesAnnouncedBeyondEnd(sndfile_.get(), sourceFormat_.mBytesPerFrame);
        if (announced > totalFrames_)
            totalFrames_ = announced;
    }
    return OpenResult::Opened;
}

int64_t CoreAudioDecoder::framesAnnouncedBeyondEnd(SNDFILE* file, uint32_t bytesPerFrame) {
    if (bytesPerFrame == 0)
        return -1;
    std::string log(16384, '\0');
    sf_command(file, SFC_GET_LOG_INFO, log.data(), int(log.size()));
    log.resize(std::strlen(log.c_str()));
    // "data : 882000 (should be 299956)"; AIFF's "SSND" counts its 8-byte
    // offset and block size fields too.
    for (const auto& [chunk, overhead] : {std::pair{"data : ", 0}, std::pair{"SSND : ", 8}}) {
        const size_t at = log.find(chunk);
        if (at == std::string::npos)
            continue;
        unsigned long long declared = 0, present = 0;
        if (std::sscanf(log.c_str() + at + 7, "%llu (should be %llu)", &declared, &present) != 2)
            continue;
        // 0 and 0xFFFFFFFF are what streaming writers put when they do not
        // know the length yet: no promise was made.
        if (declared <= present || declared == 0xFFFFFFFFull || declared < unsigned(overhead))
            continue;
        return int64_t((declared - unsigned(overhead)) / bytesPerFrame);
    }
    return -1;
}

std::unique_ptr<AudioChannelLayout> CoreAudioDecoder::sndfileChannelLayout() const {
    const uint32_t channels = sourceFormat_.mChannelsPerFrame;
    std::vector<int> map(channels);
    if (sf_command(sndfile_.get(), SFC_GET_CHANNEL_MAP_INFO, map.data(),
                   int(sizeof(int) * channels)) != SF_TRUE)
        return nullptr;

    // In the WAVE family the positions come from the speaker mask, a channel
    // bitmap; elsewhere (CAF and AIFF channel chunks) from a list of channels.
    const int major = sndfileFormat_ & SF_FORMAT_TYPEMASK;
    const bool fromSpeakerMask = major == SF_FORMAT_WAV || major == SF_FORMAT_WAVEX ||
                                 major == SF_FORMAT_W64 || major == SF_FORMAT_RF64;
    std::vector<AudioChannelLabel> labels;
    AudioChannelBitmap bitmap = 0;
    bool bitmapComplete = true;
    for (int position : map) {
        const SndfileChannel* channel = sndfileChannel(position);
        labels.push_back(channel ? channel->label : kAudioChannelLabel_Unknown);
        if (!channel || channel->bit == 0 || (bitmap & channel->bit))
            bitmapComplete = false;
        else
            bitmap |= channel->bit;
    }
    if (fromSpeakerMask && bitmapComplete) {
        auto layout = createChannelLayoutWithTag(kAudioChannelLayoutTag_UseChannelBitmap);
        layout->mChannelBitmap = bitmap;
        return layout;
    }
    return createChannelLayoutWithLabels(labels);
}

uint32_t CoreAudioDecoder::readSndfile(uint8_t* out, uint32_t frames) {
    SNDFILE* file = sndfile_.get();
    const uint32_t channels = decodeFormat_.mChannelsPerFrame;
    const uint32_t bits = decodeFormat_.mBitsPerChannel;
    const size_t samples = size_t(frames) * channels;

    if (sndfileIsFloat_) {
        doubleScratch_.resize(samples);
        intScratch_.resize(samples);
        const sf_count_t got = sf_readf_double(file, doubleScratch_.data(), frames);
        if (got <= 0)
            return 0;
        const size_t count = size_t(got) * channels;
        std::transform(doubleScratch_.begin(), doubleScratch_.begin() + ptrdiff_t(count),
                       intScratch_.begin(), floatToInt32);
        storeSamples(intScratch_.data(), count, bits, out);
        return uint32_t(got);
    }
    if (bits <= 16) {
        // libsndfile hands out integer data left-justified in the requested
        // width, so narrowing by a shift gives the file's own samples.
        shortScratch_.resize(samples);
        const sf_count_t got = sf_readf_short(file, shortScratch_.data(), frames);
        if (got <= 0)
            return 0;
        const size_t count = size_t(got) * channels;
        if (bits == 8) {
            for (size_t k = 0; k < count; ++k)
                out[k] = uint8_t(uint16_t(shortScratch_[k]) >> 8);
        } else if constexpr (std::endian::native == std::endian::little) {
            std::memcpy(out, shortScratch_.data(), count * 2);
        } else {
            for (size_t k = 0; k < count; ++k) {
                out[2 * k] = uint8_t(uint16_t(shortScratch_[k]));
                out[2 * k + 1] = uint8_t(uint16_t(shortScratch_[k]) >> 8);
            }
        }
        return uint32_t(got);
    }
    intScratch_.resize(samples);
    const sf_count_t got = sf_readf_int(file, intScratch_.data(), frames);
    if (got <= 0)
        return 0;
    storeSamples(intScratch_.data(), size_t(got) * channels, bits, out);
    return uint32_t(got);
}

// ---------------------------------------------------------------------------
// FFmpeg

CoreAudioDecoder::OpenResult CoreAudioDecoder::openWithLibav(const std::string& path,
                                                             std::string& reason) {
    auto& log = ErrorLog::sharedController();
    AVFormatContext* rawFormat = nullptr;
    int err = avformat_open_input(&rawFormat, path.c_str(), nullptr, nullptr);
    format_.reset(rawFormat);
    if (err < 0) {
        reason = "FFmpeg: " + avErrorString(err);
        return OpenResult::NotHandled;
    }
    err = avformat_find_stream_info(format_.get(), nullptr);
    if (err < 0) {
        log.logMessage(stringWithFormat(
            "Failed To Get Audio File Property File Data Format.  Error: %@", avErrorString(err)));
        return OpenResult::Failed;
    }
    for (unsigned i = 0; i < format_->nb_streams; ++i) {
        if (format_->streams[i]->codecpar->codec_type == AVMEDIA_TYPE_AUDIO) {
            streamIndex_ = int(i);
            break;
        }
    }
    if (streamIndex_ < 0) {
        reason = "FFmpeg: " + avErrorString(AVERROR_STREAM_NOT_FOUND);
        format_.reset();
        return OpenResult::NotHandled;
    }
    const AVStream* stream = format_->streams[streamIndex_];
    const AVCodecID codecID = stream->codecpar->codec_id;
    if (!isPlatformCodec(codecID)) {
        reason =
            stringWithFormat("%@ (%s)", fourCharCodeString(kAudioFileUnsupportedDataFormatError),
                             avcodec_get_name(codecID));
        format_.reset();
        return OpenResult::NotHandled;
    }

    const AVCodec* codec = avcodec_find_decoder(codecID);
    err = codec ? 0 : AVERROR_DECODER_NOT_FOUND;
    if (err >= 0) {
        codec_.reset(avcodec_alloc_context3(codec));
        err = codec_ ? avcodec_parameters_to_context(codec_.get(), stream->codecpar)
                     : AVERROR(ENOMEM);
    }
    if (err >= 0) {
        codec_->pkt_timebase = stream->time_base;
        err = avcodec_open2(codec_.get(), codec, nullptr);
    }
    if (err < 0) {
        log.logMessage(
            stringWithFormat("Audio File Set Property Client Data Format Failed With Error: %@",
                             avErrorString(err)));
        return OpenResult::Failed;
    }

    const int rate = codec_->sample_rate;
    sourceFormat_ = AudioStreamBasicDescription{};
    sourceFormat_.mSampleRate = double(rate);
    sourceFormat_.mFormatID = formatIDForCodec(codecID);
    sourceFormat_.mChannelsPerFrame = uint32_t(std::max(0, codec_->ch_layout.nb_channels));
    if (codecID == AV_CODEC_ID_ALAC) {
        // The decoder reads the source depth from the magic cookie.
        switch (codec_->bits_per_raw_sample) {
        case 20:
            sourceFormat_.mFormatFlags = kAppleLosslessFormatFlag_20BitSourceData;
            break;
        case 24:
            sourceFormat_.mFormatFlags = kAppleLosslessFormatFlag_24BitSourceData;
            break;
        case 32:
            sourceFormat_.mFormatFlags = kAppleLosslessFormatFlag_32BitSourceData;
            break;
        default:
            sourceFormat_.mFormatFlags = kAppleLosslessFormatFlag_16BitSourceData;
            break;
        }
    } else if (sourceFormat_.mFormatID == kAudioFormatLinearPCM) {
        const int bits = av_get_bits_per_sample(codecID);
        sourceFormat_.mBitsPerChannel = roundUpToBytes(
            uint32_t(bits > 0 ? bits : std::max(0, stream->codecpar->bits_per_coded_sample)));
        const AVSampleFormat packed = av_get_packed_sample_fmt(codec_->sample_fmt);
        sourceFormat_.mFormatFlags =
            (packed == AV_SAMPLE_FMT_FLT || packed == AV_SAMPLE_FMT_DBL)
                ? kAudioFormatFlagsNativeFloatPacked
                : kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
        sourceFormat_.mFramesPerPacket = 1;
        sourceFormat_.mBytesPerFrame =
            sourceFormat_.mBitsPerChannel / 8 * sourceFormat_.mChannelsPerFrame;
        sourceFormat_.mBytesPerPacket = sourceFormat_.mBytesPerFrame;
    } else if (codecID == AV_CODEC_ID_FLAC && codec_->bits_per_raw_sample > 0) {
        // Lossless: delivered at its own depth like uncompressed data.
        sourceFormat_.mBitsPerChannel = roundUpToBytes(uint32_t(codec_->bits_per_raw_sample));
    }

    if (stream->duration != AV_NOPTS_VALUE && stream->duration >= 0 && rate > 0)
        totalFrames_ = av_rescale_q(stream->duration, stream->time_base, AVRational{1, rate});
    else if (format_->duration != AV_NOPTS_VALUE && format_->duration >= 0 && rate > 0)
        totalFrames_ = av_rescale(format_->duration, rate, AV_TIME_BASE);
    // MP4 and QuickTime state the exact presentation length (the edit list),
    // but FFmpeg's decoders go on to hand out the encoder's padding behind
    // it; like the desktop service, stop where the presentation ends.
    if (std::strstr(format_->iformat->name, "mov") && stream->duration != AV_NOPTS_VALUE &&
        totalFrames_ > 0)
        frameLimit_ = totalFrames_;

    converter_.setOutputLayout(codec_->ch_layout, int(sourceFormat_.mChannelsPerFrame));

    packet_.reset(av_packet_alloc());
    frame_.reset(av_frame_alloc());
    VLX_ASSERT(packet_ && frame_, "Unable to allocate memory: %s", std::strerror(ENOMEM));
    return OpenResult::Opened;
}

std::unique_ptr<AudioChannelLayout> CoreAudioDecoder::libavChannelLayout() const {
    const AVChannelLayout& layout = codec_->ch_layout;
    switch (layout.order) {
    case AV_CHANNEL_ORDER_NATIVE: {
        auto result = createChannelLayoutWithTag(kAudioChannelLayoutTag_UseChannelBitmap);
        result->mChannelBitmap = AudioChannelBitmap(layout.u.mask & kKnownChannelBits);
        return result;
    }
    case AV_CHANNEL_ORDER_CUSTOM: {
        std::vector<AudioChannelLabel> labels;
        for (int i = 0; i < layout.nb_channels; ++i)
            labels.push_back(labelForAVChannel(av_channel_layout_channel_from_index(&layout, i)));
        return createChannelLayoutWithLabels(labels);
    }
    default:
        return nullptr;
    }
}

bool CoreAudioDecoder::decodeNextLibavFrame() {
    pending_.clear();
    pendingOffset_ = 0;
    for (;;) {
        const int err = avcodec_receive_frame(codec_.get(), frame_.get());
        if (err == 0) {
            convertLibavFrame(frame_.get());
            if (!pending_.empty())
                return true;
            continue;
        }
        if (err == AVERROR_EOF || inputEnded_)
            return false;
        // EAGAIN, or a damaged frame that the decoder reported and dropped:
        // either way the decoder wants more input.
        for (;;) {
            const int readError = av_read_frame(format_.get(), packet_.get());
            if (readError < 0) {
                // Also lets decoders with delay hand out what they still hold.
                inputEnded_ = true;
                avcodec_send_packet(codec_.get(), nullptr);
                break;
            }
            AVPacketUnref unref(packet_.get());
            if (packet_->stream_index != streamIndex_)
                continue;
            // A packet the decoder rejects is skipped, as players do.
            if (avcodec_send_packet(codec_.get(), packet_.get()) >= 0)
                break;
        }
    }
}

void CoreAudioDecoder::convertLibavFrame(const AVFrame* frame) {
    if (frame->nb_samples <= 0)
        return;
    const uint32_t channels = decodeFormat_.mChannelsPerFrame;
    const auto format = AVSampleFormat(frame->format);
    const AVSampleFormat packed = av_get_packed_sample_fmt(format);
    const bool planar = av_sample_fmt_is_planar(format) != 0;
    const bool integer = packed == AV_SAMPLE_FMT_U8 || packed == AV_SAMPLE_FMT_S16 ||
                         packed == AV_SAMPLE_FMT_S32 || packed == AV_SAMPLE_FMT_S64;
    if (!integer || uint32_t(frame->ch_layout.nb_channels) != channels ||
        frame->sample_rate != int(decodeFormat_.mSampleRate)) {
        resampleLibavFrame(frame);
        return;
    }

    // Integer data are narrowed exactly. Decoders left-justify deep samples
    // (24-bit Apple Lossless comes as 32-bit values shifted up by 8), so the
    // top bits are the ones to keep.
    const size_t count = size_t(frame->nb_samples) * channels;
    intScratch_.resize(count);
    int32_t* samples = intScratch_.data();
    switch (packed) {
    case AV_SAMPLE_FMT_U8:
        gatherSamples<uint8_t>(frame, planar, channels, samples,
                               [](uint8_t v) { return int32_t(uint32_t(v ^ 0x80u) << 24); });
        break;
    case AV_SAMPLE_FMT_S16:
        gatherSamples<int16_t>(frame, planar, channels, samples,
                               [](int16_t v) { return int32_t(uint32_t(uint16_t(v)) << 16); });
        break;
    case AV_SAMPLE_FMT_S32:
        gatherSamples<int32_t>(frame, planar, channels, samples, [](int32_t v) { return v; });
        break;
    default:
        gatherSamples<int64_t>(frame, planar, channels, samples,
                               [](int64_t v) { return int32_t(v >> 32); });
        break;
    }
    pending_.resize(size_t(frame->nb_samples) * decodeFormat_.mBytesPerFrame);
    storeSamples(samples, count, decodeFormat_.mBitsPerChannel, pending_.data());
}

// Floating-point data (the lossy decoders' output) and frames whose channel
// count or rate changed mid-stream go through swresample, to signed 16 bits
// or, for deeper decode formats, to 32 bits that are then narrowed.
void CoreAudioDecoder::resampleLibavFrame(const AVFrame* frame) {
    const uint32_t bits = decodeFormat_.mBitsPerChannel;
    const AVSampleFormat outFormat = bits <= 16 ? AV_SAMPLE_FMT_S16 : AV_SAMPLE_FMT_S32;
    const int outRate = int(decodeFormat_.mSampleRate);
    const int channels = int(decodeFormat_.mChannelsPerFrame);
    const int err = converter_.prepare(frame, outFormat, outRate);
    VLX_ASSERT(err >= 0, "Could Not Set Up The Sample Converter For File: %@ Error: %s",
               inFilePath(), avErrorString(err));

    const int capacity = converter_.capacityFor(frame, outRate);
    const int outBytes = av_get_bytes_per_sample(outFormat);
    swrScratch_.resize(size_t(capacity) * size_t(channels) * size_t(outBytes));
    uint8_t* out = swrScratch_.data();
    const int n = swr_convert(converter_.context(), &out, capacity,
                              const_cast<const uint8_t**>(frame->extended_data), frame->nb_samples);
    if (n <= 0)
        return;

    const size_t count = size_t(n) * size_t(channels);
    intScratch_.resize(count);
    for (size_t k = 0; k < count; ++k) {
        if (outFormat == AV_SAMPLE_FMT_S16) {
            int16_t v;
            std::memcpy(&v, out + 2 * k, 2);
            intScratch_[k] = int32_t(uint32_t(uint16_t(v)) << 16);
        } else {
            std::memcpy(&intScratch_[k], out + 4 * k, 4);
        }
    }
    pending_.resize(size_t(n) * decodeFormat_.mBytesPerFrame);
    storeSamples(intScratch_.data(), count, bits, pending_.data());
}

// At the stated end of the presentation, whatever the decoder still hands
// out is the encoder's padding, which is dropped. Should far more come than
// any encoder pads with, the stated length was wrong (a damaged or fragmented
// file): then nothing is dropped and decoding goes on to the real end.
void CoreAudioDecoder::checkTrailingPadding() {
    constexpr size_t kMaxPaddingFrames = 8192;
    const size_t bytesPerFrame = decodeFormat_.mBytesPerFrame;
    std::vector<uint8_t> tail(pending_.begin() + ptrdiff_t(pendingOffset_), pending_.end());
    while (tail.size() / bytesPerFrame <= kMaxPaddingFrames) {
        if (!decodeNextLibavFrame()) {
            pending_.clear();
            pendingOffset_ = 0;
            return;
        }
        tail.insert(tail.end(), pending_.begin(), pending_.end());
    }
    pending_ = std::move(tail);
    pendingOffset_ = 0;
    frameLimit_ = -1;
}

uint32_t CoreAudioDecoder::readLibav(uint8_t* out, uint32_t frames) {
    if (frameLimit_ >= 0 && framesDelivered_ >= frameLimit_)
        checkTrailingPadding();
    if (frameLimit_ >= 0)
        frames = uint32_t(std::clamp<int64_t>(frameLimit_ - framesDelivered_, 0, frames));
    const size_t wanted = size_t(frames) * decodeFormat_.mBytesPerFrame;
    size_t written = 0;
    while (written < wanted) {
        if (pendingOffset_ < pending_.size()) {
            const size_t n = std::min(wanted - written, pending_.size() - pendingOffset_);
            std::memcpy(out + written, pending_.data() + pendingOffset_, n);
            pendingOffset_ += n;
            written += n;
            continue;
        }
        if (!decodeNextLibavFrame())
            break;
    }
    const auto got = uint32_t(written / decodeFormat_.mBytesPerFrame);
    framesDelivered_ += got;
    return got;
}

// ---------------------------------------------------------------------------

void CoreAudioDecoder::fillPCMBuffer() {
    RingBuffer& ring = pcmBuffer();
    const uint32_t bytesPerFrame = decodeFormat_.mBytesPerFrame;
    if (ring.size() < bytesPerFrame)
        ring.resize(bytesPerFrame * 1024);
    const uint32_t frames = ring.freeSpaceAvailable() / bytesPerFrame;
    // No room for a whole frame is not the end of the file: the reader takes
    // out what is there first.
    if (frames == 0)
        return;
    uint8_t* out = ring.exposeBufferForWriting();
    const uint32_t got = sndfile_ ? readSndfile(out, frames) : readLibav(out, frames);
    if (got == 0)
        setEndOfFile(true);
    ring.wroteBytes(got * bytesPerFrame);
}

} // namespace velvox
