#pragma once
// The one list of formats this build reads and writes, in the order the
// decoder factory tries them, plus the fallback decoders that read whatever
// no row claims. Programs install the built-in rows once at start-up
// (FormatTable::installBuiltinFormats); tests may add rows of their own.
//
// Thread contract: install/addEntry/removeEntry from the main thread before
// or between batches; every lookup from any thread (each works on a snapshot).

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "core/FormatEntry.h"

namespace velvox {

class FormatRegistry {
public:
    using Entries = std::vector<const FormatEntry*>;

    static void install(Entries entries, std::vector<const DecoderClass*> fallbackDecoders);
    static void addEntry(const FormatEntry* entry);
    static void removeEntry(const FormatEntry* entry);

    static std::shared_ptr<const Entries> entries();
    static std::vector<const DecoderClass*> fallbackDecoders();
    static const FormatEntry* entryNamed(std::string_view name);

    // The family a file belongs to. `entry` is null when no row claims the
    // extension, or when an Ogg file's first packet is not valid or of a
    // codec no row reads; `oggStreamType` then says which.
    struct Match {
        const FormatEntry* entry = nullptr;
        bool extensionKnown = false;
        bool isOgg = false;
        OggStreamType oggStreamType = OggStreamTypeUnknown;
    };
    // Reads the file's first Ogg page when its extension is an Ogg one.
    static Match match(const std::string& path);

    // Whether intake takes the file: its extension belongs to a row.
    static bool isAcceptedFile(const std::string& path);
    // Every accepted extension, in row order, each once.
    static std::vector<std::string> acceptedExtensions();
};

} // namespace velvox
