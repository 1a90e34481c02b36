#include "jobs/SettingSpec.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <limits>
#include <string_view>

#include "platform/StringFormat.h"

namespace velvox {

namespace {

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

std::optional<bool> parseBoolean(const std::string& t) {
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

std::string fourCharText(uint32_t code) {
    std::string text;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char c = char((code >> shift) & 0xFF);
        text += (c >= 0x20 && c < 0x7F) ? c : '?';
    }
    while (!text.empty() && text.back() == ' ')
        text.pop_back();
    return text;
}

} // namespace

bool SettingSpec::answersTo(const std::string& word) const {
    if (word == lowercaseASCII(name))
        return true;
    return std::any_of(aliases.begin(), aliases.end(),
                       [&](const char* alias) { return word == lowercaseASCII(alias); });
}

std::optional<nlohmann::json> SettingSpec::parse(const std::string& text) const {
    const std::string word = lowercaseASCII(text);
    const auto choice = [&]() -> std::optional<int64_t> {
        for (const SettingChoice& c : choices)
            if (word == c.word)
                return c.value;
        return std::nullopt;
    };
    switch (kind) {
    case SettingKind::Integer: {
        const auto n = parseInteger(text);
        if (!n || *n < minimum || *n > maximum)
            return std::nullopt;
        return invertFrom ? invertFrom - *n : *n;
    }
    case SettingKind::Boolean:
        if (auto b = parseBoolean(word))
            return *b;
        return std::nullopt;
    case SettingKind::Choice:
        if (auto v = choice())
            return *v;
        return std::nullopt;
    case SettingKind::SampleRate: {
        if (word == "same")
            return 0;
        const auto scaled = parseScaled(text, true);
        if (!scaled || (scaled->value != 0 && (scaled->value < 1000 || scaled->value > 768000)))
            return std::nullopt;
        return scaled->value;
    }
    case SettingKind::BitDepth: {
        if (word == "same")
            return 0;
        const auto n = parseInteger(text);
        if (n && (*n == 0 || std::any_of(choices.begin(), choices.end(),
                                         [&](const SettingChoice& c) { return c.value == *n; })))
            return *n;
        return std::nullopt;
    }
    case SettingKind::Bitrate: {
        // Typed in kbit/s ("320", "320k"); stored in the encoder's own unit.
        const auto scaled = parseScaled(text, false);
        if (!scaled || scaled->value <= 0)
            return std::nullopt;
        int64_t stored = 0;
        if (scaled->thousands) {
            if ((scaled->value * commandLineScale) % 1000 != 0)
                return std::nullopt;
            stored = scaled->value * commandLineScale / 1000;
        } else {
            stored = scaled->value * commandLineScale;
        }
        if (stored < minimum || stored > maximum)
            return std::nullopt;
        return stored;
    }
    case SettingKind::FourCharCode: {
        if (auto v = choice())
            return *v;
        if (auto code = parseFourCharCode(text))
            return int64_t(*code);
        return std::nullopt;
    }
    case SettingKind::Extension: {
        std::string_view ext = text;
        if (!ext.empty() && ext.front() == '.')
            ext.remove_prefix(1);
        const bool usable =
            !ext.empty() && std::none_of(ext.begin(), ext.end(), [](unsigned char c) {
                return c == '/' || c == '\\' || c < 0x20 || c == 0x7F;
            });
        if (!usable)
            return std::nullopt;
        return std::string(ext);
    }
    case SettingKind::ChannelMode: {
        if (auto mode = channelModeWord(word))
            return *mode;
        const auto n = parseInteger(text);
        if (n && *n >= 0 && *n <= 3)
            return *n;
        return std::nullopt;
    }
    case SettingKind::ChannelCount: {
        if (auto mode = channelModeWord(word))
            return *mode;
        if (word == "0")
            return 0;
        if (word == "1")
            return 3;
        if (word == "2")
            return 1;
        return std::nullopt;
    }
    }
    return std::nullopt;
}

std::string SettingSpec::format(const nlohmann::json& stored) const {
    if (stored.is_null())
        return "";
    if (stored.is_string())
        return stored.get<std::string>();
    if (stored.is_boolean())
        return stored.get<bool>() ? "true" : "false";
    const int64_t value = stored.get<int64_t>();
    if (kind == SettingKind::Integer && invertFrom)
        return std::to_string(invertFrom - value);
    for (const SettingChoice& c : choices)
        if (c.value == value && kind != SettingKind::BitDepth)
            return c.word;
    switch (kind) {
    case SettingKind::Bitrate:
        if (value % commandLineScale == 0)
            return std::to_string(value / commandLineScale);
        return stringWithFormat("%g", double(value) / double(commandLineScale));
    case SettingKind::FourCharCode:
        return fourCharText(uint32_t(value));
    case SettingKind::SampleRate:
    case SettingKind::BitDepth:
        return value == 0 ? "same" : std::to_string(value);
    case SettingKind::ChannelMode:
    case SettingKind::ChannelCount: {
        static const char* const kModes[] = {"same", "stereo", "joint", "mono"};
        return value >= 0 && value <= 3 ? kModes[value] : std::to_string(value);
    }
    default:
        return std::to_string(value);
    }
}

} // namespace velvox
