#include "jobs/FormatSpecifiers.h"

#include <filesystem>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <stb_image_write.h>

#include "jobs/EncoderSettings.h"
#include "platform/UserDefaults.h"
#include "support/TestSupport.h"

namespace velvox {
namespace {

using Range = FormatSpecifiers::Range;

const std::string kInput = "/music/In Folder/Source.flac";

// Every test runs against a fresh preferences store of its own, so the
// naming switches one test turns on never reach another.
class FormatSpecifiersTest : public testing::Test {
protected:
    void SetUp() override {
        originalStore_ = UserDefaults::standardUserDefaults().storePath();
        UserDefaults::resetStandardUserDefaults(store_.path() / "defaults.json");
    }
    void TearDown() override { UserDefaults::resetStandardUserDefaults(originalStore_); }

    static void set(const std::string& key, const UserDefaults::Value& value) {
        UserDefaults::standardUserDefaults().setVolatileObject(key, value);
    }
    static void windowsSafe(bool on, const std::string& replacement = "_", bool smb = false) {
        set("createWindowsSafeFilenames", on);
        set("createSMBSafeFilenames", smb);
        set("replaceInvalidCharactersWith", replacement);
    }

    static std::string expand(const std::string& templ, const AudioMetadata* metadata,
                              const EncoderSettings* settings = nullptr,
                              const std::optional<std::string>& input = kInput,
                              bool sanitize = true) {
        return expandFormatSpecifiers(templ, metadata, settings, input, sanitize);
    }

