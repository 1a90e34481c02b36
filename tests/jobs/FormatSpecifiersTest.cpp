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

TEST_F(FormatSpecifiersTest, DeepestGroupIsTheInnermostAndLastWithAName) {
    const auto& names = FormatSpecifiers::specifierNames();
    auto find = [&](const std::string& text) {
        return FormatSpecifiers::rangeOfDeepestBracketContainingAnyFormatSpecifier(text, names);
    };
    EXPECT_EQ(find(""), std::nullopt);
    EXPECT_EQ(find("trackTitle"), std::nullopt);
    EXPECT_EQ(find("{nothing here}"), std::nullopt);
    EXPECT_EQ(find("{trackTitle}"), (Range{0, 12}));
    EXPECT_EQ(find("ab{x trackTitle y}"), (Range{2, 16}));
    // Of equally deep groups the last one found is taken.
    EXPECT_EQ(find("{year}{bpm}"), (Range{6, 5}));
    EXPECT_EQ(find("{year}{x}"), (Range{0, 6}));
    // Depth beats position.
    EXPECT_EQ(find("{a{b{year}c}d}{trackTitle}"), (Range{4, 6}));
    EXPECT_EQ(find("{trackTitle}{{{year}}}"), (Range{14, 6}));
    // A deeper group without a name does not hide an earlier shallower one,
    // but it does hide the shallower ones after it: only groups at the
    // greatest depth seen so far count.
    EXPECT_EQ(find("{trackTitle}{{x}}"), (Range{0, 12}));
    EXPECT_EQ(find("{{x}}{trackTitle}"), std::nullopt);
    // A "}" before any "{" closes nothing.
    EXPECT_EQ(find("trackTitle}"), std::nullopt);
    EXPECT_EQ(find("}{trackTitle}"), (Range{1, 12}));
    EXPECT_EQ(find("{{trackTitle}"), (Range{1, 12}));
    // Only the given names count, matched case-sensitively.
    EXPECT_EQ(
        FormatSpecifiers::rangeOfDeepestBracketContainingAnyFormatSpecifier("{year}{x}", {"x"}),
        (Range{6, 3}));
    EXPECT_EQ(find("{TrackTitle}"), std::nullopt);
}

TEST_F(FormatSpecifiersTest, ReplaceDropsBracesKeepsLiteralTextAndWalksOn) {
    std::string s = "{trackTitle} - {Track trackTitle.}{x} trackTitle";
    FormatSpecifiers::replaceFormatSpecifier(s, "trackTitle", "Song");
    EXPECT_EQ(s, "Song - Track Song.{x} trackTitle");

    // With braces given, and values longer and shorter than the name: the
    // walk's end follows the change in length, reaching the last group.
    for (const std::string value : {"A much longer value than the name", "", "v"}) {
        std::string t = "{year}|{year}|{year}";
        FormatSpecifiers::replaceFormatSpecifier(t, "{year}", value);
        EXPECT_EQ(t, value + "|" + value + "|" + value);
    }

    // Every occurrence inside the group, and the value is not searched again.
    std::string twice = "{year/year}";
    FormatSpecifiers::replaceFormatSpecifier(twice, "year", "year year");
    EXPECT_EQ(twice, "year year/year year");

    // Only inside the range.
    std::string ranged = "{bpm}{bpm}{bpm}";
    FormatSpecifiers::replaceFormatSpecifier(ranged, "bpm", "120", Range{5, 5});
    EXPECT_EQ(ranged, "{bpm}120{bpm}");

    // The whole-string walk pairs the first "{" with the first "}".
    std::string nested = "{a{trackTitle}}";
    FormatSpecifiers::replaceFormatSpecifier(nested, "trackTitle", "Song");
    EXPECT_EQ(nested, "a{Song}");

    // Bare braces name nothing.
    std::string bare = "{}{x}";
    FormatSpecifiers::replaceFormatSpecifier(bare, "{}", "!");
    EXPECT_EQ(bare, "{}{x}");
}

