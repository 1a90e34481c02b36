#include "cli/OutputFormatArgument.h"

#include <algorithm>
#include <cctype>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <limits>
#include <map>
#include <optional>
#include <string_view>

#include <sndfile.h>

#include "jobs/EncoderSettings.h"
#include "platform/CoreAudioTypes.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

using UsageError = OutputFormatArgument::UsageError;

struct TypeEntry {
    const char* name;
    EncoderType type;
};

// In encoder-type order, so that kTypes[t].type == t.
constexpr TypeEntry kTypes[] = {
    {"mp3", EncoderTypeMP3},          {"coreaudio", EncoderTypeCoreAudio},
    {"flac", EncoderTypeFLAC},        {"oggflac", EncoderTypeOggFLAC},
    {"vorbis", EncoderTypeOggVorbis}, {"sndfile", EncoderTypeSndFile},
    {"ape", EncoderTypeMonkeysAudio}, {"tta", EncoderTypeTrueAudio},
    {"speex", EncoderTypeOggSpeex},   {"opus", EncoderTypeOpus},
};

// ---- Values ----

// A whole number: decimal with an optional sign, or hexadecimal after "0x".
std::optional<int64_t> parseInteger(std::string_view text) {
    bool negative = false;
    if (!text.empty() && (text[0] == '-' || text[0] == '+')) {
        negative = text[0] == '-';
        text.remove_prefix(1);
    }
    int base = 10;
    if (text.size() > 2 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X')) {
        base = 16;
        text.remove_prefix(2);
    }
    if (text.empty())
        return std::nullopt;
    uint64_t magnitude = 0;
    const auto [end, ec] = std::from_chars(text.data(), text.data() + text.size(), magnitude, base);
    if (ec != std::errc() || end != text.data() + text.size())
        return std::nullopt;
    if (magnitude > uint64_t(std::numeric_limits<int64_t>::max()))
        return std::nullopt;
    return negative ? -int64_t(magnitude) : int64_t(magnitude);
}

// A whole number, or a number of thousands written with a "k" suffix ("96k",
// "44.1k"). A trailing "hz" is allowed when the value is a rate.
struct Scaled {
    int64_t value = 0;
    bool thousands = false;
};

std::optional<Scaled> parseScaled(std::string_view text, bool allowHertz) {
    std::string t = lowercaseASCII(text);
    if (allowHertz && t.size() > 2 && t.ends_with("hz"))
        t.resize(t.size() - 2);
    if (t.size() < 2 || t.back() != 'k') {
        if (auto n = parseInteger(t))
            return Scaled{*n, false};
        return std::nullopt;
    }
    t.pop_back();
    double number = 0;
    const auto [end, ec] = std::from_chars(t.data(), t.data() + t.size(), number);
    if (ec != std::errc() || end != t.data() + t.size() || !std::isfinite(number) || number < 0 ||
        number > 1e12)
        return std::nullopt;
    const double scaled = number * 1000.0;
    const double rounded = std::round(scaled);
    if (std::fabs(scaled - rounded) > 1e-6)
        return std::nullopt; // "44.1005k" is not a whole number of hertz
    return Scaled{int64_t(rounded), true};
}

std::optional<bool> parseBoolean(std::string_view text) {
    const std::string t = lowercaseASCII(text);
    if (t == "1" || t == "true" || t == "yes" || t == "on")
        return true;
    if (t == "0" || t == "false" || t == "no" || t == "off")
        return false;
    return std::nullopt;
}

// A four-character code as text ("WAVE", 'lpcm', "aac" for "aac ") or as a
// number.
std::optional<uint32_t> parseFourCharCode(std::string_view text) {
    if (auto n = parseInteger(text)) {
        if (*n < 0 || *n > int64_t(std::numeric_limits<uint32_t>::max()))
            return std::nullopt;
        return uint32_t(*n);
    }
    if (text.size() >= 2 && text.front() == '\'' && text.back() == '\'')
        text = text.substr(1, text.size() - 2);
    if (text.empty() || text.size() > 4)
        return std::nullopt;
    uint32_t code = 0;
    for (size_t i = 0; i < 4; ++i) {
        const unsigned char c = i < text.size() ? static_cast<unsigned char>(text[i]) : ' ';
        if (c < 0x20 || c > 0x7E)
            return std::nullopt;
        code = (code << 8) | c;
    }
    return code;
}

// ---- Keys ----

