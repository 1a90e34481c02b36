#include "metadata/AdditionalTagMapping.h"

#include <algorithm>
#include <memory>
#include <set>

#include <taglib/apetag.h>
#include <taglib/asftag.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/id3v2tag.h>
#include <taglib/infotag.h>
#include <taglib/mp4tag.h>
#include <taglib/textidentificationframe.h>
#include <taglib/tpropertymap.h>
#include <taglib/xiphcomment.h>

namespace velvox {

namespace {

TagLib::String text(const std::string& utf8) { return TagLib::String(utf8, TagLib::String::UTF8); }
std::string utf8(const TagLib::String& s) { return s.to8Bit(true); }

std::string upper(std::string key) {
    for (char& c : key)
        if (c >= 'a' && c <= 'z')
            c = char(c - 'a' + 'A');
    return key;
}

std::string joined(const std::vector<std::string>& values, const char* separator) {
    std::string out;
    for (const std::string& value : values)
        out += (out.empty() ? "" : separator) + value;
    return out;
}

// The source's encoding software: replaced, not carried, when the writer
// puts Velvox's own encoded-by text in.
bool isEncodedByKey(const std::string& key) {
    return key == "ENCODEDBY" || key == "ENCODED BY" || key == "ENCODER";
}

// The field a property of several values fills with one text.
const std::optional<std::string>* multiValueField(const AudioMetadata& metadata,
                                                  const std::string& key) {
    if (key == "ARTIST")
        return &metadata.trackArtist();
    if (key == "ALBUMARTIST")
        return &metadata.albumArtist();
    if (key == "COMPOSER")
        return &metadata.trackComposer();
    if (key == "GENRE")
        return &metadata.trackGenre();
    return nullptr;
}

// The source's several values of a field, while the field still holds what
// the reading rules made of them (a single text or the values joined by a
// blank or a comma). Once the user has edited the field, the field alone
// counts.
const std::vector<std::string>* heldValues(const AudioMetadata& metadata, const std::string& key) {
    const std::optional<std::string>* field = multiValueField(metadata, key);
    const std::vector<std::string>* values = metadata.additionalTag(key);
    if (!field || !*field || !values || values->size() < 2)
        return nullptr;
    // TagLib joins them with a blank, or with ", " for MP4 items.
    if (**field == joined(*values, " ") || **field == joined(*values, ", ") ||
        **field == values->front())
        return values;
    return nullptr;
}

// Whether a property of an output tag belongs to the second channel, which
// the writer rebuilds from the record, rather than to a field just written.
bool isCarried(const std::string& key, bool encodedByWritten) {
    return !AdditionalTagMapping::isFieldKey(key) && !(encodedByWritten && isEncodedByKey(key));
}

bool allCarried(const TagLib::PropertyMap& properties, bool encodedByWritten) {
    if (properties.isEmpty())
        return false;
    return std::all_of(properties.begin(), properties.end(), [&](const auto& entry) {
        return isCarried(upper(utf8(entry.first)), encodedByWritten);
    });
}

// What to write: the additional tags, and the several values of a field
// that still holds them. `joinWith` folds values for a kind that holds one.
TagLib::PropertyMap propertiesToWrite(const AudioMetadata& metadata, bool encodedByWritten,
                                      const char* joinWith = nullptr) {
    TagLib::PropertyMap properties;
    for (const auto& [key, values] : metadata.additionalTags()) {
        if (encodedByWritten && isEncodedByKey(key))
            continue;
        if (AdditionalTagMapping::isFieldKey(key) && !heldValues(metadata, key))
            continue;
        TagLib::StringList list;
        if (joinWith)
            list.append(text(joined(values, joinWith)));
        else
            for (const std::string& value : values)
                list.append(text(value));
        properties.insert(text(key), list);
    }
    return properties;
}

// The name of a free-form MP4 item ("----:com.apple.iTunes:NAME").
std::string freeFormName(const std::string& atom) {
    const size_t colon = atom.rfind(':');
    return colon == std::string::npos ? std::string() : atom.substr(colon + 1);
}

constexpr const char* kFreeFormPrefix = "----:com.apple.iTunes:";

// Text frames the tagging tools use that TagLib 1.13 gives no property name.
constexpr std::pair<const char*, const char*> kUnnamedID3v2Frames[] = {
    {"TSST", "DISCSUBTITLE"},
};

// Gapless and level facts of the source's encode, which do not hold for ours.
bool isEncoderFreeForm(const std::string& name) {
    const std::string key = upper(name);
    return key == "ITUNSMPB" || key == "ITUNNORM";
}

// Attributes that describe the ASF file rather than the music; the "WM/"
// ones TagLib leaves unnamed are either record fields or such facts.
bool isTechnicalAttribute(const std::string& name) {
    return name.starts_with("WM/") || name == "WMFSDKVersion" || name == "WMFSDKNeeded" ||
           name == "IsVBR" || name == "DeviceConformanceTemplate" || name == "Copyright";
}

TagLib::PropertyMap probe(const TagLib::String& key, const TagLib::MP4::Item& item) {
    TagLib::MP4::Tag single;
    single.setItem(key, item);
    return single.properties();
}

TagLib::PropertyMap probe(const TagLib::String& name, const TagLib::ASF::AttributeList& list) {
    TagLib::ASF::Tag single;
    single.setAttribute(name, list);
    return single.properties();
}

} // namespace

bool AdditionalTagMapping::isFieldKey(const std::string& key) {
    // Every name the reading rules take into a field, in every tag kind,
    // and the picture fields of a Xiph comment. TagLib 1.13 calls ID3v2's
    // TIT1 and ASF's content group, which the record reads as the grouping,
    // WORK.
    static const std::set<std::string> names = {
        "TITLE",       "ARTIST",         "AUTHOR",
        "ALBUM",       "YEAR",           "DATE",
        "DESCRIPTION", "COMMENT",        "TRACKNUMBER",
        "TRACKNUM",    "TRACK",          "TRACKTOTAL",
        "TOTALTRACKS", "DISCNUMBER",     "DISCNUM",
        "DISC",        "DISCTOTAL",      "TOTALDISCS",
        "GENRE",       "GROUPING",       "CONTENTGROUP",
        "WORK",        "COMPOSER",       "ALBUMARTIST",
        "LYRICS",      "UNSYNCEDLYRICS", "BPM",
        "KEY",         "INITIALKEY",     "ISRC",
        "COMPILATION", "COPYRIGHT",      "METADATA_BLOCK_PICTURE",
        "COVERART",    "COVERARTMIME",   "APIC"};
    return names.contains(key);
}

void AdditionalTagMapping::addFromProperties(const TagLib::PropertyMap& properties,
                                             AudioMetadata& metadata) {
    for (const auto& [name, values] : properties) {
        const std::string key = upper(utf8(name));
        if (key.empty() || metadata.additionalTag(key))
            continue;
        std::vector<std::string> list;
        for (const TagLib::String& value : values)
            list.push_back(utf8(value));
        if (list.empty())
            continue;
        // A field's single value is the field's; several also travel here.
        if (isFieldKey(key) && (!multiValueField(metadata, key) || list.size() < 2))
            continue;
        metadata.setAdditionalTag(key, std::move(list));
    }
}

TagLib::PropertyMap AdditionalTagMapping::propertiesOf(const TagLib::ID3v2::Tag& tag) {
    TagLib::PropertyMap properties = tag.properties();
    for (const auto& [id, name] : kUnnamedID3v2Frames) {
        const auto found = tag.frameListMap().find(id);
        if (found == tag.frameListMap().end() || properties.contains(name))
            continue;
        for (const TagLib::ID3v2::Frame* frame : found->second)
            if (const auto* text =
                    dynamic_cast<const TagLib::ID3v2::TextIdentificationFrame*>(frame))
                properties[name].append(text->fieldList());
    }
    return properties;
}

TagLib::PropertyMap AdditionalTagMapping::propertiesOf(const TagLib::MP4::Tag& tag) {
    TagLib::PropertyMap properties = tag.properties();
    for (const auto& [atom, item] : tag.itemMap()) {
        const std::string name = freeFormName(atom.to8Bit(false));
        if (!atom.startsWith("----:") || name.empty() || isEncoderFreeForm(name) ||
            !probe(atom, item).isEmpty())
            continue;
        const TagLib::StringList values = item.toStringList();
        if (!values.isEmpty() && !properties.contains(text(upper(name))))
            properties.insert(text(upper(name)), values);
    }
    return properties;
}

TagLib::PropertyMap AdditionalTagMapping::propertiesOf(const TagLib::ASF::Tag& tag) {
    TagLib::PropertyMap properties = tag.properties();
    for (const auto& [name, attributes] : tag.attributeListMap()) {
        if (isTechnicalAttribute(utf8(name)) || !probe(name, attributes).isEmpty())
            continue;
        TagLib::StringList values;
        for (const TagLib::ASF::Attribute& attribute : attributes)
            if (attribute.type() == TagLib::ASF::Attribute::UnicodeType)
                values.append(attribute.toString());
        if (!values.isEmpty() && !properties.contains(text(upper(utf8(name)))))
            properties.insert(text(upper(utf8(name))), values);
    }
    return properties;
}

std::optional<std::string>
AdditionalTagMapping::singleValue(const AudioMetadata& metadata, const std::string& key,
                                  const std::optional<std::string>& field) {
    if (const std::vector<std::string>* values = heldValues(metadata, key))
        return joined(*values, "; ");
    return field;
}

void AdditionalTagMapping::writeXiph(TagLib::Ogg::XiphComment& tag, const AudioMetadata& metadata,
                                     bool encodedByWritten) {
    std::vector<TagLib::String> stale;
    for (const auto& [name, values] : tag.fieldListMap())
        if (isCarried(upper(utf8(name)), encodedByWritten))
            stale.push_back(name);
    for (const TagLib::String& name : stale)
        tag.removeFields(name);
    for (const auto& [key, values] : propertiesToWrite(metadata, encodedByWritten)) {
        tag.removeFields(key);
        for (const TagLib::String& value : values)
            tag.addField(key, value, false);
    }
}

void AdditionalTagMapping::writeID3v2(TagLib::ID3v2::Tag& tag, const AudioMetadata& metadata,
                                      bool encodedByWritten) {
    // The ID3v2 writer starts from an empty tag, so nothing is stale here.
    // TagLib builds the frames (TXXX for names without a frame of their
    // own, UFID for the MusicBrainz recording id) in a scratch tag.
    TagLib::PropertyMap properties = propertiesToWrite(metadata, encodedByWritten);
    for (const auto& [id, name] : kUnnamedID3v2Frames) {
        if (!properties.contains(name))
            continue;
        auto frame = std::make_unique<TagLib::ID3v2::TextIdentificationFrame>(
            TagLib::ByteVector(id), TagLib::ID3v2::FrameFactory::instance()->defaultTextEncoding());
        frame->setText(properties[name]);
        properties.erase(name);
        tag.removeFrames(id);
        tag.addFrame(frame.release()); // the tag owns its frames
    }
    TagLib::ID3v2::Tag scratch;
    scratch.setProperties(properties);
    // No copy of the scratch tag's list is kept: copies share its storage,
    // and with it the duty to delete the frames.
    while (!scratch.frameList().isEmpty()) {
        TagLib::ID3v2::Frame* frame = scratch.frameList().front();
        const TagLib::ByteVector id = frame->frameID();
        // A field's frame written with one text gives way to its values.
        if (id.startsWith("T") && id != "TXXX")
            tag.removeFrames(id);
        scratch.removeFrame(frame, false);
        tag.addFrame(frame); // the tag owns the frame from here on
    }
}

void AdditionalTagMapping::writeAPE(TagLib::APE::Tag& tag, const AudioMetadata& metadata,
                                    bool encodedByWritten) {
    std::vector<TagLib::String> stale;
    for (const auto& [key, item] : tag.itemListMap()) {
        if (item.type() != TagLib::APE::Item::Text)
            continue; // pictures and other binary items are the fields' own
        TagLib::APE::Tag single;
        single.setItem(key, item);
        if (allCarried(single.properties(), encodedByWritten))
            stale.push_back(key);
    }
    for (const TagLib::String& key : stale)
        tag.removeItem(key);
    TagLib::APE::Tag scratch;
    scratch.setProperties(propertiesToWrite(metadata, encodedByWritten));
    for (const auto& [key, item] : scratch.itemListMap())
        tag.setItem(key, item);
}

void AdditionalTagMapping::writeMP4(TagLib::MP4::Tag& tag, const AudioMetadata& metadata,
                                    bool encodedByWritten) {
    std::vector<TagLib::String> stale;
    for (const auto& [atom, item] : tag.itemMap()) {
        const TagLib::PropertyMap properties = probe(atom, item);
        const std::string name = freeFormName(atom.to8Bit(false));
        const bool freeForm = atom.startsWith("----:") && properties.isEmpty() &&
                              !isEncoderFreeForm(name) && !isFieldKey(upper(name));
        if (freeForm || allCarried(properties, encodedByWritten))
            stale.push_back(atom);
    }
    for (const TagLib::String& atom : stale)
        tag.removeItem(atom);
    TagLib::MP4::Tag scratch;
    const TagLib::PropertyMap unnamed =
        scratch.setProperties(propertiesToWrite(metadata, encodedByWritten));
    for (const auto& [atom, item] : scratch.itemMap())
        tag.setItem(atom, item);
    // TagLib names only the keys it knows; the rest go to free-form items
    // under their own names, as the tagging tools write them.
    for (const auto& [key, values] : unnamed)
        tag.setItem(TagLib::String(kFreeFormPrefix) + key, TagLib::MP4::Item(values));
}

void AdditionalTagMapping::writeASF(TagLib::ASF::Tag& tag, const AudioMetadata& metadata,
                                    bool encodedByWritten) {
    std::vector<TagLib::String> stale;
    for (const auto& [name, attributes] : tag.attributeListMap()) {
        const TagLib::PropertyMap properties = probe(name, attributes);
        const bool freeForm = properties.isEmpty() && !isTechnicalAttribute(utf8(name));
        if (freeForm || allCarried(properties, encodedByWritten))
            stale.push_back(name);
    }
    for (const TagLib::String& name : stale)
        tag.removeItem(name);
    TagLib::ASF::Tag scratch;
    const TagLib::PropertyMap unnamed =
        scratch.setProperties(propertiesToWrite(metadata, encodedByWritten));
    for (const auto& [name, attributes] : scratch.attributeListMap())
        tag.setAttribute(name, attributes);
    for (const auto& [key, values] : unnamed) {
        TagLib::ASF::AttributeList attributes;
        for (const TagLib::String& value : values)
            attributes.append(TagLib::ASF::Attribute(value));
        tag.setAttribute(key, attributes);
    }
}

void AdditionalTagMapping::writeInfo(TagLib::RIFF::Info::Tag& tag, const AudioMetadata& metadata,
                                     bool encodedByWritten) {
    std::vector<TagLib::ByteVector> stale;
    for (const auto& [id, value] : tag.fieldListMap()) {
        TagLib::RIFF::Info::Tag single;
        single.setFieldText(id, value);
        if (allCarried(single.properties(), encodedByWritten))
            stale.push_back(id);
    }
    for (const TagLib::ByteVector& id : stale)
        tag.removeField(id);
    TagLib::RIFF::Info::Tag scratch;
    scratch.setProperties(propertiesToWrite(metadata, encodedByWritten, "; "));
    for (const auto& [id, value] : scratch.fieldListMap())
        tag.setFieldText(id, value);
}

} // namespace velvox
