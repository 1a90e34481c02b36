#include "cli/ConvertCommand.h"

#include <filesystem>
#include <memory>
#include <ostream>

#include <CLI/CLI.hpp>

#include "cli/BatchConsole.h"
#include "cli/InputPaths.h"
#include "cli/OutputFormatArgument.h"
#include "jobs/ApplicationController.h"
#include "jobs/EncodeOperation.h"
#include "jobs/EncoderDescriptor.h"
#include "jobs/EncoderSettings.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace fs = std::filesystem;

void ConvertCommand::addTo(CLI::App& app) {
    command_ = app.add_subcommand(
        "convert", "Convert files and folders to one or more output formats in one batch");
    command_
        ->add_option("-f,--format", formats_,
                     "An output format (repeatable); without it the saved enabled formats")
        ->type_name("FORMAT");
    command_
        ->add_option("-o,--output", output_, "Write into this folder instead of beside each source")
        ->type_name("DIR");
    command_->add_flag("--same-folder", sameFolder_, "Write each output beside its source");
    command_
        ->add_option("--naming", naming_,
                     "Name outputs by this template, e.g. \"{trackArtist}/{trackTitle}\"")
        ->type_name("TEMPLATE");
    command_->add_flag("--preserve-tree", preserveTree_,
                       "Keep the folder structure below each given folder");
    command_->add_option("-j,--jobs", jobs_, "Files converted at once")->type_name("N");
    command_
        ->add_option("--overwrite", overwrite_,
                     "What to do with an existing output file: ask, skip, replace or "
                     "keep-both (the default when nobody can be asked)")
        ->type_name("ANSWER");
    command_->add_flag("--delete-original", deleteOriginal_,
                       "Move each source to the trash once all its outputs succeeded");
    command_->add_flag("--skip-same-type", skipSameType_,
                       "Leave out output formats of the source's own type");
    command_->add_flag("--update-tags", updateTags_,
                       "Only rewrite the tags of the files, in place");
    command_->add_flag("--allow-incomplete", allowIncomplete_,
                       "Keep what can be decoded of a damaged or cut-off source (with a warning "
                       "in the error log) instead of failing it");
    command_->add_option("PATH", paths_, "Audio files and folders")->required();
    command_->footer(OutputFormatArgument::syntaxHelp() +
                     "\n\nCtrl-C cancels the batch: files under way are abandoned and no "
                     "partial output is left behind; a second Ctrl-C quits at once. Exit status: 0 "
                     "every file converted or skipped, 1 some file failed, 2 usage error, 130 "
                     "interrupted (143 terminated).");
}

