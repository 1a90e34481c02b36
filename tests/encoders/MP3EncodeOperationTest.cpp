// The MP3 encoder end to end: real sources in, MP3 files out, checked with
// independent decoders and readers (mpg123, ffmpeg/ffprobe, mediainfo,
// mutagen).

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "encoders/EncoderTestHarness.h"
#include "encoders/MP3EncodeOperation.h"
#include "metadata/AlbumArtwork.h"
#include "metadata/MetadataFixtures.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

class MP3EncodeOperationTest : public test::EncoderTest<MP3EncodeOperation> {
protected:
    void SetUp() override {
        EncoderTestBase::SetUp();
        test::requireTools({"mpg123", "mediainfo", "lame"});
        prefs.set("writeMP3ID3v2Tag", true);
        prefs.set("writeMP3ID3v1Tag", false);
        prefs.set("writeMP3ApeTag", false);
        prefs.set("WriteMP3ID3v2TagVersion", 0);
        // What a user gets without choosing: VBR at LAME's -V 2.
        settings->setEncoderType(EncoderTypeMP3);
        settings->setExtension("mp3");
        settings->setBitrateMethod(BitrateMethodVBR);
        settings->setVbrQuality(8);
        settings->setQuality(7);
        settings->setBitrate(192);
    }

    // mpg123's full check of every frame; any complaint fails. An APE tag
    // sits after the audio, where mpg123 counts it against the stream size
    // in the Xing frame: on a short file that one warning is expected.
    void expectValid(const std::string& mp3, bool apeTagAtEnd = false) {
        test::toolReport("mpg123 -t", mp3,
                         apeTagAtEnd ? "warning: xing stream size off by more than 1%" : "");
    }

    // The reference encoder's output for the same settings, decoded.
    std::vector<double> lameDecoded(const std::string& flags, const std::string& wav) {
        const std::string mp3 = dir.file("reference.mp3");
        EXPECT_EQ(test::runCommand("lame --quiet " + flags + " " + test::shellQuote(wav) + " " +
                                   test::shellQuote(mp3))
                      .exitCode,
                  0);
        return test::decodeWithFFmpeg(mp3, dir.file("reference.raw"));
    }

    std::string ffprobe(const std::string& entries, const std::string& path) {
        return test::runCommand("ffprobe -v error -select_streams a:0 -show_entries " + entries +
                                " -of default=nw=1:nk=1 " + test::shellQuote(path))
            .output;
    }
    std::string mediainfo(const std::string& path) {
        return test::runCommand("mediainfo " + test::shellQuote(path)).output;
    }
    std::vector<double> decoded(const std::string& mp3) {
        return test::decodeWithFFmpeg(mp3, dir.file("decoded.raw"));
    }
};

} // namespace

// ffmpeg honours the LAME frame's delay and padding, so a correct frame
// gives back exactly the source's frame count; the tones come back in their
// own channels at full scale.
TEST_F(MP3EncodeOperationTest, EncodesGaplesslyAtEveryRateAndValidates) {
    struct Case {
        const char* name;
        uint32_t channels, bits, rate;
    } cases[] = {
        {"stereo16", 2, 16, 44100},
        {"mono16", 1, 16, 48000},
        {"stereo24-22k", 2, 24, 22050},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const uint32_t frames = c.rate * 3 + 777;
        const auto source = test::tones(frames, c.channels, c.rate, c.bits);
        const std::string in = wav(c.name, source, c.channels, c.rate, c.bits);
        test::LogWatch log;
        auto op = encode(in);
        ASSERT_TRUE(op->success()) << testing::PrintToString(log.lines());
        const std::string out = dir.file(std::string("out/") + c.name + ".mp3");
        ASSERT_EQ(op->outFilePath(), out);
        expectValid(out);
        EXPECT_EQ(ffprobe("stream=channels,sample_rate", out),
                  std::to_string(c.rate) + "\n" + std::to_string(c.channels) + "\n");
        const auto pcm = decoded(out);
        EXPECT_EQ(pcm.size(), size_t(frames) * c.channels);
        for (uint32_t ch = 0; ch < c.channels; ++ch)
            EXPECT_GT(test::snrDb(test::normalised(source, c.bits), pcm, c.channels, ch), 20.0)
                << "channel " << ch;
    }
}

