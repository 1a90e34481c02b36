#include "formats/CommonSettings.h"

#include <string>

#include "jobs/EncoderType.h"

namespace velvox::settings {

std::vector<SettingSpec> common(const char* defaultExtension) {
    return {
        {.name = "enabled",
         .key = "enabled",
         .kind = SettingKind::Boolean,
         .defaultValue = true,
         .expected = "true or false"},
        {.name = "ext",
         .aliases = {"extension"},
         .key = "extension",
         .kind = SettingKind::Extension,
         .defaultValue = defaultExtension,
         .expected = "a file extension such as flac"},
        {.name = "action",
         .aliases = {"encoderAction"},
         .key = "encoderAction",
         .kind = SettingKind::Choice,
         .defaultValue = int32_t(EncoderActionEncode),
         .choices = {{"encode", EncoderActionEncode},
                     {"update", EncoderActionUpdateMetadata},
                     {"updatemetadata", EncoderActionUpdateMetadata},
                     {"0", EncoderActionEncode},
                     {"1", EncoderActionUpdateMetadata}},
         .expected = "encode or update"},
    };
}

SettingSpec sampleRate() {
    return {.name = "rate",
            .aliases = {"sampleRate"},
            .key = "sampleRate",
            .kind = SettingKind::SampleRate,
            .defaultValue = 0,
            .expected = "a rate in Hz such as 44100 or 48k, or same"};
}

std::vector<SettingSpec> rateAndChannels() {
    return {
        sampleRate(),
        {.name = "mode",
         .key = "mode",
         .kind = SettingKind::ChannelMode,
         .defaultValue = 0,
         .expected = "0 (same), 1 (stereo), 2 (joint stereo), 3 (mono)"},
        {.name = "channels",
         .key = "mode",
         .kind = SettingKind::ChannelCount,
         .expected = "mono, stereo, same, 1 or 2"},
    };
}

SettingSpec bitDepth(std::vector<int64_t> sizes) {
    SettingSpec spec{.name = "bits",
                     .aliases = {"bitDepth"},
                     .key = "bitDepth",
                     .kind = SettingKind::BitDepth,
                     .defaultValue = 0};
    for (int64_t size : sizes)
        spec.choices.push_back({"", size});
    spec.expected = sizes.size() == 3 ? "8, 16, 24 or same" : "8, 16, 24, 32 or same";
    return spec;
}

SettingSpec method(std::vector<SettingChoice> methods, int64_t defaultMethod) {
    SettingSpec spec{.name = "method",
                     .key = "method",
                     .kind = SettingKind::Choice,
                     .defaultValue = defaultMethod,
                     .choices = methods};
    static const char* const kNumbers[] = {"0", "1", "2", "3"};
    for (const SettingChoice& choice : methods)
        spec.choices.push_back({kNumbers[choice.value & 3], choice.value});
    // The words, as "cbr, abr or vbr".
    for (size_t i = 0; i < methods.size(); ++i)
        spec.expected += (i == 0                    ? ""
                          : i + 1 == methods.size() ? " or "
                                                    : ", ") +
                         std::string(methods[i].word);
    return spec;
}

std::vector<SettingSpec> join(std::initializer_list<std::vector<SettingSpec>> parts) {
    std::vector<SettingSpec> out;
    for (const auto& part : parts)
        out.insert(out.end(), part.begin(), part.end());
    return out;
}

} // namespace velvox::settings