// One key=value of a FORMAT, while it is applied to the settings.
struct Setting {
    EncoderSettings& settings;
    EncoderType type;
    const std::string& key;   // as the user wrote it
    const std::string& value; // as the user wrote it

    [[noreturn]] void bad(const std::string& expected) const {
        throw UsageError("bad value '" + value + "' for '" + key + "'" +
                         (expected.empty() ? std::string() : " (expected " + expected + ")"));
    }

    int64_t integer(int64_t minimum, int64_t maximum, const std::string& expected) const {
        const auto n = parseInteger(value);
        if (!n || *n < minimum || *n > maximum)
            bad(expected);
        return *n;
    }

    bool boolean() const {
        const auto b = parseBoolean(value);
        if (!b)
            bad("true or false");
        return *b;
    }

    // The value as a lower-case word, for keys that take names.
    std::string word() const { return lowercaseASCII(value); }
};

constexpr int64_t kInt32Max = std::numeric_limits<int32_t>::max();

void applyEnabled(const Setting& s) { s.settings.setEnabled(s.boolean()); }

void applyExtension(const Setting& s) {
    std::string_view ext = s.value;
    if (!ext.empty() && ext.front() == '.')
        ext.remove_prefix(1);
    const bool usable = !ext.empty() && std::none_of(ext.begin(), ext.end(), [](unsigned char c) {
        return c == '/' || c == '\\' || c < 0x20 || c == 0x7F;
    });
    if (!usable)
        s.bad("a file extension such as flac");
    s.settings.setExtension(std::string(ext));
}

void applyBitrate(const Setting& s) {
    const auto scaled = parseScaled(s.value, false);
    if (s.type == EncoderTypeMP3) {
        // Stored in kbit/s for MP3: "320" and "320k" mean the same.
        if (!scaled || scaled->value <= 0)
            s.bad("kbit/s from 8 to 320");
        const int64_t kbps = scaled->thousands ? scaled->value / 1000 : scaled->value;
        if ((scaled->thousands && scaled->value % 1000 != 0) || kbps < 8 || kbps > 320)
            s.bad("kbit/s from 8 to 320");
        s.settings.setBitrate(kbps);
        return;
    }
    // Every other encoder takes bit/s. A bare number under 1000 is almost
    // surely meant as kbit/s; refusing it beats encoding at 128 bit/s.
    if (!scaled || scaled->value < 1000 || scaled->value > kInt32Max)
        s.bad("bits per second, such as 128000 or 128k");
    if (s.type == EncoderTypeOpus && scaled->value >= 1024000)
        s.bad("from 501 to 1023999 bits per second");
    s.settings.setBitrate(scaled->value);
}

void applyQuality(const Setting& s) {
    switch (s.type) {
    case EncoderTypeMP3:
        // LAME is given 10 - quality: 10 is its best (-q 0).
        s.settings.setQuality(s.integer(0, 10, "0 to 10, 10 best"));
        return;
    case EncoderTypeOpus:
    case EncoderTypeOggSpeex:
        s.settings.setQuality(s.integer(0, 10, "a complexity from 0 to 10"));
        return;
    case EncoderTypeCoreAudio:
        s.settings.setQuality(s.integer(0, 127, "0 to 127"));
        return;
    default:
        s.settings.setQuality(s.integer(0, kInt32Max, "a whole number"));
        return;
    }
}

void applyVbrQuality(const Setting& s) {
    switch (s.type) {
    case EncoderTypeMP3:
        // LAME is given -V (10 - vbrQuality): 10 is its best (-V 0).
        s.settings.setVbrQuality(s.integer(0, 10, "0 to 10, 10 best"));
        return;
    case EncoderTypeOggVorbis:
        // Handed to libvorbis as a tenth: -1 to 10 is its -0.1 to 1.0.
        s.settings.setVbrQuality(s.integer(-1, 10, "-1 to 10"));
        return;
    case EncoderTypeOggSpeex:
        s.settings.setVbrQuality(s.integer(0, 10, "0 to 10"));
        return;
    default:
        s.settings.setVbrQuality(s.integer(0, kInt32Max, "a whole number"));
        return;
    }
}

void applySampleRate(const Setting& s) {
    if (s.word() == "same") {
        s.settings.setSampleRate(0);
        return;
    }
    const auto scaled = parseScaled(s.value, true);
    if (!scaled || (scaled->value != 0 && (scaled->value < 1000 || scaled->value > 768000)))
        s.bad("a rate in Hz such as 44100 or 48k, or same");
    s.settings.setSampleRate(scaled->value);
}

