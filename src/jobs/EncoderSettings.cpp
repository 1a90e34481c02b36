#include "jobs/EncoderSettings.h"

#include <cmath>
#include <limits>
#include <utility>

#include <sndfile.h>

#include "core/FormatRegistry.h"
#include "jobs/EncoderDescriptor.h"
#include "platform/CoreAudioTypes.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

using nlohmann::json;

const json* lookUp(const json& dictionary, const char* key) {
    if (!dictionary.is_object())
        return nullptr;
    auto it = dictionary.find(key);
    return it == dictionary.end() ? nullptr : &*it;
}

// A stored number as a 32-bit integer: wider integers keep their low 32 bits,
// fractions are cut off, anything that is not a number reads as 0.
int32_t readInt32(const json& dictionary, const char* key) {
    const json* value = lookUp(dictionary, key);
    if (!value)
        return 0;
    if (value->is_boolean())
        return value->get<bool>() ? 1 : 0;
    if (value->is_number_unsigned())
        return static_cast<int32_t>(static_cast<uint32_t>(value->get<uint64_t>()));
    if (value->is_number_integer())
        return static_cast<int32_t>(static_cast<uint32_t>(value->get<int64_t>()));
    if (value->is_number_float()) {
        // Out-of-range floating values would be undefined to convert.
        const double d = value->get<double>();
        if (std::isnan(d))
            return 0;
        if (d >= double(std::numeric_limits<int32_t>::max()))
            return std::numeric_limits<int32_t>::max();
        if (d <= double(std::numeric_limits<int32_t>::min()))
            return std::numeric_limits<int32_t>::min();
        return static_cast<int32_t>(d);
    }
    return 0;
}

bool readBool(const json& dictionary, const char* key) {
    const json* value = lookUp(dictionary, key);
    if (!value)
        return false;
    if (value->is_boolean())
        return value->get<bool>();
    if (value->is_number())
        return readInt32(dictionary, key) != 0;
    return false;
}

std::optional<std::string> readString(const json& dictionary, const char* key) {
    const json* value = lookUp(dictionary, key);
    if (!value || !value->is_string())
        return std::nullopt;
    return value->get<std::string>();
}

// Stored numbers are 32-bit: the 64-bit fields lose their high half and the
// unsigned ones keep their bit pattern.
json stored(int64_t value) { return static_cast<int32_t>(value); }

bool isMPEG4FileType(uint32_t fileType) {
    return fileType == fourCharCode("m4af") || fileType == fourCharCode("mp4f");
}

std::string macLevelName(int32_t level) {
    switch (level) {
    case 1000:
        return "Fast";
    case 2000:
        return "Normal";
    case 3000:
        return "High";
    case 4000:
        return "Extra High";
    case 5000:
        return "Insane";
    default:
        return "?";
    }
}

} // namespace

std::unique_ptr<EncoderSettings> EncoderSettings::settingsWithDictionary(const json& dictionary) {
    auto settings = std::make_unique<EncoderSettings>();
    settings->initWithDictionary(dictionary);
    return settings;
}

void EncoderSettings::initWithDictionary(const json& dictionary) {
    setEnabled(readBool(dictionary, "enabled"));
    setEncoderSetting(0);
    setEncoderType(static_cast<EncoderType>(readInt32(dictionary, "encoderType")));
    setExtension(readString(dictionary, "extension"));
    setBitrate(readInt32(dictionary, "bitrate"));
    setQuality(readInt32(dictionary, "quality"));
    setSampleRate(readInt32(dictionary, "sampleRate"));
    setBitrateMethod(static_cast<BitrateMethod>(readInt32(dictionary, "method")));
    setChannelMode(readInt32(dictionary, "mode"));
    setBitDepth(static_cast<uint32_t>(readInt32(dictionary, "bitDepth")));
    setVbrQuality(readInt32(dictionary, "vbrQuality"));
    setFramesPerPacket(static_cast<uint32_t>(readInt32(dictionary, "framesPerPacket")));
    setEncoderAction(static_cast<EncoderAction>(readInt32(dictionary, "encoderAction")));
    setFileType(static_cast<uint32_t>(readInt32(dictionary, "fileType")));
    setFormatID(static_cast<uint32_t>(readInt32(dictionary, "formatID")));
    setFormatFlags(static_cast<uint32_t>(readInt32(dictionary, "formatFlags")));
    setFlacCompressionLevel(static_cast<uint32_t>(readInt32(dictionary, "flacCompressionLevel")));
    setFlacVerifyEncoding(readBool(dictionary, "flacVerifyEncoding"));
    setMacCompressionLevel(readInt32(dictionary, "macCompressionLevel"));
    setSpeexDenoise(readBool(dictionary, "speexDenoise"));
    setSpeexAdaptiveGainControl(readBool(dictionary, "speexAdaptiveGainControl"));
    setSpeexVoiceActivityDetection(readBool(dictionary, "speexVoiceActivityDetection"));
    setSpeexDiscontinuousTransmission(readBool(dictionary, "speexDiscontinuousTransmission"));
}

