#include "cli/TagCommand.h"

#include <algorithm>
#include <cctype>
#include <memory>
#include <ostream>
#include <utility>

#include <CLI/CLI.hpp>

#include "cli/BatchConsole.h"
#include "cli/InputPaths.h"
#include "cli/OutputFormatArgument.h"
#include "jobs/ApplicationController.h"
#include "jobs/EncoderSettings.h"
#include "jobs/FileEncodeOperation.h"
#include "metadata/AdditionalTagMapping.h"
#include "metadata/AlbumArtwork.h"
#include "metadata/AudioMetadata.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

std::string fieldList() {
    std::string list;
    for (const std::string& name : AudioMetadata::editableFieldNames())
        list += (list.empty() ? "" : ", ") + name;
    return list;
}

bool isEditableField(const std::string& name) {
    const auto& names = AudioMetadata::editableFieldNames();
    return std::find(names.begin(), names.end(), name) != names.end();
}

// Any other tag by its property name (MUSICBRAINZ_TRACKID, a custom key),
// but not a name the fields' own tags go by: those are edited as fields.
std::string upperCase(std::string key) {
    for (char& c : key)
        c = char(std::toupper(static_cast<unsigned char>(c)));
    return key;
}

bool isAdditionalKey(const std::string& key) {
    return !key.empty() && !AdditionalTagMapping::isFieldKey(upperCase(key));
}

// Keys are the tags' names, which do not tell case apart.
void addValue(AudioMetadata::AdditionalTags& tags, const std::string& name,
              const std::string& value) {
    const std::string key = upperCase(name);
    for (auto& [held, values] : tags)
        if (held == key) {
            values.push_back(value);
            return;
        }
    tags.push_back({key, {value}});
}

} // namespace

void TagCommand::addTo(CLI::App& app) {
    command_ = app.add_subcommand("tag", "Edit the tags of files in place");
    command_
        ->add_option("--set", assignments_,
                     "Set a field, or add a value to any other tag KEY (repeatable)")
        ->type_name("FIELD=VALUE|KEY=VALUE")
        ->allow_extra_args(false);
    command_->add_option("--clear", clears_, "Remove a field or another tag (repeatable)")
        ->type_name("FIELD|KEY")
        ->allow_extra_args(false);
    command_->add_flag("--clear-all", clearAll_,
                       "Remove every field, every other tag and the picture first");
    auto* artwork =
        command_->add_option("--artwork", artwork_, "Use this picture as the album artwork")
            ->type_name("IMAGE");
    auto* clearArtwork =
        command_->add_flag("--clear-artwork", clearArtwork_, "Remove the album artwork");
    artwork->excludes(clearArtwork);
    command_->add_option("FILE", files_, "Files (or folders) to edit")->required();
    command_->footer("FIELD is one of: " + fieldList() +
                     ". KEY is any other tag by its common name (MUSICBRAINZ_TRACKID, "
                     "REPLAYGAIN_TRACK_GAIN, LABEL, a key of your own).");
}

int TagCommand::execute(std::ostream& out, std::ostream& err) const {
    if (assignments_.empty() && clears_.empty() && !clearAll_ && artwork_.empty() &&
        !clearArtwork_) {
        err << "velvox tag: nothing to change; give --set, --clear, --clear-all, --artwork or "
               "--clear-artwork\n";
        return 2;
    }
    // Every edit is checked on a scratch record before any file is touched.
    std::vector<std::pair<std::string, std::string>> sets;
    // Other keys: each --set of a key adds one value, in order.
    AudioMetadata::AdditionalTags keySets;
    AudioMetadata scratch;
    for (const std::string& assignment : assignments_) {
        const size_t equals = assignment.find('=');
        const std::string field = assignment.substr(0, equals);
        if (equals == std::string::npos || field.empty()) {
            err << "velvox tag: --set takes FIELD=VALUE or KEY=VALUE; not '" << assignment << "'\n";
            return 2;
        }
        const std::string value = assignment.substr(equals + 1);
        if (!isEditableField(field)) {
            if (!isAdditionalKey(field)) {
                err << "velvox tag: '" << field << "' is a field's tag; use FIELD, one of "
                    << fieldList() << '\n';
                return 2;
            }
            addValue(keySets, field, value);
            continue;
        }
        if (!scratch.setFieldFromText(field, value)) {
            err << "velvox tag: bad value '" << value << "' for " << field << '\n';
            return 2;
        }
        sets.emplace_back(field, value);
    }
    for (const std::string& field : clears_) {
        if (!isEditableField(field) && !isAdditionalKey(field)) {
            err << "velvox tag: '" << field << "' is a field's tag; use FIELD, one of "
                << fieldList() << '\n';
            return 2;
        }
    }
    std::shared_ptr<AlbumArtwork> picture;
    if (!artwork_.empty()) {
        picture = AlbumArtwork::albumArtworkFromFile(artwork_);
        // A file that cannot be read gives a picture without data, which
        // the writers take as "no picture": the old one would be lost.
        if (!picture || !picture->data()) {
            err << "velvox tag: " << artwork_ << ": not a picture Velvox can read\n";
            return 2;
        }
    }

    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    // In place, and the edited files stay where they are.
    defaults.setVolatileObject("renameAfterUpdatingMetadata", false);
    defaults.setVolatileObject("deleteOriginal", false);

    std::shared_ptr<EncoderSettings> update(OutputFormatArgument::parse("flac"));
    update->setEncoderAction(EncoderActionUpdateMetadata);
    ApplicationController controller;
    controller.setPersistsOutputFormats(false);
    controller.setEncoderSettings({update});

    const InputPaths inputs = InputPaths::check(files_, err);
    if (inputs.usable().empty())
        return 1;
    BatchConsole console(out, err, BatchConsole::Mode::Tag);
    auto edit = [&](const std::vector<std::shared_ptr<FileEncodeOperation>>& jobs,
                    ApplicationController& batch) {
        for (const auto& job : jobs) {
            if (batch.stopRequested())
                return true;
            std::shared_ptr<AudioMetadata> record = job->metadata();
            if (clearAll_)
                record->clearAll();
            for (const std::string& field : clears_)
                if (!record->clearField(field))
                    record->removeAdditionalTag(field);
            for (const auto& [field, value] : sets)
                record->setFieldFromText(field, value);
            for (const auto& [key, values] : keySets)
                record->setAdditionalTag(key, values);
            if (clearArtwork_)
                record->setAlbumArtwork(nullptr);
            else if (picture)
                record->setAlbumArtwork(picture);
        }
        return true;
    };
    return console.run(controller, inputs.usable(), inputs.rejectedCount(), edit);
}

} // namespace velvox
