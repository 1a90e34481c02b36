#include "jobs/FormatSpecifiers.h"

#include <algorithm>
#include <array>
#include <cstdint>
#include <filesystem>
#include <utility>

#include "jobs/EncoderSettings.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

// Looked for in this order; the order is part of the template language, as
// the first name found inside a group decides what the group becomes.
const std::vector<std::string> kSpecifierNames = {
    "trackTitle",
    "trackArtist",
    "albumArtist",
    "albumTitle",
    "composer",
    "genre",
    "grouping",
    "year",
    "bpm",
    "key",
    "ISRC",
    "trackNumber",
    "trackTotal",
    "discNumber",
    "discTotal",
    "comments",
    "bitrateMethod",
    "outputBitrateMethod",
    "bitrate",
    "outputBitrate",
    "sampleRate",
    "outputSampleRate",
    "outputChannels",
    "encodingMethod",
    "outputFormat",
    "outputFileFormat",
    "encodingFormat",
    "outputEncoding",
    "sourceBitrateMethod",
    "sourceBitrate",
    "sourceSampleRate",
    "sourceChannels",
    "sourceKind",
    "sourceFormat",
    "sourceFilename",
    "sourceEncodedWith",
};

constexpr std::string_view kShortInvalidSet = "<>:\"/\\|?*";
constexpr std::string_view kLongInvalidSet = "<>:\"/\\|?*+=[],;";

// An empty name is never found, so a specifier of bare braces matches nothing.
bool containsName(std::string_view text, std::string_view name) {
    return !name.empty() && text.find(name) != std::string_view::npos;
}

std::string_view trimBraces(std::string_view specifier) {
    const size_t first = specifier.find_first_not_of("{}");
    if (first == std::string_view::npos)
        return {};
    const size_t last = specifier.find_last_not_of("{}");
    return specifier.substr(first, last - first + 1);
}

std::string replaceAll(std::string_view text, std::string_view name, std::string_view value) {
    std::string out;
    size_t position = 0;
    for (size_t found; (found = text.find(name, position)) != std::string_view::npos;
         position = found + name.size()) {
        out.append(text.substr(position, found - position));
        out.append(value);
    }
    out.append(text.substr(position));
    return out;
}

// The shared walk of replace and remove: each group inside the range whose
// inner text mentions the name is handed to `edit`, which rewrites it and
// says where the walk goes on and how much the text grew.
template <typename Edit>
void walkGroups(std::string& text, std::string_view name, FormatSpecifiers::Range range,
                Edit&& edit) {
    if (range.location > text.size())
        return;
    size_t position = range.location;
    size_t end = std::min(text.size(), range.location + range.length);
    while (position < end) {
        const std::string_view rest = std::string_view(text).substr(position, end - position);
        const size_t close = rest.find('}');
        if (close == std::string_view::npos)
            break;
        const size_t open = rest.find('{');
        if (open != std::string_view::npos && open < close &&
            containsName(rest.substr(open + 1, close - open - 1), name)) {
            const size_t groupStart = position + open;
            const size_t groupLength = close - open + 1;
            const auto [resume, newLength] = edit(groupStart, groupLength);
            end = end - groupLength + newLength;
            position = resume;
        } else {
            position += close + 1;
        }
    }
}

std::string lastComponentWithoutExtension(const std::string& path) {
    return std::filesystem::path(path).filename().stem().string();
}

std::string numberText(int64_t value, bool twoDigits) {
    return stringWithFormat(twoDigits ? "%02u" : "%u", static_cast<uint32_t>(value));
}

std::string bitrateMethodName(BitrateMethod method) {
    switch (method) {
    case BitrateMethodCBR:
        return "CBR";
    case BitrateMethodABR:
        return "ABR";
    case BitrateMethodVBR:
        return "VBR";
    case BitrateMethodConstrainedVBR:
        return "VBR Constrained";
    }
    return "";
}

std::string kilobitsText(double bitsPerSecond) {
    return stringWithFormat("%0.2f kbps", bitsPerSecond * 0.001);
}

std::string kilohertzText(double hertz) { return stringWithFormat("%0.3f kHz", hertz * 0.001); }

using Value = std::optional<std::string>;

Value presentOr(const Value& value, const Value& fallback) { return value ? value : fallback; }

// Absent and empty both count as missing for the names every file needs.
Value nonEmptyOr(const Value& value, const Value& fallback) {
    return value && !value->empty() ? value : fallback;
}

template <typename Number>
Value numberValue(const std::optional<Number>& number, auto&& format) {
    if (!number)
        return std::nullopt;
    return format(*number);
}