int ConvertCommand::execute(std::ostream& out, std::ostream& err) const {
    UserDefaults& defaults = UserDefaults::standardUserDefaults();

    // ---- Usage checks, before anything runs ----
    if (!output_.empty() && sameFolder_) {
        err << "velvox convert: --output and --same-folder exclude each other\n";
        return 2;
    }
    if (command_->count("--jobs") && jobs_ < 1) {
        err << "velvox convert: --jobs takes a number of 1 or more\n";
        return 2;
    }
    int32_t presetAnswer = ApplicationController::OverwriteHandlingAsk;
    if (!overwrite_.empty()) {
        if (overwrite_ == "ask")
            presetAnswer = ApplicationController::OverwriteHandlingAsk;
        else if (overwrite_ == "skip")
            presetAnswer = ApplicationController::OverwriteHandlingSkip;
        else if (overwrite_ == "replace")
            presetAnswer = ApplicationController::OverwriteHandlingOverwrite;
        else if (overwrite_ == "keep-both")
            presetAnswer = ApplicationController::OverwriteHandlingKeepBoth;
        else {
            err << "velvox convert: --overwrite takes ask, skip, replace or keep-both, not '"
                << overwrite_ << "'\n";
            return 2;
        }
    }
    if (!output_.empty()) {
        // Named here, with the option, rather than as the preferences'
        // output folder the batch's own check speaks of.
        std::error_code ec;
        if (!fs::exists(output_, ec)) {
            err << "velvox convert: The output folder given with -o/--output does not exist: "
                << output_ << '\n';
            return 2;
        }
        if (!fs::is_directory(output_, ec)) {
            err << "velvox convert: The output folder given with -o/--output is not a folder: "
                << output_ << '\n';
            return 2;
        }
    }
    if (updateTags_ && !formats_.empty()) {
        err << "velvox convert: --update-tags rewrites tags only; it takes no --format\n";
        return 2;
    }

    std::vector<std::shared_ptr<EncoderSettings>> formats;
    try {
        for (const std::string& format : formats_)
            formats.push_back(
                std::shared_ptr<EncoderSettings>(OutputFormatArgument::parse(format)));
        if (updateTags_) {
            std::shared_ptr<EncoderSettings> update(OutputFormatArgument::parse("flac"));
            update->setEncoderAction(EncoderActionUpdateMetadata);
            formats.push_back(update);
        }
    } catch (const OutputFormatArgument::UsageError& e) {
        err << "velvox convert: " << e.what() << '\n';
        return 2;
    }

    // ---- This run's preferences ----
    if (!output_.empty()) {
        std::error_code ec;
        defaults.setVolatileObject("outputSameAsSource", false);
        defaults.setVolatileObject("destinationDirectory",
                                   fs::absolute(output_, ec).lexically_normal().string());
    } else if (sameFolder_) {
        defaults.setVolatileObject("outputSameAsSource", true);
    }
    if (!naming_.empty()) {
        defaults.setVolatileObject("useCustomNamingScheme", true);
        defaults.setVolatileObject("customNamingScheme", naming_);
    }
    if (preserveTree_)
        defaults.setVolatileObject("preserveInputFileDirectoryStructure", true);
    if (command_->count("--jobs"))
        defaults.setVolatileObject("numProcesses", std::to_string(jobs_));
    if (deleteOriginal_)
        defaults.setVolatileObject("deleteOriginal", true);
    if (skipSameType_)
        defaults.setVolatileObject("skipFilesOfSameType", true);
    if (allowIncomplete_)
        defaults.setVolatileObject("allowIncompleteInput", true);
    const bool canAsk =
        BatchConsole::standardInputIsTerminal() && BatchConsole::standardErrorIsTerminal();
    if (!overwrite_.empty() || canAsk) {
        // Every answer goes through the question's path, so existing outputs
        // are found before anything is encoded; with nobody given an answer
        // and someone at the terminal, the question itself is asked.
        defaults.setVolatileObject("overwriteOutputFiles", true);
        defaults.setVolatileObject("promptBeforeOverwriting", true);
    }
    // Nobody to ask: the given answer applies, and without one both files stay.
    if (!canAsk && presetAnswer == ApplicationController::OverwriteHandlingAsk)
        presetAnswer = ApplicationController::OverwriteHandlingKeepBoth;

    ApplicationController controller;
    controller.setPersistsOutputFormats(false);
    if (!formats.empty())
        controller.setEncoderSettings(formats);
    controller.setInitialOverwriteHandling(presetAnswer);

    // An output format whose encoder this build lacks is refused up front
    // rather than failing once per file.
    for (const auto& settings : controller.encoderSettings()) {
        if (settings->encoderAction() != EncoderActionEncode || !settings->enabled())
            continue;
        if (!EncoderDescriptor::forType(settings->encoderType())) {
            std::string types;
            for (const std::string& name : OutputFormatArgument::typeNames())
                types += (types.empty() ? "" : ", ") + name;
            err << "velvox convert: the output format '" << settings->completeDescription()
                << "' needs an encoder this build does not have (it writes " << types << ")\n";
            return 2;
        }
    }

    const InputPaths inputs = InputPaths::check(paths_, err);
    BatchConsole console(out, err,
                         updateTags_ ? BatchConsole::Mode::Tag : BatchConsole::Mode::Convert);
    if (inputs.usable().empty())
        return 1;
    return console.run(controller, inputs.usable(), inputs.rejectedCount(), nullptr);
}

} // namespace velvox