void applyBitDepth(const Setting& s) {
    if (s.word() == "same") {
        s.settings.setBitDepth(0);
        return;
    }
    const auto n = parseInteger(s.value);
    const bool ttaLimit = s.type == EncoderTypeTrueAudio; // True Audio stops at 24 bits
    const bool valid = n && (*n == 0 || *n == 8 || *n == 16 || *n == 24 || (*n == 32 && !ttaLimit));
    if (!valid)
        s.bad(ttaLimit ? "8, 16, 24 or same" : "8, 16, 24, 32 or same");
    s.settings.setBitDepth(uint32_t(*n));
}

void applyMethod(const Setting& s) {
    const std::string w = s.word();
    std::optional<BitrateMethod> method;
    if (w == "cbr" || w == "0")
        method = BitrateMethodCBR;
    else if (w == "abr" || w == "1")
        method = BitrateMethodABR;
    else if (w == "vbr" || w == "2")
        method = BitrateMethodVBR;
    else if (w == "cvbr" || w == "3")
        method = BitrateMethodConstrainedVBR;

    // Methods an encoder would refuse or quietly take for another one.
    std::string allowed = "cbr, abr, vbr or cvbr";
    bool usable = method.has_value();
    switch (s.type) {
    case EncoderTypeMP3:
    case EncoderTypeOggVorbis:
    case EncoderTypeOggSpeex:
        allowed = "cbr, abr or vbr";
        usable = usable && *method != BitrateMethodConstrainedVBR;
        break;
    case EncoderTypeOpus:
        allowed = "cbr, vbr or cvbr";
        usable = usable && *method != BitrateMethodABR;
        break;
    default:
        break;
    }
    if (!usable)
        s.bad(allowed);
    s.settings.setBitrateMethod(*method);
}

// Channel-mode words; numbers under "mode" are the stored mode values.
std::optional<int32_t> channelModeWord(const std::string& w) {
    if (w == "same")
        return 0;
    if (w == "stereo")
        return 1;
    if (w == "joint" || w == "jointstereo" || w == "joint-stereo")
        return 2;
    if (w == "mono")
        return 3;
    return std::nullopt;
}

void applyMode(const Setting& s) {
    if (auto mode = channelModeWord(s.word())) {
        s.settings.setChannelMode(*mode);
        return;
    }
    s.settings.setChannelMode(
        int32_t(s.integer(0, 3, "0 (same), 1 (stereo), 2 (joint stereo), 3 (mono)")));
}

// "channels" counts channels: 1 is mono, 2 is stereo.
void applyChannels(const Setting& s) {
    const std::string w = s.word();
    if (auto mode = channelModeWord(w)) {
        s.settings.setChannelMode(*mode);
        return;
    }
    if (w == "0")
        s.settings.setChannelMode(0);
    else if (w == "1")
        s.settings.setChannelMode(3);
    else if (w == "2")
        s.settings.setChannelMode(1);
    else
        s.bad("mono, stereo, same, 1 or 2");
}

void applyFramesPerPacket(const Setting& s) {
    if (s.type == EncoderTypeOggSpeex) {
        s.settings.setFramesPerPacket(uint32_t(s.integer(1, 10, "1 to 10")));
        return;
    }
    if (s.type == EncoderTypeOpus) {
        // Counted in 48 kHz samples: 2.5 to 60 ms, 0 for the usual 20 ms.
        const auto n = parseInteger(s.value);
        constexpr int64_t kSizes[] = {0, 120, 240, 480, 960, 1920, 2880};
        if (!n || std::find(std::begin(kSizes), std::end(kSizes), *n) == std::end(kSizes))
            s.bad("120, 240, 480, 960, 1920 or 2880");
        s.settings.setFramesPerPacket(uint32_t(*n));
        return;
    }
    s.settings.setFramesPerPacket(uint32_t(s.integer(0, kInt32Max, "a whole number")));
}

void applyEncoderAction(const Setting& s) {
    const std::string w = s.word();
    if (w == "encode" || w == "0")
        s.settings.setEncoderAction(EncoderActionEncode);
    else if (w == "update" || w == "updatemetadata" || w == "1")
        s.settings.setEncoderAction(EncoderActionUpdateMetadata);
    else
        s.bad("encode or update");
}

