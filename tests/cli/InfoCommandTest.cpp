// `velvox info` run as a user runs it, on FLAC files tagged and given a
// picture by the reference tools.

#include <set>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "cli/BatchCommandSandbox.h"

using namespace velvox::test;

namespace {

std::set<std::string> keysOf(const nlohmann::json& object) {
    std::set<std::string> keys;
    for (auto it = object.begin(); it != object.end(); ++it)
        keys.insert(it.key());
    return keys;
}

} // namespace

TEST(InfoCommand, JsonHasEveryPresentFieldWithItsJsonType) {
    CommandSandbox box;
    const std::string png = box.scratch("cover.png");
    ASSERT_NO_FATAL_FAILURE(writePNG(png, 24, 16, 0));
    // Two seconds of 48 kHz 24-bit stereo, tagged by metaflac alone.
    const std::string flac = box.src("song.flac");
    ASSERT_NO_FATAL_FAILURE(mustRun("sox -n -r 48000 -b 24 -c 2 " + shellQuote(flac) +
                                    " synth 2 sine 300 sine 500 gain -3"));
    ASSERT_NO_FATAL_FAILURE(tagFLAC(flac,
                                    {"TITLE=Day/Night Live", "ARTIST=The Band", "ALBUM=Live",
                                     "TRACKNUMBER=3", "TRACKTOTAL=12", "DISCNUMBER=1",
                                     "DISCTOTAL=2", "DATE=2001", "GENRE=Rock", "COMPILATION=1"},
                                    png));

    const Outcome r = box.run("info --json " + shellQuote(flac));
    ASSERT_EQ(r.exitCode, 0) << r.err;
    const auto all = nlohmann::json::parse(r.out);
    ASSERT_TRUE(all.is_array());
    ASSERT_EQ(all.size(), 1u);
    const auto& info = all[0];

    EXPECT_EQ(keysOf(info),
              (std::set<std::string>{
                  "trackNumber",        "totalTracks",   "trackTitle",         "albumTitle",
                  "trackArtist",        "trackYear",     "trackGenre",         "albumArtwork",
                  "discNumber",         "discTotal",     "partOfACompilation", "sourceKind",
                  "sourceFormat",       "sourceLength",  "sourceFileSize",     "sourceSampleSize",
                  "sourceSampleRate",   "sourceBitrate", "sourceChannels",     "sourceTagFormat",
                  "sourceDateModified", "sourceLocation"}));

    for (const char* key :
         {"trackNumber", "totalTracks", "trackYear", "discNumber", "discTotal", "sourceFileSize",
          "sourceSampleSize", "sourceSampleRate", "sourceBitrate", "sourceChannels"})
        EXPECT_TRUE(info[key].is_number_integer()) << key << ": " << info[key];
    EXPECT_TRUE(info["sourceLength"].is_number()) << info["sourceLength"];
    ASSERT_TRUE(info["partOfACompilation"].is_boolean()) << info["partOfACompilation"];
    EXPECT_EQ(info["partOfACompilation"], true);

    EXPECT_EQ(info["trackTitle"], "Day/Night Live");
    EXPECT_EQ(info["trackNumber"], 3);
    EXPECT_EQ(info["totalTracks"], 12);
    EXPECT_EQ(info["discTotal"], 2);
    EXPECT_EQ(info["trackYear"], 2001);
    EXPECT_EQ(info["sourceSampleRate"], 48000);
    EXPECT_EQ(info["sourceSampleSize"], 24);
    EXPECT_EQ(info["sourceChannels"], 2);
    EXPECT_DOUBLE_EQ(info["sourceLength"].get<double>(), 2.0);
    EXPECT_EQ(info["sourceFileSize"], readFile(flac).size());
    EXPECT_EQ(info["sourceLocation"], flac);

    const auto& art = info["albumArtwork"];
    EXPECT_EQ(keysOf(art), (std::set<std::string>{"mimeType", "width", "height", "dataSize", "md5",
                                                  "artworkType", "comments"}));
    const auto pngBytes = readFile(png);
    EXPECT_EQ(art["mimeType"], "image/png");
    EXPECT_EQ(art["width"], 24);
    EXPECT_EQ(art["height"], 16);
    EXPECT_EQ(art["dataSize"], pngBytes.size());
    EXPECT_EQ(art["md5"],
              runCommand("md5sum " + shellQuote(png) + " | cut -c1-32").output.substr(0, 32));
    EXPECT_EQ(art["artworkType"], 3);
    EXPECT_EQ(art["comments"], "Front cover");
}
