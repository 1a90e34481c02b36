// Writing the record into tags: real files made by the reference encoders are
// tagged, saved and reopened; the record read back must match what was
// written, and an independent reader (metaflac, ffprobe, mutagen) must see the
// same values. Then the rules about which names are removed and written.

#include "metadata/AudioMetadata.h"

#include <map>
#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <taglib/apefile.h>
#include <taglib/apetag.h>
#include <taglib/asffile.h>
#include <taglib/asftag.h>
#include <taglib/attachedpictureframe.h>
#include <taglib/commentsframe.h>
#include <taglib/flacfile.h>
#include <taglib/flacpicture.h>
#include <taglib/id3v1tag.h>
#include <taglib/id3v2framefactory.h>
#include <taglib/id3v2header.h>
#include <taglib/id3v2tag.h>
#include <taglib/mp4file.h>
#include <taglib/mp4tag.h>
#include <taglib/mpegfile.h>
#include <taglib/textidentificationframe.h>
#include <taglib/unsynchronizedlyricsframe.h>
#include <taglib/xiphcomment.h>

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

// Short audio files made by the reference encoders.
std::string makeAudioFile(const test::TempDir& dir, const std::string& name) {
    const std::string path = dir.file(name);
    const std::string extension = name.substr(name.rfind('.') + 1);
    std::string command;
    if (extension == "flac") {
        const std::string wav = dir.file(name + ".wav");
        test::writeWav(wav, test::makeSignal(8820, 2, 16), 2, 44100, 16);
        command = "flac -s -f -o " + shellQuote(path) + " " + shellQuote(wav);
    } else {
        const char* codec = extension == "mp3"   ? "libmp3lame"
                            : extension == "m4a" ? "aac"
                                                 : "wmav2";
        command = "ffmpeg -v error -f lavfi -i sine=frequency=440:duration=0.3 -c:a " +
                  std::string(codec) + " -y " + shellQuote(path);
    }
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

std::multimap<std::string, std::string> metaflacTags(const std::string& path) {
    const auto result = runCommand("metaflac --export-tags-to=- " + shellQuote(path));
    EXPECT_EQ(result.exitCode, 0);
    std::multimap<std::string, std::string> tags;
    size_t start = 0;
    while (start < result.output.size()) {
        size_t end = result.output.find('\n', start);
        if (end == std::string::npos)
            end = result.output.size();
        const std::string line = result.output.substr(start, end - start);
        const size_t equals = line.find('=');
        if (equals != std::string::npos)
            tags.emplace(line.substr(0, equals), line.substr(equals + 1));
        start = end + 1;
    }
    return tags;
}

std::string only(const std::multimap<std::string, std::string>& tags, const std::string& key) {
    EXPECT_EQ(tags.count(key), 1u) << key;
    const auto found = tags.find(key);
    return found == tags.end() ? std::string() : found->second;
}

// mutagen comes with the system's Python (python3-mutagen), which need not
// be the first python3 on the PATH.
const std::string kPython = "/usr/bin/python3";

// A missing reference tool fails the test rather than skipping it.
class TagWritingTest : public ::testing::Test {
protected:
    void SetUp() override {
        for (const char* tool : {"flac", "metaflac", "ffmpeg", "ffprobe"})
            ASSERT_TRUE(test::haveTool(tool)) << tool << " (scripts/setup.sh installs it)";
        ASSERT_EQ(runCommand(kPython + " -c 'import mutagen' 2>/dev/null").exitCode, 0)
            << "mutagen (scripts/setup.sh installs it)";
    }
};

// The values of the fields ffprobe names alike in ID3v2 and MP4.
void expectCommonFFprobeTags(const std::map<std::string, std::string>& tags) {
    const std::pair<const char*, std::string> expected[] = {
        {"title", kTitle},        {"artist", "Track Artist"},
        {"album", "Album"},       {"album_artist", "Album Artist"},
        {"date", "1999"},         {"track", "3/12"},
        {"disc", "2/4"},          {"genre", "Electronic"},
        {"composer", "Composer"}, {"copyright", "(C) 1999 Label"},
        {"comment", kComment},    {"compilation", "1"}};
    for (const auto& [key, value] : expected) {
        const auto found = tags.find(key);
        EXPECT_EQ(found == tags.end() ? "(none)" : found->second, value) << key;
    }
}

// The default text encoding is TagLib-wide; tests that change it put it back.
class DefaultTextEncodingGuard {
public:
    DefaultTextEncodingGuard()
        : saved_(TagLib::ID3v2::FrameFactory::instance()->defaultTextEncoding()) {}
    ~DefaultTextEncodingGuard() {
        TagLib::ID3v2::FrameFactory::instance()->setDefaultTextEncoding(saved_);
    }

private:
    TagLib::String::Type saved_;
};

// ---------------------------------------------------------------------------
// Round trips through real files

TEST_F(TagWritingTest, XiphCommentRoundTripInFLAC) {
    test::TempDir dir;
    const std::string path = makeAudioFile(dir, "out.flac");
    const AudioMetadata written = makeFullRecord();
    {
        TagLib::FLAC::File file(path.c_str());
        ASSERT_TRUE(file.isValid());
        written.fillOutXiphComment(file.xiphComment(true), kEncodedBy, kComment, true);
        ASSERT_TRUE(file.save());
    }
    TagLib::FLAC::File file(path.c_str());
    AudioMetadata read;
    AudioMetadata::addInfoFromVorbisTag(file.xiphComment(), read);
    expectSameTagFields(read, written);
    EXPECT_EQ(read.trackComment(), kComment);
    EXPECT_EQ(read.sourceEncodedWith(), kEncodedBy);
    EXPECT_EQ(read.albumArtwork()->artworkType(), 3);
    EXPECT_EQ(read.albumArtwork()->comments(), "Front");
    EXPECT_EQ(read.albumArtwork()->mimeType(), "image/png");

    const auto tags = metaflacTags(path);
    EXPECT_EQ(only(tags, "TITLE"), kTitle);
    EXPECT_EQ(only(tags, "ARTIST"), "Track Artist");
    EXPECT_EQ(only(tags, "ALBUM"), "Album");
    EXPECT_EQ(only(tags, "DATE"), "1999");
    EXPECT_EQ(only(tags, "DESCRIPTION"), kComment);
    EXPECT_EQ(only(tags, "TRACKNUMBER"), "3");
    EXPECT_EQ(only(tags, "TRACKTOTAL"), "12");
    EXPECT_EQ(only(tags, "DISCNUMBER"), "2");
    EXPECT_EQ(only(tags, "DISCTOTAL"), "4");
    EXPECT_EQ(only(tags, "GENRE"), "Electronic");
    EXPECT_EQ(only(tags, "GROUPING"), "Grouping");
    EXPECT_EQ(only(tags, "COMPOSER"), "Composer");
    EXPECT_EQ(only(tags, "COPYRIGHT"), "(C) 1999 Label");
    EXPECT_EQ(only(tags, "ALBUMARTIST"), "Album Artist");
    EXPECT_EQ(only(tags, "LYRICS"), "la la la");
    EXPECT_EQ(only(tags, "BPM"), "128");
    EXPECT_EQ(only(tags, "KEY"), "Am");
    EXPECT_EQ(only(tags, "ISRC"), "USRC17607839");
    EXPECT_EQ(only(tags, "COMPILATION"), "1");
    EXPECT_EQ(only(tags, "ENCODEDBY"), kEncodedBy);
    EXPECT_EQ(tags.count("YEAR") + tags.count("COMMENT") + tags.count("COVERART"), 0u);

    // The picture field decoded by mutagen: role, MIME type, description, bytes.
    const std::string picture = only(tags, "METADATA_BLOCK_PICTURE");
    const auto decoded =
        runCommand(kPython +
                   " -c 'import sys, base64, hashlib; from mutagen.flac import Picture; "
                   "p = Picture(base64.b64decode(sys.argv[1])); "
                   "print(p.type, p.mime, p.desc, hashlib.md5(p.data).hexdigest())' " +
                   shellQuote(picture));
    EXPECT_EQ(decoded.exitCode, 0);
    EXPECT_EQ(decoded.output, "3 image/png Front " + *written.albumArtwork()->md5() + "\n");
}

struct ID3v2Case {
    int majorVersion;
    int encoding;
};

class TagWritingID3v2Test : public TagWritingTest,
                            public ::testing::WithParamInterface<ID3v2Case> {};

TEST_P(TagWritingID3v2Test, RoundTripInMP3) {
    DefaultTextEncodingGuard guard;
    const auto [majorVersion, encoding] = GetParam();
    test::TempDir dir;
    const std::string path = makeAudioFile(dir, "out.mp3");
    AudioMetadata written = makeFullRecord();
    written.albumArtwork()->setArtworkType(4);
    {
        TagLib::MPEG::File file(path.c_str());
        ASSERT_TRUE(file.isValid());
        auto* tag = file.ID3v2Tag(true);
        ASSERT_TRUE(tag->frameListMap().contains("TSSE")); // ffmpeg's own, to be cleared
        written.fillOutID3v2Tag(tag, majorVersion, encoding, kEncodedBy, kComment);
        EXPECT_EQ(tag->header()->majorVersion(), static_cast<unsigned>(majorVersion));
        EXPECT_EQ(TagLib::ID3v2::FrameFactory::instance()->defaultTextEncoding(), encoding);
        ASSERT_TRUE(file.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripOthers,
                              majorVersion == 3 ? TagLib::ID3v2::v3 : TagLib::ID3v2::v4));
    }
    TagLib::MPEG::File file(path.c_str());
    ASSERT_TRUE(file.hasID3v2Tag());
    EXPECT_EQ(file.ID3v2Tag()->header()->majorVersion(), static_cast<unsigned>(majorVersion));
    AudioMetadata read;
    AudioMetadata::addInfoFromID3v2Tag(file.ID3v2Tag(), read);
    expectSameTagFields(read, written);
    EXPECT_EQ(read.trackComment(), kComment);
    EXPECT_EQ(read.sourceEncodedWith(), kEncodedBy);
    EXPECT_EQ(read.albumArtwork()->artworkType(), 4);
    EXPECT_EQ(read.albumArtwork()->comments(), "Front");
    EXPECT_EQ(read.albumArtwork()->mimeType(), "image/png");
    EXPECT_FALSE(file.ID3v2Tag()->frameListMap().contains("TSSE"));

    const auto tags = ffprobeTags(path);
    expectCommonFFprobeTags(tags);
    EXPECT_EQ(tags.at("encoded_by"), kEncodedBy);
    EXPECT_EQ(tags.at("lyrics-eng"), "la la la");
    EXPECT_EQ(tags.at("tbpm"), "128");
    EXPECT_EQ(tags.at("tkey"), "Am");
    EXPECT_EQ(tags.at("tsrc"), "USRC17607839");
    EXPECT_EQ(tags.count("encoder"), 0u);
}