// Every specifier's value, in the order of kSpecifierNames; nullopt where the value is missing.
std::array<Value, 36> specifierValues(const AudioMetadata* metadata,
                                      const EncoderSettings* settings,
                                      const std::optional<std::string>& inputPath) {
    const AudioMetadata empty;
    const AudioMetadata& m = metadata ? *metadata : empty;
    const bool twoDigits = UserDefaults::standardUserDefaults().boolForKey("useTwoDigitNumbers");
    auto counter = [twoDigits](int64_t n) { return numberText(n, twoDigits); };
    auto decimal = [](int64_t n) { return std::to_string(n); };
    auto unsignedText = [](int64_t n) { return stringWithFormat("%u", static_cast<uint32_t>(n)); };

    const Value sourceName =
        inputPath ? Value(lastComponentWithoutExtension(*inputPath)) : std::nullopt;

    Value method, bitrate, format, encoding;
    if (settings) {
        method = bitrateMethodName(settings->bitrateMethod());
        // MP3 rates are kept in kbit/s, every other encoder's in bit/s.
        double bitsPerSecond = static_cast<double>(settings->bitrate());
        if (settings->encoderType() == EncoderTypeMP3)
            bitsPerSecond *= 1000;
        bitrate = kilobitsText(bitsPerSecond);
        format = settings->outputFormatDescription();
        encoding = settings->encodingDescription();
    }

    // A rate or channel mode of 0 means "as the source", and so does having
    // no output settings at all.
    Value sampleRate;
    if (settings && settings->sampleRate() != 0)
        sampleRate = kilohertzText(static_cast<double>(settings->sampleRate()));
    else
        sampleRate = numberValue(m.sourceSampleRate(),
                                 [](int64_t hz) { return kilohertzText(static_cast<double>(hz)); });

    Value channels;
    const int32_t channelMode = settings ? settings->channelMode() : 0;
    if (channelMode == 1 || channelMode == 2)
        channels = unsignedText(2);
    else if (channelMode == 3)
        channels = unsignedText(1);
    else
        channels = numberValue(m.sourceChannels(), unsignedText);

    return {
        nonEmptyOr(m.trackTitle(), sourceName),
        nonEmptyOr(m.trackArtist(), "Unknown Artist"),
        nonEmptyOr(m.albumArtist(), "Unknown Artist"),
        nonEmptyOr(m.albumTitle(), "Unknown Album"),
        presentOr(m.trackComposer(), "Unknown Composer"),
        m.trackGenre(),
        m.grouping(),
        numberValue(m.trackYear(), decimal),
        numberValue(m.bpm(), decimal),
        m.key(),
        m.ISRC(),
        numberValue(m.trackNumber(), counter),
        numberValue(m.totalTracks(), counter),
        numberValue(m.discNumber(), counter),
        numberValue(m.discTotal(), counter),
        m.trackComment(),
        method,
        method,
        bitrate,
        bitrate,
        sampleRate,
        sampleRate,
        channels,
        method,
        format,
        format,
        encoding,
        encoding,
        m.sourceBitrateMode(),
        numberValue(m.sourceBitrate(),
                    [](int64_t bps) { return kilobitsText(static_cast<double>(bps)); }),
        numberValue(m.sourceSampleRate(),
                    [](int64_t hz) { return kilohertzText(static_cast<double>(hz)); }),
        numberValue(m.sourceChannels(), unsignedText),
        m.sourceKind(),
        // Reserved: never yields text, so its group always vanishes.
        std::nullopt,
        sourceName,
        m.sourceEncodedWith(),
    };
}

// A value is text, never template: a title such as "{trackTitle}" must
// neither be expanded again nor open a group that would be found forever.
// While expanding, the braces of values stand as two-byte sequences led by
// 0xFF, a byte that UTF-8 never uses; a 0xFF already present (only in
// malformed text) is shielded the same way so that it survives unchanged.
constexpr char kShield = '\xFF';

// The template's own braces are the groups; only a stray 0xFF needs care.
std::string shieldTemplate(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == kShield)
            out += "\xFF\x03";
        else
            out += c;
    }
    return out;
}

std::string shieldValue(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (char c : text) {
        if (c == '{')
            out += "\xFF\x01";
        else if (c == '}')
            out += "\xFF\x02";
        else if (c == kShield)
            out += "\xFF\x03";
        else
            out += c;
    }
    return out;
}

std::string unshield(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == kShield && i + 1 < text.size()) {
            const char code = text[++i];
            out += code == '\x01' ? '{' : code == '\x02' ? '}' : kShield;
        } else {
            out += text[i];
        }
    }
    return out;
}

} // namespace

const std::vector<std::string>& FormatSpecifiers::specifierNames() { return kSpecifierNames; }

std::optional<FormatSpecifiers::Range>
FormatSpecifiers::rangeOfDeepestBracketContainingAnyFormatSpecifier(
    const std::string& text, const std::vector<std::string>& names) {
    if (text.empty())
        return std::nullopt;
    // A "}" seen before any "{" has no group to close.
    constexpr size_t kNoStart = std::string::npos;
    long depth = 0;
    long greatestDepth = 0;
    size_t candidateStart = kNoStart;
    std::optional<Range> result;
    for (size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '{') {
            ++depth;
            if (depth >= greatestDepth)
                candidateStart = i;
            greatestDepth = std::max(greatestDepth, depth);
        } else if (text[i] == '}') {
            if (depth == greatestDepth && candidateStart != kNoStart && i > candidateStart) {
                const std::string_view group =
                    std::string_view(text).substr(candidateStart, i - candidateStart + 1);
                for (const std::string& name : names) {
                    if (containsName(group, name)) {
                        result = Range{candidateStart, group.size()};
                        break;
                    }
                }
            }
            --depth;
        }
    }
    return result;
}