void applyFileType(const Setting& s) {
    if (s.type == EncoderTypeSndFile && s.word() == "sd2") {
        s.settings.setFileType(SF_FORMAT_SD2);
        return;
    }
    const auto code = parseFourCharCode(s.value);
    if (!code)
        s.bad("a four-character code such as WAVE, or a number");
    s.settings.setFileType(*code);
}

void applyFormatID(const Setting& s) {
    const auto code = parseFourCharCode(s.value);
    if (!code)
        s.bad("a four-character code such as lpcm, or a number");
    s.settings.setFormatID(*code);
}

void applyFormatFlags(const Setting& s) {
    s.settings.setFormatFlags(
        uint32_t(s.integer(0, std::numeric_limits<uint32_t>::max(), "a number such as 0xC or 14")));
}

// 0 to 8 as libFLAC counts; the stored record takes anything above 8 as
// "uncompressed", which is written here as the word.
void applyFlacLevel(const Setting& s) {
    if (s.word() == "uncompressed") {
        s.settings.setFlacCompressionLevel(9);
        return;
    }
    s.settings.setFlacCompressionLevel(uint32_t(s.integer(0, 8, "0 to 8, or uncompressed")));
}

void applyFlacVerify(const Setting& s) { s.settings.setFlacVerifyEncoding(s.boolean()); }

// The stored value is the Monkey's Audio library's own level number; the
// words and 1 to 5 are what people call them.
void applyMacLevel(const Setting& s) {
    static const std::map<std::string, int32_t> kLevels = {
        {"fast", 1000},       {"normal", 2000}, {"high", 3000}, {"extrahigh", 4000},
        {"extra-high", 4000}, {"insane", 5000}, {"1", 1000},    {"2", 2000},
        {"3", 3000},          {"4", 4000},      {"5", 5000},    {"1000", 1000},
        {"2000", 2000},       {"3000", 3000},   {"4000", 4000}, {"5000", 5000},
    };
    const auto it = kLevels.find(s.word());
    if (it == kLevels.end())
        s.bad("fast, normal, high, extrahigh, insane, 1 to 5 or 1000 to 5000");
    s.settings.setMacCompressionLevel(it->second);
}

void applySpeexDenoise(const Setting& s) { s.settings.setSpeexDenoise(s.boolean()); }
void applySpeexAGC(const Setting& s) { s.settings.setSpeexAdaptiveGainControl(s.boolean()); }
void applySpeexVAD(const Setting& s) { s.settings.setSpeexVoiceActivityDetection(s.boolean()); }
void applySpeexDTX(const Setting& s) { s.settings.setSpeexDiscontinuousTransmission(s.boolean()); }

constexpr uint32_t typeBit(EncoderType t) { return 1u << t; }
constexpr uint32_t kEveryType = 0;
constexpr uint32_t kFLACTypes = typeBit(EncoderTypeFLAC) | typeBit(EncoderTypeOggFLAC);
constexpr uint32_t kContainerTypes = typeBit(EncoderTypeCoreAudio) | typeBit(EncoderTypeSndFile);
constexpr uint32_t kFramedTypes = typeBit(EncoderTypeOggSpeex) | typeBit(EncoderTypeOpus);

struct KeyRule {
    const char* name;  // lower case; matched without regard to case
    const char* field; // the stored key that it sets
    uint32_t types;    // typeBit()s that accept it; kEveryType for all
    void (*apply)(const Setting&);
};

