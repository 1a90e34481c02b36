// Writing the record into the tag kinds that the tag matrix reaches least
// (APE and ID3v1 side by side on MP3, ASF on WMA): real files made by FFmpeg
// are tagged, saved and reopened; the record read back must match what was
// written, and an independent reader (ffprobe, mutagen) must see the same
// values.

#include "metadata/AudioMetadata.h"

#include <map>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <taglib/apetag.h>
#include <taglib/asffile.h>
#include <taglib/asftag.h>
#include <taglib/id3v1tag.h>
#include <taglib/mpegfile.h>

#include "metadata/MetadataFixtures.h"
#include "support/TestSupport.h"

namespace velvox {
namespace {

using Bytes = std::vector<uint8_t>;
using test::runCommand;
using test::shellQuote;

const std::string kTitle = "Caf\xC3\xA9 \xE2\x80\x94 \xE6\x97\xA5\xE6\x9C\xAC"; // not Latin-1
const std::string kEncodedBy = "FLAC 1.4.2 via Velvox 0.1";
const std::string kComment = "Converted \xE2\x9C\x93";

std::shared_ptr<AlbumArtwork> artwork(Bytes data, int type = 3,
                                      std::optional<std::string> comments = std::nullopt,
                                      std::optional<std::string> name = std::nullopt) {
    auto a = std::make_shared<AlbumArtwork>();
    a->setData(std::move(data));
    a->setArtworkType(type);
    a->setComments(std::move(comments));
    a->setOriginalFilename(std::move(name));
    return a;
}

// Every tag field present, each with a value no other field has.
AudioMetadata makeFullRecord() {
    AudioMetadata m;
    m.setTrackNumber(3);
    m.setTotalTracks(12);
    m.setTrackTitle(kTitle);
    m.setAlbumTitle("Album");
    m.setTrackArtist("Track Artist");
    m.setAlbumArtist("Album Artist");
    m.setTrackComposer("Composer");
    m.setTrackYear(1999);
    m.setTrackGenre("Electronic");
    m.setTrackComment("The record's own comment, never written");
    m.setAlbumArtwork(artwork(test::pngBytes(8, 6), 3, "Front", "front.png"));
    m.setGrouping("Grouping");
    m.setDiscNumber(2);
    m.setDiscTotal(4);
    m.setLyrics("la la la");
    m.setBpm(128);
    m.setPartOfACompilation(true);
    m.setTrackCopyright("(C) 1999 Label");
    m.setISRC("USRC17607839");
    m.setKey("Am");
    return m;
}

// The fields written from a full record, as a reader must find them again.
void expectSameTagFields(const AudioMetadata& read, const AudioMetadata& written,
                         bool withGrouping = true) {
    EXPECT_EQ(read.trackNumber(), written.trackNumber());
    EXPECT_EQ(read.totalTracks(), written.totalTracks());
    EXPECT_EQ(read.trackTitle(), written.trackTitle());
    EXPECT_EQ(read.albumTitle(), written.albumTitle());
    EXPECT_EQ(read.trackArtist(), written.trackArtist());
    EXPECT_EQ(read.albumArtist(), written.albumArtist());
    EXPECT_EQ(read.trackComposer(), written.trackComposer());
    EXPECT_EQ(read.trackYear(), written.trackYear());
    EXPECT_EQ(read.trackGenre(), written.trackGenre());
    if (withGrouping) {
        EXPECT_EQ(read.grouping(), written.grouping());
    }
    EXPECT_EQ(read.discNumber(), written.discNumber());
    EXPECT_EQ(read.discTotal(), written.discTotal());
    EXPECT_EQ(read.lyrics(), written.lyrics());
    EXPECT_EQ(read.bpm(), written.bpm());
    EXPECT_EQ(read.partOfACompilation(), written.partOfACompilation());
    EXPECT_EQ(read.trackCopyright(), written.trackCopyright());
    EXPECT_EQ(read.ISRC(), written.ISRC());
    EXPECT_EQ(read.key(), written.key());
    ASSERT_TRUE(read.albumArtwork());
    EXPECT_EQ(read.albumArtwork()->md5(), written.albumArtwork()->md5());
}

// Short audio files made by FFmpeg.
std::string makeAudioFile(const test::TempDir& dir, const std::string& name) {
    const std::string path = dir.file(name);
    const std::string codec = name.ends_with(".mp3") ? "libmp3lame" : "wmav2";
    const std::string command =
        "ffmpeg -v error -f lavfi -i sine=frequency=440:duration=0.3 -c:a " + codec + " -y " +
        shellQuote(path);
    EXPECT_EQ(runCommand(command).exitCode, 0) << command;
    return path;
}

// The container's tags as ffprobe reports them, keys in lower case.
std::map<std::string, std::string> ffprobeTags(const std::string& path) {
    const auto result =
        runCommand("ffprobe -v error -show_format -print_format json " + shellQuote(path));
    EXPECT_EQ(result.exitCode, 0);
    std::map<std::string, std::string> tags;
    const auto json = nlohmann::json::parse(result.output, nullptr, false);
    if (json.is_discarded() || !json.contains("format") || !json["format"].contains("tags"))
        return tags;
    for (const auto& [key, value] : json["format"]["tags"].items()) {
        std::string lower = key;
        for (auto& c : lower)
            c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
        tags[lower] = value.get<std::string>();
    }
    return tags;
}

// mutagen comes with the system's Python (python3-mutagen), which need not
// be the first python3 on the PATH.
const std::string kPython = "/usr/bin/python3";

// A missing reference tool fails the test rather than skipping it.
class TagWritingTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* tool : {"ffmpeg", "ffprobe"})
            ASSERT_TRUE(test::haveTool(tool)) << tool << " (scripts/setup.sh installs it)";
        ASSERT_EQ(runCommand(kPython + " -c 'import mutagen' 2>/dev/null").exitCode, 0)
            << "mutagen (scripts/setup.sh installs it)";
    }
};