json EncoderSettings::settingsDictionary() const {
    json d = json::object();
    d["enabled"] = enabled_;
    d["encoderType"] = stored(encoderType_);
    if (extension_)
        d["extension"] = *extension_;
    d["bitrate"] = stored(bitrate_);
    d["quality"] = stored(quality_);
    d["sampleRate"] = stored(sampleRate_);
    d["method"] = stored(bitrateMethod_);
    d["mode"] = stored(channelMode_);
    d["bitDepth"] = stored(bitDepth_);
    d["vbrQuality"] = stored(vbrQuality_);
    d["framesPerPacket"] = stored(framesPerPacket_);
    d["encoderAction"] = stored(encoderAction_);
    d["fileType"] = stored(fileType_);
    d["formatID"] = stored(formatID_);
    d["formatFlags"] = stored(formatFlags_);
    d["flacCompressionLevel"] = stored(flacCompressionLevel_);
    d["flacVerifyEncoding"] = flacVerifyEncoding_;
    d["macCompressionLevel"] = stored(macCompressionLevel_);
    d["speexDenoise"] = speexDenoise_;
    d["speexAdaptiveGainControl"] = speexAdaptiveGainControl_;
    d["speexVoiceActivityDetection"] = speexVoiceActivityDetection_;
    d["speexDiscontinuousTransmission"] = speexDiscontinuousTransmission_;
    return d;
}

std::unique_ptr<EncoderSettings> EncoderSettings::copy() const {
    auto c = std::make_unique<EncoderSettings>();
    c->setEnabled(enabled_);
    c->setEncoderType(encoderType_);
    c->setExtension(extension_);
    c->setBitrate(bitrate_);
    c->setQuality(quality_);
    c->setSampleRate(sampleRate_);
    c->setBitrateMethod(bitrateMethod_);
    c->setChannelMode(channelMode_);
    c->setBitDepth(bitDepth_);
    c->setVbrQuality(vbrQuality_);
    c->setFramesPerPacket(framesPerPacket_);
    c->setEncoderAction(encoderAction_);
    c->setFileType(fileType_);
    c->setFormatID(formatID_);
    c->setFormatFlags(formatFlags_);
    c->setFlacCompressionLevel(flacCompressionLevel_);
    c->setFlacVerifyEncoding(flacVerifyEncoding_);
    c->setMacCompressionLevel(macCompressionLevel_);
    c->setSpeexDenoise(speexDenoise_);
    c->setSpeexAdaptiveGainControl(speexAdaptiveGainControl_);
    c->setSpeexVoiceActivityDetection(speexVoiceActivityDetection_);
    c->setSpeexDiscontinuousTransmission(speexDiscontinuousTransmission_);
    return c;
}

// ---- The rules of each encoder type ----
//
// What an output format is called, how its settings read, and when two
// formats would write the same file depend on the encoder type; each type's
// rules sit in one row of the table below.

struct EncoderSettingsRules {
    using Text = std::string (*)(const EncoderSettings&);
    using Same = bool (*)(const EncoderSettings&, const EncoderSettings&);
    EncoderType type;
    Text outputFormat;
    Text encoding;
    Same duplicate;

    static const EncoderSettingsRules* forType(EncoderType type);

