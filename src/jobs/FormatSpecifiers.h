#pragma once
// The naming-template language: "{...}" groups that name a value of the file
// being converted ("{trackNumber - }{trackTitle}"). A group that mentions a
// specifier loses its braces and has the name replaced by the value, keeping
// its other text; when the value is missing the whole group vanishes, so the
// " - " of a missing track number goes with it. The same expansion names
// output files, fills the comment tag, names playlists and artwork files.
//
// Text is UTF-8 and handled as bytes: "{", "}" and "/" never occur inside a
// multi-byte sequence, so byte positions are safe to cut at.

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "metadata/AudioMetadata.h"

namespace velvox {

class EncoderSettings;

class FormatSpecifiers {
public:
    // A byte range of a string: from location, length bytes.
    struct Range {
        size_t location = 0;
        size_t length = 0;
        bool operator==(const Range&) const = default;
    };

    // The specifier names in the order in which they are looked for: the
    // first one found inside a group decides what the group becomes.
    static const std::vector<std::string>& specifierNames();

    // The innermost group (braces included) that contains any of the names
    // anywhere in its text; of several equally deep ones, the last. Stray
    // braces never pair with anything.
    static std::optional<Range>
    rangeOfDeepestBracketContainingAnyFormatSpecifier(const std::string& text,
                                                      const std::vector<std::string>& names);

    // Every group inside the range whose inner text contains the specifier
    // loses its braces and has the name replaced by the value. The specifier
    // may be given with or without its braces.
    static void replaceFormatSpecifier(std::string& text, std::string_view specifier,
                                       std::string_view value, Range range);
    static void replaceFormatSpecifier(std::string& text, std::string_view specifier,
                                       std::string_view value);

    // Every group inside the range whose inner text contains the specifier is
    // deleted, braces and literal text included.
    static void removeFormatSpecifier(std::string& text, std::string_view specifier, Range range);
    static void removeFormatSpecifier(std::string& text, std::string_view specifier);

    // Hands the expansion to the metadata reader, which names picture files
    // beside the source with a template but cannot depend on this subsystem.
    static void installAsFilenamePatternExpander();
};

// Expands a naming template against one file. An absent or empty template
// means "{sourceFilename}". Any of metadata, settings and input path may be
// missing: their specifiers then count as missing (the artist, album and
// composer defaults still apply, and the output rate and channels are the
// source's, as they are for settings that keep the source's). With
// sanitizeValues every value (never the template's own text) goes through
// safeFilename, as it must when the result names a file; comment and playlist
// texts keep values verbatim.
std::string expandFormatSpecifiers(const std::optional<std::string>& templ,
                                   const AudioMetadata* metadata, const EncoderSettings* settings,
                                   const std::optional<std::string>& inputPath,
                                   bool sanitizeValues);

// One name that every file system the user chose to care about accepts:
// "/" becomes ":" by default; with Windows-safe names on, the Windows (and,
// with SMB-safe names, the SMB) reserved characters become the user's
// replacement text.
std::string safeFilename(const std::string& name);

// The path itself when nothing is there yet, else the first free
// "name 2.ext", "name 3.ext", ... in the same folder.
std::string uniquePathForPath(const std::string& path);
// The path's `number`th name in that sequence (1 is the path itself).
std::string numberedPath(const std::string& path, unsigned long number);

} // namespace velvox
