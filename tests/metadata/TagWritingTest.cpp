// Writing the record into tags: real files made by the reference encoders are
// tagged, saved and reopened; the record read back must match what was
// written, and an independent reader (metaflac, ffprobe, mutagen) must see the
// same values. Then the rules about which names are removed and written.

#include "metadata/AudioMetadata.h"

#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <stb_image_write.h>

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

#include "support/TestSupport.h"

namespace velvox {
namespace {

using Bytes = std::vector<uint8_t>;
using test::runCommand;
using test::shellQuote;

const std::string kTitle = "Caf\xC3\xA9 \xE2\x80\x94 \xE6\x97\xA5\xE6\x9C\xAC"; // not Latin-1
const std::string kEncodedBy = "FLAC 1.4.2 via Velvox 0.1";
const std::string kComment = "Converted \xE2\x9C\x93";

void appendBytes(void* context, void* data, int size) {
    auto* out = static_cast<Bytes*>(context);
    out->insert(out->end(), static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
}

Bytes makePNG(int width, int height) {
    Bytes pixels(static_cast<size_t>(width) * height * 3);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<uint8_t>(i * 7);
    Bytes out;
    EXPECT_TRUE(
        stbi_write_png_to_func(appendBytes, &out, width, height, 3, pixels.data(), width * 3));
    return out;
}

Bytes makeJPEG(int width, int height) {
    Bytes pixels(static_cast<size_t>(width) * height * 3, 0x40);
    Bytes out;
    EXPECT_TRUE(stbi_write_jpg_to_func(appendBytes, &out, width, height, 3, pixels.data(), 90));
    return out;
}

// A 1 x 1 GIF89a.
Bytes makeGIF() {
    return {0x47, 0x49, 0x46, 0x38, 0x39, 0x61, 0x01, 0x00, 0x01, 0x00, 0x80,
            0x00, 0x00, 0x00, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0x21, 0xF9, 0x04,
            0x01, 0x00, 0x00, 0x00, 0x00, 0x2C, 0x00, 0x00, 0x00, 0x00, 0x01,
            0x00, 0x01, 0x00, 0x00, 0x02, 0x02, 0x44, 0x01, 0x00, 0x3B};
}

Bytes bytesOf(const TagLib::ByteVector& v) {
    const auto* begin = reinterpret_cast<const uint8_t*>(v.data());
    return Bytes(begin, begin + v.size());
}

TagLib::ByteVector bv(const Bytes& b) {
    return TagLib::ByteVector(reinterpret_cast<const char*>(b.data()),
                              static_cast<unsigned int>(b.size()));
}

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
    m.setAlbumArtwork(artwork(makePNG(8, 6), 3, "Front", "front.png"));
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

bool haveReferenceTools() {
    for (const char* tool : {"flac", "metaflac", "ffmpeg", "ffprobe"})
        if (!test::haveTool(tool))
            return false;
    return runCommand(kPython + " -c 'import mutagen' 2>/dev/null").exitCode == 0;
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

TEST(TagWritingTest, XiphCommentRoundTripInFLAC) {
    if (!haveReferenceTools())
        GTEST_SKIP() << "reference tools missing";
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

class TagWritingID3v2Test : public ::testing::TestWithParam<ID3v2Case> {};

TEST_P(TagWritingID3v2Test, RoundTripInMP3) {
    if (!haveReferenceTools())
        GTEST_SKIP() << "reference tools missing";
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
    EXPECT_EQ(tags.at("title"), kTitle);
    EXPECT_EQ(tags.at("artist"), "Track Artist");
    EXPECT_EQ(tags.at("album"), "Album");
    EXPECT_EQ(tags.at("album_artist"), "Album Artist");
    EXPECT_EQ(tags.at("date"), "1999");
    EXPECT_EQ(tags.at("track"), "3/12");
    EXPECT_EQ(tags.at("disc"), "2/4");
    EXPECT_EQ(tags.at("genre"), "Electronic");
    EXPECT_EQ(tags.at("composer"), "Composer");
    EXPECT_EQ(tags.at("copyright"), "(C) 1999 Label");
    EXPECT_EQ(tags.at("comment"), kComment);
    EXPECT_EQ(tags.at("encoded_by"), kEncodedBy);
    EXPECT_EQ(tags.at("lyrics-eng"), "la la la");
    EXPECT_EQ(tags.at("tbpm"), "128");
    EXPECT_EQ(tags.at("tkey"), "Am");
    EXPECT_EQ(tags.at("tsrc"), "USRC17607839");
    EXPECT_EQ(tags.at("compilation"), "1");
    EXPECT_EQ(tags.count("encoder"), 0u);
}

INSTANTIATE_TEST_SUITE_P(TagWriting, TagWritingID3v2Test,
                         ::testing::Values(ID3v2Case{3, 1}, ID3v2Case{4, 3}, ID3v2Case{3, 0},
                                           ID3v2Case{4, 2}),
                         [](const auto& info) {
                             return "v2_" + std::to_string(info.param.majorVersion) + "_encoding" +
                                    std::to_string(info.param.encoding);
                         });

TEST(TagWritingTest, APEAndID3v1RoundTripInMP3) {
    if (!haveReferenceTools())
        GTEST_SKIP() << "reference tools missing";
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

TEST(TagWritingTest, MP4RoundTripInM4A) {
    if (!haveReferenceTools())
        GTEST_SKIP() << "reference tools missing";
    test::TempDir dir;
    const std::string path = makeAudioFile(dir, "out.m4a");
    AudioMetadata written = makeFullRecord();
    written.setAlbumArtwork(artwork(makeJPEG(5, 4)));
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
    EXPECT_EQ(tags.at("title"), kTitle);
    EXPECT_EQ(tags.at("artist"), "Track Artist");
    EXPECT_EQ(tags.at("album"), "Album");
    EXPECT_EQ(tags.at("album_artist"), "Album Artist");
    EXPECT_EQ(tags.at("date"), "1999");
    EXPECT_EQ(tags.at("track"), "3/12");
    EXPECT_EQ(tags.at("disc"), "2/4");
    EXPECT_EQ(tags.at("genre"), "Electronic");
    EXPECT_EQ(tags.at("composer"), "Composer");
    EXPECT_EQ(tags.at("copyright"), "(C) 1999 Label");
    EXPECT_EQ(tags.at("comment"), kComment);
    EXPECT_EQ(tags.at("grouping"), "Grouping");
    EXPECT_EQ(tags.at("lyrics"), "la la la");
    EXPECT_EQ(tags.at("compilation"), "1");
    EXPECT_EQ(tags.at("encoder"), kEncodedBy);
    EXPECT_EQ(tags.at("initialkey"), "Am");
    EXPECT_EQ(tags.at("isrc"), "USRC17607839");
}

TEST(TagWritingTest, ASFRoundTripInWMA) {
    if (!haveReferenceTools())
        GTEST_SKIP() << "reference tools missing";
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

TagLib::ID3v2::Frame* firstFrame(const TagLib::ID3v2::Tag& tag, const char* id) {
    const auto& map = tag.frameListMap();
    const auto found = map.find(id);
    return found == map.end() || found->second.isEmpty() ? nullptr : found->second.front();
}

std::string frameText(const TagLib::ID3v2::Tag& tag, const char* id) {
    const auto* frame = firstFrame(tag, id);
    return frame ? frame->toString().to8Bit(true) : "<none>";
}

TEST(TagWritingTest, ID3v2TrackAndDiscForms) {
    DefaultTextEncodingGuard guard;
    struct Case {
        std::optional<int64_t> number, total;
        const char* expected;
    };
    const Case cases[] = {
        {3, 10, "3/10"},
        {4, std::nullopt, "4"},
        {std::nullopt, 12, "/12"},
        {std::nullopt, std::nullopt, "<none>"},
        {0, 0, "0/0"}, // zero is a value too
    };
    for (const auto& c : cases) {
        TagLib::ID3v2::Tag tag;
        tag.setTrack(9);
        AudioMetadata m;
        m.setTrackNumber(c.number);
        m.setTotalTracks(c.total);
        m.setDiscNumber(c.number);
        m.setDiscTotal(c.total);
        m.fillOutID3v2Tag(&tag, 4, 3, std::nullopt, std::nullopt);
        EXPECT_EQ(frameText(tag, "TRCK"), c.expected);
        EXPECT_EQ(frameText(tag, "TPOS"), c.expected);
    }
}

TEST(TagWritingTest, ID3v2ClearsEveryFrameAndSetsLanguages) {
    DefaultTextEncodingGuard guard;
    TagLib::ID3v2::Tag tag;
    tag.setTitle("Old Title");
    tag.setComment("Old comment");
    auto encoderText = std::make_unique<TagLib::ID3v2::TextIdentificationFrame>("TSSE");
    encoderText->setText("stale");
    tag.addFrame(encoderText.release());
    auto oldPicture = std::make_unique<TagLib::ID3v2::AttachedPictureFrame>();
    oldPicture->setPicture(bv(makeJPEG(2, 2)));
    tag.addFrame(oldPicture.release());

    AudioMetadata m;
    m.setTrackTitle("New Title");
    m.setLyrics("Words");
    m.setPartOfACompilation(false);
    m.fillOutID3v2Tag(&tag, 3, 1, std::nullopt, std::string("New comment"));

    std::set<std::string> ids;
    for (const auto& [id, frames] : tag.frameListMap())
        if (!frames.isEmpty())
            ids.insert(std::string(id.data(), id.size()));
    EXPECT_EQ(ids, (std::set<std::string>{"TIT2", "COMM", "USLT", "TCMP"}));
    EXPECT_EQ(tag.header()->majorVersion(), 3u);
    EXPECT_EQ(frameText(tag, "TCMP"), "0");
    const auto* comment = dynamic_cast<TagLib::ID3v2::CommentsFrame*>(firstFrame(tag, "COMM"));
    ASSERT_TRUE(comment);
    EXPECT_EQ(comment->language(), TagLib::ByteVector("eng"));
    EXPECT_EQ(comment->text(), "New comment");
    EXPECT_EQ(comment->textEncoding(), TagLib::String::UTF16);
    const auto* lyrics =
        dynamic_cast<TagLib::ID3v2::UnsynchronizedLyricsFrame*>(firstFrame(tag, "USLT"));
    ASSERT_TRUE(lyrics);
    EXPECT_EQ(lyrics->language(), TagLib::ByteVector("eng"));
    const auto* title =
        dynamic_cast<TagLib::ID3v2::TextIdentificationFrame*>(firstFrame(tag, "TIT2"));
    ASSERT_TRUE(title);
    EXPECT_EQ(title->textEncoding(), TagLib::String::UTF16);

    // An empty record leaves no frame at all.
    AudioMetadata().fillOutID3v2Tag(&tag, 4, 0, std::nullopt, std::nullopt);
    EXPECT_TRUE(tag.frameList().isEmpty());
}

TEST(TagWritingTest, XiphReplacesAlternateNames) {
    TagLib::Ogg::XiphComment tag;
    for (const char* name : {"TRACKNUM", "COMMENT", "YEAR", "TOTALTRACKS", "DISCNUM", "TOTALDISCS",
                             "UNSYNCEDLYRICS", "ENCODER", "ENCODED BY", "COVERART", "APIC"})
        tag.addField(name, "stale");
    tag.addField("TITLE", "first", false);
    tag.addField("TITLE", "second", false);
    tag.addField("VENDORSPECIFIC", "kept");

    AudioMetadata m;
    m.setTrackTitle("Title");
    m.setTrackNumber(7);
    m.setTotalTracks(9);
    m.setDiscNumber(1);
    m.setDiscTotal(2);
    m.setLyrics("Lyrics");
    m.setTrackYear(2010);
    m.fillOutXiphComment(&tag, std::string("Encoder"), std::string("Comment"), false);

    std::multimap<std::string, std::string> fields;
    for (const auto& [name, values] : tag.fieldListMap())
        for (const auto& value : values)
            fields.emplace(name.to8Bit(true), value.to8Bit(true));
    EXPECT_EQ(fields, (std::multimap<std::string, std::string>{
                          {"TITLE", "Title"},
                          {"TRACKNUMBER", "7"},
                          {"TRACKTOTAL", "9"},
                          {"DISCNUMBER", "1"},
                          {"DISCTOTAL", "2"},
                          {"LYRICS", "Lyrics"},
                          {"DATE", "2010"},
                          {"DESCRIPTION", "Comment"},
                          {"ENCODEDBY", "Encoder"},
                          {"VENDORSPECIFIC", "kept"},
                      }));
}

TEST(TagWritingTest, XiphCompilationOnlyWhenTrue) {
    for (const std::optional<bool> flag : {std::optional<bool>(false), std::optional<bool>()}) {
        TagLib::Ogg::XiphComment tag;
        tag.addField("COMPILATION", "1");
        AudioMetadata m;
        m.setPartOfACompilation(flag);
        m.fillOutXiphComment(&tag, std::nullopt, std::nullopt, true);
        EXPECT_FALSE(tag.contains("COMPILATION"));
    }
}

// A picture is stripped from a file when artwork is not to be written, also
// one TagLib had moved to its picture list on reading.
TEST(TagWritingTest, XiphWithoutArtworkStripsPictures) {
    if (!haveReferenceTools())
        GTEST_SKIP() << "reference tools missing";
    test::TempDir dir;
    const std::string path = makeAudioFile(dir, "pictures.flac");
    const AudioMetadata m = makeFullRecord();
    {
        TagLib::FLAC::File file(path.c_str());
        m.fillOutXiphComment(file.xiphComment(true), std::nullopt, std::nullopt, true);
        ASSERT_TRUE(file.save());
    }
    ASSERT_EQ(metaflacTags(path).count("METADATA_BLOCK_PICTURE"), 1u);
    {
        TagLib::FLAC::File file(path.c_str());
        m.fillOutXiphComment(file.xiphComment(), std::nullopt, std::nullopt, false);
        ASSERT_TRUE(file.save());
    }
    const auto tags = metaflacTags(path);
    EXPECT_EQ(tags.count("METADATA_BLOCK_PICTURE"), 0u);
    EXPECT_EQ(only(tags, "TITLE"), kTitle);
    TagLib::FLAC::File file(path.c_str());
    AudioMetadata read;
    AudioMetadata::addInfoFromVorbisTag(file.xiphComment(), read);
    EXPECT_FALSE(read.albumArtwork());
}

TagLib::ByteVector apeItemValue(const TagLib::APE::Tag& tag, const char* upperKey) {
    const auto& items = tag.itemListMap();
    const auto found = items.find(upperKey);
    return found == items.end() ? TagLib::ByteVector() : found->second.binaryData();
}

// A binary cover item's value: file name, one zero byte, the image.
TagLib::ByteVector coverValue(const char* name, const Bytes& image) {
    TagLib::ByteVector value(name);
    value.append(TagLib::ByteVector(1, '\0'));
    value.append(bv(image));
    return value;
}

TEST(TagWritingTest, APECoverArtRules) {
    const Bytes oldBack = makeJPEG(3, 3), oldFront = makeJPEG(4, 4), png = makePNG(2, 2);
    const TagLib::ByteVector oldBackValue = coverValue("old-back.jpg", oldBack);
    auto prepared = [&] {
        auto tag = std::make_unique<TagLib::APE::Tag>();
        tag->setItem("Cover Art (back)", TagLib::APE::Item("Cover Art (back)", oldBackValue, true));
        const TagLib::ByteVector front = coverValue("old-front.jpg", oldFront);
        tag->setItem("Cover Art (front)", TagLib::APE::Item("Cover Art (front)", front, true));
        tag->setItem("APIC", TagLib::APE::Item("APIC", front, true));
        return tag;
    };

    {
        // A front cover without a file name is stored as "cover.jpg"; the
        // back cover already there stays.
        auto tag = prepared();
        AudioMetadata m;
        m.setAlbumArtwork(artwork(png, 3));
        m.fillOutAPETag(tag.get(), std::nullopt, std::nullopt);
        EXPECT_EQ(apeItemValue(*tag, "COVER ART (FRONT)"), coverValue("cover.jpg", png));
        EXPECT_EQ(apeItemValue(*tag, "COVER ART (BACK)"), oldBackValue);
        EXPECT_FALSE(tag->itemListMap().contains("APIC"));
        const auto front = tag->itemListMap().find("COVER ART (FRONT)");
        ASSERT_NE(front, tag->itemListMap().end());
        EXPECT_EQ(front->second.key(), "Cover Art (front)"); // the spelling stored in the file
    }
    {
        // A back cover replaces the back cover and clears the front names.
        auto tag = prepared();
        AudioMetadata m;
        m.setAlbumArtwork(artwork(png, 4, std::nullopt, "back.png"));
        m.fillOutAPETag(tag.get(), std::nullopt, std::nullopt);
        EXPECT_EQ(apeItemValue(*tag, "COVER ART (BACK)"), coverValue("back.png", png));
        EXPECT_FALSE(tag->itemListMap().contains("COVER ART (FRONT)"));
        EXPECT_FALSE(tag->itemListMap().contains("APIC"));
    }
    {
        // No picture: the front names go, the back cover stays.
        auto tag = prepared();
        AudioMetadata().fillOutAPETag(tag.get(), std::nullopt, std::nullopt);
        EXPECT_EQ(tag->itemListMap().size(), 1u);
        EXPECT_EQ(apeItemValue(*tag, "COVER ART (BACK)"), oldBackValue);
    }
}

TEST(TagWritingTest, APEReplacesAlternateNames) {
    TagLib::APE::Tag tag;
    for (const char* key : {"TRACKNUM", "TRACKNUMBER", "TOTALTRACKS", "DISCNUM", "TOTALDISCS",
                            "UNSYNCEDLYRICS", "ENCODED BY", "ENCODER", "Year", "Custom"})
        tag.addValue(key, "stale");
    AudioMetadata m;
    m.setTrackNumber(5);
    m.setTotalTracks(6);
    m.setPartOfACompilation(false);
    m.fillOutAPETag(&tag, std::string("Encoder"), std::nullopt);
    std::map<std::string, std::string> items;
    for (const auto& [key, item] : tag.itemListMap())
        items[key.to8Bit(true)] = item.toString().to8Bit(true);
    EXPECT_EQ(items, (std::map<std::string, std::string>{{"TRACK", "5"},
                                                         {"TRACKTOTAL", "6"},
                                                         {"COMPILATION", "0"},
                                                         {"ENCODEDBY", "Encoder"},
                                                         {"CUSTOM", "stale"}}));
}

TEST(TagWritingTest, MP4ItemSpellingsAndCoverFormats) {
    const auto key = [](const char* k) { return TagLib::String(k, TagLib::String::Latin1); };
    const std::tuple<Bytes, std::optional<std::string>, TagLib::MP4::CoverArt::Format> covers[] = {
        {makeGIF(), "image/gif", TagLib::MP4::CoverArt::GIF},
        {makePNG(2, 2), "image/png", TagLib::MP4::CoverArt::PNG},
        {makeJPEG(2, 2), "image/jpeg", TagLib::MP4::CoverArt::JPEG},
        {Bytes{'B', 'M', 0, 0}, "unknown", TagLib::MP4::CoverArt::JPEG},
    };
    for (const auto& [bytes, mime, format] : covers) {
        TagLib::MP4::Tag tag;
        tag.setItem(key("\251art"), TagLib::StringList("lower-case artist"));
        tag.setItem("----:com.apple.iTunes:KEY", TagLib::StringList("old key"));
        tag.setItem("ISRC", TagLib::StringList("old isrc"));
        tag.setItem("APIC", TagLib::StringList("odd"));
        tag.setItem("tmpo", TagLib::MP4::Item(99));
        AudioMetadata m;
        m.setTrackArtist("Artist");
        m.setKey("C");
        m.setISRC("ISRC2");
        m.setTotalTracks(8);
        m.setPartOfACompilation(false);
        auto picture = artwork(bytes);
        picture->setMimeType(mime);
        m.setAlbumArtwork(picture);
        m.fillOutMP4Tag(&tag, std::nullopt, std::nullopt);

        std::set<std::string> keys;
        for (const auto& [name, item] : tag.itemMap())
            keys.insert(name.to8Bit(true));
        EXPECT_EQ(keys,
                  (std::set<std::string>{"\xC2\xA9"
                                         "ART",
                                         "----:com.apple.iTunes:initialkey",
                                         "----:com.apple.iTunes:ISRC", "trkn", "cpil", "covr"}));
        const auto cover = tag.item("covr").toCoverArtList();
        ASSERT_EQ(cover.size(), 1u);
        EXPECT_EQ(cover.front().format(), format) << *mime;
        EXPECT_EQ(bytesOf(cover.front().data()), bytes);
        EXPECT_EQ(tag.item("trkn").toIntPair().first, 0);
        EXPECT_EQ(tag.item("trkn").toIntPair().second, 8);
        EXPECT_FALSE(tag.item("cpil").toBool());
    }
}

// A GIF cover written into a real file comes out of it as a GIF cover.
TEST(TagWritingTest, MP4GIFCoverSurvivesSaving) {
    if (!haveReferenceTools())
        GTEST_SKIP() << "reference tools missing";
    test::TempDir dir;
    const std::string path = makeAudioFile(dir, "gif.m4a");
    AudioMetadata m;
    m.setAlbumArtwork(artwork(makeGIF()));
    ASSERT_EQ(m.albumArtwork()->mimeType(), "image/gif");
    {
        TagLib::MP4::File file(path.c_str());
        m.fillOutMP4Tag(file.tag(), std::nullopt, std::nullopt);
        ASSERT_TRUE(file.save());
    }
    // The cover's data atom as stored: "covr", then a "data" atom whose type
    // field is the image format. (mutagen reports every format it does not
    // know as JPEG, so the bytes are looked at directly.)
    const Bytes stored = test::readFile(path);
    const std::string bytes(stored.begin(), stored.end());
    const size_t covr = bytes.find("covr");
    ASSERT_NE(covr, std::string::npos);
    ASSERT_EQ(bytes.compare(covr + 8, 4, "data"), 0);
    const size_t typeField = covr + 12, imageStart = typeField + 8;
    const Bytes gif = makeGIF();
    ASSERT_LE(imageStart + gif.size(), stored.size());
    EXPECT_EQ((uint32_t(stored[typeField]) << 24) | (uint32_t(stored[typeField + 1]) << 16) |
                  (uint32_t(stored[typeField + 2]) << 8) | stored[typeField + 3],
              12u);
    EXPECT_EQ(Bytes(stored.begin() + imageStart, stored.begin() + imageStart + gif.size()), gif);

    TagLib::MP4::File file(path.c_str());
    const auto covers = file.tag()->item("covr").toCoverArtList();
    ASSERT_EQ(covers.size(), 1u);
    EXPECT_EQ(covers.front().format(), TagLib::MP4::CoverArt::GIF);
}

TEST(TagWritingTest, ASFRemovesAbsentAttributes) {
    TagLib::ASF::Tag tag;
    AudioMetadata full = makeFullRecord();
    full.fillOutASFTag(&tag, std::string("Encoder"), std::nullopt);
    EXPECT_TRUE(tag.contains("WM/BeatsPerMinute"));
    EXPECT_TRUE(tag.contains("WM/IsCompilation"));
    EXPECT_TRUE(tag.contains("WM/Year"));
    tag.setAttribute("WM/BPM", TagLib::String("77"));

    AudioMetadata partial;
    partial.setDiscNumber(3);
    partial.fillOutASFTag(&tag, std::nullopt, std::nullopt);
    std::set<std::string> names;
    for (const auto& [name, attributes] : tag.attributeListMap())
        if (!attributes.isEmpty())
            names.insert(name.to8Bit(true));
    EXPECT_EQ(names, std::set<std::string>{"WM/PartOfSet"});
    EXPECT_EQ(tag.attribute("WM/PartOfSet").front().toString(), "3");
    EXPECT_TRUE(tag.title().isEmpty());
}

} // namespace
} // namespace velvox
