// `velvox name` run as a user runs it: naming templates over FLAC files that
// the reference tools tagged.

#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/BatchCommandSandbox.h"

using namespace velvox::test;

namespace {

class NameCommandTest : public testing::Test {
protected:
    void SetUp() override {
        song_ = box_.src("song.flac");
        live_ = box_.src("live.flac");
        plain_ = box_.src("plain.flac");
        makeFLAC(song_, {"TITLE=Song", "ARTIST=The Band", "TRACKNUMBER=3", "TRACKTOTAL=12"});
        makeFLAC(live_, {"TITLE=Day/Night Live", "ARTIST=The Band", "TRACKNUMBER=11"});
        makeFLAC(plain_, {});
        files_ = shellQuote(song_) + " " + shellQuote(live_) + " " + shellQuote(plain_);
    }

    void makeFLAC(const std::string& path, const std::vector<std::string>& tags) {
        mustRun("sox -n -r 44100 -b 16 -c 2 " + shellQuote(path) + " synth 0.5 sine 440");
        tagFLAC(path, tags);
    }
    Outcome velvox(const std::string& args) const { return box_.run(args); }

    CommandSandbox box_;
    std::string song_, live_, plain_, files_;
};

const std::string kTrackScheme = shellQuote("{trackNumber - }{trackTitle}");

} // namespace

TEST_F(NameCommandTest, ExpandsTheTemplateWithSafeValuesOneLinePerFile) {
    const Outcome r = velvox("name --scheme " + kTrackScheme + " " + files_);
    EXPECT_EQ(r.exitCode, 0) << r.err;
    // The untagged file is named after itself; "/" in a value is not a folder.
    EXPECT_EQ(r.out, "03 - Song\n11 - Day:Night Live\nplain\n");

    // Literal text of the template keeps its "/"; missing values take their
    // stand-ins or vanish with their group.
    const Outcome folders =
        velvox("name --scheme " + shellQuote("{trackArtist}/{albumTitle}/{trackTotal of }x") + " " +
               shellQuote(song_) + " " + shellQuote(plain_));
    EXPECT_EQ(folders.out, "The Band/Unknown Album/12 of x\nUnknown Artist/Unknown Album/x\n");
}

TEST_F(NameCommandTest, FormatFillsTheOutputSpecifiers) {
    const std::string scheme = shellQuote("{trackTitle}{ [outputFormat]}{ (encodingFormat)}");
    EXPECT_EQ(velvox("name --scheme " + scheme + " " + shellQuote(song_)).out, "Song\n");
    EXPECT_EQ(velvox("name --scheme " + scheme + " --format flac:level=8 " + shellQuote(song_)).out,
              "Song [FLAC] (Compression Level 8)\n");
    EXPECT_EQ(velvox("name --scheme " + shellQuote("{outputFormat} {bitrate}") +
                     " --format mp3:bitrate=320 " + shellQuote(song_))
                  .out,
              "MP3 320.00 kbps\n");
    // A number picks a saved format: the registered default is FLAC level 5.
    EXPECT_EQ(velvox("name --scheme " + scheme + " --format 1 " + shellQuote(song_)).out,
              "Song [FLAC] (Compression Level 5)\n");

    const Outcome bad = velvox("name --scheme " + scheme + " --format flac:lvl=5 " + files_);
    EXPECT_EQ(bad.exitCode, 2);
    EXPECT_EQ(bad.out, "");
    EXPECT_NE(bad.err.find("unknown key 'lvl' in 'flac:lvl=5'"), std::string::npos) << bad.err;
    EXPECT_EQ(velvox("name --scheme x --format 7 " + files_).exitCode, 2);
}
