#include "jobs/EncoderDescriptor.h"

#include <algorithm>

#include "core/FormatRegistry.h"
#include "jobs/EncoderSettings.h"
#include "platform/StringFormat.h"

namespace velvox {

std::vector<const EncoderDescriptor*> EncoderDescriptor::all() {
    std::vector<const EncoderDescriptor*> out;
    for (const FormatEntry* entry : *FormatRegistry::entries())
        if (entry->encoder && std::find(out.begin(), out.end(), entry->encoder) == out.end())
            out.push_back(entry->encoder);
    return out;
}

const EncoderDescriptor* EncoderDescriptor::forType(int32_t encoderType) {
    for (const EncoderDescriptor* encoder : all())
        if (encoder->encoderType == encoderType)
            return encoder;
    return nullptr;
}

const EncoderDescriptor* EncoderDescriptor::forFormatName(const std::string& word,
                                                          const FormatPreset** preset) {
    const std::string w = lowercaseASCII(word);
    if (preset)
        *preset = nullptr;
    for (const EncoderDescriptor* encoder : all()) {
        if (w == encoder->formatName)
            return encoder;
        for (const FormatPreset& p : encoder->presets)
            if (w == p.name) {
                if (preset)
                    *preset = &p;
                return encoder;
            }
    }
    return nullptr;
}

nlohmann::json EncoderDescriptor::defaultDictionary(const FormatPreset* preset) const {
    nlohmann::json dictionary = nlohmann::json::object();
    dictionary["encoderType"] = int32_t(encoderType);
    dictionary["enabled"] = true;
    dictionary["encoderAction"] = int32_t(EncoderActionEncode);
    for (const SettingSpec& spec : settings)
        if (!spec.defaultValue.is_null() && !dictionary.contains(spec.key))
            dictionary[spec.key] = spec.defaultValue;
    for (const auto& [key, value] : fixedValues.items())
        dictionary[key] = value;
    if (preset)
        for (const auto& [key, value] : preset->values.items())
            dictionary[key] = value;
    return dictionary;
}

std::unique_ptr<EncoderSettings>
EncoderDescriptor::makeSettings(const FormatPreset* preset, const nlohmann::json& values) const {
    nlohmann::json dictionary = defaultDictionary(preset);
    std::set<std::string> given;
    if (preset)
        for (const auto& [key, value] : preset->values.items())
            given.insert(key);
    for (const auto& [key, value] : values.items()) {
        dictionary[key] = value;
        given.insert(key);
    }
    // A bit rate given on its own is meant to be used: switch an encoder
    // whose default method would ignore it to the method that uses it.
    if (given.count("bitrate") && !given.count("method") && !given.count("vbrQuality") &&
        methodForBitrateAlone >= 0)
        dictionary["method"] = methodForBitrateAlone;
    auto settings = EncoderSettings::settingsWithDictionary(dictionary);
    if (complete)
        complete(*settings, given);
    return settings;
}

const SettingSpec* EncoderDescriptor::settingNamed(const std::string& word) const {
    const std::string w = lowercaseASCII(word);
    for (const SettingSpec& spec : settings)
        if (spec.answersTo(w))
            return &spec;
    return nullptr;
}

} // namespace velvox
