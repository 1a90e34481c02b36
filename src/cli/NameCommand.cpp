#include "cli/NameCommand.h"

#include <filesystem>
#include <iostream>
#include <memory>
#include <optional>

#include <CLI/CLI.hpp>

#include "cli/FormatsCommand.h"
#include "cli/OutputFormatArgument.h"
#include "jobs/EncoderSettings.h"
#include "jobs/FormatSpecifiers.h"
#include "metadata/AudioMetadata.h"
#include "platform/TaggingThread.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

// A --format that is a plain number picks a saved format (from 1).
std::optional<size_t> savedFormatNumber(const std::string& text) {
    if (text.empty() || text.size() > 9 ||
        text.find_first_not_of("0123456789") != std::string::npos)
        return std::nullopt;
    return static_cast<size_t>(std::stoul(text));
}

} // namespace

void NameCommand::addTo(CLI::App& app) {
    command_ = app.add_subcommand(
        "name", "Show the name the naming scheme gives each file (values made safe for file "
                "names; no folder in front, no extension after)");
    command_->footer(OutputFormatArgument::syntaxHelp());
    command_
        ->add_option("--scheme", scheme_,
                     "The naming template, such as \"{trackNumber - }{trackTitle}\" (default: "
                     "the saved customNamingScheme)")
        ->type_name("TEMPLATE");
    command_
        ->add_option("--format", format_,
                     "The output format the template's {outputFormat}, {bitrate}, ... describe: "
                     "a FORMAT or the number of a saved format")
        ->type_name("FORMAT|N");
    command_->add_option("files", files_, "Audio files")->required();
}

int NameCommand::execute(TaggingThread& tagging, std::ostream& out, std::ostream& err) const {
    std::shared_ptr<EncoderSettings> settings;
    if (command_->count("--format")) {
        if (const auto number = savedFormatNumber(format_)) {
            FormatsCommand::FormatList saved = FormatsCommand::savedFormats();
            if (*number < 1 || *number > saved.size()) {
                err << "velvox name --format: there is no saved output format " << format_ << '\n';
                return 2;
            }
            settings = saved[*number - 1];
        } else {
            try {
                settings = OutputFormatArgument::parse(format_);
            } catch (const OutputFormatArgument::UsageError& e) {
                err << "velvox name --format: " << e.what() << '\n';
                return 2;
            }
        }
    }

    std::optional<std::string> scheme;
    if (command_->count("--scheme"))
        scheme = scheme_;
    else
        scheme = UserDefaults::standardUserDefaults().stringForKey("customNamingScheme");

    int status = 0;
    for (const std::string& path : files_) {
        std::error_code ec;
        if (!std::filesystem::is_regular_file(path, ec)) {
            err << "velvox name: no such file: " << path << '\n';
            status = 1;
            continue;
        }
        std::unique_ptr<AudioMetadata> metadata;
        tagging.performAndWait([&] { metadata = AudioMetadata::metadataFromFile(path); });
        out << expandFormatSpecifiers(scheme, metadata.get(), settings.get(), path, true) << '\n';
    }
    return status;
}

} // namespace velvox