    // ---- Output format names ----
    static std::string coreAudioContainer(const EncoderSettings& s) {
        switch (s.fileType_) {
        case fourCharCode("3gp2"):
            return "3GP2";
        case fourCharCode("3gpp"):
            return "3GP";
        case fourCharCode("AIFC"):
            return "AIFC";
        case fourCharCode("AIFF"):
            return "AIFF";
        case fourCharCode("NeXT"):
            return "NeXt/SUN";
        case fourCharCode("Sd2f"):
            return "Sound Designer II";
        case fourCharCode("WAVE"):
            return "WAV";
        case fourCharCode("caff"):
            return "Core Audio Format";
        case fourCharCode("m4af"):
        case fourCharCode("mp4f"):
            return s.formatID_ == kAudioFormatAppleLossless ? "Apple Lossless" : "AAC";
        default:
            return "";
        }
    }
    static std::string sndFileContainer(const EncoderSettings& s) {
        return s.fileType_ == SF_FORMAT_SD2 ? "Sound Designer II" : "";
    }

    // ---- Encoding texts ----
    static std::string mp3Encoding(const EncoderSettings& s) {
        // The MP3 bit rate is kept in kbit/s already.
        if (s.bitrateMethod_ == BitrateMethodABR)
            return stringWithFormat("%0.2f kbps ABR", double(s.bitrate_));
        if (s.bitrateMethod_ == BitrateMethodVBR)
            return stringWithFormat("VBR Quality %ld", long(s.vbrQuality_));
        return stringWithFormat("%0.2f kbps CBR", double(s.bitrate_));
    }
    static std::string flacEncoding(const EncoderSettings& s) {
        if (s.flacCompressionLevel_ <= 8)
            return stringWithFormat("Compression Level %u", unsigned(s.flacCompressionLevel_));
        return "Uncompressed";
    }
    static std::string xiphEncoding(const EncoderSettings& s) {
        const double kbps = double(s.bitrate_) * 0.001;
        switch (s.bitrateMethod_) {
        case BitrateMethodCBR:
            return stringWithFormat("%0.0f kbps CBR", kbps);
        case BitrateMethodABR:
            return stringWithFormat("%0.0f kbps ABR", kbps);
        case BitrateMethodVBR:
            return stringWithFormat("VBR Quality %ld", long(s.vbrQuality_));
        default:
            return "*Unknown Settings*";
        }
    }
    static std::string opusEncoding(const EncoderSettings& s) {
        const double kbps = double(s.bitrate_) * 0.001;
        switch (s.bitrateMethod_) {
        case BitrateMethodCBR:
            return stringWithFormat("%0.0f kbps CBR", kbps);
        case BitrateMethodVBR:
            return stringWithFormat("%0.0f kbps VBR", kbps);
        case BitrateMethodConstrainedVBR:
            return stringWithFormat("%0.0f kbps VBR Constrained", kbps);
        default:
            return "*Unknown Settings*";
        }
    }
    static std::string monkeysAudioEncoding(const EncoderSettings& s) {
        return stringWithFormat("Compression Level %@", macLevelName(s.macCompressionLevel_));
    }
    // The platform containers describe their codec.
    static std::string codecEncoding(const EncoderSettings& s) {
        const double kbps = double(s.bitrate_) * 0.001;
        switch (s.formatID_) {
        case fourCharCode("aac "):
            if (isMPEG4FileType(s.fileType_))
                return stringWithFormat("%0.2f kbps", kbps);
            return stringWithFormat("AAC %0.2f kbps", kbps);
        case fourCharCode("aace"):
            return "MPEG-4 AAC Enhanced Low Delay";
        case fourCharCode("aacf"):
            return "MPEG-4 AAC Enhanced Low Delay SBR";
        case fourCharCode("aach"):
            return "MPEG-4 High Efficiency AAC";
        case fourCharCode("aacl"):
            return "MPEG-4 AAC Low Delay";
        case fourCharCode("aacp"):
            return "MPEG-4 High Efficiency AAC Version 2";
        case fourCharCode("alac"):
            // Outside a CAF container the text is just the MPEG-4 extension;
            // the container name already says Apple Lossless there.
            return s.fileType_ == fourCharCode("caff") ? "Apple Lossless" : "m4a";
        case fourCharCode("alaw"):
            return "A-Law 2:1";
        case fourCharCode("ulaw"):
            return "μ-Law 2:1";
        case fourCharCode("ima4"):
            return "IMA 4:1";
        case fourCharCode("ilbc"):
            return "iLBC";
        case fourCharCode("samr"):
            return "AMR Narrowband";
        case fourCharCode("Qclp"):
            return "Qualcomm PureVoice™";
        case fourCharCode("lpcm"): {
            const char* endian = (s.formatFlags_ & kAudioFormatFlagIsBigEndian) ? "BE" : "LE";
            const double kHz = double(s.sampleRate_) * 0.001;
            if (s.bitDepth_ != 0 && s.sampleRate_ == 0)
                return stringWithFormat("LPCM - %u bit %@", unsigned(s.bitDepth_), endian);
            if (s.bitDepth_ != 0)
                return stringWithFormat("LPCM - %.1fkHz %u bit %@", kHz, unsigned(s.bitDepth_),
                                        endian);
            if (s.sampleRate_ == 0)
                return "LPCM";
            return stringWithFormat("LPCM - %.1fkHz", kHz);
        }
        default:
            return "";
        }
    }