TEST_F(FormatSpecifiersTest, RemoveDeletesWholeGroupsOnly) {
    std::string s = "a{b trackTitle c}d{trackTitle}{x}e}trackTitle";
    FormatSpecifiers::removeFormatSpecifier(s, "{trackTitle}");
    EXPECT_EQ(s, "ad{x}e}trackTitle");

    std::string adjacent = "{genre}{genre}{genre}!";
    FormatSpecifiers::removeFormatSpecifier(adjacent, "genre");
    EXPECT_EQ(adjacent, "!");

    std::string ranged = "{genre}{genre}{genre}";
    FormatSpecifiers::removeFormatSpecifier(ranged, "genre", Range{7, 7});
    EXPECT_EQ(ranged, "{genre}{genre}");

    std::string stray = "}{genre";
    FormatSpecifiers::removeFormatSpecifier(stray, "genre");
    EXPECT_EQ(stray, "}{genre");
}

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

TEST_F(FormatSpecifiersTest, MissingTemplateOrTitleFallsBackToTheSourceName) {
    const AudioMetadata none;
    EXPECT_EQ(expandFormatSpecifiers(std::nullopt, &none, nullptr, kInput, true), "Source");
    EXPECT_EQ(expandFormatSpecifiers(std::string(), &none, nullptr, kInput, true), "Source");
    EXPECT_EQ(expand("{trackTitle}", &none), "Source");
    EXPECT_EQ(expand("{trackTitle}", nullptr), "Source");
    const AudioMetadata empty = titled("");
    EXPECT_EQ(expand("{trackTitle}", &empty), "Source");
    // No input path: nothing to fall back on.
    EXPECT_EQ(expand("{trackTitle}", &none, nullptr, std::nullopt), "");
    EXPECT_EQ(expand("[{sourceFilename}]", &none, nullptr, std::nullopt), "[]");
    // Only the last extension is the extension.
    EXPECT_EQ(expand("{sourceFilename}", &none, nullptr, "/a.b/c.tar.gz"), "c.tar");
}

TEST_F(FormatSpecifiersTest, SlashesInValuesFollowTheSafeNameSwitches) {
    const AudioMetadata m = titled("Day/Night Live");
    windowsSafe(false);
    EXPECT_EQ(expand("{trackTitle}", &m), "Day:Night Live");
    windowsSafe(true, "-");
    EXPECT_EQ(expand("{trackTitle}", &m), "Day-Night Live");
    // A replacement that is itself invalid is cleaned first.
    windowsSafe(true, "?");
    EXPECT_EQ(expand("{trackTitle}", &m), "Day_Night Live");
    // Values only: the template's own slashes make folders, and without
    // sanitising the value keeps its slash too.
    windowsSafe(false);
    EXPECT_EQ(expand("A/B:{trackTitle}", &m), "A/B:Day:Night Live");
    EXPECT_EQ(expand("A/{trackTitle}", &m, nullptr, kInput, false), "A/Day/Night Live");
}

