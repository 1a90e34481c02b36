#pragma once
// One key of an encoder's settings schema: the stored key it sets, the words
// a user may type for it, what values it takes and its default. The command
// line parses FORMAT texts with it, `velvox codecs` lists it and the desktop
// editors build their controls from it, so that each range is written once.

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace velvox {

enum class SettingKind : uint8_t {
    Integer,      // a whole number from minimum to maximum
    Boolean,      // true/false, yes/no, on/off, 1/0
    Choice,       // one of `choices` (by word or by stored number)
    SampleRate,   // Hz, "48k", "same" (0)
    BitDepth,     // one of `choices`' values, or "same" (0)
    Bitrate,      // `commandLineScale` stored units per typed unit, "k" suffix allowed
    FourCharCode, // 'WAVE', "aac", a number, or one of `choices`
    Extension,    // a file extension, with or without its dot
    ChannelMode,  // same/stereo/joint/mono or the stored 0 to 3
    ChannelCount, // a channel count: 1 is mono (3), 2 stereo (1), 0 same
};

struct SettingChoice {
    const char* word;
    int64_t value;
};

struct SettingSpec {
    // What the user types first; further words that mean the same.
    const char* name;
    std::vector<const char*> aliases;
    // The key of the settings dictionary it sets.
    const char* key;
    SettingKind kind;
    // The value a new format gets; null leaves the record's own zero.
    nlohmann::json defaultValue;
    int64_t minimum = 0;
    int64_t maximum = 0;
    std::vector<SettingChoice> choices;
    int64_t commandLineScale = 1;
    // Integer keys typed on a scale that runs the other way: stored =
    // invertFrom - typed (LAME's -V 2 is the stored 8). 0 leaves it as typed.
    int64_t invertFrom = 0;
    // What a valid value looks like, for messages and help.
    std::string expected;

    bool answersTo(const std::string& lowercaseWord) const;
    // The stored value for a typed one; nothing when it is refused.
    std::optional<nlohmann::json> parse(const std::string& text) const;
    // A stored value as a user would type it.
    std::string format(const nlohmann::json& stored) const;
};

} // namespace velvox
