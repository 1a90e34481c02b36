// `velvox tag` run as a user runs it, on FLAC files made and tagged by the
// reference tools; metaflac and the reference decoder read the result.

#include <filesystem>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "cli/BatchCommandSandbox.h"
#include "jobs/EncodeOperation.h"

using namespace velvox::test;
namespace fs = std::filesystem;

namespace {

using Tags = std::multimap<std::string, std::string>;

// 0.4 s of 24-bit stereo at 48 kHz from our own signal, encoded by the
// reference encoder with its default padding or with none (then every tag
// edit has to rewrite the whole file).
void makeFLAC(const std::string& path, bool padding, uint32_t seed) {
    const std::string wav = path + ".wav";
    writeWav(wav, makeSignal(19200, 2, 24, seed), 2, 48000, 24);
    ASSERT_NO_FATAL_FAILURE(mustRun("flac -s -f " + std::string(padding ? "" : "--no-padding ") +
                                    "-o " + shellQuote(path) + " " + shellQuote(wav)));
    fs::remove(wav);
}

// What must survive every tag edit: the audio and its recorded checksum.
struct AudioFacts {
    std::string pcm;
    std::string streamInfo;
    std::vector<uint8_t> frames;
};

AudioFacts audioFacts(const std::string& path) {
    return {pcmMD5ByFlac(path), streamInfoMD5(path), flacAudioFrames(path)};
}

void expectSameAudio(const AudioFacts& before, const std::string& path) {
    const AudioFacts after = audioFacts(path);
    EXPECT_EQ(after.pcm, before.pcm);
    EXPECT_EQ(after.streamInfo, before.streamInfo);
    EXPECT_FALSE(after.frames.empty());
    EXPECT_TRUE(after.frames == before.frames) << "the audio frames were rewritten";
}

} // namespace