INSTANTIATE_TEST_SUITE_P(TagWriting, TagWritingID3v2Test,
                         ::testing::Values(ID3v2Case{3, 1}, ID3v2Case{4, 3}, ID3v2Case{3, 0},
                                           ID3v2Case{4, 2}),
                         [](const auto& info) {
                             return "v2_" + std::to_string(info.param.majorVersion) + "_encoding" +
                                    std::to_string(info.param.encoding);
                         });

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

TEST_F(TagWritingTest, MP4RoundTripInM4A) {
    test::TempDir dir;
    const std::string path = makeAudioFile(dir, "out.m4a");
    AudioMetadata written = makeFullRecord();
    written.setAlbumArtwork(artwork(test::jpegBytes(5, 4)));
    {
        TagLib::MP4::File file(path.c_str());
        ASSERT_TRUE(file.isValid());
        written.fillOutMP4Tag(file.tag(), kEncodedBy, kComment);
        ASSERT_TRUE(file.save());
    }
    TagLib::MP4::File file(path.c_str());
    AudioMetadata read;
    AudioMetadata::addInfoFromMP4Tag(file.tag(), read);
    expectSameTagFields(read, written);
    EXPECT_EQ(read.trackComment(), kComment);
    EXPECT_EQ(read.sourceEncodedWith(), kEncodedBy);
    EXPECT_EQ(read.albumArtwork()->mimeType(), "image/jpeg");

    const auto tags = ffprobeTags(path);
    expectCommonFFprobeTags(tags);
    EXPECT_EQ(tags.at("grouping"), "Grouping");
    EXPECT_EQ(tags.at("lyrics"), "la la la");
    EXPECT_EQ(tags.at("encoder"), kEncodedBy);
    EXPECT_EQ(tags.at("initialkey"), "Am");
    EXPECT_EQ(tags.at("isrc"), "USRC17607839");
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

// ---------------------------------------------------------------------------
// Which names are removed and which are written

} // namespace
} // namespace velvox
