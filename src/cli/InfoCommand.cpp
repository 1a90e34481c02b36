#include "cli/InfoCommand.h"

#include <algorithm>
#include <filesystem>
#include <iostream>
#include <memory>

#include <CLI/CLI.hpp>

#include "metadata/AudioMetadata.h"
#include "platform/TaggingThread.h"

namespace velvox {

namespace {

// A field's value as a person reads it. Multi-line text (lyrics, comments)
// keeps its lines, indented under the value column.
std::string displayValue(const std::string& key, const nlohmann::ordered_json& value,
                         size_t indent) {
    if (value.is_string()) {
        std::string text = value.get<std::string>();
        const std::string continuation = "\n" + std::string(indent, ' ');
        for (size_t at = text.find('\n'); at != std::string::npos;
             at = text.find('\n', at + continuation.size()))
            text.replace(at, 1, continuation);
        return text;
    }
    if (value.is_boolean())
        return value.get<bool>() ? "yes" : "no";
    if (key == "albumArtwork" && value.is_object()) {
        std::string text = value.value("mimeType", std::string("unknown"));
        if (value.contains("width") && value.contains("height"))
            text += ", " + value["width"].dump() + " x " + value["height"].dump();
        if (value.contains("dataSize"))
            text += ", " + value["dataSize"].dump() + " bytes";
        if (value.contains("md5"))
            text += ", MD5 " + value["md5"].get<std::string>();
        if (value.contains("artworkType"))
            text += ", picture type " + value["artworkType"].dump();
        if (value.contains("comments") && !value["comments"].get<std::string>().empty())
            text += ", \"" + value["comments"].get<std::string>() + "\"";
        return text;
    }
    if (key == "userData" && value.is_object()) {
        // Chunk identifiers with the sizes of their chunks.
        std::string text;
        for (auto it = value.begin(); it != value.end(); ++it) {
            if (!text.empty())
                text += ", ";
            text += it.key() + " (";
            std::string sizes;
            for (const auto& size : it.value())
                sizes += (sizes.empty() ? "" : " + ") + size.dump();
            text += sizes + " bytes)";
        }
        return text;
    }
    if (key == "additionalTags" && value.is_object()) {
        // One "KEY: value; value" line per tag, under the value column.
        std::string text;
        for (auto it = value.begin(); it != value.end(); ++it) {
            if (!text.empty())
                text += "\n" + std::string(indent, ' ');
            std::string values;
            for (const auto& one : it.value())
                values += (values.empty() ? "" : "; ") + one.get<std::string>();
            text += it.key() + ": " + values;
        }
        return text;
    }
    return value.dump();
}

} // namespace

void InfoCommand::addTo(CLI::App& app) {
    CLI::App* sub = app.add_subcommand(
        "info", "Show the tags, source facts and artwork that Velvox reads from each file");
    sub->add_flag("--json", json_,
                  "Print one JSON array with an object per file, keyed by field name");
    sub->add_option("files", files_, "Audio files")->required();
}

bool InfoCommand::describesAudio(const AudioMetadata& m) {
    // The kind and format names may come from the file name alone; these
    // come only from reading the stream.
    return m.sourceSampleRate() || m.sourceChannels() || m.sourceLength();
}

std::string InfoCommand::textFor(const std::string& path, const nlohmann::ordered_json& info) {
    size_t width = 0;
    for (auto it = info.begin(); it != info.end(); ++it)
        width = std::max(width, it.key().size());
    const size_t column = 2 + width + 2;
    std::string text = path + "\n";
    for (auto it = info.begin(); it != info.end(); ++it) {
        text += "  " + it.key() + std::string(column - 2 - it.key().size(), ' ') +
                displayValue(it.key(), it.value(), column) + "\n";
    }
    return text;
}

int InfoCommand::execute(TaggingThread& tagging, std::ostream& out, std::ostream& err) const {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    int status = 0;
    for (const std::string& path : files_) {
        std::unique_ptr<AudioMetadata> metadata;
        tagging.performAndWait([&] { metadata = AudioMetadata::metadataFromFile(path); });
        if (!metadata) // the reader promises a record; keep the promise here too
            metadata = std::make_unique<AudioMetadata>();

        std::error_code ec;
        if (!std::filesystem::exists(path, ec)) {
            err << "velvox info: no such file: " << path << '\n';
            status = 1;
        } else if (std::filesystem::is_directory(path, ec)) {
            err << "velvox info: is a folder, not an audio file: " << path << '\n';
            status = 1;
        } else if (!describesAudio(*metadata)) {
            err << "velvox info: not an audio file Velvox can read: " << path << '\n';
            status = 1;
        }

        const nlohmann::ordered_json info = metadata->toInfoJSON();
        if (json_) {
            all.push_back(info);
        } else {
            if (&path != &files_.front())
                out << '\n';
            out << textFor(path, info);
        }
    }
    if (json_)
        out << all.dump(2) << '\n';
    return status;
}

} // namespace velvox