TEST(TagCommand, EditsChangeExactlyWhatTheySayAndNeverTheAudio) {
    CommandSandbox box;
    const std::string padded = box.src("padded.flac"), tight = box.src("tight.flac");
    const std::string hidden = box.src(".hidden.flac");
    const std::string cover = box.scratch("cover.png"), other = box.scratch("other.png");
    ASSERT_NO_FATAL_FAILURE(writePNG(cover, 16, 16, 1));
    ASSERT_NO_FATAL_FAILURE(writePNG(other, 32, 8, 2));
    ASSERT_NO_FATAL_FAILURE(makeFLAC(padded, true, 1));
    ASSERT_NO_FATAL_FAILURE(makeFLAC(tight, false, 2));
    ASSERT_NO_FATAL_FAILURE(makeFLAC(hidden, true, 3));
    // MOOD is a field Velvox has no name for: edits leave it alone.
    const std::vector<std::string> original = {
        "TITLE=Old Title", "ARTIST=The Artist", "ALBUM=The Album", "TRACKNUMBER=3",
        "GENRE=Rock",      "DATE=1999",         "MOOD=Calm"};
    for (const std::string& file : {padded, tight, hidden})
        ASSERT_NO_FATAL_FAILURE(tagFLAC(file, original, cover));
    const std::string hiddenMD5 = fileMD5(hidden);
    const std::vector<uint8_t> coverBytes = readFile(cover);
    const AudioFacts paddedAudio = audioFacts(padded), tightAudio = audioFacts(tight);
    ASSERT_FALSE(paddedAudio.frames.empty());
    ASSERT_FALSE(tightAudio.frames.empty());

    auto checkAudio = [&] {
        {
            SCOPED_TRACE("padded");
            expectSameAudio(paddedAudio, padded);
        }
        {
            SCOPED_TRACE("tight");
            expectSameAudio(tightAudio, tight);
        }
    };
    auto pictureIs = [&](const std::string& file, const std::vector<uint8_t>& bytes) {
        const auto pictures = flacPictures(file);
        ASSERT_EQ(pictures.size(), 1u) << file;
        EXPECT_EQ(pictures[0].type, 3);
        EXPECT_EQ(pictures[0].mimeType, "image/png");
        EXPECT_EQ(flacPictureData(file, box.scratch("exported")), bytes) << file;
    };

    // Set, clear: the folder is walked, its hidden file left out.
    Tags expected;
    {
        SCOPED_TRACE("--set and --clear");
        const Outcome r =
            box.run("tag --set 'trackTitle=Nouvelle Chanson ☃ a=b' --set 'albumArtist=The "
                    "Ensemble' --set trackNumber=7 --clear trackGenre " +
                    shellQuote(box.src()));
        ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
        EXPECT_TRUE(contains(r.out, "Tagged: " + padded + "\n")) << r.out;
        EXPECT_TRUE(contains(r.out, "Tagged: " + tight + "\n")) << r.out;
        EXPECT_TRUE(contains(r.out, "2 tagged, 0 skipped, 0 failed.\n")) << r.out;
        EXPECT_EQ(fileMD5(hidden), hiddenMD5);

        const Tags tags = flacTags(padded);
        // Written because "writeEncodedByMetadataTag" is on by default.
        const auto encodedBy = tags.find("ENCODEDBY");
        ASSERT_NE(encodedBy, tags.end());
        EXPECT_EQ(encodedBy->second.rfind("FLAC ", 0), 0u) << encodedBy->second;
        EXPECT_TRUE(contains(encodedBy->second, " via Velvox ")) << encodedBy->second;
        expected = {{"TITLE", "Nouvelle Chanson ☃ a=b"},
                    {"ARTIST", "The Artist"},
                    {"ALBUM", "The Album"},
                    {"TRACKNUMBER", "7"},
                    {"DATE", "1999"},
                    {"MOOD", "Calm"},
                    {"ALBUMARTIST", "The Ensemble"},
                    {"ENCODEDBY", encodedBy->second}};
        EXPECT_EQ(tags, expected);
        EXPECT_EQ(flacTags(tight), expected);
        pictureIs(padded, coverBytes);
        pictureIs(tight, coverBytes);
        checkAudio();
    }
    {
        SCOPED_TRACE("--artwork");
        const Outcome r = box.run("tag --artwork " + shellQuote(other) + " " + shellQuote(padded) +
                                  " " + shellQuote(tight));
        ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
        const std::vector<uint8_t> otherBytes = readFile(other);
        pictureIs(padded, otherBytes);
        pictureIs(tight, otherBytes);
        EXPECT_EQ(flacTags(padded), expected);
        EXPECT_EQ(flacTags(tight), expected);
        checkAudio();
    }
    {
        SCOPED_TRACE("--clear-artwork");
        const Outcome r =
            box.run("tag --clear-artwork " + shellQuote(padded) + " " + shellQuote(tight));
        ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
        EXPECT_EQ(flacPictures(padded).size(), 0u);
        EXPECT_EQ(flacPictures(tight).size(), 0u);
        EXPECT_EQ(flacTags(padded), expected);
        EXPECT_EQ(flacTags(tight), expected);
        checkAudio();
    }
    {
        SCOPED_TRACE("--clear-all");
        ASSERT_NO_FATAL_FAILURE(tagFLAC(padded, original, cover));
        // Without the encoded-by field, so that nothing of Velvox's is left.
        const Outcome r = box.run("--set writeEncodedByMetadataTag=false tag --clear-all " +
                                  shellQuote(padded) + " " + shellQuote(tight));
        ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
        // Every field is gone, with the picture and the other tags.
        EXPECT_TRUE(flacTags(padded).empty());
        EXPECT_TRUE(flacTags(tight).empty());
        EXPECT_EQ(flacPictures(padded).size(), 0u);
        checkAudio();
    }
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}