TEST_F(MP3EncodeOperationTest, SurroundSourceIsRefusedAndLeavesNothing) {
    test::PrivateTemporaryFolder tmp;
    const std::string in = wav("surround", test::tones(44100, 6, 44100, 16), 6, 44100, 16, 0x3F);
    test::LogWatch log;
    auto op = encode(in);
    EXPECT_FALSE(op->success());
    EXPECT_TRUE(log.contains("MP3 Encode Operation Failed To Encode File: surround.wav.  "
                             "Error:MP3 Supports Only Mono And Stereo. 6 Channel Input Not "
                             "Supported."))
        << testing::PrintToString(log.lines());
    EXPECT_FALSE(fs::exists(dir.file("out/surround.mp3")));
    EXPECT_TRUE(tmp.isEmpty());
}

// Each setting must reach LAME as the reference tool's own flag does: the
// frames, and so the decoded PCM, are then the same bit for bit.
TEST_F(MP3EncodeOperationTest, RateControlMatchesTheReferenceEncoder) {
    const std::string in = wav("music", test::tones(44100 * 4, 2, 44100, 16), 2, 44100, 16);
    struct Case {
        BitrateMethod method;
        int64_t bitrate, vbrQuality; // the stored VBR quality is 10 - LAME's -V
        const char* lameFlags;
    } cases[] = {
        {BitrateMethodVBR, 0, 10, "-V 0"},  {BitrateMethodVBR, 0, 8, "-V 2"},
        {BitrateMethodVBR, 0, 1, "-V 9"},   {BitrateMethodCBR, 320, 0, "-b 320"},
        {BitrateMethodCBR, 96, 0, "-b 96"}, {BitrateMethodABR, 128, 0, "--abr 128"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.lameFlags);
        settings->setBitrateMethod(c.method);
        settings->setBitrate(c.bitrate);
        settings->setVbrQuality(c.vbrQuality);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        const std::string out = *op->outFilePath();
        expectValid(out);
        EXPECT_TRUE(decoded(out) == lameDecoded(c.lameFlags, in));
        const std::string info = mediainfo(out);
        EXPECT_NE(info.find(c.method == BitrateMethodCBR ? "Constant" : "Variable"),
                  std::string::npos)
            << info;
        if (c.method == BitrateMethodCBR) {
            EXPECT_EQ(ffprobe("stream=bit_rate", out), std::to_string(c.bitrate * 1000) + "\n");
        }
    }
}

TEST_F(MP3EncodeOperationTest, ChannelModeAndSampleRateAreLAMEs) {
    const uint32_t frames = 44100 * 2 + 5;
    const auto source = test::tones(frames, 2, 44100, 16);
    const std::string in = wav("pair", source, 2, 44100, 16);
    {
        SCOPED_TRACE("mono by LAME's own fold");
        settings->setChannelMode(3);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        const std::string out = *op->outFilePath();
        EXPECT_EQ(ffprobe("stream=channels", out), "1\n");
        EXPECT_NE(mediainfo(out).find("-m m "), std::string::npos);
        EXPECT_TRUE(decoded(out) == lameDecoded("-m m -V 2", in));
        // LAME folds to (L + R) / 2.
        std::vector<int32_t> folded(frames);
        for (uint32_t f = 0; f < frames; ++f)
            folded[f] = (source[2 * f] + source[2 * f + 1]) / 2;
        const auto pcm = decoded(out);
        EXPECT_EQ(pcm.size(), size_t(frames));
        EXPECT_GT(test::snrDb(test::normalised(folded, 16), pcm, 1, 0), 20.0);
    }
    for (const auto& [mode, flag] : {std::pair{1, "-m s"}, {2, "-m f"}}) {
        SCOPED_TRACE(flag);
        settings->setChannelMode(mode);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        EXPECT_EQ(ffprobe("stream=channels", *op->outFilePath()), "2\n");
        const std::string info = mediainfo(*op->outFilePath());
        EXPECT_NE(info.find(std::string(flag) + " -V 2 "), std::string::npos) << info;
        EXPECT_TRUE(decoded(*op->outFilePath()) == lameDecoded(std::string(flag) + " -V 2", in));
    }
    settings->setChannelMode(0);
    {
        // LAME cannot write 96 kHz: the setting is not passed and LAME keeps
        // the source's rate.
        SCOPED_TRACE("96000");
        settings->setSampleRate(96000);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        EXPECT_EQ(ffprobe("stream=sample_rate", *op->outFilePath()), "44100\n");
        EXPECT_EQ(decoded(*op->outFilePath()).size(), size_t(frames) * 2);
    }
    {
        // A rate LAME can write is resampled by LAME; the length is then
        // only as exact as the resampler's rounding.
        SCOPED_TRACE("22050");
        settings->setSampleRate(22050);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        EXPECT_EQ(ffprobe("stream=sample_rate", *op->outFilePath()), "22050\n");
        EXPECT_NEAR(double(decoded(*op->outFilePath()).size()) / 2, frames / 2.0, 2.0);
        EXPECT_EQ(op->totalFrames(), frames); // progress counts source frames
    }
}