const KeyRule kKeys[] = {
    // The stored keys themselves set their field for any type.
    {"enabled", "enabled", kEveryType, applyEnabled},
    {"extension", "extension", kEveryType, applyExtension},
    {"bitrate", "bitrate", kEveryType, applyBitrate},
    {"quality", "quality", kEveryType, applyQuality},
    {"samplerate", "sampleRate", kEveryType, applySampleRate},
    {"method", "method", kEveryType, applyMethod},
    {"mode", "mode", kEveryType, applyMode},
    {"bitdepth", "bitDepth", kEveryType, applyBitDepth},
    {"vbrquality", "vbrQuality", kEveryType, applyVbrQuality},
    {"framesperpacket", "framesPerPacket", kEveryType, applyFramesPerPacket},
    {"encoderaction", "encoderAction", kEveryType, applyEncoderAction},
    {"filetype", "fileType", kEveryType, applyFileType},
    {"formatid", "formatID", kEveryType, applyFormatID},
    {"formatflags", "formatFlags", kEveryType, applyFormatFlags},
    {"flaccompressionlevel", "flacCompressionLevel", kEveryType, applyFlacLevel},
    {"flacverifyencoding", "flacVerifyEncoding", kEveryType, applyFlacVerify},
    {"maccompressionlevel", "macCompressionLevel", kEveryType, applyMacLevel},
    {"speexdenoise", "speexDenoise", kEveryType, applySpeexDenoise},
    {"speexadaptivegaincontrol", "speexAdaptiveGainControl", kEveryType, applySpeexAGC},
    {"speexvoiceactivitydetection", "speexVoiceActivityDetection", kEveryType, applySpeexVAD},
    {"speexdiscontinuoustransmission", "speexDiscontinuousTransmission", kEveryType, applySpeexDTX},
    // Short aliases, only where they mean something.
    {"level", "flacCompressionLevel", kFLACTypes, applyFlacLevel},
    {"level", "macCompressionLevel", typeBit(EncoderTypeMonkeysAudio), applyMacLevel},
    {"verify", "flacVerifyEncoding", kFLACTypes, applyFlacVerify},
    {"rate", "sampleRate", kEveryType, applySampleRate},
    {"bits", "bitDepth", kEveryType, applyBitDepth},
    {"channels", "mode", kEveryType, applyChannels},
    {"ext", "extension", kEveryType, applyExtension},
    {"action", "encoderAction", kEveryType, applyEncoderAction},
    {"container", "fileType", kContainerTypes, applyFileType},
    {"codec", "formatID", typeBit(EncoderTypeCoreAudio), applyFormatID},
    {"flags", "formatFlags", typeBit(EncoderTypeCoreAudio), applyFormatFlags},
    {"complexity", "quality", kFramedTypes, applyQuality},
    {"frames", "framesPerPacket", kFramedTypes, applyFramesPerPacket},
    {"denoise", "speexDenoise", typeBit(EncoderTypeOggSpeex), applySpeexDenoise},
    {"agc", "speexAdaptiveGainControl", typeBit(EncoderTypeOggSpeex), applySpeexAGC},
    {"vad", "speexVoiceActivityDetection", typeBit(EncoderTypeOggSpeex), applySpeexVAD},
    {"dtx", "speexDiscontinuousTransmission", typeBit(EncoderTypeOggSpeex), applySpeexDTX},
};

const KeyRule* findKey(const std::string& key, EncoderType type) {
    const std::string k = lowercaseASCII(key);
    for (const KeyRule& rule : kKeys)
        if (k == rule.name && (rule.types == kEveryType || (rule.types & typeBit(type))))
            return &rule;
    return nullptr;
}

// ---- Defaults ----

// What a bare TYPE gives: settings each encoder takes as they stand and that
// make a good file of that kind.
void applyDefaults(EncoderSettings& s, EncoderType type) {
    s.setEncoderType(type);
    s.setEnabled(true);
    s.setEncoderAction(EncoderActionEncode);
    switch (type) {
    case EncoderTypeMP3:
        // LAME -V 2 (about 190 kbit/s) at its recommended -q 3; 192 kbit/s
        // when the method is switched to CBR or ABR.
        s.setExtension("mp3");
        s.setBitrateMethod(BitrateMethodVBR);
        s.setVbrQuality(8);
        s.setBitrate(192);
        s.setQuality(7);
        break;
    case EncoderTypeCoreAudio:
        // Container, codec and extension are settled after the keys (see
        // completeCoreAudio); these are the AAC parameters.
        s.setBitrate(256000);
        s.setBitrateMethod(BitrateMethodConstrainedVBR);
        s.setQuality(127);
        break;
    case EncoderTypeFLAC:
        s.setExtension("flac");
        s.setFlacCompressionLevel(5);
        break;
    case EncoderTypeOggFLAC:
        s.setExtension("oga");
        s.setFlacCompressionLevel(5);
        break;
    case EncoderTypeOggVorbis:
        // libvorbis quality 0.5, about 160 kbit/s.
        s.setExtension("ogg");
        s.setBitrateMethod(BitrateMethodVBR);
        s.setVbrQuality(5);
        s.setBitrate(160000);
        break;
    case EncoderTypeSndFile:
        // Sound Designer II holds big-endian linear PCM. Naming the codec
        // lets formats that differ only in sample size or rate tell apart.
        s.setExtension("sd2");
        s.setFileType(SF_FORMAT_SD2);
        s.setFormatID(kAudioFormatLinearPCM);
        s.setFormatFlags(kAudioFormatFlagIsBigEndian | kAudioFormatFlagIsSignedInteger |
                         kAudioFormatFlagIsPacked);
        break;
    case EncoderTypeMonkeysAudio:
        s.setExtension("ape");
        s.setMacCompressionLevel(2000);
        break;
    case EncoderTypeTrueAudio:
        s.setExtension("tta");
        break;
    case EncoderTypeOggSpeex:
        // speexenc's own defaults: quality 8, complexity 3, one frame a packet.
        s.setExtension("spx");
        s.setBitrateMethod(BitrateMethodVBR);
        s.setVbrQuality(8);
        s.setBitrate(24000);
        s.setQuality(3);
        s.setFramesPerPacket(1);
        break;
    case EncoderTypeOpus:
        s.setExtension("opus");
        s.setBitrateMethod(BitrateMethodVBR);
        s.setBitrate(128000);
        s.setQuality(10);
        s.setFramesPerPacket(960);
        break;
    }
}

