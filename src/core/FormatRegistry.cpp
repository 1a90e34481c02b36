#include "core/FormatRegistry.h"

#include <algorithm>
#include <mutex>

#include "platform/StringFormat.h"

namespace velvox {

namespace {

struct State {
    std::mutex mutex;
    std::shared_ptr<const FormatRegistry::Entries> entries =
        std::make_shared<FormatRegistry::Entries>();
    std::vector<const DecoderClass*> fallback;
};

State& state() {
    static State s;
    return s;
}

bool holds(const FormatEntry& entry, const std::string& extension) {
    return std::find(entry.extensions.begin(), entry.extensions.end(), extension) !=
           entry.extensions.end();
}

} // namespace

void FormatRegistry::install(Entries entries, std::vector<const DecoderClass*> fallbackDecoders) {
    std::lock_guard lock(state().mutex);
    state().entries = std::make_shared<const Entries>(std::move(entries));
    state().fallback = std::move(fallbackDecoders);
}

void FormatRegistry::addEntry(const FormatEntry* entry) {
    std::lock_guard lock(state().mutex);
    auto copy = std::make_shared<Entries>(*state().entries);
    if (std::find(copy->begin(), copy->end(), entry) == copy->end())
        copy->push_back(entry);
    state().entries = std::move(copy);
}

void FormatRegistry::removeEntry(const FormatEntry* entry) {
    std::lock_guard lock(state().mutex);
    auto copy = std::make_shared<Entries>(*state().entries);
    copy->erase(std::remove(copy->begin(), copy->end(), entry), copy->end());
    state().entries = std::move(copy);
}

std::shared_ptr<const FormatRegistry::Entries> FormatRegistry::entries() {
    std::lock_guard lock(state().mutex);
    return state().entries;
}

std::vector<const DecoderClass*> FormatRegistry::fallbackDecoders() {
    std::lock_guard lock(state().mutex);
    return state().fallback;
}

const FormatEntry* FormatRegistry::entryNamed(std::string_view name) {
    for (const FormatEntry* entry : *entries())
        if (name == entry->name)
            return entry;
    return nullptr;
}

FormatRegistry::Match FormatRegistry::match(const std::string& path) {
    Match result;
    const std::string extension = lowercaseExtension(path);
    const auto all = entries();
    const auto first = std::find_if(all->begin(), all->end(),
                                    [&](const FormatEntry* e) { return holds(*e, extension); });
    if (first == all->end())
        return result;
    result.extensionKnown = true;
    if ((*first)->recognition == FormatRecognition::Extension) {
        result.entry = *first;
        return result;
    }
    // The Ogg families share their extensions; the stream's first packet
    // tells them apart.
    result.isOgg = true;
    result.oggStreamType = oggStreamType(path);
    for (const FormatEntry* entry : *all)
        if (entry->recognition == FormatRecognition::OggStream &&
            entry->oggStreamType == result.oggStreamType && holds(*entry, extension)) {
            result.entry = entry;
            break;
        }
    return result;
}

bool FormatRegistry::isAcceptedFile(const std::string& path) {
    const std::string extension = lowercaseExtension(path);
    const auto all = entries();
    return std::any_of(all->begin(), all->end(),
                       [&](const FormatEntry* e) { return holds(*e, extension); });
}

std::vector<std::string> FormatRegistry::acceptedExtensions() {
    std::vector<std::string> out;
    for (const FormatEntry* entry : *entries())
        for (const std::string& extension : entry->extensions)
            if (std::find(out.begin(), out.end(), extension) == out.end())
                out.push_back(extension);
    return out;
}

} // namespace velvox