TEST(TagCommand, AFileWithoutATagWriterFailsAloneAndStaysAsItWas) {
    CommandSandbox box;
    const std::string flac = box.src("song.flac"), wav = box.src("song.wma");
    const std::string missing = box.src("gone.flac");
    ASSERT_NO_FATAL_FAILURE(makeFLAC(flac, true, 6));
    // Velvox reads Windows Media but writes no tags into it.
    ASSERT_EQ(runCommand("ffmpeg -v error -f lavfi -i sine=frequency=440:duration=0.2 "
                         "-c:a wmav2 -y " +
                         shellQuote(wav))
                  .exitCode,
              0);
    const std::string wavMD5 = fileMD5(wav);
    const AudioFacts audio = audioFacts(flac);

    const Outcome r = box.run("tag --set 'trackTitle=Both' " + shellQuote(wav) + " " +
                              shellQuote(flac) + " " + shellQuote(missing));
    EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "FAILED: " + wav + "\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "Tagged: " + flac + "\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "1 tagged, 0 skipped, 2 failed.\n")) << r.out;
    EXPECT_TRUE(contains(r.err, "velvox: " + missing + ": No such file or directory\n")) << r.err;
    const size_t log = r.err.find("Error log:\n");
    ASSERT_NE(log, std::string::npos) << r.err;
    EXPECT_NE(r.err.find("Velvox Can Not Write The Metadata Of song.wma: Its Format Has No Tag "
                         "Writer In This Build.",
                         log),
              std::string::npos)
        << r.err;

    EXPECT_EQ(fileMD5(wav), wavMD5);
    const Tags tags = flacTags(flac);
    const auto title = tags.find("TITLE");
    ASSERT_NE(title, tags.end());
    EXPECT_EQ(title->second, "Both");
    expectSameAudio(audio, flac);
    EXPECT_FALSE(fs::exists(missing));
}

TEST(TagCommand, AFileThatCannotBeWrittenIsReportedAsATagFailure) {
    // A read-only view of the folder (even root cannot write there): both
    // ways of rewriting tags fail by name, and the file stays as it was.
    CommandSandbox box;
    const std::string file = box.src("song.flac");
    ASSERT_NO_FATAL_FAILURE(makeFLAC(file, true, 9));
    const std::vector<uint8_t> before = readFile(file);
    for (const std::string& command : {"tag --set trackTitle=New " + shellQuote(file),
                                       "convert --update-tags " + shellQuote(file)}) {
        SCOPED_TRACE(command);
        const Outcome r = box.runWithMount(box.src(), "ro", command);
        EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
        EXPECT_TRUE(contains(r.out, "FAILED: " + file +
                                        "\n  Could not update the tags: Read-only file system\n"))
            << r.out;
        EXPECT_TRUE(contains(r.out, "Failed to update the tags of 1 of 1 files.\n")) << r.out;
        EXPECT_FALSE(contains(r.out, "Failed To Encode")) << r.out;
        EXPECT_TRUE(contains(r.err, "Could Not Update The Metadata Of song.flac.")) << r.err;
        EXPECT_EQ(readFile(file), before);
    }
}

TEST(TagCommand, OtherTagsStayUnlessNamedAndInfoListsThem) {
    CommandSandbox box;
    const std::string flac = box.src("keys.flac");
    makeFLAC(flac, true, 9);
    ASSERT_NO_FATAL_FAILURE(
        tagFLAC(flac, {"TITLE=Old", "MUSICBRAINZ_TRACKID=abc", "REPLAYGAIN_TRACK_GAIN=-3.10 dB",
                       "MOOD=Calm", "ARTIST=piman", "ARTIST=jzig"}));

    Outcome r = box.run("--set writeEncodedByMetadataTag=false tag --set trackTitle=New --set "
                        "CUSTOM=one --set custom=two --clear MOOD " +
                        shellQuote(flac));
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    const Tags expected = {{"TITLE", "New"},
                           {"ARTIST", "piman"},
                           {"ARTIST", "jzig"},
                           {"MUSICBRAINZ_TRACKID", "abc"},
                           {"REPLAYGAIN_TRACK_GAIN", "-3.10 dB"},
                           {"CUSTOM", "one"},
                           {"CUSTOM", "two"}};
    EXPECT_EQ(flacTags(flac), expected);

    r = box.run("info --json " + shellQuote(flac));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const nlohmann::json info = nlohmann::json::parse(r.out)[0];
    EXPECT_EQ(info["additionalTags"], nlohmann::json({{"ARTIST", {"piman", "jzig"}},
                                                      {"MUSICBRAINZ_TRACKID", {"abc"}},
                                                      {"REPLAYGAIN_TRACK_GAIN", {"-3.10 dB"}},
                                                      {"CUSTOM", {"one", "two"}}}));

    // A field's own tag name is edited as the field.
    EXPECT_EQ(box.run("tag --set ARTIST=x " + shellQuote(flac)).exitCode, 2);
    r = box.run("--set writeEncodedByMetadataTag=false tag --clear-all " + shellQuote(flac));
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(flacTags(flac).empty());
}
