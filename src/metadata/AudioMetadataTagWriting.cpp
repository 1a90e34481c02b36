// Writing the record into a TagLib tag of an output file.
//
// Each writer first removes what it owns, under every name the reading side
// accepts, and then writes the fields the record has under one name each. A
// converted file therefore never keeps a stale or duplicate value from the
// source, and an absent field removes what the file had. Opening and saving
// the file is the encoder's business; these functions only change the tag.

#include "metadata/AudioMetadata.h"

#include "metadata/AdditionalTagMapping.h"

#include <algorithm>
#include <climits>
#include <initializer_list>

#include <taglib/apetag.h>
#include <taglib/asftag.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/commentsframe.h>
#include <taglib/flacpicture.h>
#include <taglib/id3v1tag.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/id3v2header.h>
#include <taglib/id3v2tag.h>
#include <taglib/mp4tag.h>
#include <taglib/textidentificationframe.h>
#include <taglib/unsynchronizedlyricsframe.h>
#include <taglib/xiphcomment.h>

namespace velvox {

namespace {

TagLib::String text(const std::string& utf8) { return TagLib::String(utf8, TagLib::String::UTF8); }

TagLib::String textOrNull(const std::optional<std::string>& utf8) {
    return utf8 ? text(*utf8) : TagLib::String();
}

// The generic setters take unsigned numbers; 0 means "none" there.
unsigned int unsignedOrZero(const std::optional<int64_t>& value) {
    if (!value || *value <= 0)
        return 0;
    return *value > INT_MAX ? static_cast<unsigned int>(INT_MAX)
                            : static_cast<unsigned int>(*value);
}

int clampedInt(const std::optional<int64_t>& value) {
    if (!value)
        return 0;
    return static_cast<int>(std::clamp<int64_t>(*value, INT_MIN, INT_MAX));
}

bool hasPicture(const std::shared_ptr<AlbumArtwork>& artwork) {
    return artwork && artwork->data() && !artwork->data()->empty();
}

TagLib::ByteVector pictureBytes(const AlbumArtwork& artwork) {
    const auto& data = *artwork.data();
    return TagLib::ByteVector(reinterpret_cast<const char*>(data.data()),
                              static_cast<unsigned int>(data.size()));
}

// Picture roles are the ID3v2 numbers 0 to 20; anything else is "other".
int pictureRole(const AlbumArtwork& artwork) {
    const int32_t type = artwork.artworkType();
    return type >= 0 && type <= 20 ? type : 0;
}

// "n/m", "/m" or "n": position and count as ID3v2 and ASF write them.
std::optional<std::string> positionAndCount(const std::optional<int64_t>& position,
                                            const std::optional<int64_t>& count) {
    if (position && count)
        return std::to_string(*position) + "/" + std::to_string(*count);
    if (count)
        return "/" + std::to_string(*count);
    if (position)
        return std::to_string(*position);
    return std::nullopt;
}

template <typename Frame>
void addFrame(TagLib::ID3v2::Tag& tag, std::unique_ptr<Frame> frame) {
    tag.addFrame(frame.release()); // the tag owns its frames from here on
}

void replaceTextFrame(TagLib::ID3v2::Tag& tag, const char* id,
                      const std::optional<std::string>& value, TagLib::String::Type encoding) {
    tag.removeFrames(id);
    if (!value)
        return;
    auto frame =
        std::make_unique<TagLib::ID3v2::TextIdentificationFrame>(TagLib::ByteVector(id), encoding);
    frame->setText(text(*value));
    addFrame(tag, std::move(frame));
}

std::optional<std::string> decimal(const std::optional<int64_t>& value) {
    if (!value)
        return std::nullopt;
    return std::to_string(*value);
}

std::optional<std::string> decimal(const std::optional<bool>& value) {
    if (!value)
        return std::nullopt;
    return *value ? "1" : "0";
}

} // namespace

// ---------------------------------------------------------------------------

std::unique_ptr<TagLib::FLAC::Picture> AudioMetadata::flacPicture(const AlbumArtwork& artwork) {
    auto picture = std::make_unique<TagLib::FLAC::Picture>();
    picture->setType(static_cast<TagLib::FLAC::Picture::Type>(pictureRole(artwork)));
    picture->setMimeType(textOrNull(artwork.mimeType()));
    if (artwork.data())
        picture->setData(pictureBytes(artwork));
    if (artwork.comments())
        picture->setDescription(text(*artwork.comments()));
    // Players size their views from these before decoding the image.
    picture->setWidth(int(std::clamp<int64_t>(artwork.width(), 0, INT_MAX)));
    picture->setHeight(int(std::clamp<int64_t>(artwork.height(), 0, INT_MAX)));
    picture->setColorDepth(int(std::clamp<int64_t>(artwork.colorDepth(), 0, INT_MAX)));
    return picture;
}

void AudioMetadata::fillOutID3v1Tag(TagLib::ID3v1::Tag* tag,
                                    const std::optional<std::string>& comment) const {
    if (!tag)
        return;
    tag->setTitle(textOrNull(trackTitle()));
    // One value per field: several artists are joined as players show them.
    tag->setArtist(textOrNull(AdditionalTagMapping::singleValue(*this, "ARTIST", trackArtist())));
    tag->setAlbum(textOrNull(albumTitle()));
    tag->setComment(textOrNull(comment));
    tag->setGenre(textOrNull(trackGenre()));
    tag->setYear(unsignedOrZero(trackYear()));
    tag->setTrack(unsignedOrZero(trackNumber()));
}

void AudioMetadata::fillOutID3v2Tag(TagLib::ID3v2::Tag* tag, int majorVersion,
                                    int taglibTextEncoding,
                                    const std::optional<std::string>& encodedBy,
                                    const std::optional<std::string>& comment) const {
    if (!tag)
        return;

    // Nothing survives that is not written below: collect the IDs first,
    // since removing frames changes the map being walked.
    std::vector<TagLib::ByteVector> ids;
    for (const auto& entry : tag->frameListMap())
        ids.push_back(entry.first);
    for (const auto& id : ids)
        tag->removeFrames(id);

    tag->header()->setMajorVersion(static_cast<unsigned int>(majorVersion));
    // 0 Latin-1, 1 UTF-16 with byte-order mark, 2 UTF-16BE, 3 UTF-8. TagLib
    // still writes UTF-16 where the text does not fit Latin-1 or the version
    // has no UTF-8, so no text is lost whatever is chosen.
    const auto encoding = static_cast<TagLib::String::Type>(std::clamp(taglibTextEncoding, 0, 3));
    TagLib::ID3v2::FrameFactory::instance()->setDefaultTextEncoding(encoding);

    // TagLib keeps text as Unicode and encodes each frame by the default text
    // encoding set above, so the UTF-8 text is handed over as it is.
    tag->setTitle(textOrNull(trackTitle()));
    tag->setArtist(textOrNull(trackArtist()));
    tag->setAlbum(textOrNull(albumTitle()));
    tag->setYear(unsignedOrZero(trackYear()));
    tag->setComment(textOrNull(comment));
    if (comment && !comment->empty()) {
        const auto& frames = tag->frameListMap();
        const auto found = frames.find("COMM");
        if (found != frames.end() && !found->second.isEmpty())
            if (auto* frame = dynamic_cast<TagLib::ID3v2::CommentsFrame*>(found->second.front()))
                frame->setLanguage("eng");
    }

    replaceTextFrame(*tag, "TRCK", positionAndCount(trackNumber(), totalTracks()), encoding);
    replaceTextFrame(*tag, "TPOS", positionAndCount(discNumber(), discTotal()), encoding);
    replaceTextFrame(*tag, "TIT1", grouping(), encoding);
    replaceTextFrame(*tag, "TCOM", trackComposer(), encoding);
    replaceTextFrame(*tag, "TCOP", trackCopyright(), encoding);

    tag->removeFrames("USLT");
    if (lyrics()) {
        auto frame = std::make_unique<TagLib::ID3v2::UnsynchronizedLyricsFrame>(encoding);
        frame->setLanguage("eng");
        frame->setText(text(*lyrics()));
        addFrame(*tag, std::move(frame));
    }

    replaceTextFrame(*tag, "TBPM", decimal(bpm()), encoding);
    replaceTextFrame(*tag, "TCMP", decimal(partOfACompilation()), encoding);
    replaceTextFrame(*tag, "TKEY", key(), encoding);
    replaceTextFrame(*tag, "TSRC", ISRC(), encoding);
    replaceTextFrame(*tag, "TPE2", albumArtist(), encoding);

    tag->removeFrames("APIC");
    if (hasPicture(albumArtwork())) {
        const AlbumArtwork& artwork = *albumArtwork();
        auto frame = std::make_unique<TagLib::ID3v2::AttachedPictureFrame>();
        frame->setTextEncoding(encoding);
        frame->setMimeType(textOrNull(artwork.mimeType()));
        frame->setPicture(pictureBytes(artwork));
        frame->setType(
            static_cast<TagLib::ID3v2::AttachedPictureFrame::Type>(pictureRole(artwork)));
        if (artwork.comments())
            frame->setDescription(text(*artwork.comments()));
        addFrame(*tag, std::move(frame));
    }

    replaceTextFrame(*tag, "TENC", encodedBy, encoding);

    tag->setGenre(textOrNull(trackGenre()));
    AdditionalTagMapping::writeID3v2(*tag, *this, encodedBy.has_value());
}

void AudioMetadata::fillOutAPETag(TagLib::APE::Tag* tag,
                                  const std::optional<std::string>& encodedBy,
                                  const std::optional<std::string>& comment) const {
    if (!tag)
        return;
    tag->setTitle(textOrNull(trackTitle()));
    tag->setArtist(textOrNull(trackArtist()));
    tag->setAlbum(textOrNull(albumTitle()));
    tag->setComment(textOrNull(comment));
    tag->setGenre(textOrNull(trackGenre()));
    tag->setYear(unsignedOrZero(trackYear()));

    auto replace = [tag](std::initializer_list<const char*> removed, const char* written,
                         const std::optional<std::string>& value) {
        for (const char* name : removed)
            tag->removeItem(name);
        if (value)
            tag->addValue(written, text(*value), true);
    };
    replace({"TRACK", "TRACKNUM", "TRACKNUMBER"}, "TRACK", decimal(trackNumber()));
    replace({"TOTALTRACKS", "TRACKTOTAL"}, "TRACKTOTAL", decimal(totalTracks()));
    replace({"DISCNUMBER", "DISCNUM"}, "DISCNUMBER", decimal(discNumber()));
    replace({"TOTALDISCS", "DISCTOTAL"}, "DISCTOTAL", decimal(discTotal()));
    replace({"GROUPING"}, "GROUPING", grouping());
    replace({"COMPOSER"}, "COMPOSER", trackComposer());
    replace({"COPYRIGHT"}, "COPYRIGHT", trackCopyright());
    replace({"ALBUMARTIST"}, "ALBUMARTIST", albumArtist());
    replace({"UNSYNCEDLYRICS", "LYRICS"}, "LYRICS", lyrics());
    replace({"BPM"}, "BPM", decimal(bpm()));
    replace({"KEY"}, "KEY", key());
    replace({"ISRC"}, "ISRC", ISRC());
    replace({"COMPILATION"}, "COMPILATION", decimal(partOfACompilation()));

    // A back cover already in the file is left where it is when a front cover
    // is written: only the front-cover names are cleared.
    tag->removeItem("Cover Art (front)");
    tag->removeItem("APIC");
    if (hasPicture(albumArtwork())) {
        const AlbumArtwork& artwork = *albumArtwork();
        const char* itemKey = artwork.artworkType() == 4 ? "Cover Art (back)" : "Cover Art (front)";
        // The binary cover item: file name, one zero byte, the image.
        TagLib::ByteVector value =
            text(artwork.originalFilename().value_or("cover.jpg")).data(TagLib::String::UTF8);
        value.append(TagLib::ByteVector(1, '\0'));
        value.append(pictureBytes(artwork));
        tag->setItem(itemKey, TagLib::APE::Item(itemKey, value, true));
    }

    replace({"ENCODEDBY", "ENCODED BY", "ENCODER"}, "ENCODEDBY", encodedBy);
    AdditionalTagMapping::writeAPE(*tag, *this, encodedBy.has_value());
}

void AudioMetadata::fillOutXiphComment(TagLib::Ogg::XiphComment* tag,
                                       const std::optional<std::string>& encodedBy,
                                       const std::optional<std::string>& comment,
                                       bool writeArtwork) const {
    if (!tag)
        return;
    auto replace = [tag](std::initializer_list<const char*> removed, const char* written,
                         const std::optional<std::string>& value) {
        for (const char* name : removed)
            tag->removeFields(name);
        if (value)
            tag->addField(written, text(*value), true);
    };
    replace({"TITLE"}, "TITLE", trackTitle());
    replace({"ARTIST"}, "ARTIST", trackArtist());
    replace({"ALBUM"}, "ALBUM", albumTitle());
    replace({"YEAR", "DATE"}, "DATE", decimal(trackYear()));
    replace({"COMMENT", "DESCRIPTION"}, "DESCRIPTION", comment);
    replace({"TRACKNUM", "TRACKNUMBER"}, "TRACKNUMBER", decimal(trackNumber()));
    replace({"TOTALTRACKS", "TRACKTOTAL"}, "TRACKTOTAL", decimal(totalTracks()));
    replace({"DISCNUMBER", "DISCNUM"}, "DISCNUMBER", decimal(discNumber()));
    replace({"DISCTOTAL", "TOTALDISCS"}, "DISCTOTAL", decimal(discTotal()));
    replace({"GENRE"}, "GENRE", trackGenre());
    replace({"GROUPING"}, "GROUPING", grouping());
    replace({"COMPOSER"}, "COMPOSER", trackComposer());
    replace({"COPYRIGHT"}, "COPYRIGHT", trackCopyright());
    replace({"ALBUMARTIST"}, "ALBUMARTIST", albumArtist());
    replace({"UNSYNCEDLYRICS", "LYRICS"}, "LYRICS", lyrics());
    replace({"BPM"}, "BPM", decimal(bpm()));
    replace({"KEY"}, "KEY", key());
    replace({"ISRC"}, "ISRC", ISRC());
    // Only a true flag is written; false and unknown leave no field.
    replace({"COMPILATION"}, "COMPILATION",
            partOfACompilation().value_or(false) ? decimal(partOfACompilation()) : std::nullopt);
    replace({"ENCODEDBY", "ENCODED BY", "ENCODER"}, "ENCODEDBY", encodedBy);
    AdditionalTagMapping::writeXiph(*tag, *this, encodedBy.has_value());

    // Pictures go whatever writeArtwork says. TagLib keeps the pictures of a
    // comment it parsed in a list of its own, so that list is emptied too.
    for (const char* name : {"METADATA_BLOCK_PICTURE", "COVERART", "APIC"})
        tag->removeFields(name);
    tag->removeAllPictures();
    if (writeArtwork && hasPicture(albumArtwork())) {
        const auto picture = flacPicture(*albumArtwork());
        tag->addField("METADATA_BLOCK_PICTURE",
                      TagLib::String(picture->render().toBase64(), TagLib::String::Latin1), true);
    }
}

void AudioMetadata::fillOutMP4Tag(TagLib::MP4::Tag* tag,
                                  const std::optional<std::string>& encodedBy,
                                  const std::optional<std::string>& comment) const {
    if (!tag)
        return;
    // Atom names are Latin-1 ("\251nam" is "©nam").
    auto erase = [tag](std::initializer_list<const char*> keys) {
        for (const char* key : keys)
            tag->removeItem(TagLib::String(key, TagLib::String::Latin1));
    };
    auto setItem = [tag](const char* key, const TagLib::MP4::Item& item) {
        tag->setItem(TagLib::String(key, TagLib::String::Latin1), item);
    };
    auto replaceText = [&](std::initializer_list<const char*> erased, const char* written,
                           const std::optional<std::string>& value) {
        erase(erased);
        if (value)
            setItem(written, TagLib::StringList(text(*value)));
    };

    replaceText({"\251nam"}, "\251nam", trackTitle());
    replaceText({"\251art", "\251ART"}, "\251ART", trackArtist());
    replaceText({"\251alb"}, "\251alb", albumTitle());
    replaceText({"\251cmt"}, "\251cmt", comment);
    replaceText({"\251gen"}, "\251gen", trackGenre());
    replaceText({"\251day"}, "\251day", decimal(trackYear()));

    erase({"trkn"});
    if (trackNumber() || totalTracks())
        setItem("trkn", TagLib::MP4::Item(clampedInt(trackNumber()), clampedInt(totalTracks())));
    erase({"disk"});
    if (discNumber() || discTotal())
        setItem("disk", TagLib::MP4::Item(clampedInt(discNumber()), clampedInt(discTotal())));

    replaceText({"\251wrt"}, "\251wrt", trackComposer());
    replaceText({"cprt"}, "cprt", trackCopyright());
    replaceText({"\251grp"}, "\251grp", grouping());
    replaceText({"aART"}, "aART", albumArtist());
    replaceText({"\251lyr"}, "\251lyr", lyrics());

    erase({"tmpo"});
    if (bpm())
        setItem("tmpo", TagLib::MP4::Item(clampedInt(bpm())));

    replaceText({"----:com.apple.iTunes:KEY", "----:com.apple.iTunes:initialkey"},
                "----:com.apple.iTunes:initialkey", key());
    replaceText({"ISRC", "----:com.apple.iTunes:ISRC"}, "----:com.apple.iTunes:ISRC", ISRC());

    erase({"cpil"});
    if (partOfACompilation())
        setItem("cpil", TagLib::MP4::Item(*partOfACompilation()));

    replaceText({"\251too"}, "\251too", encodedBy);

    erase({"APIC", "covr"});
    if (hasPicture(albumArtwork())) {
        const AlbumArtwork& artwork = *albumArtwork();
        const std::string mime = artwork.mimeType().value_or(std::string());
        const auto format = mime == "image/png"   ? TagLib::MP4::CoverArt::PNG
                            : mime == "image/gif" ? TagLib::MP4::CoverArt::GIF
                                                  : TagLib::MP4::CoverArt::JPEG;
        TagLib::MP4::CoverArtList covers;
        covers.append(TagLib::MP4::CoverArt(format, pictureBytes(artwork)));
        setItem("covr", TagLib::MP4::Item(covers));
    }
    AdditionalTagMapping::writeMP4(*tag, *this, encodedBy.has_value());
}

void AudioMetadata::fillOutASFTag(
    TagLib::ASF::Tag* tag, const std::optional<std::string>& encodedBy,
    [[maybe_unused]] const std::optional<std::string>& comment) const {
    if (!tag)
        return;
    // Windows Media output has no encoder yet; these attributes mirror what
    // the reading side accepts. The comment is not among them.
    tag->setTitle(textOrNull(trackTitle()));
    tag->setArtist(textOrNull(trackArtist()));
    // Album, genre, year and track are attributes, which the generic setters
    // would keep as empty texts or zeros; an absent field removes them.
    if (albumTitle())
        tag->setAlbum(text(*albumTitle()));
    else
        tag->removeItem("WM/AlbumTitle");
    if (trackGenre())
        tag->setGenre(text(*trackGenre()));
    else
        tag->removeItem("WM/Genre");
    if (trackYear())
        tag->setYear(unsignedOrZero(trackYear()));
    else
        tag->removeItem("WM/Year");
    if (trackNumber())
        tag->setTrack(unsignedOrZero(trackNumber()));
    else
        tag->removeItem("WM/TrackNumber");

    auto replace = [tag](std::initializer_list<const char*> removed, const char* written,
                         const std::optional<std::string>& value) {
        for (const char* name : removed)
            tag->removeItem(name);
        if (value)
            tag->setAttribute(written, TagLib::ASF::Attribute(text(*value)));
    };
    replace({"WM/TrackTotal"}, "WM/TrackTotal", decimal(totalTracks()));
    replace({"WM/PartOfSet"}, "WM/PartOfSet", positionAndCount(discNumber(), discTotal()));
    replace({"WM/DiscTotal"}, "WM/DiscTotal", decimal(discTotal()));
    replace({"WM/Composer"}, "WM/Composer", trackComposer());
    replace({"Copyright"}, "Copyright", trackCopyright());
    replace({"WM/Lyrics"}, "WM/Lyrics", lyrics());
    replace({"WM/AlbumArtist"}, "WM/AlbumArtist", albumArtist());
    replace({"WM/ContentGroupDescription"}, "WM/ContentGroupDescription", grouping());
    replace({"WM/BPM", "WM/BeatsPerMinute"}, "WM/BeatsPerMinute", decimal(bpm()));
    replace({"WM/InitialKey"}, "WM/InitialKey", key());
    replace({"WM/ISRC"}, "WM/ISRC", ISRC());
    tag->removeItem("WM/IsCompilation");
    if (partOfACompilation())
        tag->setAttribute("WM/IsCompilation", TagLib::ASF::Attribute(*partOfACompilation()));
    replace({"WM/EncodedBy"}, "WM/EncodedBy", encodedBy);
    AdditionalTagMapping::writeASF(*tag, *this, encodedBy.has_value());
}

} // namespace velvox
