#pragma once
// The record's second channel of tags: every text tag of a source that no
// field of the record takes (MusicBrainz identifiers, ReplayGain, sort
// names, custom keys, ...), and the several values of a field that the record
// can only hold as one text.
//
// Keys are TagLib's property names, which already follow the conventions the
// tagging tools share across Xiph comments, ID3v2, APE, MP4, ASF and RIFF
// INFO. What TagLib does not map is added here: free-form MP4 items and ASF
// attributes under their own names both ways, and the joining of several
// values for tags that hold one. Every function runs on the tagging thread.

#include <optional>
#include <string>
#include <vector>

#include "metadata/AudioMetadata.h"

namespace TagLib {
class PropertyMap;
namespace RIFF::Info {
class Tag;
}
} // namespace TagLib

namespace velvox {

class AdditionalTagMapping {
public:
    // ---- Reading ----
    // Adds the properties of one tag that no record field takes, keeping a
    // key an earlier (higher-precedence) tag already gave.
    static void addFromProperties(const TagLib::PropertyMap& properties, AudioMetadata& metadata);
    // The whole of one tag of each kind, free-form items included, and the
    // ID3v2 frames TagLib has no name for.
    static TagLib::PropertyMap propertiesOf(const TagLib::ID3v2::Tag& tag);
    static TagLib::PropertyMap propertiesOf(const TagLib::MP4::Tag& tag);
    static TagLib::PropertyMap propertiesOf(const TagLib::ASF::Tag& tag);

    // ---- Writing ----
    // Each makes the tag's other tags exactly the record's: entries no
    // field owns are removed, then the record's additional tags are added.
    // `encodedByWritten`: the writer has put its own encoded-by text in, so
    // the source's encoding-software keys are not carried beside it.
    static void writeXiph(TagLib::Ogg::XiphComment& tag, const AudioMetadata& metadata,
                          bool encodedByWritten);
    static void writeID3v2(TagLib::ID3v2::Tag& tag, const AudioMetadata& metadata,
                           bool encodedByWritten);
    static void writeAPE(TagLib::APE::Tag& tag, const AudioMetadata& metadata,
                         bool encodedByWritten);
    static void writeMP4(TagLib::MP4::Tag& tag, const AudioMetadata& metadata,
                         bool encodedByWritten);
    static void writeASF(TagLib::ASF::Tag& tag, const AudioMetadata& metadata,
                         bool encodedByWritten);
    // RIFF INFO holds one value per field: several are joined with "; ".
    static void writeInfo(TagLib::RIFF::Info::Tag& tag, const AudioMetadata& metadata,
                          bool encodedByWritten);

    // A field's text for a tag kind that holds one value: the source's
    // values joined with "; " while the field still holds what was read from
    // them, else the field itself. `key` is the field's property name.
    static std::optional<std::string> singleValue(const AudioMetadata& metadata,
                                                  const std::string& key,
                                                  const std::optional<std::string>& field);

    // Whether a property name is one the record's fields take.
    static bool isFieldKey(const std::string& key);
};

} // namespace velvox