TEST_F(MP3EncodeOperationTest, TagsAndCoverArriveInEveryID3v2VersionAndEncoding) {
    const std::string in = dir.file("tagged.flac");
    const std::string coverMD5 = test::md5Hex(test::makeTaggedFLAC(dir, in));
    struct Case {
        int preference, version, encoding; // mutagen's encoding numbers
    } cases[] = {{0, 4, 3}, {1, 4, 3}, {2, 3, 1}, {3, 3, 0}, {4, 4, 1}, {5, 4, 0}};
    const char* script =
        "import sys, hashlib, mutagen.id3 as m\n"
        "t = m.ID3(sys.argv[1]); f = t['TIT2']\n"
        "a = t['TPE1'].text[0] if f.encoding else '-'\n"
        "print(t.version[1], int(f.encoding), f.text[0], a,\n"
        "      t['TRCK'].text[0], hashlib.md5(t.getall('APIC')[0].data).hexdigest(),\n"
        "      'TENC' in t, sep='|')\n";
    for (const Case& c : cases) {
        SCOPED_TRACE(c.preference);
        prefs.set("WriteMP3ID3v2TagVersion", c.preference);
        auto op = encode(in, nullptr);
        ASSERT_TRUE(op->success());
        const std::string out = *op->outFilePath();
        // Latin-1 cannot hold the artist's Japanese name: not compared there.
        const std::string artist = c.encoding == 0 ? "-" : "東京 Ensemble";
        EXPECT_EQ(test::mutagen(script, out), std::to_string(c.version) + "|" +
                                                  std::to_string(c.encoding) + "|Grüße|" + artist +
                                                  "|7|" + coverMD5 + "|True\n");
        EXPECT_EQ(test::runCommand("ffprobe -v error -show_entries format_tags=title -of "
                                   "default=nw=1:nk=1 " +
                                   test::shellQuote(out))
                      .output,
                  "Grüße\n");
        expectValid(out);
    }
}

TEST_F(MP3EncodeOperationTest, ID3v1AndAPETagsOnlyWhenAskedFor) {
    const std::string in = dir.file("tagged.flac");
    test::makeTaggedFLAC(dir, in);
    const char* apeScript = "import sys, mutagen.apev2 as a\n"
                            "try:\n  t = a.APEv2(sys.argv[1]); print(t['Title'], t['Album'])\n"
                            "except a.APENoHeaderError: print('none')\n";
    auto id3v2Version = [](const std::string& path) {
        const auto bytes = test::readFile(path);
        if (bytes.size() < 10 || std::string(bytes.begin(), bytes.begin() + 3) != "ID3")
            return std::string("none");
        return std::to_string(bytes[3]);
    };
    auto id3v1Title = [](const std::string& path) {
        const auto bytes = test::readFile(path);
        if (bytes.size() < 128 || std::string(bytes.end() - 128, bytes.end() - 125) != "TAG")
            return std::string("none");
        std::string title(bytes.end() - 125, bytes.end() - 95);
        return title.substr(0, title.find('\0'));
    };

    prefs.set("writeMP3ID3v2Tag", false);
    prefs.set("writeMP3ID3v1Tag", true);
    prefs.set("writeMP3ApeTag", true);
    auto op = encode(in, nullptr);
    ASSERT_TRUE(op->success());
    const std::string out = *op->outFilePath();
    EXPECT_EQ(id3v1Title(out), "Gr\xfc\xdf"
                               "e"); // Latin-1
    EXPECT_EQ(test::mutagen(apeScript, out), "Grüße Proof\n");
    EXPECT_EQ(id3v2Version(out), "none");
    expectValid(out, true);

    // Re-tagging with only ID3v2 on drops the other two kinds.
    prefs.set("writeMP3ID3v2Tag", true);
    prefs.set("writeMP3ID3v1Tag", false);
    prefs.set("writeMP3ApeTag", false);
    auto update = retag(out, nullptr);
    ASSERT_TRUE(update->success());
    EXPECT_EQ(id3v1Title(out), "none");
    EXPECT_EQ(test::mutagen(apeScript, out), "none\n");
    EXPECT_EQ(id3v2Version(out), "4");
    // With the APE tag gone, the Xing frame's stream size is exact again.
    expectValid(out);
}
