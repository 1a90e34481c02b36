#pragma once
// What an output's tags could not hold of the record written into them.
//
// Rather than a table of what each tag kind can hold, the output is read
// back with the same readers as any source and compared with the record:
// whatever did not arrive is named, in the record's property names (TITLE,
// ARTIST, MUSICBRAINZ_TRACKID, ...; PICTURE and PICTURE DESCRIPTION for the
// picture). A field or key of several values that arrived as one is named
// too. Runs on the tagging thread.

#include <string>
#include <vector>

#include "metadata/AudioMetadata.h"

namespace velvox {

class TagFidelity {
public:
    // The names of what `written` holds and `readBack` lacks, in record order.
    static std::vector<std::string> lostTags(const AudioMetadata& written,
                                             const AudioMetadata& readBack);
    // The same for a file that was tagged from `written`. `extension` is the
    // output's own (a temporary file has none, and the readers go by it).
    static std::vector<std::string> lostTagsInFile(const AudioMetadata& written,
                                                   const std::string& path,
                                                   const std::string& extension);
    // The error-log line naming them.
    static std::string reportLine(const std::string& inputName, const std::string& formatName,
                                  const std::vector<std::string>& lost);
};

} // namespace velvox
