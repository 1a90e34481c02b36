// Reading metadata from files made by the reference tools (flac, metaflac,
// ffmpeg) and by TagLib itself, and from tracker modules built byte by byte:
// the reader chosen by extension, its source facts and tag kinds, tag
// precedence, the FLAC picture rule, the MPEG frame-header facts, the
// picture file beside the source, the title from the file name, and
// survival of garbage.

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include <taglib/apetag.h>
#include <taglib/flacfile.h>
#include <taglib/id3v1tag.h>
#include <taglib/id3v2tag.h>
#include <taglib/mpegfile.h>
#include <taglib/xiphcomment.h>

#include "metadata/AudioMetadata.h"
#include "metadata/MetadataFixtures.h"
#include "platform/ErrorLog.h"
#include "platform/UserDefaults.h"
#include "support/TestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

class MetadataReadingTest : public testing::Test {
protected:
    void SetUp() override { resetPreferences(); }
    void TearDown() override {
        resetPreferences();
        AudioMetadata::setFilenamePatternExpander({});
    }
    static void resetPreferences() {
        auto& defaults = UserDefaults::standardUserDefaults();
        defaults.setVolatileObject("readAlbumArtworkFromFile", false);
        defaults.setVolatileObject("readAlbumArtworkFileName", "folder.jpg");
        defaults.setVolatileObject("fallbackOnFilenameWhenTitleIsMissing", true);
    }
    static void setPreference(const std::string& key, const UserDefaults::Value& value) {
        UserDefaults::standardUserDefaults().setVolatileObject(key, value);
    }

    TempDir dir;
};

std::string q(const std::string& s) { return shellQuote(s); }

// A stereo sine made by ffmpeg and encoded with the given codec options.
bool ffmpegEncode(const std::string& out, const std::string& options, double seconds = 2,
                  const std::string& input = "-ac 2") {
    return runOrFail(
        "ffmpeg -v error -y -f lavfi -i sine=frequency=440:sample_rate=44100:duration=" +
        std::to_string(seconds) + " " + input + " " + options + " " + q(out));
}

bool importPicture(const std::string& flac, const std::string& pictureArgument) {
    return runOrFail("metaflac --import-picture-from=" + q(pictureArgument) + " " + q(flac));
}

} // namespace

// ---------------------------------------------------------------------------
// FLAC

TEST_F(MetadataReadingTest, FLACCommentsFactsAndTheOneStoredPicture) {
    const std::string path = dir.file("song.flac");
    ASSERT_TRUE(makeFLAC(path));
    writeFile(dir.file("cover.png"), pngBytes(8, 6));
    ASSERT_TRUE(runOrFail("metaflac --set-tag=TITLE='D\xC3\xA9j\xC3\xA0 vu' --set-tag=ARTIST=Band "
                          "--set-tag=TRACKNUMBER=4 --set-tag=DATE=2003-05-01 " +
                          q(path)));
    ASSERT_TRUE(importPicture(path, "4|image/x-velvox|Back side|8x6x24|" + dir.file("cover.png")));

    const auto m = AudioMetadata::metadataFromFile(path);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->sourceKind(), "FLAC");
    EXPECT_EQ(m->sourceFormat(), "Free Lossless Audio Codec");
    EXPECT_EQ(m->sourceTagFormat(), "Vorbis");
    EXPECT_EQ(m->trackTitle(), "D\xC3\xA9j\xC3\xA0 vu");
    EXPECT_EQ(m->trackArtist(), "Band");
    EXPECT_EQ(m->trackNumber(), 4);
    EXPECT_EQ(m->trackYear(), 2003);
    EXPECT_EQ(m->sourceSampleRate(), 44100);
    EXPECT_EQ(m->sourceChannels(), 2);
    EXPECT_EQ(m->sourceSampleSize(), 16);
    EXPECT_EQ(m->sourceLength(), 2.0); // 2.5 seconds, in whole seconds
    ASSERT_TRUE(m->sourceBitrate());
    EXPECT_GT(*m->sourceBitrate(), 100000); // bits, not kilobits
    EXPECT_EQ(*m->sourceBitrate() % 1000, 0);

    const auto& art = m->albumArtwork();
    ASSERT_TRUE(art);
    EXPECT_EQ(art->artworkType(), 4);
    EXPECT_EQ(art->comments(), "Back side");
    EXPECT_EQ(art->mimeType(), "image/x-velvox"); // the stored type, not the derived one
    EXPECT_EQ(art->md5(), md5Hex(pngBytes(8, 6)));
    EXPECT_EQ(art->width(), 8);
    EXPECT_EQ(art->height(), 6);

    // The common facts.
    EXPECT_EQ(m->sourceLocation(), path);
    EXPECT_EQ(m->sourceFileSize(), int64_t(std::filesystem::file_size(path)));
    ASSERT_TRUE(m->sourceDateModified());
    const auto age = std::chrono::system_clock::now() - *m->sourceDateModified();
    EXPECT_LT(std::chrono::abs(age), std::chrono::minutes(5));
}