    test::TempDir store_;
    std::filesystem::path originalStore_;
};

AudioMetadata titled(const std::string& title) {
    AudioMetadata m;
    m.setTrackTitle(title);
    return m;
}

// ---- The string operations ------------------------------------------------

// ---- Expansion --------------------------------------------------------------

TEST_F(FormatSpecifiersTest, TrackNumberGroupVanishesWithItsSeparator) {
    AudioMetadata m = titled("Song");
    m.setTrackNumber(3);
    set("useTwoDigitNumbers", true);
    EXPECT_EQ(expand("{trackNumber - }{trackTitle}", &m), "03 - Song");
    set("useTwoDigitNumbers", false);
    EXPECT_EQ(expand("{trackNumber - }{trackTitle}", &m), "3 - Song");
    m.setTrackNumber(std::nullopt);
    EXPECT_EQ(expand("{trackNumber - }{trackTitle}", &m), "Song");
}

TEST_F(FormatSpecifiersTest, NoHiddenNamesAndFolderOnlyTemplates) {
    const AudioMetadata hidden = titled(".hidden");
    EXPECT_EQ(expand("{trackTitle}", &hidden), "hidden");
    EXPECT_EQ(expand("Music/{trackTitle}", &hidden), "Music/hidden");
    // Only one dot goes, and only from the last component.
    EXPECT_EQ(expand(".a/..{trackTitle}", &hidden), ".a/..hidden");
    const AudioMetadata dots = titled("..x");
    EXPECT_EQ(expand("{trackTitle}", &dots), ".x");

    AudioMetadata m;
    m.setTrackArtist("Artist");
    EXPECT_EQ(expand("{trackArtist}/", &m), "Artist/Source");
    EXPECT_EQ(expand(".{trackArtist}/", &m), "Artist/Source");
    // The appended source name is made safe too.
    windowsSafe(true, "_");
    EXPECT_EQ(expand("{trackArtist}/", &m, nullptr, "/x/a:b.wav"), "Artist/a_b");
    // An expansion to nothing becomes the safe source name, whether or not
    // values are sanitised.
    EXPECT_EQ(expand("{genre}", &m, nullptr, "/x/a:b.wav", false), "a_b");
    EXPECT_EQ(expand("{genre}", &m, nullptr, "/x/.profile"), "profile");
}

TEST_F(FormatSpecifiersTest, NestedGroupsExpandFromTheInside) {
    AudioMetadata m = titled("Song");
    m.setTrackNumber(3);
    m.setTrackArtist("Artist");
    m.setDiscNumber(1);
    m.setDiscTotal(2);
    set("useTwoDigitNumbers", false);

    EXPECT_EQ(expand("{disc {discNumber} of discTotal - }{trackTitle}", &m), "disc 1 of 2 - Song");
    EXPECT_EQ(expand("{{{trackNumber}. trackTitle} by trackArtist}", &m), "3. Song by Artist");

    // A missing inner value takes only its own group; a missing outer one
    // takes everything that had been expanded inside it.
    AudioMetadata partial = m;
    partial.setDiscNumber(std::nullopt);
    EXPECT_EQ(expand("{disc {discNumber} of discTotal - }{trackTitle}", &partial),
              "disc  of 2 - Song");
    partial = m;
    partial.setDiscTotal(std::nullopt);
    EXPECT_EQ(expand("{disc {discNumber} of discTotal - }{trackTitle}", &partial), "Song");
    EXPECT_EQ(expand("{{{trackNumber}. genre} by trackArtist}", &m), " by Artist");

    // An outer group that names nothing is no specifier group: its braces
    // stay as text around whatever the inner group became.
    EXPECT_EQ(expand("{{discNumber}-}{trackNumber}", &m), "{1-}3");
    partial = m;
    partial.setDiscNumber(std::nullopt);
    EXPECT_EQ(expand("{{discNumber}-}{trackNumber}", &partial), "{-}3");
}

TEST_F(FormatSpecifiersTest, ValuesAreNeverExpandedAgain) {
    // Tags are untrusted: a title that looks like a template is text, and
    // must neither be expanded nor keep the expansion going for ever.
    AudioMetadata m = titled("{trackTitle}");
    m.setTrackYear(1999);
    m.setTrackArtist("{year} {trackArtist}x}{");
    EXPECT_EQ(expand("{trackTitle}", &m), "{trackTitle}");
    EXPECT_EQ(expand("{trackArtist} {year}", &m), "{year} {trackArtist}x}{ 1999");
    EXPECT_EQ(expand("{{trackTitle}}", &m), "{{trackTitle}}");
    // Malformed bytes in the template and in values pass through unchanged.
    const std::string odd = "a\xFF\x01z";
    const AudioMetadata bytes = titled(odd + "{");
    EXPECT_EQ(expand(odd + "{trackTitle}\xFF", &bytes), odd + odd + "{\xFF");
}

TEST_F(FormatSpecifiersTest, AbsentAndEmptyFieldsDiffer) {
    struct Case {
        std::string templ;
        void (AudioMetadata::*setter)(std::optional<std::string>);
        std::string whenAbsent;
        std::string whenEmpty;
    };
    const std::vector<Case> cases = {
        {"<{trackTitle}>", &AudioMetadata::setTrackTitle, "<Source>", "<Source>"},
        {"<{trackArtist}>", &AudioMetadata::setTrackArtist, "<Unknown Artist>", "<Unknown Artist>"},
        {"<{albumArtist}>", &AudioMetadata::setAlbumArtist, "<Unknown Artist>", "<Unknown Artist>"},
        {"<{albumTitle}>", &AudioMetadata::setAlbumTitle, "<Unknown Album>", "<Unknown Album>"},
        {"<{by composer}>", &AudioMetadata::setTrackComposer, "<by Unknown Composer>", "<by >"},
        {"<{g genre}>", &AudioMetadata::setTrackGenre, "<>", "<g >"},
        {"<{g grouping}>", &AudioMetadata::setGrouping, "<>", "<g >"},
        {"<{k key}>", &AudioMetadata::setKey, "<>", "<k >"},
        {"<{i ISRC}>", &AudioMetadata::setISRC, "<>", "<i >"},
        {"<{c comments}>", &AudioMetadata::setTrackComment, "<>", "<c >"},
        {"<{m sourceBitrateMethod}>", &AudioMetadata::setSourceBitrateMode, "<>", "<m >"},
        {"<{k sourceKind}>", &AudioMetadata::setSourceKind, "<>", "<k >"},
        {"<{e sourceEncodedWith}>", &AudioMetadata::setSourceEncodedWith, "<>", "<e >"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.templ);
        AudioMetadata m;
        EXPECT_EQ(expand(c.templ, &m), c.whenAbsent);
        (m.*c.setter)(std::string());
        EXPECT_EQ(expand(c.templ, &m), c.whenEmpty);
    }
    // No record at all: the defaults still apply, the rest goes.
    EXPECT_EQ(expand("{trackArtist}/{albumTitle}/{composer}{ genre}{ year}", nullptr),
              "Unknown Artist/Unknown Album/Unknown Composer");

    // Numbers: zero is a value, absence is not.
    AudioMetadata zero;
    zero.setTrackYear(0);
    zero.setBpm(0);
    zero.setSourceChannels(0);
    EXPECT_EQ(expand("{y year}{b bpm}{c sourceChannels}", &zero), "y 0b 0c 0");
    EXPECT_EQ(expand("x{y year}{b bpm}{c sourceChannels}", nullptr), "x");
}

TEST_F(FormatSpecifiersTest, ArbitraryTemplatesTerminateWithWellFormedGroups) {
    // Random mixes of braces, names and text: every group found is one
    // "{...}" with no braces inside, and expansion always ends.
    const std::vector<std::string> pieces = {"{",     "}", "{", "}", "trackTitle", "year",
                                             "genre", "x", " ", "/", "."};
    std::mt19937 random(12345);
    std::uniform_int_distribution<size_t> pick(0, pieces.size() - 1);
    std::uniform_int_distribution<int> length(0, 14);
    AudioMetadata m = titled("{year}Q");
    m.setTrackYear(2001);
    const auto& names = FormatSpecifiers::specifierNames();
    for (int round = 0; round < 3000; ++round) {
        std::string templ;
        for (int n = length(random); n > 0; --n)
            templ += pieces[pick(random)];
        SCOPED_TRACE(templ);
        if (auto r =
                FormatSpecifiers::rangeOfDeepestBracketContainingAnyFormatSpecifier(templ, names)) {
            ASSERT_GE(r->length, 2u);
            ASSERT_LE(r->location + r->length, templ.size());
            const std::string group = templ.substr(r->location, r->length);
            EXPECT_EQ(group.front(), '{');
            EXPECT_EQ(group.back(), '}');
            EXPECT_EQ(group.find_first_of("{}", 1), group.size() - 1);
        }
        // Reaching the next line at all is the point; the value's braces
        // must not have become groups.
        const std::string out = expand(templ, &m);
        EXPECT_EQ(out.find("2001Q"), std::string::npos) << out;
    }
}

// ---- The metadata reader's picture-file names --------------------------------

// ---- Collisions -------------------------------------------------------------

} // namespace
} // namespace velvox
