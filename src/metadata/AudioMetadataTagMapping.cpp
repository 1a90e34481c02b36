// Copying the contents of one TagLib tag into a metadata record.
//
// A file can carry several tags (an MP3 may have ID3v2, ID3v1 and APE at
// once). The readers hand them over one after the other, and every mapping
// except the Xiph one fills only what is still absent, so the order of the
// calls decides which tag wins for each field. Tag contents come from files we
// did not write: every number is read leniently (garbage is 0) and a picture
// that does not parse is skipped, never an error.

#include "metadata/AudioMetadata.h"

#include "metadata/AdditionalTagMapping.h"

#include <climits>
#include <initializer_list>
#include <string_view>

#include <taglib/apetag.h>
#include <taglib/asftag.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/commentsframe.h>
#include <taglib/flacpicture.h>
#include <taglib/id3v1tag.h>
#include <taglib/id3v2tag.h>
#include <taglib/mp4tag.h>
#include <taglib/tpropertymap.h>
#include <taglib/unsynchronizedlyricsframe.h>
#include <taglib/xiphcomment.h>

namespace velvox {

namespace {

std::string utf8(const TagLib::String& s) { return s.to8Bit(true); }

bool isBlank(char c) {
    return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\v' || c == '\f';
}

// The leading integer of a text, the way tag values have always been read
// here: leading blanks, an optional sign, then digits; whatever follows is
// ignored ("5/12" is 5, "2001-05-01" is 2001) and a text without digits is 0.
// Out-of-range values stop at the limits of a 32-bit integer.
int64_t integerValue(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && isBlank(text[i]))
        ++i;
    bool negative = false;
    if (i < text.size() && (text[i] == '+' || text[i] == '-')) {
        negative = text[i] == '-';
        ++i;
    }
    int64_t value = 0;
    for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
        value = value * 10 + (text[i] - '0');
        if (value > int64_t(INT_MAX) + 1)
            value = int64_t(INT_MAX) + 1; // keeps saturating without overflowing
    }
    if (negative)
        return value > int64_t(INT_MAX) ? int64_t(INT_MIN) : -value;
    return value > INT_MAX ? int64_t(INT_MAX) : value;
}

int64_t integerValue(const std::string& text) { return integerValue(std::string_view(text)); }
int64_t integerValue(const TagLib::String& text) { return integerValue(utf8(text)); }