void FormatSpecifiers::replaceFormatSpecifier(std::string& text, std::string_view specifier,
                                              std::string_view value, Range range) {
    const std::string_view name = trimBraces(specifier);
    walkGroups(text, name, range, [&](size_t start, size_t length) {
        const std::string inner =
            replaceAll(std::string_view(text).substr(start + 1, length - 2), name, value);
        text.replace(start, length, inner);
        return std::pair{start + inner.size(), inner.size()};
    });
}

void FormatSpecifiers::replaceFormatSpecifier(std::string& text, std::string_view specifier,
                                              std::string_view value) {
    replaceFormatSpecifier(text, specifier, value, Range{0, text.size()});
}

void FormatSpecifiers::removeFormatSpecifier(std::string& text, std::string_view specifier,
                                             Range range) {
    const std::string_view name = trimBraces(specifier);
    walkGroups(text, name, range, [&](size_t start, size_t length) {
        text.erase(start, length);
        return std::pair{start, size_t(0)};
    });
}

void FormatSpecifiers::removeFormatSpecifier(std::string& text, std::string_view specifier) {
    removeFormatSpecifier(text, specifier, Range{0, text.size()});
}

void FormatSpecifiers::installAsFilenamePatternExpander() {
    AudioMetadata::setFilenamePatternExpander(
        [](const std::string& pattern, const AudioMetadata& metadata, const std::string& path) {
            return expandFormatSpecifiers(pattern, &metadata, nullptr, path, true);
        });
}

std::string expandFormatSpecifiers(const std::optional<std::string>& templ,
                                   const AudioMetadata* metadata, const EncoderSettings* settings,
                                   const std::optional<std::string>& inputPath,
                                   bool sanitizeValues) {
    std::string text = shieldTemplate(templ && !templ->empty() ? *templ : "{sourceFilename}");
    const auto values = specifierValues(metadata, settings, inputPath);
    const auto& names = kSpecifierNames;

    // Each pass consumes one pair of the template's braces; values bring in
    // none (their braces are shielded), so the loop ends.
    while (auto range =
               FormatSpecifiers::rangeOfDeepestBracketContainingAnyFormatSpecifier(text, names)) {
        const std::string_view group =
            std::string_view(text).substr(range->location, range->length);
        size_t index = 0;
        while (index < names.size() && !containsName(group, names[index]))
            ++index;
        if (index == names.size())
            break;
        if (!values[index]) {
            FormatSpecifiers::removeFormatSpecifier(text, names[index], *range);
        } else {
            const std::string value =
                shieldValue(sanitizeValues ? safeFilename(*values[index]) : *values[index]);
            FormatSpecifiers::replaceFormatSpecifier(text, names[index], value, *range);
        }
    }
    text = unshield(text);

    const std::string safeSourceName =
        safeFilename(inputPath ? lastComponentWithoutExtension(*inputPath) : std::string());
    if (text.empty())
        text = safeSourceName;

    // No hidden files: the last component (ignoring trailing slashes) may not
    // start with a dot.
    const size_t lastCharacter = text.find_last_not_of('/');
    if (lastCharacter != std::string::npos) {
        const size_t slash = text.rfind('/', lastCharacter);
        const size_t componentStart = slash == std::string::npos ? 0 : slash + 1;
        if (text[componentStart] == '.')
            text.erase(componentStart, 1);
    }

    // A template naming only folders puts the file in the last of them under
    // its source name.
    if (!text.empty() && text.back() == '/')
        text += safeSourceName;
    return text;
}

std::string safeFilename(const std::string& name) {
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    if (!defaults.boolForKey("createWindowsSafeFilenames"))
        return replaceAll(name, "/", ":");

    // The replacement itself must not bring back what it replaces.
    std::string replacement = defaults.stringForKey("replaceInvalidCharactersWith").value_or("");
    for (char& c : replacement)
        if (kLongInvalidSet.find(c) != std::string_view::npos)
            c = '_';

    const std::string_view invalid =
        defaults.boolForKey("createSMBSafeFilenames") ? kLongInvalidSet : kShortInvalidSet;
    std::string out;
    out.reserve(name.size());
    for (char c : name) {
        if (invalid.find(c) != std::string_view::npos)
            out += replacement;
        else
            out += c;
    }
    return out;
}

std::string numberedPath(const std::string& path, unsigned long number) {
    namespace fs = std::filesystem;
    if (number < 2)
        return path;
    const fs::path original(path);
    return (original.parent_path() / (stringWithFormat("%@ %lu", original.stem().string(), number) +
                                      original.extension().string()))
        .string();
}

std::string uniquePathForPath(const std::string& path) {
    std::error_code ec;
    for (unsigned long n = 1;; ++n) {
        const std::string candidate = numberedPath(path, n);
        if (!std::filesystem::exists(candidate, ec))
            return candidate;
    }
}

} // namespace velvox
