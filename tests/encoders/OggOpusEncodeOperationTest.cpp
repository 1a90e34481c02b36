// The Ogg Opus encoder end to end: real sources in, .opus files out, checked
// with opusinfo (stream validity) and opusdec (decoded length and alignment).

#include <algorithm>
#include <cstring>
#include <filesystem>

#include <gtest/gtest.h>

#include "encoders/EncoderTestHarness.h"
#include "encoders/OggOpusEncodeOperation.h"
#include "metadata/AudioMetadata.h"
#include "platform/StringFormat.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

struct OggPageFacts {
    int64_t granule;
    int segments;
};

// Our own walk over the pages, independent of libogg.
std::vector<OggPageFacts> pagesOf(const std::string& path) {
    const auto bytes = test::readFile(path);
    std::vector<OggPageFacts> pages;
    size_t at = 0;
    while (at + 27 <= bytes.size() && std::memcmp(&bytes[at], "OggS", 4) == 0) {
        int64_t granule = 0;
        for (int i = 7; i >= 0; --i)
            granule = (granule << 8) | bytes[at + 6 + size_t(i)];
        const int segments = bytes[at + 26];
        size_t body = 0;
        for (int i = 0; i < segments && at + 27 + size_t(i) < bytes.size(); ++i)
            body += bytes[at + 27 + size_t(i)];
        pages.push_back({granule, segments});
        at += 27 + size_t(segments) + body;
    }
    EXPECT_EQ(at, bytes.size()) << "trailing bytes after the last page";
    return pages;
}

class OggOpusEncodeOperationTest : public test::EncoderTest<OggOpusEncodeOperation> {
protected:
    void SetUp() override {
        EncoderTestBase::SetUp();
        test::requireTools({"opusinfo", "opusdec"});
        settings->setEncoderType(EncoderTypeOpus);
        settings->setExtension("opus");
        settings->setBitrate(128000);
        settings->setBitrateMethod(BitrateMethodVBR);
        settings->setQuality(10);
        settings->setFramesPerPacket(960);
    }

    // opusinfo's report; it must not complain.
    std::string validated(const std::string& path) { return test::toolReport("opusinfo", path); }

    // opusdec's 16-bit output at `rate`, interleaved.
    std::vector<double> decoded(const std::string& path, uint32_t rate) {
        const std::string raw = dir.file("decoded.raw");
        const auto r = test::runCommand("opusdec --quiet --rate " + std::to_string(rate) + " " +
                                        test::shellQuote(path) + " " + test::shellQuote(raw));
        EXPECT_EQ(r.exitCode, 0) << "opusdec could not decode " << path;
        auto samples = test::rawS16(raw);
        fs::remove(raw);
        return samples;
    }
};

} // namespace

TEST_F(OggOpusEncodeOperationTest, EverySourceDecodesToItsExactLengthInPlace) {
    struct Case {
        const char* name;
        uint32_t rate, channels, bits, frames;
        const char* originalRate; // as opusinfo reports it
    } cases[] = {
        {"cd44k", 44100, 2, 16, 44100 * 3 + 77, "44100"}, // resampled to 48 kHz
        {"hires48k", 48000, 2, 24, 48000 * 2 + 5, "48000"},
        {"mono22k", 22050, 1, 16, 22050 * 2 + 1, "22050"}, // coded at 24 kHz
        {"phone8k", 8000, 1, 8, 8000 * 3 + 33, "8000"},    // coded at 8 kHz, no resampler
        {"int32at16k", 16000, 2, 32, 16000 * 2 + 9, "16000"},
        {"short", 44100, 2, 16, 500, "44100"}, // shorter than one Opus frame
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const auto signal = test::tones(c.frames, c.channels, c.rate, c.bits);
        const std::string in = dir.file(std::string(c.name) + ".wav");
        test::writeWav(in, signal, c.channels, c.rate, c.bits);
        test::LogWatch log;
        auto op = encode(in);
        ASSERT_TRUE(op->success()) << testing::PrintToString(log.lines());
        const std::string out = dir.file("out/" + std::string(c.name) + ".opus");
        ASSERT_EQ(op->outFilePath(), out);

        const std::string info = validated(out);
        EXPECT_NE(info.find(std::string("Original sample rate: ") + c.originalRate + " Hz"),
                  std::string::npos)
            << info;
        const auto pcm = decoded(out, c.rate);
        ASSERT_EQ(pcm.size(), size_t(c.frames) * c.channels) << "decoded frames differ";
        if (c.frames < 2000)
            continue;
        const auto source = test::normalised(signal, c.bits);
        // Through the resampler (and opusdec's own back to the source rate)
        // the audio may sit one sample early, as it does with opusenc.
        const long lag = test::bestLag(source, pcm, c.channels);
        if (c.rate == 48000 || c.rate == 8000 || c.rate == 16000)
            EXPECT_EQ(lag, 0) << "decoded audio is shifted";
        else
            EXPECT_LE(std::labs(lag), 1) << "decoded audio is shifted";
        for (uint32_t ch = 0; ch < c.channels; ++ch) {
            const double snr = test::snrDb(source, pcm, c.channels, ch, lag);
            std::printf("[ opus ] %s channel %u: SNR %.1f dB\n", c.name, ch, snr);
            EXPECT_GT(snr, 15.0) << "channel " << ch;
        }
    }
}