// Yes/no texts as taggers write them: "1", "Yes", "true", "0001" are true;
// "0", "no", "false" and empty texts are false.
bool truthValue(std::string_view text) {
    size_t i = 0;
    while (i < text.size() && isBlank(text[i]))
        ++i;
    if (i < text.size() && (text[i] == '+' || text[i] == '-'))
        ++i;
    while (i < text.size() && text[i] == '0')
        ++i;
    if (i == text.size())
        return false;
    const char c = text[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

// Sets a field only when the record does not have it yet.
template <typename Getter, typename Setter, typename Value>
void fillAbsent(AudioMetadata& metadata, Getter get, Setter set, Value&& value) {
    if (!(metadata.*get)())
        (metadata.*set)(std::forward<Value>(value));
}

void fillAbsentText(AudioMetadata& metadata,
                    const std::optional<std::string>& (AudioMetadata::*get)() const,
                    void (AudioMetadata::*set)(std::optional<std::string>),
                    const TagLib::String& value) {
    fillAbsent(metadata, get, set, utf8(value));
}

std::vector<uint8_t> bytesOf(const TagLib::ByteVector& v) {
    const auto* begin = reinterpret_cast<const uint8_t*>(v.data());
    return std::vector<uint8_t>(begin, begin + v.size());
}

// A picture from its encoded bytes; its facts are derived from them.
std::shared_ptr<AlbumArtwork> artworkWithData(const TagLib::ByteVector& data) {
    auto artwork = std::make_shared<AlbumArtwork>();
    artwork->setData(bytesOf(data));
    return artwork;
}

// "n/m" texts for position and count (track 3 of 10, disc 1 of 2). Without a
// slash the whole text is the position; each half fills only an absent field.
void applyPositionAndCount(AudioMetadata& metadata, std::string_view text,
                           std::optional<int64_t> (AudioMetadata::*getNumber)() const,
                           void (AudioMetadata::*setNumber)(std::optional<int64_t>),
                           std::optional<int64_t> (AudioMetadata::*getTotal)() const,
                           void (AudioMetadata::*setTotal)(std::optional<int64_t>)) {
    const size_t slash = text.find('/');
    if (slash == std::string_view::npos) {
        fillAbsent(metadata, getNumber, setNumber, integerValue(text));
        return;
    }
    fillAbsent(metadata, getNumber, setNumber, integerValue(text.substr(0, slash)));
    fillAbsent(metadata, getTotal, setTotal, integerValue(text.substr(slash + 1)));
}

// The seven fields every TagLib tag offers. Empty texts count as missing:
// TagLib answers an empty string for a field the tag does not have, and an
// empty value must not shadow a real one in a tag read later.
void addGenericTagInfo(const TagLib::Tag& tag, AudioMetadata& metadata, bool withComment) {
    if (!tag.title().isEmpty())
        fillAbsentText(metadata, &AudioMetadata::trackTitle, &AudioMetadata::setTrackTitle,
                       tag.title());
    if (!tag.artist().isEmpty())
        fillAbsentText(metadata, &AudioMetadata::trackArtist, &AudioMetadata::setTrackArtist,
                       tag.artist());
    if (!tag.album().isEmpty())
        fillAbsentText(metadata, &AudioMetadata::albumTitle, &AudioMetadata::setAlbumTitle,
                       tag.album());
    if (withComment && !tag.comment().isEmpty())
        fillAbsentText(metadata, &AudioMetadata::trackComment, &AudioMetadata::setTrackComment,
                       tag.comment());
    if (!tag.genre().isEmpty())
        fillAbsentText(metadata, &AudioMetadata::trackGenre, &AudioMetadata::setTrackGenre,
                       tag.genre());
    if (tag.year() != 0)
        fillAbsent(metadata, &AudioMetadata::trackYear, &AudioMetadata::setTrackYear,
                   int64_t(tag.year()));
    if (tag.track() != 0)
        fillAbsent(metadata, &AudioMetadata::trackNumber, &AudioMetadata::setTrackNumber,
                   int64_t(tag.track()));
}

// ---- ID3v2 ----

const TagLib::ID3v2::FrameList* framesWithID(const TagLib::ID3v2::Tag& tag, const char* id) {
    const auto& map = tag.frameListMap();
    const auto found = map.find(TagLib::ByteVector(id));
    if (found == map.end() || found->second.isEmpty())
        return nullptr;
    return &found->second;
}

// The text of the first frame with the ID, when there is one.
std::optional<TagLib::String> firstFrameText(const TagLib::ID3v2::Tag& tag, const char* id) {
    const auto* frames = framesWithID(tag, id);
    if (!frames)
        return std::nullopt;
    return frames->front()->toString();
}

// ---- APE ----

// The first of the keys whose item is present and not empty.
const TagLib::APE::Item* firstAPEItem(const TagLib::APE::Tag& tag,
                                      std::initializer_list<const char*> keys) {
    const auto& items = tag.itemListMap(); // keys are upper case
    for (const char* key : keys) {
        const auto found = items.find(TagLib::String(key));
        if (found != items.end() && !found->second.isEmpty())
            return &found->second;
    }
    return nullptr;
}

// A binary cover item: the file name, a zero byte, then the image.
std::shared_ptr<AlbumArtwork> artworkFromAPECoverItem(const TagLib::APE::Item& item) {
    const TagLib::ByteVector value = item.binaryData();
    const int zero = value.find(TagLib::ByteVector(1, '\0'));
    if (zero < 0)
        return nullptr;
    const auto nameEnd = static_cast<unsigned int>(zero);
    const TagLib::ByteVector image = value.mid(nameEnd + 1);
    if (image.isEmpty())
        return nullptr;
    auto artwork = artworkWithData(image);
    artwork->setOriginalFilename(utf8(TagLib::String(value.mid(0, nameEnd), TagLib::String::UTF8)));
    artwork->setArtworkType(3); // whichever key it came under
    return artwork;
}

// ---- Xiph comment ----

// All values of the first present name, joined by single blanks.
std::optional<std::string> xiphValue(const TagLib::Ogg::XiphComment& tag,
                                     std::initializer_list<const char*> names) {
    const auto& fields = tag.fieldListMap(); // keys are upper case
    for (const char* name : names) {
        const auto found = fields.find(TagLib::String(name));
        if (found != fields.end())
            return utf8(found->second.toString(" "));
    }
    return std::nullopt;
}

std::shared_ptr<AlbumArtwork> artworkFromFLACPicture(const TagLib::FLAC::Picture& picture) {
    if (picture.data().isEmpty())
        return nullptr;
    auto artwork = artworkWithData(picture.data());
    artwork->setArtworkType(static_cast<int32_t>(picture.type()));
    artwork->setMimeType(utf8(picture.mimeType()));
    artwork->setComments(utf8(picture.description()));
    return artwork;
}

// The first picture field that decodes. TagLib moves the picture fields of a
// comment it parsed from a file into its picture list, so that list is the
// second place to look; a comment built in memory keeps them as fields.
std::shared_ptr<AlbumArtwork> artworkFromXiphComment(const TagLib::Ogg::XiphComment& tag) {
    const auto& fields = tag.fieldListMap();
    const auto found = fields.find(TagLib::String("METADATA_BLOCK_PICTURE"));
    if (found != fields.end()) {
        for (const auto& value : found->second) {
            const TagLib::ByteVector block =
                TagLib::ByteVector::fromBase64(value.data(TagLib::String::Latin1));
            if (block.size() < 4)
                continue;
            TagLib::FLAC::Picture picture;
            if (!picture.parse(block))
                continue;
            auto artwork = artworkFromFLACPicture(picture);
            if (!artwork)
                continue;
            // The role straight from the block: TagLib keeps it in an
            // enumeration that cannot hold every 32-bit value a file may carry.
            artwork->setArtworkType(static_cast<int32_t>(block.toUInt(0U, true)));
            return artwork;
        }
    }
    // pictureList() only reads, but TagLib does not declare it const.
    for (const TagLib::FLAC::Picture* picture :
         const_cast<TagLib::Ogg::XiphComment&>(tag).pictureList()) {
        if (picture)
            if (auto artwork = artworkFromFLACPicture(*picture))
                return artwork;
    }
    return nullptr;
}

// ---- MP4 ----

const TagLib::MP4::Item* firstMP4Item(const TagLib::MP4::Tag& tag,
                                      std::initializer_list<const char*> keys) {
    const auto& items = tag.itemMap();
    for (const char* key : keys) {
        // Atom names are Latin-1 ("\251wrt" is "©wrt").
        const auto found = items.find(TagLib::String(key, TagLib::String::Latin1));
        if (found != items.end() && found->second.isValid())
            return &found->second;
    }
    return nullptr;
}

std::optional<std::string> mp4Text(const TagLib::MP4::Tag& tag,
                                   std::initializer_list<const char*> keys) {
    const auto* item = firstMP4Item(tag, keys);
    if (!item)
        return std::nullopt;
    return utf8(item->toStringList().toString(" "));
}

// ---- ASF ----

const TagLib::ASF::Attribute* firstASFAttribute(const TagLib::ASF::Tag& tag,
                                                std::initializer_list<const char*> names) {
    const auto& attributes = tag.attributeListMap();
    for (const char* name : names) {
        const auto found = attributes.find(TagLib::String(name));
        if (found != attributes.end() && !found->second.isEmpty())
            return &found->second.front();
    }
    return nullptr;
}

// A count stored either as text or as a number of any width.
int64_t asfCount(const TagLib::ASF::Attribute& attribute) {
    switch (attribute.type()) {
    case TagLib::ASF::Attribute::UnicodeType:
        return integerValue(attribute.toString());
    case TagLib::ASF::Attribute::BoolType:
        return attribute.toBool() ? 1 : 0;
    case TagLib::ASF::Attribute::DWordType:
        return attribute.toUInt();
    case TagLib::ASF::Attribute::QWordType:
        return static_cast<int64_t>(attribute.toULongLong());
    case TagLib::ASF::Attribute::WordType:
        return attribute.toUShort();
    default:
        return 0;
    }
}

} // namespace

// ---------------------------------------------------------------------------

void AudioMetadata::addInfoFromID3v1Tag(const TagLib::ID3v1::Tag* tag, AudioMetadata& metadata) {
    if (!tag)
        return;
    addGenericTagInfo(*tag, metadata, true);
}

void AudioMetadata::addInfoFromID3v2Tag(const TagLib::ID3v2::Tag* tag, AudioMetadata& metadata) {
    if (!tag)
        return;
    AdditionalTagMapping::addFromProperties(AdditionalTagMapping::propertiesOf(*tag), metadata);
    using M = AudioMetadata;
    // TagLib's own comment() falls back to a described comment such as
    // iTunNORM; the comment is read from the frames below instead.
    addGenericTagInfo(*tag, metadata, false);

    if (const auto* frames = framesWithID(*tag, "COMM")) {
        for (const auto* frame : *frames) {
            const auto* comment = dynamic_cast<const TagLib::ID3v2::CommentsFrame*>(frame);
            if (comment && comment->description().isEmpty()) {
                fillAbsentText(metadata, &M::trackComment, &M::setTrackComment, comment->text());
                break;
            }
        }
    }

    struct TextFrame {
        const char* id;
        const std::optional<std::string>& (M::*get)() const;
        void (M::*set)(std::optional<std::string>);
    };
    static const TextFrame textFrames[] = {
        {"TCOM", &M::trackComposer, &M::setTrackComposer},
        {"TCOP", &M::trackCopyright, &M::setTrackCopyright},
        {"TENC", &M::sourceEncodedWith, &M::setSourceEncodedWith},
        {"TKEY", &M::key, &M::setKey},
        {"TSRC", &M::ISRC, &M::setISRC},
        {"TPE2", &M::albumArtist, &M::setAlbumArtist},
        {"TIT1", &M::grouping, &M::setGrouping},
    };
    for (const auto& frame : textFrames)
        if (const auto text = firstFrameText(*tag, frame.id))
            fillAbsentText(metadata, frame.get, frame.set, *text);

    if (const auto text = firstFrameText(*tag, "TBPM"))
        fillAbsent(metadata, &M::bpm, &M::setBpm, integerValue(*text));
    if (const auto text = firstFrameText(*tag, "TCMP"))
        fillAbsent(metadata, &M::partOfACompilation, &M::setPartOfACompilation,
                   integerValue(*text) != 0);

    if (const auto* frames = framesWithID(*tag, "USLT"))
        if (const auto* lyrics =
                dynamic_cast<const TagLib::ID3v2::UnsynchronizedLyricsFrame*>(frames->front()))
            fillAbsentText(metadata, &M::lyrics, &M::setLyrics, lyrics->text());

    if (const auto text = firstFrameText(*tag, "TRCK"))
        applyPositionAndCount(metadata, utf8(*text), &M::trackNumber, &M::setTrackNumber,
                              &M::totalTracks, &M::setTotalTracks);
    if (const auto text = firstFrameText(*tag, "TPOS"))
        applyPositionAndCount(metadata, utf8(*text), &M::discNumber, &M::setDiscNumber,
                              &M::discTotal, &M::setDiscTotal);

    if (!metadata.albumArtwork()) {
        if (const auto* frames = framesWithID(*tag, "APIC")) {
            for (const auto* frame : *frames) {
                const auto* picture =
                    dynamic_cast<const TagLib::ID3v2::AttachedPictureFrame*>(frame);
                if (!picture || picture->picture().isEmpty())
                    continue;
                auto artwork = artworkWithData(picture->picture());
                artwork->setArtworkType(static_cast<int32_t>(picture->type()));
                artwork->setComments(utf8(picture->description()));
                // The stored type wins over the one guessed from the bytes.
                artwork->setMimeType(utf8(picture->mimeType()));
                metadata.setAlbumArtwork(std::move(artwork));
                break;
            }
        }
    }
}

void AudioMetadata::addInfoFromAPETag(const TagLib::APE::Tag* tag, AudioMetadata& metadata) {
    if (!tag)
        return;
    AdditionalTagMapping::addFromProperties(tag->properties(), metadata);
    using M = AudioMetadata;

    struct TextItem {
        std::initializer_list<const char*> keys;
        const std::optional<std::string>& (M::*get)() const;
        void (M::*set)(std::optional<std::string>);
    };
    const TextItem textItems[] = {
        {{"ALBUM"}, &M::albumTitle, &M::setAlbumTitle},
        {{"ARTIST"}, &M::trackArtist, &M::setTrackArtist},
        {{"GENRE"}, &M::trackGenre, &M::setTrackGenre},
        {{"COMMENT"}, &M::trackComment, &M::setTrackComment},
        {{"TITLE"}, &M::trackTitle, &M::setTrackTitle},
        {{"KEY"}, &M::key, &M::setKey},
        {{"ISRC"}, &M::ISRC, &M::setISRC},
        {{"GROUPING"}, &M::grouping, &M::setGrouping},
        {{"COMPOSER"}, &M::trackComposer, &M::setTrackComposer},
        {{"ALBUMARTIST"}, &M::albumArtist, &M::setAlbumArtist},
        {{"LYRICS", "UNSYNCEDLYRICS"}, &M::lyrics, &M::setLyrics},
        {{"ENCODEDBY", "ENCODED BY", "ENCODER"}, &M::sourceEncodedWith, &M::setSourceEncodedWith},
        {{"COPYRIGHT"}, &M::trackCopyright, &M::setTrackCopyright},
    };
    for (const auto& entry : textItems)
        if (const auto* item = firstAPEItem(*tag, entry.keys))
            fillAbsentText(metadata, entry.get, entry.set, item->toString());

    struct NumberItem {
        std::initializer_list<const char*> keys;
        std::optional<int64_t> (M::*get)() const;
        void (M::*set)(std::optional<int64_t>);
    };
    // A TRACK of "5/12" gives 5: the count is only ever read from its own item.
    const NumberItem numberItems[] = {
        {{"YEAR", "DATE"}, &M::trackYear, &M::setTrackYear},
        {{"TRACK"}, &M::trackNumber, &M::setTrackNumber},
        {{"TRACKTOTAL", "TOTALTRACKS"}, &M::totalTracks, &M::setTotalTracks},
        {{"DISCNUMBER", "DISCNUM"}, &M::discNumber, &M::setDiscNumber},
        {{"DISCTOTAL", "TOTALDISCS"}, &M::discTotal, &M::setDiscTotal},
        {{"BPM"}, &M::bpm, &M::setBpm},
    };
    for (const auto& entry : numberItems)
        if (const auto* item = firstAPEItem(*tag, entry.keys))
            fillAbsent(metadata, entry.get, entry.set, integerValue(item->toString()));

    if (const auto* item = firstAPEItem(*tag, {"COMPILATION"}))
        fillAbsent(metadata, &M::partOfACompilation, &M::setPartOfACompilation,
                   truthValue(utf8(item->toString())));

    if (!metadata.albumArtwork())
        if (const auto* item =
                firstAPEItem(*tag, {"COVER ART (FRONT)", "APIC", "COVER ART (BACK)"}))
            if (auto artwork = artworkFromAPECoverItem(*item))
                metadata.setAlbumArtwork(std::move(artwork));
}

void AudioMetadata::addInfoFromVorbisTag(const TagLib::Ogg::XiphComment* tag,
                                         AudioMetadata& metadata) {
    if (!tag)
        return;
    AdditionalTagMapping::addFromProperties(tag->properties(), metadata);
    using M = AudioMetadata;
    // The Xiph comment is always the first (or only) tag of its files, so it
    // writes what it finds without looking at the record.

    struct TextField {
        std::initializer_list<const char*> names;
        void (M::*set)(std::optional<std::string>);
    };
    const TextField textFields[] = {
        {{"TITLE"}, &M::setTrackTitle},
        {{"ARTIST", "AUTHOR"}, &M::setTrackArtist},
        {{"ALBUM"}, &M::setAlbumTitle},
        {{"DESCRIPTION", "COMMENT"}, &M::setTrackComment},
        {{"GENRE"}, &M::setTrackGenre},
        {{"GROUPING"}, &M::setGrouping},
        {{"COMPOSER"}, &M::setTrackComposer},
        {{"ALBUMARTIST"}, &M::setAlbumArtist},
        {{"LYRICS", "UNSYNCEDLYRICS"}, &M::setLyrics},
        {{"KEY"}, &M::setKey},
        {{"ISRC"}, &M::setISRC},
        {{"ENCODEDBY", "ENCODED BY", "ENCODER"}, &M::setSourceEncodedWith},
        {{"COPYRIGHT"}, &M::setTrackCopyright},
    };
    for (const auto& entry : textFields)
        if (auto value = xiphValue(*tag, entry.names))
            (metadata.*entry.set)(std::move(*value));

    // When a YEAR field exists the year is read from the ALBUM text; files
    // tagged by us have always been read this way, so it stays.
    if (tag->contains("YEAR"))
        metadata.setTrackYear(integerValue(xiphValue(*tag, {"ALBUM"}).value_or(std::string())));
    else if (const auto date = xiphValue(*tag, {"DATE"}))
        metadata.setTrackYear(integerValue(*date)); // "2001-05-01" gives 2001

    struct NumberField {
        std::initializer_list<const char*> names;
        void (M::*set)(std::optional<int64_t>);
    };
    const NumberField numberFields[] = {
        {{"TRACKNUMBER", "TRACKNUM"}, &M::setTrackNumber},
        {{"TRACKTOTAL", "TOTALTRACKS"}, &M::setTotalTracks},
        {{"DISCNUMBER", "DISCNUM"}, &M::setDiscNumber},
        {{"DISCTOTAL", "TOTALDISCS"}, &M::setDiscTotal},
        {{"BPM"}, &M::setBpm},
    };
    for (const auto& entry : numberFields)
        if (const auto value = xiphValue(*tag, entry.names))
            (metadata.*entry.set)(integerValue(*value));

    if (const auto value = xiphValue(*tag, {"COMPILATION"}))
        metadata.setPartOfACompilation(truthValue(*value));

    if (auto artwork = artworkFromXiphComment(*tag))
        metadata.setAlbumArtwork(std::move(artwork));
}

void AudioMetadata::addInfoFromMP4Tag(const TagLib::MP4::Tag* tag, AudioMetadata& metadata) {
    if (!tag)
        return;
    AdditionalTagMapping::addFromProperties(AdditionalTagMapping::propertiesOf(*tag), metadata);
    using M = AudioMetadata;
    addGenericTagInfo(*tag, metadata, true);

    if (const auto* item = firstMP4Item(*tag, {"trkn"})) {
        const auto pair = item->toIntPair();
        fillAbsent(metadata, &M::trackNumber, &M::setTrackNumber, int64_t(pair.first));
        fillAbsent(metadata, &M::totalTracks, &M::setTotalTracks, int64_t(pair.second));
    }
    if (const auto* item = firstMP4Item(*tag, {"disk"})) {
        const auto pair = item->toIntPair();
        fillAbsent(metadata, &M::discNumber, &M::setDiscNumber, int64_t(pair.first));
        fillAbsent(metadata, &M::discTotal, &M::setDiscTotal, int64_t(pair.second));
    }

    struct TextItem {
        std::initializer_list<const char*> keys;
        const std::optional<std::string>& (M::*get)() const;
        void (M::*set)(std::optional<std::string>);
    };
    const TextItem textItems[] = {
        {{"\251wrt"}, &M::trackComposer, &M::setTrackComposer},
        {{"cprt"}, &M::trackCopyright, &M::setTrackCopyright},
        {{"aART"}, &M::albumArtist, &M::setAlbumArtist},
        {{"\251grp"}, &M::grouping, &M::setGrouping},
        {{"\251lyr"}, &M::lyrics, &M::setLyrics},
        {{"----:com.apple.iTunes:KEY", "----:com.apple.iTunes:initialkey"}, &M::key, &M::setKey},
        {{"ISRC", "----:com.apple.iTunes:ISRC"}, &M::ISRC, &M::setISRC},
        {{"\251too"}, &M::sourceEncodedWith, &M::setSourceEncodedWith},
    };
    for (const auto& entry : textItems)
        if (auto text = mp4Text(*tag, entry.keys))
            fillAbsent(metadata, entry.get, entry.set, std::move(*text));

    if (const auto* item = firstMP4Item(*tag, {"tmpo"}))
        if (const int tempo = item->toInt(); tempo != 0)
            fillAbsent(metadata, &M::bpm, &M::setBpm, int64_t(tempo));
    // TagLib holds "cpil" as a boolean item.
    if (const auto* item = firstMP4Item(*tag, {"cpil"}))
        if (item->toBool())
            fillAbsent(metadata, &M::partOfACompilation, &M::setPartOfACompilation, true);

    if (!metadata.albumArtwork()) {
        if (const auto* item = firstMP4Item(*tag, {"covr"})) {
            const auto covers = item->toCoverArtList();
            if (!covers.isEmpty() && !covers.front().data().isEmpty()) {
                const auto& cover = covers.front();
                auto artwork = artworkWithData(cover.data());
                artwork->setArtworkType(3);
                artwork->setMimeType(cover.format() == TagLib::MP4::CoverArt::JPEG ? "image/jpeg"
                                                                                   : "image/png");
                metadata.setAlbumArtwork(std::move(artwork));
            }
        }
    }
}

void AudioMetadata::addInfoFromASFTag(const TagLib::ASF::Tag* tag, AudioMetadata& metadata) {
    if (!tag)
        return;
    AdditionalTagMapping::addFromProperties(AdditionalTagMapping::propertiesOf(*tag), metadata);
    using M = AudioMetadata;
    addGenericTagInfo(*tag, metadata, true);

    struct CountAttribute {
        std::initializer_list<const char*> names;
        std::optional<int64_t> (M::*get)() const;
        void (M::*set)(std::optional<int64_t>);
    };
    const CountAttribute counts[] = {
        {{"WM/TrackTotal"}, &M::totalTracks, &M::setTotalTracks},
        {{"WM/BeatsPerMinute", "WM/BPM"}, &M::bpm, &M::setBpm},
    };
    for (const auto& entry : counts)
        if (const auto* attribute = firstASFAttribute(*tag, entry.names))
            fillAbsent(metadata, entry.get, entry.set, asfCount(*attribute));

    struct TextAttribute {
        const char* name;
        const std::optional<std::string>& (M::*get)() const;
        void (M::*set)(std::optional<std::string>);
    };
    static const TextAttribute texts[] = {
        {"WM/InitialKey", &M::key, &M::setKey},
        {"WM/ISRC", &M::ISRC, &M::setISRC},
        {"WM/Composer", &M::trackComposer, &M::setTrackComposer},
        {"Copyright", &M::trackCopyright, &M::setTrackCopyright},
        {"WM/Lyrics", &M::lyrics, &M::setLyrics},
        {"WM/AlbumArtist", &M::albumArtist, &M::setAlbumArtist},
        {"WM/ContentGroupDescription", &M::grouping, &M::setGrouping},
    };
    for (const auto& entry : texts)
        if (const auto* attribute = firstASFAttribute(*tag, {entry.name}))
            fillAbsentText(metadata, entry.get, entry.set, attribute->toString());

    if (const auto* attribute = firstASFAttribute(*tag, {"WM/IsCompilation"}))
        fillAbsent(metadata, &M::partOfACompilation, &M::setPartOfACompilation,
                   asfCount(*attribute) != 0);
    if (const auto* attribute = firstASFAttribute(*tag, {"WM/EncodedBy"}))
        fillAbsentText(metadata, &M::sourceEncodedWith, &M::setSourceEncodedWith,
                       attribute->toString());

    if (const auto* attribute = firstASFAttribute(*tag, {"WM/PartOfSet"})) {
        if (attribute->type() == TagLib::ASF::Attribute::UnicodeType)
            applyPositionAndCount(metadata, utf8(attribute->toString()), &M::discNumber,
                                  &M::setDiscNumber, &M::discTotal, &M::setDiscTotal);
        else
            fillAbsent(metadata, &M::discNumber, &M::setDiscNumber, asfCount(*attribute));
    }
    if (const auto* attribute = firstASFAttribute(*tag, {"WM/DiscTotal"}))
        fillAbsent(metadata, &M::discTotal, &M::setDiscTotal, asfCount(*attribute));

    if (!metadata.albumArtwork()) {
        if (const auto* attribute = firstASFAttribute(*tag, {"WM/Picture"})) {
            const TagLib::ASF::Picture picture = attribute->toPicture();
            if (picture.isValid() && !picture.picture().isEmpty()) {
                auto artwork = artworkWithData(picture.picture());
                artwork->setArtworkType(static_cast<int32_t>(picture.type()));
                artwork->setComments(utf8(picture.description()));
                artwork->setMimeType(utf8(picture.mimeType()));
                metadata.setAlbumArtwork(std::move(artwork));
            }
        }
    }
    // The copyright most writers keep in the content description rather
    // than in an attribute.
    if (!metadata.trackCopyright() && !tag->copyright().isEmpty())
        metadata.setTrackCopyright(utf8(tag->copyright()));
}

} // namespace velvox
