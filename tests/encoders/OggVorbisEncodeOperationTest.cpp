// The Ogg Vorbis encoder end to end: real sources in, Ogg Vorbis files out,
// checked with the reference tools (ogginfo validates, oggdec and ffmpeg
// decode).

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "encoders/EncoderTestHarness.h"
#include "encoders/OggVorbisEncodeOperation.h"
#include "metadata/MetadataFixtures.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

class OggVorbisEncodeOperationTest : public test::EncoderTest<OggVorbisEncodeOperation> {
protected:
    void SetUp() override {
        EncoderTestBase::SetUp();
        test::requireTools({"ogginfo", "oggdec"});
        // What a user gets without choosing: quality 5.
        settings->setEncoderType(EncoderTypeOggVorbis);
        settings->setExtension("ogg");
        settings->setBitrateMethod(BitrateMethodVBR);
        settings->setVbrQuality(5);
        settings->setBitrate(160000);
    }

    // ogginfo's report; any warning or error fails.
    std::string validated(const std::string& ogg) { return test::toolReport("ogginfo", ogg); }

    // oggdec's 16-bit PCM, in WAVE channel order.
    std::vector<double> oggdec(const std::string& ogg) {
        const std::string decodedWav = dir.file("oggdec.wav"), raw = dir.file("oggdec.raw");
        EXPECT_EQ(test::runCommand("oggdec -Q -b 16 -o " + test::shellQuote(decodedWav) + " " +
                                   test::shellQuote(ogg) + " && sox " +
                                   test::shellQuote(decodedWav) + " -t raw -e signed -b 16 -L " +
                                   test::shellQuote(raw))
                      .exitCode,
                  0);
        return test::rawS16(raw);
    }
};

} // namespace

// The last page's granule position is exact, so oggdec gives back the
// source's frame count; each tone must come back in its own speaker,
// which for 5.1 means the encoder moved the channels into Vorbis order.
TEST_F(OggVorbisEncodeOperationTest, EveryLayoutDecodesGaplesslyInItsOwnSpeakers) {
    struct Case {
        const char* name;
        uint32_t channels, bits, rate, mask;
        const char* layout;
    } cases[] = {
        {"mono16", 1, 16, 44100, 0, "mono"},
        {"stereo24", 2, 24, 48000, 0, "stereo"},
        {"surround16", 6, 16, 48000, 0x3F, "5.1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const uint32_t frames = c.rate * 2 + 999;
        const auto source = test::tones(frames, c.channels, c.rate, c.bits);
        const std::string in = wav(c.name, source, c.channels, c.rate, c.bits, c.mask);
        test::LogWatch log;
        auto op = encode(in);
        ASSERT_TRUE(op->success()) << testing::PrintToString(log.lines());
        const std::string out = dir.file(std::string("out/") + c.name + ".ogg");
        ASSERT_EQ(op->outFilePath(), out);
        const std::string info = validated(out);
        EXPECT_NE(info.find("Channels: " + std::to_string(c.channels) +
                            "\nRate: " + std::to_string(c.rate) + "\n"),
                  std::string::npos)
            << info;
        EXPECT_EQ(test::runCommand("ffprobe -v error -show_entries stream=channel_layout -of "
                                   "default=nw=1:nk=1 " +
                                   test::shellQuote(out))
                      .output,
                  std::string(c.layout) + "\n");
        EXPECT_EQ(oggdec(out).size(), size_t(frames) * c.channels);
        // oggdec's WAVE writer misplaces the rear pair of 5.1, so the
        // speakers are checked through ffmpeg's decoder (WAVE order too).
        // ffmpeg may drop the tail of a last short block, as it does for
        // oggenc's own files; the length is oggdec's to judge.
        const auto pcm = test::decodeWithFFmpeg(out, dir.file("ffmpeg.raw"));
        EXPECT_NEAR(double(pcm.size()), double(frames) * c.channels, 128.0 * c.channels);
        // libvorbis codes the LFE channel coarsely; a misplaced channel
        // would still score below 0 dB there.
        for (uint32_t ch = 0; ch < c.channels; ++ch)
            EXPECT_GT(test::snrDb(test::normalised(source, c.bits), pcm, c.channels, ch),
                      c.channels == 6 && ch == 3 ? 10.0 : 20.0)
                << "channel " << ch;
    }
}

TEST_F(OggVorbisEncodeOperationTest, ManagedBitRatesStayInLibvorbisBands) {
    struct Case {
        const char* name;
        BitrateMethod method;
        int64_t bitrate;
        uint32_t channels, rate;
        const char* nominal;
        const char* bounds; // upper and lower, or "" for an average rate
    } cases[] = {
        {"cbr320", BitrateMethodCBR, 320000, 2, 44100, "320.000000", "320.000000"},
        {"cbr640", BitrateMethodCBR, 640000, 2, 44100, "500.002000", "500.002000"},
        {"cbr4k-mono8k", BitrateMethodCBR, 4000, 1, 8000, "8.000000", "8.000000"},
        {"abr192", BitrateMethodABR, 192000, 2, 44100, "192.000000", ""},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string in =
            wav(c.name, test::tones(c.rate * 2, c.channels, c.rate, 16), c.channels, c.rate, 16);
        settings->setBitrateMethod(c.method);
        settings->setBitrate(c.bitrate);
        test::LogWatch log;
        auto op = encode(in);
        ASSERT_TRUE(op->success()) << testing::PrintToString(log.lines());
        const std::string info = validated(*op->outFilePath());
        EXPECT_NE(info.find(std::string("Nominal bitrate: ") + c.nominal + " kb/s"),
                  std::string::npos)
            << info;
        if (*c.bounds) {
            EXPECT_NE(info.find(std::string("Upper bitrate: ") + c.bounds), std::string::npos);
            EXPECT_NE(info.find(std::string("Lower bitrate: ") + c.bounds), std::string::npos);
        } else {
            EXPECT_EQ(info.find("Upper bitrate: "), std::string::npos) << info;
        }
    }
    // Above 50 kHz there is no band: the rate goes to libvorbis as asked.
    EXPECT_EQ(OggVorbisEncodeOperation::boundedBitrate(4000000, 2, 96000), 4000000);
}

TEST_F(OggVorbisEncodeOperationTest, QualityAndUnknownModes) {
    const std::string in = wav("q", test::tones(44100 * 2, 2, 44100, 16), 2, 44100, 16);
    {
        SCOPED_TRACE("quality 5");
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        const std::string info = validated(*op->outFilePath());
        EXPECT_NE(info.find("Nominal bitrate: 160.000000 kb/s"), std::string::npos) << info;
    }
    {
        SCOPED_TRACE("constrained VBR");
        test::PrivateTemporaryFolder tmp;
        settings->setBitrateMethod(BitrateMethodConstrainedVBR);
        settings->setExtension("oga");
        test::LogWatch log;
        auto op = encode(in);
        EXPECT_FALSE(op->success());
        EXPECT_TRUE(log.contains("Ogg Vorbis Encode Operation Failed To Encode File: q.wav.  "
                                 "Error:Bitrate Mode Not Supported By Ogg Vorbis"))
            << testing::PrintToString(log.lines());
        EXPECT_FALSE(fs::exists(dir.file("out/q.oga")));
        EXPECT_TRUE(tmp.isEmpty());
    }
}
