#include "cli/OutputFormatArgument.h"

#include <map>

#include "jobs/EncoderDescriptor.h"
#include "jobs/EncoderSettings.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

using UsageError = OutputFormatArgument::UsageError;

std::string joined(const std::vector<std::string>& words) {
    std::string out;
    for (const std::string& w : words)
        out += (out.empty() ? "" : ", ") + w;
    return out;
}

// Splits "a=1,b=2" into its pairs, refusing empty and malformed items.
std::vector<std::pair<std::string, std::string>> keyValues(const std::string& list,
                                                           const std::string& text) {
    std::vector<std::pair<std::string, std::string>> pairs;
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
        pairs.emplace_back(item.substr(0, equals), item.substr(equals + 1));
        if (comma == std::string::npos)
            return pairs;
        start = comma + 1;
    }
}

} // namespace

std::vector<std::string> OutputFormatArgument::typeNames() {
    std::vector<std::string> names;
    for (const EncoderDescriptor* encoder : EncoderDescriptor::all()) {
        names.emplace_back(encoder->formatName);
        for (const FormatPreset& preset : encoder->presets)
            names.emplace_back(preset.name);
    }
    return names;
}

std::string OutputFormatArgument::syntaxHelp() {
    return "FORMAT is TYPE[:key=value[,key=value]...], TYPE one of " + joined(typeNames()) +
           ". `velvox codecs` lists each type's keys, their defaults and the values they take. "
           "Example: flac:level=8";
}

std::unique_ptr<EncoderSettings> OutputFormatArgument::parse(const std::string& text) {
    const size_t colon = text.find(':');
    const std::string typeText = text.substr(0, colon);
    const FormatPreset* preset = nullptr;
    const EncoderDescriptor* encoder = EncoderDescriptor::forFormatName(typeText, &preset);
    if (!encoder) {
        if (typeText.empty())
            throw UsageError("missing output type in '" + text + "'");
        throw UsageError("unknown output type '" + typeText +
                         "' (types this build writes: " + joined(typeNames()) + ")");
    }

    // Stored key -> the key as written, to refuse one field given twice
    // (also under two names, as "level" and "flacCompressionLevel").
    std::map<std::string, std::string> given;
    nlohmann::json values = nlohmann::json::object();
    if (colon != std::string::npos) {
        for (const auto& [key, value] : keyValues(text.substr(colon + 1), text)) {
            const SettingSpec* spec = encoder->settingNamed(key);
            if (!spec)
                throw UsageError("unknown key '" + key + "' in '" + text + "'");
            const auto [previous, fresh] = given.emplace(spec->key, key);
            if (!fresh)
                throw UsageError("'" + key + "' sets the same value as '" + previous->second +
                                 "' in '" + text + "'");
            const std::optional<nlohmann::json> parsed = spec->parse(value);
            if (!parsed)
                throw UsageError("bad value '" + value + "' for '" + key + "'" +
                                 (!spec->expected.empty()
                                      ? std::string(" (expected ") + spec->expected + ")"
                                      : std::string()));
            values[spec->key] = *parsed;
        }
    }
    std::unique_ptr<EncoderSettings> settings;
    try {
        settings = encoder->makeSettings(preset, values);
    } catch (const std::invalid_argument& e) {
        throw UsageError(std::string(e.what()) + " in '" + text + "'");
    }
    return settings;
}

} // namespace velvox
