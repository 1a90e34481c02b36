#include "metadata/TagFidelity.h"

#include <algorithm>
#include <filesystem>
#include <system_error>

#include "metadata/AdditionalTagMapping.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

bool present(const std::optional<std::string>& text) { return text && !text->empty(); }
// A count or year of 0 is "none" to most tag kinds.
bool present(const std::optional<int64_t>& number) { return number && *number != 0; }

bool isEncodedByKey(const std::string& key) {
    return key == "ENCODEDBY" || key == "ENCODED BY" || key == "ENCODER";
}

void checkFields(const AudioMetadata& w, const AudioMetadata& r, std::vector<std::string>& lost) {
    auto text = [&](const char* name,
                    const std::optional<std::string>& (AudioMetadata::*get)() const) {
        if (present((w.*get)()) && !present((r.*get)()))
            lost.emplace_back(name);
    };
    auto number = [&](const char* name, std::optional<int64_t> (AudioMetadata::*get)() const) {
        if (present((w.*get)()) && !present((r.*get)()))
            lost.emplace_back(name);
    };
    text("TITLE", &AudioMetadata::trackTitle);
    text("ARTIST", &AudioMetadata::trackArtist);
    text("ALBUM", &AudioMetadata::albumTitle);
    text("ALBUMARTIST", &AudioMetadata::albumArtist);
    text("COMPOSER", &AudioMetadata::trackComposer);
    number("DATE", &AudioMetadata::trackYear);
    text("GENRE", &AudioMetadata::trackGenre);
    text("COMMENT", &AudioMetadata::trackComment);
    number("TRACKNUMBER", &AudioMetadata::trackNumber);
    number("TRACKTOTAL", &AudioMetadata::totalTracks);
    number("DISCNUMBER", &AudioMetadata::discNumber);
    number("DISCTOTAL", &AudioMetadata::discTotal);
    text("GROUPING", &AudioMetadata::grouping);
    text("LYRICS", &AudioMetadata::lyrics);
    number("BPM", &AudioMetadata::bpm);
    // Only a true flag is a tag; false is written as no flag by some kinds.
    if (w.partOfACompilation().value_or(false) && !r.partOfACompilation().value_or(false))
        lost.emplace_back("COMPILATION");
    text("COPYRIGHT", &AudioMetadata::trackCopyright);
    text("ISRC", &AudioMetadata::ISRC);
    text("KEY", &AudioMetadata::key);
}

void checkPicture(const AudioMetadata& w, const AudioMetadata& r, std::vector<std::string>& lost) {
    const auto& written = w.albumArtwork();
    if (!written || !written->data() || written->data()->empty())
        return;
    const auto& read = r.albumArtwork();
    const bool arrived = read && read->data() && *read->data() == *written->data();
    if (!arrived)
        lost.emplace_back("PICTURE");
    if (present(written->comments()) && (!arrived || read->comments() != written->comments()))
        lost.emplace_back("PICTURE DESCRIPTION");
}

void checkAdditional(const AudioMetadata& w, const AudioMetadata& r,
                     std::vector<std::string>& lost) {
    for (const auto& [key, values] : w.additionalTags()) {
        const std::vector<std::string>* arrived = r.additionalTag(key);
        if (AdditionalTagMapping::isFieldKey(key)) {
            // Several values of a field count only while the field still
            // holds them (the writers follow the field once it is edited).
            const std::optional<std::string> single =
                AdditionalTagMapping::singleValue(w, key, std::nullopt);
            if (!single)
                continue;
        }
        // Velvox's own encoded-by text takes the place of the source's.
        if (isEncodedByKey(key) && (r.additionalTag("ENCODEDBY") || r.additionalTag("ENCODER")))
            continue;
        // A field lost whole is named once.
        if ((!arrived || *arrived != values) &&
            std::find(lost.begin(), lost.end(), key) == lost.end())
            lost.push_back(key);
    }
}

} // namespace

std::vector<std::string> TagFidelity::lostTags(const AudioMetadata& written,
                                               const AudioMetadata& readBack) {
    std::vector<std::string> lost;
    checkFields(written, readBack, lost);
    checkPicture(written, readBack, lost);
    checkAdditional(written, readBack, lost);
    return lost;
}

std::vector<std::string> TagFidelity::lostTagsInFile(const AudioMetadata& written,
                                                     const std::string& path,
                                                     const std::string& extension) {
    namespace fs = std::filesystem;
    std::error_code ec;
    fs::path readable(path);
    fs::path linkFolder;
    if (!extension.empty() && readable.extension() != "." + extension) {
        // The readers choose by extension: read through a link that has it.
        linkFolder =
            fs::path(path).parent_path() / (fs::path(path).filename().string() + ".readback");
        fs::create_directory(linkFolder, ec);
        readable = linkFolder / ("tags." + extension);
        fs::create_symlink(fs::absolute(path, ec), readable, ec);
    }
    const std::vector<std::string> lost =
        lostTags(written, *AudioMetadata::tagsFromFile(readable.string()));
    if (!linkFolder.empty())
        fs::remove_all(linkFolder, ec);
    return lost;
}

std::string TagFidelity::reportLine(const std::string& inputName, const std::string& formatName,
                                    const std::vector<std::string>& lost) {
    std::string names;
    for (const std::string& name : lost)
        names += (names.empty() ? "" : ", ") + name;
    return stringWithFormat("%@ Output Of %@ Could Not Hold These Tags: %@", formatName, inputName,
                            names);
}

} // namespace velvox