TEST_F(FormatSpecifiersTest, SafeFilenameCharacterSets) {
    const std::string all = "a<b>c:d\"e/f\\g|h?i*j+k=l[m]n,o;p";
    windowsSafe(false, "-", true); // SMB has no effect without Windows
    EXPECT_EQ(safeFilename(all), "a<b>c:d\"e:f\\g|h?i*j+k=l[m]n,o;p");
    windowsSafe(true, "-");
    EXPECT_EQ(safeFilename(all), "a-b-c-d-e-f-g-h-i-j+k=l[m]n,o;p");
    windowsSafe(true, "-", true);
    EXPECT_EQ(safeFilename(all), "a-b-c-d-e-f-g-h-i-j-k-l-m-n-o-p");
    // The replacement is cleaned with the long set even when SMB is off, and
    // may be longer than one character or empty.
    windowsSafe(true, "[+]");
    EXPECT_EQ(safeFilename("x?y"), "x___y");
    windowsSafe(true, "<>");
    EXPECT_EQ(safeFilename("x/y"), "x__y");
    windowsSafe(true, "");
    EXPECT_EQ(safeFilename("x/y:z"), "xyz");
    // Multi-byte text passes untouched.
    windowsSafe(true, "_");
    EXPECT_EQ(safeFilename("Björk: Jóga / 日本"), "Björk_ Jóga _ 日本");
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

TEST_F(FormatSpecifiersTest, SourceFormatAlwaysVanishes) {
    AudioMetadata m;
    m.setSourceFormat("MPEG-1 Layer 3");
    EXPECT_EQ(expand("x{ Format: sourceFormat}y", &m), "xy");
    EXPECT_EQ(expand("{sourceFormat}", &m), "Source");
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

TEST_F(FormatSpecifiersTest, NamesMatchAsCaseSensitiveSubstringsInTableOrder) {
    AudioMetadata m = titled("Song");
    m.setTrackArtist("Artist");
    m.setAlbumArtist("Band");
    m.setKey("Am");
    m.setSourceBitrate(320000);
    m.setSourceSampleRate(44100);
    m.setSourceBitrateMode("VBR");
    m.setSourceChannels(6);
    EncoderSettings s;
    s.setEncoderType(EncoderTypeMP3);
    s.setBitrate(192);
    s.setBitrateMethod(BitrateMethodABR);
    s.setSampleRate(48000);

    EXPECT_EQ(expand("{trackTitles}", &m), "Songs");
    EXPECT_EQ(expand("{my trackTitle!}", &m), "my Song!");
    EXPECT_EQ(expand("{monkey}", &m), "monAm");
    // Capitalised, these contain no lower-case name, so they are served by
    // their own entries rather than by "bitrate" or "sampleRate".
    EXPECT_EQ(expand("{outputBitrate}", &m, &s), "192.00 kbps");
    EXPECT_EQ(expand("{sourceBitrate}", &m, &s), "320.00 kbps");
    EXPECT_EQ(expand("{outputBitrateMethod}", &m, &s), "ABR");
    EXPECT_EQ(expand("{sourceBitrateMethod}", &m, &s), "VBR");
    EXPECT_EQ(expand("{sourceSampleRate}", &m, &s), "44.100 kHz");
    EXPECT_EQ(expand("{outputSampleRate}", &m, &s), "48.000 kHz");
    EXPECT_EQ(expand("{sourceChannels}", &m, &s), "6");
    // Two names in one group: the earlier in the table wins wherever it
    // stands, and the other is left as text once the braces are gone.
    EXPECT_EQ(expand("{trackArtist albumArtist}", &m), "Artist albumArtist");
    EXPECT_EQ(expand("{albumArtist trackArtist}", &m), "albumArtist Artist");
    // Case matters.
    EXPECT_EQ(expand("{TrackTitle}-{TRACKTITLE}", &m), "{TrackTitle}-{TRACKTITLE}");
}

TEST_F(FormatSpecifiersTest, UnbalancedBracesStayLiteral) {
    const AudioMetadata m = titled("Song");
    EXPECT_EQ(expand("{trackTitle", &m), "{trackTitle");
    EXPECT_EQ(expand("trackTitle}", &m), "trackTitle}");
    EXPECT_EQ(expand("{{trackTitle}", &m), "{Song");
    EXPECT_EQ(expand("{trackTitle}}", &m), "Song}");
    EXPECT_EQ(expand("}{trackTitle}{", &m), "}Song{");
    // A stray "}" leaves the depth count behind, and the group after it is
    // never found.
    EXPECT_EQ(expand("{a}}{trackTitle}", &m), "{a}}{trackTitle}");
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

TEST_F(FormatSpecifiersTest, EverySpecifierFormatsItsValue) {
    AudioMetadata m = titled("Song");
    m.setTrackArtist("Artist");
    m.setAlbumArtist("Band");
    m.setAlbumTitle("Album");
    m.setTrackComposer("Composer");
    m.setTrackGenre("Genre");
    m.setGrouping("Group");
    m.setTrackYear(1999);
    m.setBpm(128);
    m.setKey("Am");
    m.setISRC("USRC17607839");
    m.setTrackNumber(3);
    m.setTotalTracks(12);
    m.setDiscNumber(1);
    m.setDiscTotal(2);
    m.setTrackComment("Comment");
    m.setSourceBitrateMode("CBR");
    m.setSourceBitrate(1411200);
    m.setSourceSampleRate(44100);
    m.setSourceChannels(2);
    m.setSourceKind("FLAC File");
    m.setSourceFormat("FLAC");
    m.setSourceEncodedWith("reference libFLAC 1.4.2");

    EncoderSettings s;
    s.setEncoderType(EncoderTypeMP3);
    s.setBitrate(192);
    s.setBitrateMethod(BitrateMethodCBR);
    s.setSampleRate(48000);
    s.setChannelMode(3);
    set("useTwoDigitNumbers", true);

    const std::vector<std::pair<std::string, std::string>> expected = {
        {"trackTitle", "Song"},
        {"trackArtist", "Artist"},
        {"albumArtist", "Band"},
        {"albumTitle", "Album"},
        {"composer", "Composer"},
        {"genre", "Genre"},
        {"grouping", "Group"},
        {"year", "1999"},
        {"bpm", "128"},
        {"key", "Am"},
        {"ISRC", "USRC17607839"},
        {"trackNumber", "03"},
        {"trackTotal", "12"},
        {"discNumber", "01"},
        {"discTotal", "02"},
        {"comments", "Comment"},
        {"bitrateMethod", "CBR"},
        {"outputBitrateMethod", "CBR"},
        {"bitrate", "192.00 kbps"},
        {"outputBitrate", "192.00 kbps"},
        {"sampleRate", "48.000 kHz"},
        {"outputSampleRate", "48.000 kHz"},
        {"outputChannels", "1"},
        {"encodingMethod", "CBR"},
        {"outputFormat", "MP3"},
        {"outputFileFormat", "MP3"},
        {"encodingFormat", "192.00 kbps CBR"},
        {"outputEncoding", "192.00 kbps CBR"},
        {"sourceBitrateMethod", "CBR"},
        {"sourceBitrate", "1411.20 kbps"},
        {"sourceSampleRate", "44.100 kHz"},
        {"sourceChannels", "2"},
        {"sourceKind", "FLAC File"},
        {"sourceFormat", ""},
        {"sourceFilename", "Source"},
        {"sourceEncodedWith", "reference libFLAC 1.4.2"},
    };
    const auto& names = FormatSpecifiers::specifierNames();
    ASSERT_EQ(names.size(), expected.size());
    for (size_t i = 0; i < expected.size(); ++i) {
        SCOPED_TRACE(expected[i].first);
        EXPECT_EQ(names[i], expected[i].first);
        EXPECT_EQ(expand("<{" + expected[i].first + "}>", &m, &s, kInput, false),
                  "<" + expected[i].second + ">");
    }
}

TEST_F(FormatSpecifiersTest, OutputSettingsFormatting) {
    AudioMetadata m;
    m.setSourceSampleRate(96000);
    m.setSourceChannels(6);
    EncoderSettings s;
    s.setEncoderType(EncoderTypeOggVorbis);
    s.setBitrate(192000);
    s.setBitrateMethod(BitrateMethodVBR);
    s.setVbrQuality(5);
    auto e = [&](const std::string& t) { return expand(t, &m, &s, kInput, false); };

    // Only MP3 keeps kbit/s; a zero rate still prints.
    EXPECT_EQ(e("{bitrate}"), "192.00 kbps");
    s.setBitrate(0);
    EXPECT_EQ(e("{bitrate}"), "0.00 kbps");
    EXPECT_EQ(e("{bitrateMethod}|{encodingMethod}"), "VBR|VBR");
    s.setBitrateMethod(BitrateMethodConstrainedVBR);
    EXPECT_EQ(e("{outputBitrateMethod}"), "VBR Constrained");
    // An unknown method names itself with nothing, which is not missing.
    s.setBitrateMethod(static_cast<BitrateMethod>(7));
    EXPECT_EQ(e("{m=bitrateMethod;}"), "m=;");
    EXPECT_EQ(e("{encodingFormat}"), "*Unknown Settings*");

    // Rate and channels 0 mean "as the source".
    EXPECT_EQ(e("{sampleRate}"), "96.000 kHz");
    EXPECT_EQ(e("{outputChannels}"), "6");
    s.setSampleRate(22050);
    EXPECT_EQ(e("{sampleRate}"), "22.050 kHz");
    for (int32_t mode : {1, 2}) {
        s.setChannelMode(mode);
        EXPECT_EQ(e("{outputChannels}"), "2");
    }
    s.setChannelMode(0);
    AudioMetadata bare;
    EXPECT_EQ(expand("{outputChannels}", &bare, &s, kInput, false), "Source");
    s.setSampleRate(0);
    EXPECT_EQ(expand("{outputSampleRate}", &bare, &s, kInput, false), "Source");

    // Without settings their own values are missing; the source still
    // supplies the rate and channels.
    EXPECT_EQ(expand("a{bitrate}{bitrateMethod}{outputFormat}{encodingFormat}{outputEncoding}b", &m,
                     nullptr, kInput, false),
              "ab");
    EXPECT_EQ(expand("{sampleRate} {outputChannels}", &m, nullptr, kInput, false), "96.000 kHz 6");

    // Counters that do not fit two digits, and without the switch.
    AudioMetadata big;
    big.setTrackNumber(123);
    big.setTotalTracks(7);
    set("useTwoDigitNumbers", true);
    EXPECT_EQ(expand("{trackNumber}/{trackTotal}", &big, nullptr, kInput, false), "123/07");
    set("useTwoDigitNumbers", false);
    EXPECT_EQ(expand("{trackNumber}/{trackTotal}", &big, nullptr, kInput, false), "123/7");
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

void appendBytes(void* context, void* data, int size) {
    auto* out = static_cast<std::vector<uint8_t>*>(context);
    out->insert(out->end(), static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
}

TEST_F(FormatSpecifiersTest, PictureFileNamesBesideTheSourceAreExpanded) {
    if (!test::haveTool("flac"))
        GTEST_SKIP() << "flac not installed";
    test::TempDir dir;
    const std::string wav = dir.file("in.wav");
    test::writeWav(wav, test::makeSignal(4410, 2, 16), 2, 44100, 16);
    const std::string source = dir.file("Source.flac");
    ASSERT_EQ(test::runCommand("flac -s -f --tag=ALBUM=Blue/Note -o " + test::shellQuote(source) +
                               " " + test::shellQuote(wav))
                  .exitCode,
              0);
    // The album's slash is a value's slash: made safe, not a folder.
    std::vector<uint8_t> png;
    const std::vector<uint8_t> pixels(4 * 4 * 3, 200);
    ASSERT_TRUE(stbi_write_png_to_func(appendBytes, &png, 4, 4, 3, pixels.data(), 4 * 3));
    test::writeFile(dir.file("Blue:Note cover.png"), png);
    set("readAlbumArtworkFromFile", true);
    set("readAlbumArtworkFileName", "{albumTitle} cover.*");

    // Without the expansion the template is taken as a file name and
    // matches nothing.
    AudioMetadata::setFilenamePatternExpander({});
    EXPECT_EQ(AudioMetadata::metadataFromFile(source)->albumArtwork(), nullptr);

    FormatSpecifiers::installAsFilenamePatternExpander();
    const auto metadata = AudioMetadata::metadataFromFile(source);
    AudioMetadata::setFilenamePatternExpander({});
    ASSERT_NE(metadata->albumArtwork(), nullptr);
    EXPECT_EQ(metadata->albumArtwork()->originalFilename(), "Blue:Note cover.png");
    EXPECT_EQ(metadata->albumArtwork()->width(), 4);
}

// ---- Collisions -------------------------------------------------------------

TEST_F(FormatSpecifiersTest, UniquePathCountsUpFromTwo) {
    test::TempDir dir;
    const std::string song = dir.file("Song.mp3");
    EXPECT_EQ(uniquePathForPath(song), song);
    test::writeFile(song, {1});
    EXPECT_EQ(uniquePathForPath(song), dir.file("Song 2.mp3"));
    test::writeFile(dir.file("Song 2.mp3"), {2});
    EXPECT_EQ(uniquePathForPath(song), dir.file("Song 3.mp3"));
    // A gap is filled first.
    test::writeFile(dir.file("Song 4.mp3"), {4});
    EXPECT_EQ(uniquePathForPath(song), dir.file("Song 3.mp3"));

    // No extension, and a folder in the way counts as taken.
    const std::string plain = dir.file("Notes");
    std::filesystem::create_directory(plain);
    EXPECT_EQ(uniquePathForPath(plain), dir.file("Notes 2"));
    // Only the last extension moves behind the number.
    test::writeFile(dir.file("a.b.flac"), {1});
    EXPECT_EQ(uniquePathForPath(dir.file("a.b.flac")), dir.file("a.b 2.flac"));
}

} // namespace
} // namespace velvox
