#include "cli/FormatsCommand.h"

#include <iostream>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "cli/OutputFormatArgument.h"
#include "jobs/ApplicationController.h"
#include "jobs/EncoderSettings.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

constexpr const char* kDefaultEncoderSettingKey = "defaultEncoderSetting";

bool saveFormats(const FormatsCommand::FormatList& formats, std::optional<size_t> defaultIndex,
                 std::ostream& err) {
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    const bool saved =
        ApplicationController::saveEncoderSettings(formats) &&
        defaults.setObject(kDefaultEncoderSettingKey, nlohmann::json(defaultIndex.value_or(0)));
    if (!saved)
        err << "velvox formats: could not save the preferences to " << defaults.storePath().string()
            << '\n';
    return saved;
}

} // namespace

void FormatsCommand::addTo(CLI::App& app) {
    command_ = app.add_subcommand(
        "formats", "List the saved output formats, or add, remove, duplicate, enable, disable "
                   "one or choose the default (formats are numbered from 1)");
    command_->footer(OutputFormatArgument::syntaxHelp());
    command_->add_flag("--json", json_, "Print the list as one JSON array");
    CLI::Option* add = command_->add_option("--add", addFormat_, "Add the output format FORMAT")
                           ->type_name("FORMAT");
    CLI::Option* remove =
        command_->add_option("--remove", removeNumber_, "Remove format N")->type_name("N");
    CLI::Option* duplicate =
        command_
            ->add_option("--duplicate", duplicateNumber_, "Copy format N (the copy is disabled)")
            ->type_name("N");
    CLI::Option* enable =
        command_->add_option("--enable", enableNumber_, "Enable format N")->type_name("N");
    CLI::Option* disable =
        command_->add_option("--disable", disableNumber_, "Disable format N")->type_name("N");
    CLI::Option* makeDefault =
        command_->add_option("--default", defaultNumber_, "Make format N the default")
            ->type_name("N");
    // One change a run: the numbers of a second one would depend on the first.
    const std::vector<CLI::Option*> actions = {add,    remove,  duplicate,
                                               enable, disable, makeDefault};
    for (CLI::Option* a : actions)
        for (CLI::Option* b : actions)
            if (a != b)
                a->excludes(b);
}

FormatsCommand::FormatList FormatsCommand::savedFormats() {
    return ApplicationController::savedEncoderSettings();
}

std::optional<size_t> FormatsCommand::defaultFormatIndex(size_t count) {
    const auto stored =
        UserDefaults::standardUserDefaults().objectForKey(kDefaultEncoderSettingKey);
    if (!stored)
        return std::nullopt;
    const long long index =
        UserDefaults::standardUserDefaults().integerForKey(kDefaultEncoderSettingKey);
    if (index < 0 || static_cast<unsigned long long>(index) >= count)
        return std::nullopt;
    return static_cast<size_t>(index);
}

int FormatsCommand::listFormats(const FormatList& formats, std::optional<size_t> defaultIndex,
                                std::ostream& out) const {
    if (json_) {
        nlohmann::ordered_json all = nlohmann::ordered_json::array();
        for (size_t i = 0; i < formats.size(); ++i) {
            nlohmann::ordered_json entry = nlohmann::ordered_json::object();
            entry["number"] = i + 1;
            entry["default"] = defaultIndex == i;
            entry["enabled"] = formats[i]->enabled();
            entry["description"] = formats[i]->completeDescription();
            entry["settings"] = formats[i]->settingsDictionary();
            all.push_back(std::move(entry));
        }
        out << all.dump(2) << '\n';
        return 0;
    }
    if (formats.empty()) {
        out << "No output formats.\n";
        return 0;
    }
    for (size_t i = 0; i < formats.size(); ++i) {
        out << (i + 1) << ". " << formats[i]->completeDescription();
        if (defaultIndex == i)
            out << "  [default]";
        if (!formats[i]->enabled())
            out << "  [disabled]";
        out << '\n';
    }
    return 0;
}

int FormatsCommand::execute(std::ostream& out, std::ostream& err) const {
    FormatList formats = savedFormats();
    std::optional<size_t> defaultIndex = defaultFormatIndex(formats.size());

    // The 0-based index of a number given to an option, or none after
    // telling the user what is wrong with it.
    auto indexFor = [&](int number, const char* option) -> std::optional<size_t> {
        if (number >= 1 && static_cast<size_t>(number) <= formats.size())
            return static_cast<size_t>(number - 1);
        err << "velvox formats " << option << ": there is no output format " << number
            << (formats.empty()
                    ? std::string(" (there are none)")
                    : " (there are " + std::to_string(formats.size()) + ", numbered from 1)")
            << '\n';
        return std::nullopt;
    };

    if (command_->count("--add")) {
        std::unique_ptr<EncoderSettings> added;
        try {
            added = OutputFormatArgument::parse(addFormat_);
        } catch (const OutputFormatArgument::UsageError& e) {
            err << "velvox formats --add: " << e.what() << '\n';
            return 2;
        }
        for (size_t i = 0; i < formats.size(); ++i) {
            if (added->isDuplicateOf(*formats[i])) {
                err << "velvox formats --add: '" << addFormat_ << "' ("
                    << added->completeDescription()
                    << ") would make the same files as output format " << (i + 1) << " ("
                    << formats[i]->completeDescription() << "); not added\n";
                return 1;
            }
        }
        formats.push_back(std::move(added));
        if (!defaultIndex)
            defaultIndex = 0;
    } else if (command_->count("--remove")) {
        const auto index = indexFor(removeNumber_, "--remove");
        if (!index)
            return 2;
        if (formats.size() == 1) {
            err << "velvox formats --remove: output format 1 is the only one and stays; add "
                   "another first\n";
            return 1;
        }
        formats.erase(formats.begin() + std::ptrdiff_t(*index));
        if (defaultIndex && *defaultIndex > *index)
            defaultIndex = *defaultIndex - 1;
        else if (defaultIndex == *index)
            defaultIndex = 0;
    } else if (command_->count("--duplicate")) {
        const auto index = indexFor(duplicateNumber_, "--duplicate");
        if (!index)
            return 2;
        // The copy comes right after its original and starts disabled, so
        // that a batch does not make the same file twice before it is changed.
        auto copy = formats[*index]->copy();
        copy->setEnabled(false);
        formats.insert(formats.begin() + std::ptrdiff_t(*index + 1), std::move(copy));
        if (defaultIndex && *defaultIndex > *index)
            defaultIndex = *defaultIndex + 1;
    } else if (command_->count("--enable") || command_->count("--disable")) {
        const bool enable = command_->count("--enable") != 0;
        const auto index =
            indexFor(enable ? enableNumber_ : disableNumber_, enable ? "--enable" : "--disable");
        if (!index)
            return 2;
        formats[*index]->setEnabled(enable);
    } else if (command_->count("--default")) {
        const auto index = indexFor(defaultNumber_, "--default");
        if (!index)
            return 2;
        defaultIndex = *index;
    } else {
        return listFormats(formats, defaultIndex, out);
    }

    if (!saveFormats(formats, defaultIndex, err))
        return 1;
    return listFormats(formats, defaultIndex, out);
}

} // namespace velvox
