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

// ---------------------------------------------------------------------------

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