struct ContainerEntry {
    uint32_t fileType;
    const char* extension;
    uint32_t defaultFormatID;
};

const ContainerEntry kContainers[] = {
    {fourCharCode("m4af"), "m4a", fourCharCode("aac ")},
    {fourCharCode("mp4f"), "mp4", fourCharCode("aac ")},
    {fourCharCode("3gpp"), "3gp", fourCharCode("aac ")},
    {fourCharCode("3gp2"), "3g2", fourCharCode("aac ")},
    {fourCharCode("adts"), "aac", fourCharCode("aac ")},
    {fourCharCode("WAVE"), "wav", fourCharCode("lpcm")},
    {fourCharCode("AIFF"), "aiff", fourCharCode("lpcm")},
    {fourCharCode("AIFC"), "aifc", fourCharCode("lpcm")},
    {fourCharCode("caff"), "caf", fourCharCode("lpcm")},
    {fourCharCode("NeXT"), "au", fourCharCode("lpcm")},
    {fourCharCode("Sd2f"), "sd2", fourCharCode("lpcm")},
};

const ContainerEntry* findContainer(uint32_t fileType) {
    for (const ContainerEntry& c : kContainers)
        if (c.fileType == fileType)
            return &c;
    return nullptr;
}

// The container a codec usually comes in; CAF holds any of them.
uint32_t defaultFileTypeFor(uint32_t formatID) {
    switch (formatID) {
    case fourCharCode("aac "):
    case fourCharCode("aach"):
    case fourCharCode("aacp"):
    case fourCharCode("aacl"):
    case fourCharCode("aace"):
    case fourCharCode("aacf"):
    case fourCharCode("alac"):
        return fourCharCode("m4af");
    case fourCharCode("lpcm"):
    case fourCharCode("alaw"):
    case fourCharCode("ulaw"):
        return fourCharCode("WAVE");
    case fourCharCode("samr"):
        return fourCharCode("3gpp");
    case fourCharCode("Qclp"):
        return fourCharCode("3gp2");
    default:
        return fourCharCode("caff");
    }
}

std::string codeText(uint32_t code) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char c = char((code >> shift) & 0xFF);
        text += (c >= 0x20 && c < 0x7F) ? c : '?';
    }
    return text;
}

// The Core Audio keys depend on one another: a container implies a codec and
// an extension, a codec implies a container, and LPCM's byte order follows
// the container. Whatever the user left out is filled from what was given.
void completeCoreAudio(EncoderSettings& s, const std::map<std::string, std::string>& given,
                       const std::string& text) {
    const bool haveFileType = given.count("fileType") != 0;
    const bool haveFormatID = given.count("formatID") != 0;
    if (!haveFileType && !haveFormatID) {
        s.setFileType(fourCharCode("m4af"));
        s.setFormatID(fourCharCode("aac "));
    } else if (!haveFileType) {
        s.setFileType(defaultFileTypeFor(s.formatID()));
    } else if (!haveFormatID) {
        const ContainerEntry* container = findContainer(s.fileType());
        if (!container)
            throw UsageError("no default codec for file type '" + codeText(s.fileType()) +
                             "' in '" + text + "': give formatID too");
        s.setFormatID(container->defaultFormatID);
    }
    if (!given.count("extension")) {
        const ContainerEntry* container = findContainer(s.fileType());
        if (!container)
            throw UsageError("no default extension for file type '" + codeText(s.fileType()) +
                             "' in '" + text + "': give ext too");
        s.setExtension(std::string(container->extension));
    }
    if (!given.count("formatFlags") && s.formatID() == kAudioFormatLinearPCM) {
        AudioFormatFlags flags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
        if (s.fileType() != fourCharCode("WAVE"))
            flags |= kAudioFormatFlagIsBigEndian; // AIFF, CAF, NeXT and SD2 are big-endian
        s.setFormatFlags(flags);
    }
}

} // namespace