// ---------------------------------------------------------------------------
// Round trips through real files

TEST_F(TagWritingTest, APEAndID3v1RoundTripInMP3) {
    test::TempDir dir;
    const std::string path = makeAudioFile(dir, "out.mp3");
    AudioMetadata written = makeFullRecord();
    written.setTrackTitle("Plain Title"); // ID3v1 holds Latin-1 only
    {
        TagLib::MPEG::File file(path.c_str());
        ASSERT_TRUE(file.isValid());
        written.fillOutAPETag(file.APETag(true), kEncodedBy, kComment);
        written.fillOutID3v1Tag(file.ID3v1Tag(true), std::string("ID3v1 comment"));
        ASSERT_TRUE(file.save(TagLib::MPEG::File::APE | TagLib::MPEG::File::ID3v1,
                              TagLib::File::StripOthers));
    }
    TagLib::MPEG::File file(path.c_str());
    ASSERT_TRUE(file.hasAPETag() && file.hasID3v1Tag());
    ASSERT_FALSE(file.hasID3v2Tag());

    AudioMetadata fromAPE;
    AudioMetadata::addInfoFromAPETag(file.APETag(), fromAPE);
    expectSameTagFields(fromAPE, written);
    EXPECT_EQ(fromAPE.trackComment(), kComment);
    EXPECT_EQ(fromAPE.sourceEncodedWith(), kEncodedBy);
    EXPECT_EQ(fromAPE.albumArtwork()->originalFilename(), "front.png");
    EXPECT_EQ(fromAPE.albumArtwork()->mimeType(), "image/png"); // derived from the bytes

    AudioMetadata fromID3v1;
    AudioMetadata::addInfoFromID3v1Tag(file.ID3v1Tag(), fromID3v1);
    EXPECT_EQ(fromID3v1.trackTitle(), "Plain Title");
    EXPECT_EQ(fromID3v1.trackArtist(), "Track Artist");
    EXPECT_EQ(fromID3v1.albumTitle(), "Album");
    EXPECT_EQ(fromID3v1.trackComment(), "ID3v1 comment");
    EXPECT_EQ(fromID3v1.trackGenre(), "Electronic");
    EXPECT_EQ(fromID3v1.trackYear(), 1999);
    EXPECT_EQ(fromID3v1.trackNumber(), 3);

    // mutagen reads both tags on its own.
    const auto ape = runCommand(
        kPython +
        " -c 'import sys; from mutagen.apev2 import APEv2; t = APEv2(sys.argv[1]); "
        "print(\"|\".join(str(t[k]) for k in (\"Title\", \"Track\", \"TrackTotal\", "
        "\"DiscNumber\", \"DiscTotal\", \"Compilation\", \"EncodedBy\", \"Lyrics\", \"Year\"))); "
        "c = t[\"Cover Art (front)\"].value; print(c.split(b\"\\0\")[0].decode(), len(c))' " +
        shellQuote(path));
    EXPECT_EQ(ape.exitCode, 0);
    EXPECT_EQ(ape.output, "Plain Title|3|12|2|4|1|" + kEncodedBy + "|la la la|1999\nfront.png " +
                              std::to_string(10 + written.albumArtwork()->data()->size()) + "\n");
    const auto id3v1 = runCommand(kPython +
                                  " -c 'import sys; from mutagen.id3 import ParseID3v1; "
                                  "d = open(sys.argv[1], \"rb\").read()[-128:]; "
                                  "f = ParseID3v1(d); print(f[\"TIT2\"], f[\"TRCK\"], "
                                  "f[\"TDRC\"], f[\"COMM\"])' " +
                                  shellQuote(path));
    EXPECT_EQ(id3v1.exitCode, 0);
    EXPECT_EQ(id3v1.output, "Plain Title 3 1999 ID3v1 comment\n");
}