TEST_F(MetadataReadingTest, FLACWithTwoPicturesTakesNone) {
    const std::string path = dir.file("two.flac");
    ASSERT_TRUE(makeFLAC(path));
    writeFile(dir.file("a.png"), pngBytes(4, 4));
    writeFile(dir.file("b.jpg"), jpegBytes(4, 4));
    ASSERT_TRUE(runOrFail("metaflac --set-tag=TITLE=Two " + q(path)));
    ASSERT_TRUE(importPicture(path, "3||Front||" + dir.file("a.png")));
    ASSERT_TRUE(importPicture(path, "4||Back||" + dir.file("b.jpg")));

    const auto m = AudioMetadata::metadataFromFile(path);
    EXPECT_EQ(m->trackTitle(), "Two");
    EXPECT_FALSE(m->albumArtwork());
}

TEST_F(MetadataReadingTest, FLACXiphCommentWinsOverID3TagsInTheSameFile) {
    const std::string path = dir.file("id3.flac");
    ASSERT_TRUE(makeFLAC(path));
    {
        TagLib::FLAC::File file(path.c_str());
        file.xiphComment(true)->setTitle("Xiph title");
        file.ID3v2Tag(true)->setTitle("ID3 title");
        file.ID3v2Tag(true)->setAlbum("ID3 album");
        ASSERT_TRUE(file.save());
    }
    const auto m = AudioMetadata::metadataFromFile(path);
    EXPECT_EQ(m->sourceTagFormat(), "Vorbis, ID3v2.4.0");
    EXPECT_EQ(m->trackTitle(), "Xiph title");
    EXPECT_EQ(m->albumTitle(), "ID3 album");
}

// ---------------------------------------------------------------------------
// MP3

TEST_F(MetadataReadingTest, MP3WithThreeTagsKeepsTheirOrderAndPrecedence) {
    const std::string path = dir.file("Song.MP3");
    ASSERT_TRUE(ffmpegEncode(path, "-c:a libmp3lame -q:a 2 -f mp3"));
    {
        TagLib::MPEG::File file(path.c_str());
        TagLib::ID3v2::Tag* id3v2 = file.ID3v2Tag(true);
        id3v2->setTitle("Title v2");
        id3v2->setArtist("Artist v2");
        TagLib::ID3v1::Tag* id3v1 = file.ID3v1Tag(true);
        id3v1->setTitle("Title v1");
        id3v1->setArtist("Artist v1");
        id3v1->setAlbum("Album v1");
        TagLib::APE::Tag* ape = file.APETag(true);
        ape->setTitle("Title APE");
        ape->setAlbum("Album APE");
        ape->setComment("Comment APE");
        ASSERT_TRUE(file.save(TagLib::MPEG::File::AllTags, TagLib::File::StripNone,
                              TagLib::ID3v2::v3, TagLib::File::DoNotDuplicate));
    }

    const auto m = AudioMetadata::metadataFromFile(path);
    EXPECT_EQ(m->sourceTagFormat(), "ID3v2.3.0, ID3v1, APE Tag v2.00");
    EXPECT_EQ(m->trackTitle(), "Title v2");
    EXPECT_EQ(m->trackArtist(), "Artist v2");
    EXPECT_EQ(m->albumTitle(), "Album v1");
    EXPECT_EQ(m->trackComment(), "Comment APE");

    EXPECT_EQ(m->sourceKind(), "MPEG Layer 3");
    EXPECT_EQ(m->sourceFormat(), "MPEG Version 1 Audio Layer 3");
    EXPECT_EQ(m->sourceChannelMode(), "Stereo"); // as ffmpeg's Xing frame says
    EXPECT_EQ(m->sourceBitrateMode(), "VBR");
    EXPECT_EQ(m->sourceSampleRate(), 44100);
    EXPECT_EQ(m->sourceChannels(), 2);
    EXPECT_FALSE(m->sourceSampleSize());
    ASSERT_TRUE(m->sourceLength());
    EXPECT_NEAR(*m->sourceLength(), 2.0, 0.1);
    ASSERT_TRUE(m->sourceBitrate());
    EXPECT_GT(*m->sourceBitrate(), 32000);
    ASSERT_TRUE(m->userData());
    EXPECT_TRUE(m->userData()->empty());
}