    // ---- Duplicates ----
    static bool mp3Same(const EncoderSettings& a, const EncoderSettings& b) {
        return a.commonRateTestWith(b);
    }
    static bool flacSame(const EncoderSettings& a, const EncoderSettings& b) {
        return a.flacCompressionLevel_ == b.flacCompressionLevel_ && a.extension_ == b.extension_ &&
               a.sampleRate_ == b.sampleRate_ && a.bitDepth_ == b.bitDepth_ &&
               a.channelMode_ == b.channelMode_;
    }
    static bool vorbisSame(const EncoderSettings& a, const EncoderSettings& b) {
        return a.bitrateMethod_ == b.bitrateMethod_ && a.sameRateAs(b) &&
               a.extension_ == b.extension_;
    }
    static bool monkeysAudioSame(const EncoderSettings& a, const EncoderSettings& b) {
        return a.macCompressionLevel_ == b.macCompressionLevel_ && a.sampleRate_ == b.sampleRate_ &&
               a.bitDepth_ == b.bitDepth_;
    }
    static bool trueAudioSame(const EncoderSettings& a, const EncoderSettings& b) {
        return a.sampleRate_ == b.sampleRate_ && a.bitDepth_ == b.bitDepth_;
    }
    static bool speexSame(const EncoderSettings& a, const EncoderSettings& b) {
        return a.bitrateMethod_ == b.bitrateMethod_ && a.sameRateAs(b) &&
               a.sampleRate_ == b.sampleRate_ && a.quality_ == b.quality_ &&
               a.framesPerPacket_ == b.framesPerPacket_ &&
               a.speexAdaptiveGainControl_ == b.speexAdaptiveGainControl_ &&
               a.speexDenoise_ == b.speexDenoise_ &&
               a.speexDiscontinuousTransmission_ == b.speexDiscontinuousTransmission_ &&
               a.speexVoiceActivityDetection_ == b.speexVoiceActivityDetection_;
    }
    static bool opusSame(const EncoderSettings& a, const EncoderSettings& b) {
        return a.bitrateMethod_ == b.bitrateMethod_ && a.bitrate_ == b.bitrate_ &&
               a.sampleRate_ == b.sampleRate_ && a.quality_ == b.quality_ &&
               a.channelMode_ == b.channelMode_ && a.formatTestWith(b);
    }
    static bool containerSame(const EncoderSettings& a, const EncoderSettings& b) {
        return a.formatTestWith(b);
    }
};

