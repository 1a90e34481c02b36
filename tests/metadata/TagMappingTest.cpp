// Reading tags into the record: the field each tag entry lands in, which entry
// wins when several could, and that hostile values are read without harm.

#include "metadata/AudioMetadata.h"

#include <gtest/gtest.h>
#include <stb_image_write.h>

#include <taglib/apetag.h>
#include <taglib/asftag.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/commentsframe.h>
#include <taglib/flacfile.h>
#include <taglib/flacpicture.h>
#include <taglib/id3v1tag.h>
#include <taglib/id3v2tag.h>
#include <taglib/mp4tag.h>
#include <taglib/mpegfile.h>
#include <taglib/textidentificationframe.h>
#include <taglib/unsynchronizedlyricsframe.h>
#include <taglib/xiphcomment.h>

#include "support/TestSupport.h"

namespace velvox {
namespace {

using Bytes = std::vector<uint8_t>;

TagLib::String u(const std::string& s) { return TagLib::String(s, TagLib::String::UTF8); }

TagLib::ByteVector bv(const Bytes& b) {
    return TagLib::ByteVector(reinterpret_cast<const char*>(b.data()),
                              static_cast<unsigned int>(b.size()));
}

void appendBytes(void* context, void* data, int size) {
    auto* out = static_cast<Bytes*>(context);
    out->insert(out->end(), static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
}

Bytes makePNG(int width, int height) {
    Bytes pixels(static_cast<size_t>(width) * height * 3, 0x5A);
    Bytes out;
    EXPECT_TRUE(
        stbi_write_png_to_func(appendBytes, &out, width, height, 3, pixels.data(), width * 3));
    return out;
}

Bytes makeJPEG(int width, int height) {
    Bytes pixels(static_cast<size_t>(width) * height * 3, 0x33);
    Bytes out;
    EXPECT_TRUE(stbi_write_jpg_to_func(appendBytes, &out, width, height, 3, pixels.data(), 90));
    return out;
}

Bytes makeBMP(int width, int height) {
    Bytes pixels(static_cast<size_t>(width) * height * 3, 0x11);
    Bytes out;
    EXPECT_TRUE(stbi_write_bmp_to_func(appendBytes, &out, width, height, 3, pixels.data()));
    return out;
}

template <typename Frame>
void addFrame(TagLib::ID3v2::Tag& tag, std::unique_ptr<Frame> frame) {
    tag.addFrame(frame.release()); // the tag owns its frames
}

void addTextFrame(TagLib::ID3v2::Tag& tag, const char* id, const std::string& text) {
    auto frame = std::make_unique<TagLib::ID3v2::TextIdentificationFrame>(TagLib::ByteVector(id),
                                                                          TagLib::String::UTF8);
    frame->setText(u(text));
    addFrame(tag, std::move(frame));
}

void addComment(TagLib::ID3v2::Tag& tag, const std::string& description, const std::string& text) {
    auto frame = std::make_unique<TagLib::ID3v2::CommentsFrame>(TagLib::String::UTF8);
    frame->setDescription(u(description));
    frame->setText(u(text));
    frame->setLanguage("eng");
    addFrame(tag, std::move(frame));
}

std::string pictureBlockBase64(const Bytes& image, int type, const std::string& mime,
                               const std::string& description) {
    TagLib::FLAC::Picture picture;
    picture.setData(bv(image));
    picture.setType(static_cast<TagLib::FLAC::Picture::Type>(type));
    picture.setMimeType(mime);
    picture.setDescription(u(description));
    const TagLib::ByteVector base64 = picture.render().toBase64();
    return std::string(base64.data(), base64.size());
}

TagLib::String mp4Key(const char* key) { return TagLib::String(key, TagLib::String::Latin1); }

// ---------------------------------------------------------------------------

TEST(TagMappingTest, NullTagsLeaveTheRecordAlone) {
    AudioMetadata m;
    m.setTrackTitle("Kept");
    AudioMetadata::addInfoFromVorbisTag(nullptr, m);
    AudioMetadata::addInfoFromID3v2Tag(nullptr, m);
    AudioMetadata::addInfoFromID3v1Tag(nullptr, m);
    AudioMetadata::addInfoFromAPETag(nullptr, m);
    AudioMetadata::addInfoFromMP4Tag(nullptr, m);
    AudioMetadata::addInfoFromASFTag(nullptr, m);
    EXPECT_EQ(m.toJSON(), [] {
        AudioMetadata expected;
        expected.setTrackTitle("Kept");
        return expected.toJSON();
    }());
}

TEST(TagMappingTest, ID3v1IgnoresEmptyTextsAndFillsOnlyAbsentFields) {
    TagLib::ID3v1::Tag tag;
    tag.setTitle("Title");
    tag.setArtist("");
    tag.setAlbum("Album");
    tag.setComment("Comment");
    tag.setGenre("Rock");
    tag.setYear(1987);
    tag.setTrack(0);

    AudioMetadata m;
    m.setAlbumTitle("Earlier Album");
    AudioMetadata::addInfoFromID3v1Tag(&tag, m);
    EXPECT_EQ(m.trackTitle(), "Title");
    EXPECT_FALSE(m.trackArtist());
    EXPECT_EQ(m.albumTitle(), "Earlier Album");
    EXPECT_EQ(m.trackComment(), "Comment");
    EXPECT_EQ(m.trackGenre(), "Rock");
    EXPECT_EQ(m.trackYear(), 1987);
    EXPECT_FALSE(m.trackNumber()); // 0 means none
}

TEST(TagMappingTest, ID3v2CommentIsTheFirstWithoutDescription) {
    TagLib::ID3v2::Tag tag;
    addComment(tag, "iTunNORM", " 00000A2B 00000A2B 00003F1C");
    addComment(tag, "", "The real comment");
    addComment(tag, "", "A later comment");
    AudioMetadata m;
    AudioMetadata::addInfoFromID3v2Tag(&tag, m);
    EXPECT_EQ(m.trackComment(), "The real comment");

    TagLib::ID3v2::Tag describedOnly;
    addComment(describedOnly, "iTunNORM", " 00000A2B");
    AudioMetadata n;
    AudioMetadata::addInfoFromID3v2Tag(&describedOnly, n);
    EXPECT_FALSE(n.trackComment());
}

TEST(TagMappingTest, ID3v2FramesMapToTheirFields) {
    TagLib::ID3v2::Tag tag;
    tag.setTitle(u("T\xC3\xADtulo"));
    tag.setArtist("Artist");
    tag.setAlbum("Album");
    tag.setGenre("Jazz");
    tag.setYear(2001);
    addTextFrame(tag, "TRCK", "3/10");
    addTextFrame(tag, "TPOS", "/4");
    addTextFrame(tag, "TCOM", "Composer");
    addTextFrame(tag, "TCOP", "(C) Someone");
    addTextFrame(tag, "TENC", "Some Encoder");
    addTextFrame(tag, "TBPM", " 128 bpm");
    addTextFrame(tag, "TKEY", "F#m");
    addTextFrame(tag, "TSRC", "GBAYE0000351");
    addTextFrame(tag, "TCMP", "1");
    addTextFrame(tag, "TPE2", "Album Artist");
    addTextFrame(tag, "TIT1", "Grouping");
    auto lyrics = std::make_unique<TagLib::ID3v2::UnsynchronizedLyricsFrame>(TagLib::String::UTF8);
    lyrics->setText("First lyrics");
    addFrame(tag, std::move(lyrics));

    const Bytes back = makeJPEG(4, 2), front = makePNG(3, 3);
    auto first = std::make_unique<TagLib::ID3v2::AttachedPictureFrame>();
    first->setPicture(bv(back));
    first->setType(TagLib::ID3v2::AttachedPictureFrame::BackCover);
    first->setMimeType("image/x-stored");
    first->setDescription("Back side");
    addFrame(tag, std::move(first));
    auto second = std::make_unique<TagLib::ID3v2::AttachedPictureFrame>();
    second->setPicture(bv(front));
    second->setType(TagLib::ID3v2::AttachedPictureFrame::FrontCover);
    addFrame(tag, std::move(second));

    AudioMetadata m;
    AudioMetadata::addInfoFromID3v2Tag(&tag, m);
    EXPECT_EQ(m.trackTitle(), "T\xC3\xADtulo");
    EXPECT_EQ(m.trackArtist(), "Artist");
    EXPECT_EQ(m.albumTitle(), "Album");
    EXPECT_EQ(m.trackGenre(), "Jazz");
    EXPECT_EQ(m.trackYear(), 2001);
    EXPECT_EQ(m.trackNumber(), 3);
    EXPECT_EQ(m.totalTracks(), 10);
    EXPECT_EQ(m.discNumber(), 0); // "/4": the empty number half reads as 0
    EXPECT_EQ(m.discTotal(), 4);
    EXPECT_EQ(m.trackComposer(), "Composer");
    EXPECT_EQ(m.trackCopyright(), "(C) Someone");
    EXPECT_EQ(m.sourceEncodedWith(), "Some Encoder");
    EXPECT_EQ(m.bpm(), 128);
    EXPECT_EQ(m.key(), "F#m");
    EXPECT_EQ(m.ISRC(), "GBAYE0000351");
    EXPECT_EQ(m.partOfACompilation(), true);
    EXPECT_EQ(m.albumArtist(), "Album Artist");
    EXPECT_EQ(m.grouping(), "Grouping");
    EXPECT_EQ(m.lyrics(), "First lyrics");
    ASSERT_TRUE(m.albumArtwork());
    // The first picture, not a search for the front cover.
    EXPECT_EQ(*m.albumArtwork()->data(), back);
    EXPECT_EQ(m.albumArtwork()->artworkType(), 4);
    EXPECT_EQ(m.albumArtwork()->comments(), "Back side");
    EXPECT_EQ(m.albumArtwork()->mimeType(), "image/x-stored");
    EXPECT_EQ(m.albumArtwork()->width(), 4);
}

TEST(TagMappingTest, ID3v2FillsOnlyAbsentFieldsAndReadsGarbageAsZero) {
    TagLib::ID3v2::Tag tag;
    tag.setTitle("Tag Title");
    addTextFrame(tag, "TRCK", "7/9");
    addTextFrame(tag, "TBPM", "fast");
    addTextFrame(tag, "TCMP", "no");
    auto picture = std::make_unique<TagLib::ID3v2::AttachedPictureFrame>();
    picture->setPicture(bv(makePNG(2, 2)));
    addFrame(tag, std::move(picture));

    AudioMetadata m;
    m.setTrackTitle("Earlier Title");
    m.setTrackNumber(1);
    auto earlier = std::make_shared<AlbumArtwork>();
    earlier->setData(makeJPEG(1, 1));
    m.setAlbumArtwork(earlier);
    AudioMetadata::addInfoFromID3v2Tag(&tag, m);
    EXPECT_EQ(m.trackTitle(), "Earlier Title");
    EXPECT_EQ(m.trackNumber(), 1);
    EXPECT_EQ(m.totalTracks(), 9);
    EXPECT_EQ(m.bpm(), 0); // present but not a number
    EXPECT_EQ(m.partOfACompilation(), false);
    EXPECT_EQ(m.albumArtwork(), earlier);
}

TEST(TagMappingTest, APEKeysNumbersAndPreferences) {
    TagLib::APE::Tag tag;
    tag.addValue("TITLE", "Title");
    tag.addValue("Artist", "Artist"); // keys are case-insensitive
    tag.addValue("TRACK", "3/10");
    tag.setItem("YEAR", TagLib::APE::Item("YEAR", TagLib::String())); // empty: not present
    tag.addValue("DATE", "2004-07-01");
    tag.addValue("TOTALDISCS", "2");
    tag.addValue("DISCNUM", "1");
    tag.addValue("UNSYNCEDLYRICS", "Second choice");
    tag.addValue("LYRICS", "First choice");
    tag.addValue("ENCODED BY", "Encoder With Blank");
    tag.addValue("ENCODER", "Plain Encoder");
    tag.addValue("BPM", "-12x");
    tag.addValue("KEY", "Am");
    tag.addValue("ISRC", "USRC17607839");
    tag.addValue("GROUPING", "G");
    tag.addValue("COMPOSER", "C");
    tag.addValue("ALBUMARTIST", "AA");
    tag.addValue("COPYRIGHT", "(C)");
    tag.addValue("COMMENT", "Comment");
    tag.addValue("GENRE", "Genre");
    tag.addValue("ALBUM", "Album");

    AudioMetadata m;
    AudioMetadata::addInfoFromAPETag(&tag, m);
    EXPECT_EQ(m.trackTitle(), "Title");
    EXPECT_EQ(m.trackArtist(), "Artist");
    EXPECT_EQ(m.trackNumber(), 3);
    EXPECT_FALSE(m.totalTracks()); // the count never comes from TRACK
    EXPECT_EQ(m.trackYear(), 2004);
    EXPECT_EQ(m.discNumber(), 1);
    EXPECT_EQ(m.discTotal(), 2);
    EXPECT_EQ(m.lyrics(), "First choice");
    EXPECT_EQ(m.sourceEncodedWith(), "Encoder With Blank");
    EXPECT_EQ(m.bpm(), -12);
    EXPECT_EQ(m.key(), "Am");
    EXPECT_EQ(m.ISRC(), "USRC17607839");
    EXPECT_EQ(m.grouping(), "G");
    EXPECT_EQ(m.trackComposer(), "C");
    EXPECT_EQ(m.albumArtist(), "AA");
    EXPECT_EQ(m.trackCopyright(), "(C)");
    EXPECT_EQ(m.trackComment(), "Comment");
    EXPECT_EQ(m.trackGenre(), "Genre");
    EXPECT_EQ(m.albumTitle(), "Album");
    EXPECT_FALSE(m.partOfACompilation());
    EXPECT_FALSE(m.albumArtwork());
}

TEST(TagMappingTest, APECompilationTruthValues) {
    const std::pair<const char*, bool> cases[] = {
        {"1", true},   {"Yes", true},    {"true", true}, {"  0001", true}, {"-1", true},
        {"T", true},   {"0", false},     {"no", false},  {"false", false}, {"000", false},
        {"  ", false}, {"maybe", false}, {"+0y", true},
    };
    for (const auto& [text, expected] : cases) {
        TagLib::APE::Tag tag;
        tag.addValue("COMPILATION", text);
        AudioMetadata m;
        AudioMetadata::addInfoFromAPETag(&tag, m);
        ASSERT_TRUE(m.partOfACompilation()) << text;
        EXPECT_EQ(*m.partOfACompilation(), expected) << '"' << text << '"';
    }
}

TagLib::APE::Item coverItem(const char* key, const std::string& name, const Bytes& image,
                            bool withZero = true) {
    TagLib::ByteVector value(name.data(), static_cast<unsigned int>(name.size()));
    if (withZero)
        value.append('\0');
    value.append(bv(image));
    return TagLib::APE::Item(key, value, true);
}

TEST(TagMappingTest, APECoverItems) {
    const Bytes png = makePNG(5, 4), jpeg = makeJPEG(2, 2);
    {
        // A back cover alone is still taken, as a front cover.
        TagLib::APE::Tag tag;
        tag.setItem("Cover Art (back)", coverItem("Cover Art (back)",
                                                  "b\xC3\xA4"
                                                  "ck.png",
                                                  png));
        AudioMetadata m;
        AudioMetadata::addInfoFromAPETag(&tag, m);
        ASSERT_TRUE(m.albumArtwork());
        EXPECT_EQ(m.albumArtwork()->artworkType(), 3);
        EXPECT_EQ(m.albumArtwork()->originalFilename(), "b\xC3\xA4"
                                                        "ck.png");
        EXPECT_EQ(*m.albumArtwork()->data(), png);
        EXPECT_EQ(m.albumArtwork()->mimeType(), "image/png");
        EXPECT_EQ(m.albumArtwork()->width(), 5);
    }
    {
        // The front cover is preferred; the image may itself hold zero bytes.
        TagLib::APE::Tag tag;
        tag.setItem("Cover Art (back)", coverItem("Cover Art (back)", "back.png", png));
        tag.setItem("Cover Art (front)", coverItem("Cover Art (front)", "front.jpg", jpeg));
        AudioMetadata m;
        AudioMetadata::addInfoFromAPETag(&tag, m);
        ASSERT_TRUE(m.albumArtwork());
        EXPECT_EQ(m.albumArtwork()->originalFilename(), "front.jpg");
        EXPECT_EQ(*m.albumArtwork()->data(), jpeg);
    }
    {
        // Without the zero byte there is no file name to split off: no picture.
        TagLib::APE::Tag tag;
        tag.setItem("Cover Art (front)", coverItem("Cover Art (front)", "", Bytes{1, 2, 3}, false));
        AudioMetadata m;
        AudioMetadata::addInfoFromAPETag(&tag, m);
        EXPECT_FALSE(m.albumArtwork());
    }
    {
        // A name and nothing after it is no picture either.
        TagLib::APE::Tag tag;
        tag.setItem("APIC", coverItem("APIC", "name.jpg", Bytes{}));
        AudioMetadata m;
        AudioMetadata::addInfoFromAPETag(&tag, m);
        EXPECT_FALSE(m.albumArtwork());
    }
}

TEST(TagMappingTest, XiphYearComesFromAlbumWhenYearFieldExists) {
    TagLib::Ogg::XiphComment tag;
    tag.addField("YEAR", "1999");
    tag.addField("ALBUM", "2001 Odyssey");
    AudioMetadata m;
    AudioMetadata::addInfoFromVorbisTag(&tag, m);
    EXPECT_EQ(m.trackYear(), 2001);
    EXPECT_EQ(m.albumTitle(), "2001 Odyssey");

    TagLib::Ogg::XiphComment dated;
    dated.addField("DATE", "1999-03-01");
    AudioMetadata n;
    AudioMetadata::addInfoFromVorbisTag(&dated, n);
    EXPECT_EQ(n.trackYear(), 1999);

    TagLib::Ogg::XiphComment yearOnly;
    yearOnly.addField("YEAR", "1999");
    yearOnly.addField("DATE", "1998");
    AudioMetadata o;
    AudioMetadata::addInfoFromVorbisTag(&yearOnly, o);
    EXPECT_EQ(o.trackYear(), 0); // no album text to read it from
}

TEST(TagMappingTest, XiphJoinsValuesPrefersNamesAndOverwrites) {
    TagLib::Ogg::XiphComment tag;
    tag.addField("ARTIST", "A", false);
    tag.addField("ARTIST", "B", false);
    tag.addField("AUTHOR", "Not used");
    tag.addField("COMMENT", "Comment field");
    tag.addField("DESCRIPTION", "Description field");
    tag.addField("TRACKNUM", "8");
    tag.addField("TRACKNUMBER", "5/12");
    tag.addField("TOTALTRACKS", "12");
    tag.addField("DISCNUM", "2");
    tag.addField("TOTALDISCS", "3");
    tag.addField("BPM", "96.5");
    tag.addField("COMPILATION", "yes");
    tag.addField("ENCODER", "Encoder");
    tag.addField("UNSYNCEDLYRICS", "Lyrics");
    tag.addField("TITLE", u("\xE6\x97\xA5\xE6\x9C\xAC"));

    AudioMetadata m;
    m.setTrackTitle("Overwritten");
    m.setTrackArtist("Overwritten");
    m.setTotalTracks(99);
    AudioMetadata::addInfoFromVorbisTag(&tag, m);
    EXPECT_EQ(m.trackArtist(), "A B");
    EXPECT_EQ(m.trackTitle(), "\xE6\x97\xA5\xE6\x9C\xAC");
    EXPECT_EQ(m.trackComment(), "Description field");
    EXPECT_EQ(m.trackNumber(), 5);
    EXPECT_EQ(m.totalTracks(), 12);
    EXPECT_EQ(m.discNumber(), 2);
    EXPECT_EQ(m.discTotal(), 3);
    EXPECT_EQ(m.bpm(), 96);
    EXPECT_EQ(m.partOfACompilation(), true);
    EXPECT_EQ(m.sourceEncodedWith(), "Encoder");
    EXPECT_EQ(m.lyrics(), "Lyrics");

    TagLib::Ogg::XiphComment author;
    author.addField("AUTHOR", "Author");
    AudioMetadata n;
    AudioMetadata::addInfoFromVorbisTag(&author, n);
    EXPECT_EQ(n.trackArtist(), "Author");
}

TEST(TagMappingTest, XiphPictureFields) {
    const Bytes png = makePNG(6, 2);
    TagLib::Ogg::XiphComment tag;
    tag.addField("METADATA_BLOCK_PICTURE", "!!not base64!!", false);
    tag.addField("METADATA_BLOCK_PICTURE", "AAAAAwAAAAlpbWFnZS9wbmc=", false); // cut short
    tag.addField("METADATA_BLOCK_PICTURE", pictureBlockBase64(png, 4, "image/png", "Back"), false);

    AudioMetadata m;
    auto earlier = std::make_shared<AlbumArtwork>();
    earlier->setData(makeJPEG(1, 1));
    m.setAlbumArtwork(earlier);
    AudioMetadata::addInfoFromVorbisTag(&tag, m);
    ASSERT_TRUE(m.albumArtwork());
    EXPECT_NE(m.albumArtwork(), earlier); // the Xiph comment overwrites
    EXPECT_EQ(*m.albumArtwork()->data(), png);
    EXPECT_EQ(m.albumArtwork()->artworkType(), 4);
    EXPECT_EQ(m.albumArtwork()->mimeType(), "image/png");
    EXPECT_EQ(m.albumArtwork()->comments(), "Back");

    // A comment parsed from bytes keeps its pictures apart from its fields.
    TagLib::Ogg::XiphComment parsed(tag.render());
    AudioMetadata n;
    AudioMetadata::addInfoFromVorbisTag(&parsed, n);
    ASSERT_TRUE(n.albumArtwork());
    EXPECT_EQ(*n.albumArtwork()->data(), png);
    EXPECT_EQ(n.albumArtwork()->artworkType(), 4);

    // Declared lengths far beyond the block, and nothing but garbage.
    TagLib::ByteVector lying = TagLib::ByteVector::fromUInt(3);
    lying.append(TagLib::ByteVector::fromUInt(0xFFFFFFF0u));
    lying.append(TagLib::ByteVector(40, 'x'));
    TagLib::Ogg::XiphComment hostile;
    hostile.addField("METADATA_BLOCK_PICTURE", TagLib::String(lying.toBase64()), false);
    hostile.addField("METADATA_BLOCK_PICTURE", "====", false);
    AudioMetadata o;
    AudioMetadata::addInfoFromVorbisTag(&hostile, o);
    EXPECT_FALSE(o.albumArtwork());
}

TEST(TagMappingTest, MP4ItemsAndCovers) {
    TagLib::MP4::Tag tag;
    tag.setTitle("Title");
    tag.setComment("Comment");
    tag.setYear(1994);
    tag.setItem("trkn", TagLib::MP4::Item(4, 11));
    tag.setItem("disk", TagLib::MP4::Item(1, 2));
    tag.setItem(mp4Key("\251wrt"), TagLib::StringList(u("Comp\xC3\xB3ser")));
    TagLib::StringList two;
    two.append("First");
    two.append("Second");
    tag.setItem("aART", two);
    tag.setItem("tmpo", TagLib::MP4::Item(0));
    tag.setItem("cpil", TagLib::MP4::Item(false));
    tag.setItem("----:com.apple.iTunes:initialkey", TagLib::StringList("Dm"));
    tag.setItem("----:com.apple.iTunes:KEY", TagLib::StringList("Em"));
    tag.setItem("----:com.apple.iTunes:ISRC", TagLib::StringList("FRZ039800212"));
    tag.setItem(mp4Key("\251too"), TagLib::StringList("Encoder"));

    AudioMetadata m;
    AudioMetadata::addInfoFromMP4Tag(&tag, m);
    EXPECT_EQ(m.trackTitle(), "Title");
    EXPECT_EQ(m.trackComment(), "Comment");
    EXPECT_EQ(m.trackYear(), 1994);
    EXPECT_EQ(m.trackNumber(), 4);
    EXPECT_EQ(m.totalTracks(), 11);
    EXPECT_EQ(m.discNumber(), 1);
    EXPECT_EQ(m.discTotal(), 2);
    EXPECT_EQ(m.trackComposer(), "Comp\xC3\xB3ser");
    EXPECT_EQ(m.albumArtist(), "First Second");
    EXPECT_FALSE(m.bpm());
    EXPECT_FALSE(m.partOfACompilation());
    EXPECT_EQ(m.key(), "Em");
    EXPECT_EQ(m.ISRC(), "FRZ039800212");
    EXPECT_EQ(m.sourceEncodedWith(), "Encoder");

    // Only JPEG is labelled as such; every other format is called PNG.
    const std::tuple<TagLib::MP4::CoverArt::Format, Bytes, const char*> covers[] = {
        {TagLib::MP4::CoverArt::JPEG, makeJPEG(3, 3), "image/jpeg"},
        {TagLib::MP4::CoverArt::PNG, makePNG(3, 3), "image/png"},
        {TagLib::MP4::CoverArt::BMP, makeBMP(3, 3), "image/png"},
    };
    for (const auto& [format, bytes, mime] : covers) {
        TagLib::MP4::Tag withCover;
        TagLib::MP4::CoverArtList list;
        list.append(TagLib::MP4::CoverArt(format, bv(bytes)));
        list.append(TagLib::MP4::CoverArt(TagLib::MP4::CoverArt::PNG, bv(makePNG(9, 9))));
        withCover.setItem("covr", list);
        withCover.setItem("tmpo", TagLib::MP4::Item(120));
        withCover.setItem("cpil", TagLib::MP4::Item(true));
        AudioMetadata n;
        AudioMetadata::addInfoFromMP4Tag(&withCover, n);
        ASSERT_TRUE(n.albumArtwork());
        EXPECT_EQ(*n.albumArtwork()->data(), bytes);
        EXPECT_EQ(n.albumArtwork()->mimeType(), mime);
        EXPECT_EQ(n.albumArtwork()->artworkType(), 3);
        EXPECT_EQ(n.bpm(), 120);
        EXPECT_EQ(n.partOfACompilation(), true);
    }
}

TEST(TagMappingTest, ASFAttributesAsTextOrNumbers) {
    TagLib::ASF::Tag tag;
    tag.setTitle("Title");
    tag.setTrack(6);
    tag.setAttribute("WM/TrackTotal", TagLib::ASF::Attribute(14u));
    tag.setAttribute("WM/BPM", TagLib::String("90"));
    tag.setAttribute("WM/BeatsPerMinute", TagLib::String(" 120"));
    tag.setAttribute("WM/PartOfSet", TagLib::String("2/3"));
    tag.setAttribute("WM/DiscTotal", TagLib::String("5"));
    tag.setAttribute("WM/IsCompilation", TagLib::ASF::Attribute(true));
    tag.setAttribute("WM/InitialKey", TagLib::String("G"));
    tag.setAttribute("WM/ISRC", TagLib::String("ISRC1"));
    tag.setAttribute("WM/Composer", TagLib::String("Composer"));
    tag.setAttribute("Copyright", TagLib::String("(C)"));
    tag.setAttribute("WM/Lyrics", TagLib::String("Lyrics"));
    tag.setAttribute("WM/AlbumArtist", TagLib::String("AA"));
    tag.setAttribute("WM/ContentGroupDescription", TagLib::String("Group"));
    tag.setAttribute("WM/EncodedBy", TagLib::String("Enc"));
    const Bytes png = makePNG(2, 5);
    TagLib::ASF::Picture picture;
    picture.setPicture(bv(png));
    picture.setMimeType("image/png");
    picture.setType(TagLib::ASF::Picture::Artist);
    picture.setDescription("Band");
    tag.setAttribute("WM/Picture", TagLib::ASF::Attribute(picture));

    AudioMetadata m;
    AudioMetadata::addInfoFromASFTag(&tag, m);
    EXPECT_EQ(m.trackTitle(), "Title");
    EXPECT_EQ(m.trackNumber(), 6);
    EXPECT_EQ(m.totalTracks(), 14);
    EXPECT_EQ(m.bpm(), 120);
    EXPECT_EQ(m.discNumber(), 2);
    EXPECT_EQ(m.discTotal(), 3); // from the pair; WM/DiscTotal only fills an absent total
    EXPECT_EQ(m.partOfACompilation(), true);
    EXPECT_EQ(m.key(), "G");
    EXPECT_EQ(m.ISRC(), "ISRC1");
    EXPECT_EQ(m.trackComposer(), "Composer");
    EXPECT_EQ(m.trackCopyright(), "(C)");
    EXPECT_EQ(m.lyrics(), "Lyrics");
    EXPECT_EQ(m.albumArtist(), "AA");
    EXPECT_EQ(m.grouping(), "Group");
    EXPECT_EQ(m.sourceEncodedWith(), "Enc");
    ASSERT_TRUE(m.albumArtwork());
    EXPECT_EQ(*m.albumArtwork()->data(), png);
    EXPECT_EQ(m.albumArtwork()->artworkType(), 8);
    EXPECT_EQ(m.albumArtwork()->comments(), "Band");

    TagLib::ASF::Tag other;
    other.setAttribute("WM/PartOfSet", TagLib::String("4"));
    other.setAttribute("WM/DiscTotal", TagLib::ASF::Attribute(static_cast<unsigned long long>(7)));
    other.setAttribute("WM/TrackTotal", TagLib::String("lots"));
    other.setAttribute("WM/Picture", TagLib::ASF::Attribute(TagLib::ByteVector("\x03junk", 5)));
    AudioMetadata n;
    AudioMetadata::addInfoFromASFTag(&other, n);
    EXPECT_EQ(n.discNumber(), 4);
    EXPECT_EQ(n.discTotal(), 7);
    EXPECT_EQ(n.totalTracks(), 0);
    EXPECT_FALSE(n.albumArtwork());
}

// One MP3 carrying three tags, written by TagLib and read back from disk in
// the order the MP3 reader uses: ID3v2, then ID3v1, then APE.
TEST(TagMappingTest, TagOrderIsPrecedenceInOneFile) {
    test::TempDir dir;
    const std::string path = dir.file("three-tags.mp3");
    ASSERT_EQ(test::runCommand("ffmpeg -v error -f lavfi -i sine=frequency=440:duration=0.3 "
                               "-c:a libmp3lame -map_metadata -1 -y " +
                               test::shellQuote(path))
                  .exitCode,
              0);
    {
        TagLib::MPEG::File file(path.c_str());
        ASSERT_TRUE(file.isValid());
        auto* id3v2 = file.ID3v2Tag(true);
        id3v2->setTitle("ID3v2 Title");
        addTextFrame(*id3v2, "TRCK", "3/10");
        auto* id3v1 = file.ID3v1Tag(true);
        id3v1->setTitle("ID3v1 Title");
        id3v1->setArtist("ID3v1 Artist");
        id3v1->setTrack(5);
        auto* ape = file.APETag(true);
        ape->setTitle("APE Title");
        ape->setArtist("APE Artist");
        ape->addValue("TRACK", "8/12");
        ape->addValue("COMPOSER", "APE Composer");
        ape->addValue("TRACKTOTAL", "20");
        ASSERT_TRUE(
            file.save(TagLib::MPEG::File::AllTags, TagLib::File::StripNone, TagLib::ID3v2::v4));
    }
    TagLib::MPEG::File file(path.c_str());
    ASSERT_TRUE(file.hasID3v2Tag() && file.hasID3v1Tag() && file.hasAPETag());
    AudioMetadata m;
    AudioMetadata::addInfoFromID3v2Tag(file.ID3v2Tag(), m);
    AudioMetadata::addInfoFromID3v1Tag(file.ID3v1Tag(), m);
    AudioMetadata::addInfoFromAPETag(file.APETag(), m);
    EXPECT_EQ(m.trackTitle(), "ID3v2 Title");
    EXPECT_EQ(m.trackArtist(), "ID3v1 Artist");
    EXPECT_EQ(m.trackComposer(), "APE Composer");
    EXPECT_EQ(m.trackNumber(), 3);
    EXPECT_EQ(m.totalTracks(), 10);
}

// The Xiph comment writes over whatever an earlier tag left, and a tag read
// after it only fills the gaps.
TEST(TagMappingTest, XiphCommentWinsInFLAC) {
    test::TempDir dir;
    const std::string wav = dir.file("in.wav"), path = dir.file("both.flac");
    test::writeWav(wav, test::makeSignal(4410, 2, 16), 2, 44100, 16);
    ASSERT_EQ(
        test::runCommand("flac -s -f -o " + test::shellQuote(path) + " " + test::shellQuote(wav))
            .exitCode,
        0);
    {
        TagLib::FLAC::File file(path.c_str());
        ASSERT_TRUE(file.isValid());
        file.xiphComment(true)->addField("TITLE", "Xiph Title");
        file.ID3v2Tag(true)->setTitle("ID3v2 Title");
        file.ID3v2Tag(true)->setArtist("ID3v2 Artist");
        ASSERT_TRUE(file.save());
    }
    TagLib::FLAC::File file(path.c_str());
    ASSERT_TRUE(file.hasXiphComment() && file.hasID3v2Tag());
    AudioMetadata m;
    AudioMetadata::addInfoFromVorbisTag(file.xiphComment(), m);
    AudioMetadata::addInfoFromID3v2Tag(file.ID3v2Tag(), m);
    EXPECT_EQ(m.trackTitle(), "Xiph Title");
    EXPECT_EQ(m.trackArtist(), "ID3v2 Artist");

    AudioMetadata reversed;
    AudioMetadata::addInfoFromID3v2Tag(file.ID3v2Tag(), reversed);
    AudioMetadata::addInfoFromVorbisTag(file.xiphComment(), reversed);
    EXPECT_EQ(reversed.trackTitle(), "Xiph Title");
}

} // namespace
} // namespace velvox