// ---------------------------------------------------------------------------
// MP4

// ---------------------------------------------------------------------------
// Ogg

// ---------------------------------------------------------------------------
// Tracker modules

// ---------------------------------------------------------------------------
// The steps after the reader

// ---------------------------------------------------------------------------
// Garbage

TEST_F(MetadataReadingTest, GarbageAndTruncatedFilesAlwaysGiveARecord) {
    // Real files to cut short.
    const std::string flac = dir.file("real.flac");
    const std::string mp3 = dir.file("real.mp3");
    const std::string m4a = dir.file("real.m4a");
    const std::string ogg = dir.file("real.ogg");
    ASSERT_TRUE(makeFLAC(flac));
    ASSERT_TRUE(ffmpegEncode(mp3, "-c:a libmp3lame -metadata title=x"));
    ASSERT_TRUE(ffmpegEncode(m4a, "-c:a aac -metadata title=x"));
    ASSERT_TRUE(ffmpegEncode(ogg, "-c:a libvorbis -metadata title=x"));

    std::vector<std::string> paths;
    uint32_t seed = 7;
    auto noise = [&](size_t size) {
        Bytes bytes(size);
        for (auto& b : bytes) {
            seed = seed * 1664525u + 1013904223u;
            b = uint8_t(seed >> 24);
        }
        return bytes;
    };
    const char* extensions[] = {"flac", "mp3", "m4a", "aac",  "dsf", "dff", "xm",   "it",
                                "s3m",  "mod", "wav", "aiff", "caf", "ogg", "opus", "spx",
                                "wma",  "ape", "tta", "wv",   "mpc", "rm",  "au",   "unknown"};
    for (const char* extension : extensions) {
        for (size_t size : {size_t(0), size_t(3), size_t(64), size_t(5000)}) {
            const std::string path = dir.file("garbage" + std::to_string(size) + "." + extension);
            writeFile(path, noise(size));
            paths.push_back(path);
        }
    }
    for (const std::string& source : {flac, mp3, m4a, ogg}) {
        const Bytes whole = readFile(source);
        for (size_t keep : {size_t(10), size_t(200), whole.size() / 2}) {
            const std::filesystem::path original(source);
            const std::string path =
                dir.file("cut" + std::to_string(keep) + original.extension().string());
            writeFile(path, Bytes(whole.begin(), whole.begin() + ptrdiff_t(keep)));
            paths.push_back(path);
        }
    }
    // Headers whose lengths and offsets point far outside the file.
    Bytes liar = wavFile(2, 44100, 100, {riffChunk("junk", Bytes(8, 1), 0x7FFFFFF0)});
    writeFile(dir.file("liar.wav"), liar);
    paths.push_back(dir.file("liar.wav"));
    Bytes bigDSF = dsfFile(2, 2822400, 8192, {});
    bigDSF[20] = 0xFF; // metadata offset
    bigDSF[27] = 0x7F;
    bigDSF[36] = 0xFF; // fmt chunk size
    writeFile(dir.file("liar.dsf"), bigDSF);
    paths.push_back(dir.file("liar.dsf"));
    writeFile(dir.file("liar.caf"),
              cafFile(1, 8000, 10, {cafChunk("info", infoPairs({{"a", "b"}}), 1LL << 40)}));
    paths.push_back(dir.file("liar.caf"));

    for (const std::string& path : paths) {
        SCOPED_TRACE(path);
        const auto m = AudioMetadata::metadataFromFile(path);
        ASSERT_TRUE(m);
        // Ogg probing fails on garbage with an exception, which leaves only
        // the empty record; every other reader gets to the common facts.
        if (!m->sourceLocation()) {
            EXPECT_TRUE(path.ends_with(".ogg") || path.ends_with(".opus") ||
                        path.ends_with(".spx"));
            continue;
        }
        EXPECT_EQ(m->sourceLocation(), path);
        EXPECT_EQ(m->sourceFileSize(), int64_t(std::filesystem::file_size(path)));
    }
}