namespace {

template <const char* Name>
std::string fixed(const EncoderSettings&) {
    return Name;
}
constexpr char kMP3[] = "MP3";
constexpr char kFLAC[] = "FLAC";
constexpr char kOggFLAC[] = "Ogg FLAC";
constexpr char kOggVorbis[] = "Ogg Vorbis";
constexpr char kMonkeysAudio[] = "Monkeys Audio";
constexpr char kTrueAudio[] = "True Audio";
constexpr char kTTA[] = "TTA";
constexpr char kOggSpeex[] = "Ogg Speex";
constexpr char kOpus[] = "Opus";

using R = EncoderSettingsRules;
const R kRules[] = {
    {EncoderTypeMP3, fixed<kMP3>, R::mp3Encoding, R::mp3Same},
    {EncoderTypeCoreAudio, R::coreAudioContainer, R::codecEncoding, R::containerSame},
    {EncoderTypeFLAC, fixed<kFLAC>, R::flacEncoding, R::flacSame},
    {EncoderTypeOggFLAC, fixed<kOggFLAC>, R::flacEncoding, R::flacSame},
    {EncoderTypeOggVorbis, fixed<kOggVorbis>, R::xiphEncoding, R::vorbisSame},
    {EncoderTypeSndFile, R::sndFileContainer, R::codecEncoding, R::containerSame},
    {EncoderTypeMonkeysAudio, fixed<kMonkeysAudio>, R::monkeysAudioEncoding, R::monkeysAudioSame},
    {EncoderTypeTrueAudio, fixed<kTrueAudio>, fixed<kTTA>, R::trueAudioSame},
    {EncoderTypeOggSpeex, fixed<kOggSpeex>, R::xiphEncoding, R::speexSame},
    {EncoderTypeOpus, fixed<kOpus>, R::opusEncoding, R::opusSame},
};

} // namespace

const EncoderSettingsRules* EncoderSettingsRules::forType(EncoderType type) {
    for (const EncoderSettingsRules& rules : kRules)
        if (rules.type == type)
            return &rules;
    return nullptr;
}

std::string EncoderSettings::outputFormatDescription() const {
    if (const EncoderSettingsRules* rules = EncoderSettingsRules::forType(encoderType_))
        return rules->outputFormat(*this);
    // An encoder outside the built-in types (a test's stand-in) is named by
    // its registry row.
    for (const FormatEntry* entry : *FormatRegistry::entries())
        if (entry->encoder && entry->encoder->encoderType == encoderType_)
            return entry->displayName;
    return "";
}

std::string EncoderSettings::encodingDescription() const {
    const EncoderSettingsRules* rules = EncoderSettingsRules::forType(encoderType_);
    return rules ? rules->encoding(*this) : "";
}

std::string EncoderSettings::completeDescription() const {
    return stringWithFormat("%@ - %@", outputFormatDescription(), encodingDescription());
}

std::string EncoderSettings::description() const {
    // The unsigned fields print with %d as well, so large codes come out
    // negative; that is the diagnostic format the log has always shown.
    return stringWithFormat(
        "\nEnabled: %d\nEncoder Type: %d\nExtension: %@\nBitrate: %ld\nQuality: %ld\n"
        "Sample Rate: %ld\nBitrate Method: %d\nChannel Mode: %d\nBit Depth: %d\n"
        "VBR Quality: %ld\nFrames Per Packet: %d\nEncoder Action: %d\nFile Type: %d\n"
        "Format ID: %d\nFormat Flags: %d\nFLAC Compress Level: %d\nFLAC Verify: %d\n"
        "MAC Compression Level: %d\nSpeex Denoise: %d\nSpeex Adaptive Gain Control: %d\n"
        "Speex Voice Activity Detection: %d\nSpeex Discontinuous Transmission: %d\n",
        int(enabled_), int(encoderType_), extension_ ? extension_->c_str() : nullptr,
        long(bitrate_), long(quality_), long(sampleRate_), int(bitrateMethod_), int(channelMode_),
        int(bitDepth_), long(vbrQuality_), int(framesPerPacket_), int(encoderAction_),
        int(fileType_), int(formatID_), int(formatFlags_), int(flacCompressionLevel_),
        int(flacVerifyEncoding_), int(macCompressionLevel_), int(speexDenoise_),
        int(speexAdaptiveGainControl_), int(speexVoiceActivityDetection_),
        int(speexDiscontinuousTransmission_));
}

bool EncoderSettings::sameRateAs(const EncoderSettings& other) const {
    if (bitrateMethod_ == BitrateMethodVBR)
        return vbrQuality_ == other.vbrQuality_;
    return bitrate_ == other.bitrate_;
}

bool EncoderSettings::commonRateTestWith(const EncoderSettings& other) const {
    return sampleRate_ == other.sampleRate_ && bitrateMethod_ == other.bitrateMethod_ &&
           channelMode_ == other.channelMode_ && quality_ == other.quality_ && sameRateAs(other);
}