const std::vector<std::string>& OutputFormatArgument::typeNames() {
    static const std::vector<std::string> names = [] {
        std::vector<std::string> out;
        for (const TypeEntry& t : kTypes)
            out.emplace_back(t.name);
        return out;
    }();
    return names;
}

std::string OutputFormatArgument::syntaxHelp() {
    std::string types;
    for (const std::string& name : typeNames())
        types += (types.empty() ? "" : ", ") + name;
    return "FORMAT is TYPE[:key=value[,key=value]...], TYPE one of " + types +
           ". Keys are the stored settings keys (bitrate, quality, sampleRate, method, mode, "
           "bitDepth, vbrQuality, framesPerPacket, fileType, formatID, formatFlags, "
           "flacCompressionLevel, macCompressionLevel, extension, ...) or the aliases level, "
           "rate, bits, channels, ext, method=cbr|abr|vbr|cvbr, verify, complexity, frames, "
           "container, codec, flags, denoise, agc, vad, dtx. Example: flac:level=8";
}

std::unique_ptr<EncoderSettings> OutputFormatArgument::parse(const std::string& text) {
    const size_t colon = text.find(':');
    const std::string typeText = text.substr(0, colon);
    std::optional<EncoderType> type;
    for (const TypeEntry& t : kTypes)
        if (lowercaseASCII(typeText) == t.name)
            type = t.type;
    if (!type) {
        if (typeText.empty())
            throw UsageError("missing output type in '" + text + "'");
        std::string known;
        for (const std::string& name : typeNames())
            known += (known.empty() ? "" : ", ") + name;
        throw UsageError("unknown output type '" + typeText + "' (known types: " + known + ")");
    }

    auto settings = std::make_unique<EncoderSettings>();
    applyDefaults(*settings, *type);

    // Stored key -> the key as written, to refuse one field given twice
    // (also under two names, as "level" and "flacCompressionLevel").
    std::map<std::string, std::string> given;
    if (colon != std::string::npos) {
        const std::string list = text.substr(colon + 1);
        size_t start = 0;
        for (;;) {
            const size_t comma = list.find(',', start);
            const std::string item =
                list.substr(start, comma == std::string::npos ? std::string::npos : comma - start);
            if (item.empty())
                throw UsageError("empty setting in '" + text + "'");
            const size_t equals = item.find('=');
            if (equals == std::string::npos || equals == 0)
                throw UsageError("expected key=value, not '" + item + "', in '" + text + "'");
            const std::string key = item.substr(0, equals);
            const std::string value = item.substr(equals + 1);
            const KeyRule* rule = findKey(key, *type);
            if (!rule)
                throw UsageError("unknown key '" + key + "' in '" + text + "'");
            const auto [previous, fresh] = given.emplace(rule->field, key);
            if (!fresh)
                throw UsageError("'" + key + "' sets the same value as '" + previous->second +
                                 "' in '" + text + "'");
            rule->apply(Setting{*settings, *type, key, value});
            if (comma == std::string::npos)
                break;
            start = comma + 1;
        }
    }

    // A bit rate given on its own is meant to be used: switch the encoders
    // whose default method (VBR) would ignore it to the method that uses it.
    if (given.count("bitrate") && !given.count("method") && !given.count("vbrQuality")) {
        if (*type == EncoderTypeMP3 || *type == EncoderTypeOggSpeex)
            settings->setBitrateMethod(BitrateMethodCBR);
        else if (*type == EncoderTypeOggVorbis)
            settings->setBitrateMethod(BitrateMethodABR);
    }
    if (*type == EncoderTypeCoreAudio)
        completeCoreAudio(*settings, given, text);
    return settings;
}

} // namespace velvox
