// `velvox info` run as a user runs it, on FLAC files tagged and given a
// picture by the reference tools.

#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <stb_image_write.h>

#include "support/TestSupport.h"

using namespace velvox::test;

namespace {

struct Outcome {
    int exitCode = -1;
    std::string out;
    std::string err;
};

Outcome runVelvox(const TempDir& dir, const std::string& args) {
    const std::string errPath = dir.file("stderr.txt");
    const auto r = runCommand("XDG_CONFIG_HOME=" + shellQuote(dir.file("config")) +
                              " XDG_DATA_HOME=" + shellQuote(dir.file("data")) + " " +
                              VELVOX_BINARY + " " + args + " 2>" + shellQuote(errPath));
    const auto err = readFile(errPath);
    return {r.exitCode, r.output, std::string(err.begin(), err.end())};
}

std::set<std::string> keysOf(const nlohmann::json& object) {
    std::set<std::string> keys;
    for (auto it = object.begin(); it != object.end(); ++it)
        keys.insert(it.key());
    return keys;
}

// A 24 x 16 RGB PNG with a gradient, so that its bytes are not trivial.
void writePNG(const std::string& path) {
    constexpr int kWidth = 24, kHeight = 16;
    std::vector<unsigned char> pixels(kWidth * kHeight * 3);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<unsigned char>((i * 37) & 0xFF);
    ASSERT_NE(stbi_write_png(path.c_str(), kWidth, kHeight, 3, pixels.data(), kWidth * 3), 0);
}

// Two seconds of 48 kHz 24-bit stereo FLAC with the given Vorbis comments
// (and nothing of sox's own) and, when given, a front-cover picture.
void makeTaggedFLAC(const std::string& path, const std::vector<std::string>& tags,
                    const std::string& picture = "") {
    ASSERT_EQ(runCommand("sox -n -r 48000 -b 24 -c 2 " + shellQuote(path) +
                         " synth 2 sine 300 sine 500 gain -3")
                  .exitCode,
              0);
    std::string edit = "metaflac --remove-all-tags";
    for (const std::string& tag : tags)
        edit += " --set-tag=" + shellQuote(tag);
    if (!picture.empty())
        edit += " --import-picture-from=" + shellQuote("3||Front cover||" + picture);
    ASSERT_EQ(runCommand(edit + " " + shellQuote(path)).exitCode, 0);
}

} // namespace

TEST(InfoCommand, JsonHasEveryPresentFieldWithItsJsonType) {
    TempDir dir;
    const std::string png = dir.file("cover.png");
    writePNG(png);
    const std::string flac = dir.file("song.flac");
    makeTaggedFLAC(flac,
                   {"TITLE=Day/Night Live", "ARTIST=The Band", "ALBUM=Live", "TRACKNUMBER=3",
                    "TRACKTOTAL=12", "DISCNUMBER=1", "DISCTOTAL=2", "DATE=2001", "GENRE=Rock",
                    "COMPILATION=1"},
                   png);

    const Outcome r = runVelvox(dir, "info --json " + shellQuote(flac));
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