TEST_F(OggOpusEncodeOperationTest, PagesSpanAtMostOneSecond) {
    struct Case {
        const char* name;
        uint32_t rate, framesPerPacket, bitrate;
    } cases[] = {
        {"long60ms", 48000, 2880, 256000}, // big pages: the one-second rule cuts them
        {"lowdelay", 8000, 120, 64000},    // 400 tiny packets a second: lacing rule
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const uint32_t frames = c.rate * 7 + 11;
        const auto signal = test::tones(frames, 2, c.rate, 16);
        const std::string in = dir.file(std::string(c.name) + ".wav");
        test::writeWav(in, signal, 2, c.rate, 16);
        settings->setFramesPerPacket(c.framesPerPacket);
        settings->setBitrate(c.bitrate);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        const std::string out = *op->outFilePath();
        validated(out);
        const auto pages = pagesOf(out);
        ASSERT_GT(pages.size(), 9u);
        int64_t previous = 0;
        for (size_t i = 2; i < pages.size(); ++i) {
            if (pages[i].granule == -1)
                continue;
            EXPECT_LE(pages[i].granule - previous, 48000) << "page " << i;
            previous = pages[i].granule;
        }
        EXPECT_EQ(op->header().preskip + (int64_t(frames) * 48000 + c.rate - 1) / c.rate,
                  pages.back().granule);
        EXPECT_EQ(decoded(out, c.rate).size(), size_t(frames) * 2);
    }
}

TEST_F(OggOpusEncodeOperationTest, BitRateBoundsFrameSizeAndSurroundMapping) {
    const std::string stereo = dir.file("stereo.wav");
    test::writeWav(stereo, test::tones(48000 * 3, 2, 48000, 16), 2, 48000, 16);
    for (int64_t insane : {int64_t(500), int64_t(2 * 1024000)}) {
        SCOPED_TRACE(insane);
        test::PrivateTemporaryFolder tmp;
        settings->setBitrate(insane);
        test::LogWatch log;
        auto op = encode(stereo);
        EXPECT_FALSE(op->success());
        EXPECT_TRUE(log.contains(stringWithFormat(
            "Opus Encode Operation Failed To Encode File: %@.  Error:Error: Bitrate %d bits/sec "
            "is insane.\nDid you mistake bits for kilobits?\n",
            std::string("stereo.wav"), int(insane))))
            << testing::PrintToString(log.lines());
        EXPECT_TRUE(tmp.isEmpty());
        EXPECT_FALSE(fs::exists(dir.file("out/stereo.opus")));
    }
    {
        SCOPED_TRACE("600 kbit/s CBR stereo is held at 512");
        settings->setBitrate(600000);
        settings->setBitrateMethod(BitrateMethodCBR);
        prefs.set("writeMetadata", false);
        auto op = encode(stereo);
        ASSERT_TRUE(op->success());
        const double kbps = double(fs::file_size(*op->outFilePath())) * 8 / 3.0 / 1000;
        EXPECT_NEAR(kbps, 512.0, 512.0 * 0.03);
        prefs.set("writeMetadata", true);
        settings->setBitrateMethod(BitrateMethodVBR);
        settings->setBitrate(128000);
    }
    {
        SCOPED_TRACE("2.5 ms frames use the low-delay coder");
        settings->setFramesPerPacket(120);
        auto op = encode(stereo);
        ASSERT_TRUE(op->success());
        // Only the restricted low-delay mode has a 2.5 ms look-ahead.
        EXPECT_NE(validated(*op->outFilePath()).find("Pre-skip: 120"), std::string::npos);
        settings->setFramesPerPacket(960);
        auto normal = encode(stereo);
        EXPECT_NE(validated(*normal->outFilePath()).find("Pre-skip: 312"), std::string::npos);
    }
    {
        SCOPED_TRACE("5.1 keeps every channel in its place");
        const uint32_t rate = 48000, frames = rate * 2;
        const auto signal = test::tones(frames, 6, rate, 16, 300.0);
        const std::string in = dir.file("surround.wav");
        test::writeWav(in, signal, 6, rate, 16, 0x3F);
        settings->setBitrate(384000);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        EXPECT_EQ(op->header().channel_mapping, 1);
        const std::string out = *op->outFilePath();
        const std::string probe =
            test::runCommand("ffprobe -v error -show_streams " + test::shellQuote(out)).output;
        EXPECT_NE(probe.find("channels=6"), std::string::npos) << probe;
        // opusdec writes its WAVE output in the WAVE channel order again.
        const std::string wav = dir.file("surround-decoded.wav");
        ASSERT_EQ(test::runCommand("opusdec --quiet " + test::shellQuote(out) + " " +
                                   test::shellQuote(wav))
                      .exitCode,
                  0);
        const std::string raw = dir.file("surround-decoded.raw");
        ASSERT_EQ(test::runCommand("sox " + test::shellQuote(wav) + " -t raw -e signed -b 16 " +
                                   test::shellQuote(raw))
                      .exitCode,
                  0);
        const auto pcm = test::rawS16(raw);
        ASSERT_EQ(pcm.size(), size_t(frames) * 6);
        const auto source = test::normalised(signal, 16);
        for (uint32_t ch = 0; ch < 6; ++ch) {
            const double snr = test::snrDb(source, pcm, 6, ch, 0);
            std::printf("[ opus ] 5.1 channel %u: SNR %.1f dB\n", ch, snr);
            // The LFE channel is coded at a low bandwidth; its 1.8 kHz tone
            // does not survive, but it must not hold another channel.
            if (ch != 3) {
                EXPECT_GT(snr, 10.0) << "channel " << ch;
            }
        }
    }
}