bool EncoderSettings::commonTailWith(const EncoderSettings& other) const {
    return channelMode_ == other.channelMode_ && quality_ == other.quality_ &&
           extension_ == other.extension_;
}

bool EncoderSettings::formatTestWith(const EncoderSettings& other) const {
    if (fileType_ != other.fileType_ || formatID_ != other.formatID_)
        return false;
    switch (formatID_) {
    case fourCharCode("aac "):
    case fourCharCode("aach"):
    case fourCharCode("aacl"):
    case fourCharCode("aacp"):
        return commonRateTestWith(other);
    case fourCharCode("aace"):
    case fourCharCode("aacf"):
        // The low-delay formats count as the same whatever else differs.
        return true;
    case fourCharCode("alac"):
    case fourCharCode("alaw"):
    case fourCharCode("ulaw"):
        return sampleRate_ == other.sampleRate_ && bitDepth_ == other.bitDepth_ &&
               commonTailWith(other);
    case fourCharCode("lpcm"):
        return sampleRate_ == other.sampleRate_ && bitDepth_ == other.bitDepth_ &&
               formatFlags_ == other.formatFlags_ && commonTailWith(other);
    case fourCharCode("ima4"):
        return sampleRate_ == other.sampleRate_ && commonTailWith(other);
    case fourCharCode("Qclp"):
        return sameRateAs(other) && commonTailWith(other);
    case fourCharCode("ilbc"):
        return sampleRate_ == other.sampleRate_ && bitrate_ == other.bitrate_ &&
               quality_ == other.quality_ && extension_ == other.extension_;
    case fourCharCode("samr"):
        return sampleRate_ == other.sampleRate_ && framesPerPacket_ == other.framesPerPacket_ &&
               sameRateAs(other);
    default:
        return true;
    }
}

bool EncoderSettings::isDuplicateOf(const EncoderSettings& other) const {
    if (encoderType_ != other.encoderType_)
        return false;
    const EncoderSettingsRules* rules = EncoderSettingsRules::forType(encoderType_);
    return rules ? rules->duplicate(*this, other) : true;
}

template <typename T, typename V>
void EncoderSettings::storeAnnounced(T& field, V&& value) {
    willChangeValueForKey(kEncoderSettingKey);
    field = std::forward<V>(value);
    didChangeValueForKey(kEncoderSettingKey);
}

void EncoderSettings::setEncoderType(EncoderType value) { storeAnnounced(encoderType_, value); }
void EncoderSettings::setExtension(std::optional<std::string> value) {
    storeAnnounced(extension_, std::move(value));
}
void EncoderSettings::setBitrate(int64_t value) { storeAnnounced(bitrate_, value); }
void EncoderSettings::setQuality(int64_t value) { storeAnnounced(quality_, value); }
void EncoderSettings::setSampleRate(int64_t value) { storeAnnounced(sampleRate_, value); }
void EncoderSettings::setBitrateMethod(BitrateMethod value) {
    storeAnnounced(bitrateMethod_, value);
}
void EncoderSettings::setChannelMode(int32_t value) { storeAnnounced(channelMode_, value); }
void EncoderSettings::setBitDepth(uint32_t value) { storeAnnounced(bitDepth_, value); }
void EncoderSettings::setVbrQuality(int64_t value) { storeAnnounced(vbrQuality_, value); }
void EncoderSettings::setFramesPerPacket(uint32_t value) {
    storeAnnounced(framesPerPacket_, value);
}
void EncoderSettings::setFileType(uint32_t value) { storeAnnounced(fileType_, value); }
void EncoderSettings::setFormatID(uint32_t value) { storeAnnounced(formatID_, value); }
void EncoderSettings::setFormatFlags(uint32_t value) { storeAnnounced(formatFlags_, value); }
void EncoderSettings::setFlacCompressionLevel(uint32_t value) {
    storeAnnounced(flacCompressionLevel_, value);
}
void EncoderSettings::setFlacVerifyEncoding(bool value) {
    storeAnnounced(flacVerifyEncoding_, value);
}
void EncoderSettings::setMacCompressionLevel(int32_t value) {
    storeAnnounced(macCompressionLevel_, value);
}

} // namespace velvox