TEST_F(TagWritingTest, ASFRoundTripInWMA) {
    test::TempDir dir;
    const std::string path = makeAudioFile(dir, "out.wma");
    const AudioMetadata written = makeFullRecord();
    {
        TagLib::ASF::File file(path.c_str());
        ASSERT_TRUE(file.isValid());
        written.fillOutASFTag(file.tag(), kEncodedBy, kComment);
        ASSERT_TRUE(file.save());
    }
    TagLib::ASF::File file(path.c_str());
    AudioMetadata read;
    AudioMetadata::addInfoFromASFTag(file.tag(), read);
    read.setAlbumArtwork(written.albumArtwork()); // pictures are not written to ASF
    expectSameTagFields(read, written);
    EXPECT_EQ(read.sourceEncodedWith(), kEncodedBy);

    const auto tags = ffprobeTags(path);
    EXPECT_EQ(tags.at("title"), kTitle);
    EXPECT_EQ(tags.at("artist"), "Track Artist");
    EXPECT_EQ(tags.at("album"), "Album");
    EXPECT_EQ(tags.at("genre"), "Electronic");
    EXPECT_EQ(tags.at("wm/year"), "1999");
    EXPECT_EQ(tags.at("track"), "3");
    EXPECT_EQ(tags.at("wm/tracktotal"), "12");
    EXPECT_EQ(tags.at("disc"), "2/4");
    EXPECT_EQ(tags.at("wm/disctotal"), "4");
    EXPECT_EQ(tags.at("composer"), "Composer");
    EXPECT_EQ(tags.at("album_artist"), "Album Artist");
    EXPECT_EQ(tags.at("copyright"), "(C) 1999 Label");
    EXPECT_EQ(tags.at("wm/contentgroupdescription"), "Grouping");
    EXPECT_EQ(tags.at("wm/lyrics"), "la la la");
    EXPECT_EQ(tags.at("wm/beatsperminute"), "128");
    EXPECT_EQ(tags.at("wm/initialkey"), "Am");
    EXPECT_EQ(tags.at("wm/isrc"), "USRC17607839");
    EXPECT_EQ(tags.at("wm/iscompilation"), "1");
    EXPECT_EQ(tags.at("encoded_by"), kEncodedBy);
}

} // namespace
} // namespace velvox
