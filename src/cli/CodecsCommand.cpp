#include "cli/CodecsCommand.h"

#include <iomanip>
#include <iostream>
#include <string>

#include <CLI/CLI.hpp>

#include "core/FormatRegistry.h"
#include "jobs/EncoderDescriptor.h"

namespace velvox {

namespace {

std::string decoderName(const FormatEntry& entry) {
    if (entry.extensions.empty())
        return "";
    if (entry.decoder)
        return entry.decoder->name;
    // Read by the fallback chain, as any extension no row claims.
    std::string chain;
    for (const DecoderClass* decoder : FormatRegistry::fallbackDecoders())
        chain += (chain.empty() ? "" : ", ") + std::string(decoder->name);
    return chain;
}

nlohmann::json describeSettings(const EncoderDescriptor& encoder) {
    nlohmann::json list = nlohmann::json::array();
    const nlohmann::json defaults = encoder.defaultDictionary(nullptr);
    for (const SettingSpec& spec : encoder.settings) {
        nlohmann::json aliases = nlohmann::json::array();
        for (const char* alias : spec.aliases)
            aliases.push_back(alias);
        const auto stored = defaults.find(spec.key);
        list.push_back({{"name", spec.name},
                        {"aliases", aliases},
                        {"key", spec.key},
                        {"default", stored == defaults.end() || spec.defaultValue.is_null()
                                        ? nlohmann::json()
                                        : nlohmann::json(spec.format(*stored))},
                        {"values", spec.expected}});
    }
    return list;
}

std::string joined(const nlohmann::json& list, const char* separator = ", ") {
    std::string out;
    for (const auto& item : list)
        out += (out.empty() ? "" : separator) + item.get<std::string>();
    return out;
}

} // namespace

void CodecsCommand::addTo(CLI::App& app) {
    CLI::App* command = app.add_subcommand(
        "codecs", "List the formats this build reads (D) and writes (E), with each "
                  "encoder's FORMAT word, tag kinds and settings keys");
    command->add_flag("--json", json_, "Print one JSON array of objects");
}

nlohmann::json CodecsCommand::describeFormats() {
    nlohmann::json rows = nlohmann::json::array();
    for (const FormatEntry* entry : *FormatRegistry::entries()) {
        nlohmann::json row = {{"name", entry->name},
                              {"displayName", entry->displayName},
                              {"extensions", entry->extensions},
                              {"decoder", nullptr},
                              {"encoder", nullptr},
                              {"formatName", nullptr},
                              {"encoderType", nullptr},
                              {"tags", nlohmann::json::array()},
                              {"settings", nlohmann::json::array()}};
        if (const std::string decoder = decoderName(*entry); !decoder.empty())
            row["decoder"] = decoder;
        if (const EncoderDescriptor* encoder = entry->encoder) {
            row["encoder"] = encoder->className;
            row["formatName"] = encoder->formatName;
            row["encoderType"] = int32_t(encoder->encoderType);
            for (const char* kind : encoder->tagKinds)
                row["tags"].push_back(kind);
            row["settings"] = describeSettings(*encoder);
            nlohmann::json presets = nlohmann::json::array();
            for (const FormatPreset& preset : encoder->presets)
                presets.push_back({{"name", preset.name}, {"summary", preset.summary}});
            row["presets"] = presets;
        }
        rows.push_back(row);
    }
    return rows;
}

int CodecsCommand::execute(std::ostream& out) const {
    const nlohmann::json rows = describeFormats();
    if (json_) {
        out << rows.dump(2) << '\n';
        return 0;
    }
    out << "Formats (D = reads, E = writes):\n";
    for (const auto& row : rows) {
        const bool reads = !row["decoder"].is_null();
        const bool writes = !row["encoder"].is_null();
        out << ' ' << (reads ? 'D' : '.') << (writes ? 'E' : '.') << ' ' << std::left
            << std::setw(12) << row["name"].get<std::string>()
            << row["displayName"].get<std::string>() << '\n';
        if (!row["extensions"].empty())
            out << "      extensions: " << joined(row["extensions"]) << '\n';
        if (reads)
            out << "      reads with: " << row["decoder"].get<std::string>() << '\n';
        if (!writes)
            continue;
        out << "      writes:     FORMAT " << row["formatName"].get<std::string>();
        for (const auto& preset : row["presets"])
            out << ", " << preset["name"].get<std::string>();
        out << " (EncoderType " << row["encoderType"].get<int>() << ", "
            << row["encoder"].get<std::string>() << ")\n";
        if (!row["tags"].empty())
            out << "      tags:       " << joined(row["tags"]) << '\n';
        out << "      settings:  ";
        for (const auto& setting : row["settings"]) {
            out << ' ' << setting["name"].get<std::string>();
            if (!setting["default"].is_null())
                out << '=' << setting["default"].get<std::string>();
        }
        out << '\n';
    }
    return 0;
}

} // namespace velvox
