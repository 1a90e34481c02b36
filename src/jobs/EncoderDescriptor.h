#pragma once
// The writing half of a format registry row: the encoder class with its
// EncoderType, the FORMAT words that choose it, its settings schema, what PCM
// it takes, the tags it writes and the independent tool that decodes its
// output. Rows are defined in src/formats/ and reached through
// FormatRegistry; nothing else lists encoders.

#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "jobs/EncoderType.h"
#include "jobs/SettingSpec.h"

namespace velvox {

class EncodeOperation;
class EncoderSettings;

// A further FORMAT word for the same encoder with some values fixed ("wav"
// is the Core Audio encoder with fileType WAVE and LPCM).
struct FormatPreset {
    const char* name;
    const char* summary;
    nlohmann::json values;
    // Whether the preset's output decodes to the source exactly, and the
    // sample sizes it takes as they stand (empty: the encoder's).
    bool lossless = true;
    std::vector<uint32_t> bitDepths = {};
    // The tag kinds its container holds, when they are fewer than the
    // encoder's.
    std::optional<std::vector<const char*>> tagKinds = std::nullopt;
    // The channels its codec takes, when fewer than the encoder's (0).
    uint32_t maximumChannels = 0;
};

// What PCM the encoder takes without an explicit conversion.
struct SampleSupport {
    std::vector<uint32_t> bitDepths;
    double minimumRate = 1;
    double maximumRate = 768000;
    uint32_t maximumChannels = 8;
};

// How the conformance suite decodes an output without Velvox: argv with
// "{in}" and "{out}" (a WAVE file) in place of the paths.
struct ReferenceDecoder {
    std::vector<std::string> argv;
    bool lossless = true;
};

struct EncoderDescriptor {
    EncoderType encoderType;
    // The FORMAT word ("flac") and the class that encodes.
    const char* formatName;
    const char* className;
    std::unique_ptr<EncodeOperation> (*make)();
    std::vector<SettingSpec> settings;
    std::vector<FormatPreset> presets;
    // Values every new format of this kind gets besides the keys' defaults.
    nlohmann::json fixedValues = nlohmann::json::object();
    // Tag kinds written ("Xiph comment", "ID3v2", ...); empty: none.
    std::vector<const char*> tagKinds;
    SampleSupport samples;
    ReferenceDecoder reference;
    // When a bit rate is given without a method, the method that uses it
    // (a VBR default would otherwise ignore it); -1 keeps the default.
    int32_t methodForBitrateAlone = -1;
    // Settles keys that depend on one another after the user's keys are in;
    // `given` holds the stored keys the user set. Throws std::invalid_argument.
    void (*complete)(EncoderSettings& settings, const std::set<std::string>& given) = nullptr;

    // ---- Lookups through the registry ----
    static const EncoderDescriptor* forType(int32_t encoderType);
    // Every encoder once, in registry order.
    static std::vector<const EncoderDescriptor*> all();
    // The encoder and preset (null: none) a FORMAT word names.
    static const EncoderDescriptor* forFormatName(const std::string& word,
                                                  const FormatPreset** preset = nullptr);

    // The dictionary of a new format: defaults, fixed values, then the preset's.
    nlohmann::json defaultDictionary(const FormatPreset* preset) const;
    // A complete format: the defaults, the preset, then `values` (stored
    // keys), settled by `complete`. Throws std::invalid_argument for a
    // format this encoder cannot write.
    std::unique_ptr<EncoderSettings>
    makeSettings(const FormatPreset* preset,
                 const nlohmann::json& values = nlohmann::json::object()) const;
    const SettingSpec* settingNamed(const std::string& word) const;
};

} // namespace velvox
