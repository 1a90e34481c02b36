// The Ogg Speex encoder end to end: sources of every size and layout in,
// .spx files out, checked with ogginfo (stream validity) and speexdec (mode,
// decoded length and alignment).

#include <algorithm>
#include <cmath>
#include <filesystem>

#include <gtest/gtest.h>

#include "encoders/EncoderTestHarness.h"
#include "encoders/OggSpeexEncodeOperation.h"
#include "metadata/AudioMetadata.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

class OggSpeexEncodeOperationTest : public test::EncoderTest<OggSpeexEncodeOperation> {
protected:
    void SetUp() override {
        EncoderTestBase::SetUp();
        test::requireTools({"ogginfo", "speexdec", "speexenc"});
        settings->setEncoderType(EncoderTypeOggSpeex);
        settings->setExtension("spx");
        settings->setBitrateMethod(BitrateMethodVBR);
        settings->setVbrQuality(8);
        settings->setQuality(3);
        settings->setFramesPerPacket(1);
    }

    void validated(const std::string& path) { test::toolReport("ogginfo", path); }

    // speexdec's 16-bit output; its banner ("Decoding ... mode") goes to
    // `banner` when asked for.
    std::vector<double> decoded(const std::string& path, std::string* banner = nullptr) {
        const std::string raw = dir.file("decoded.raw");
        const std::string log = dir.file("speexdec.log");
        const auto r = test::runCommand("speexdec " + test::shellQuote(path) + " " +
                                        test::shellQuote(raw) + " 2>" + test::shellQuote(log));
        EXPECT_EQ(r.exitCode, 0) << "speexdec could not decode " << path;
        if (banner) {
            const auto text = test::readFile(log);
            banner->assign(text.begin(), text.end());
        }
        auto samples = test::rawS16(raw);
        fs::remove(raw);
        return samples;
    }

    // Frames speexdec gives for speexenc's own file of the same source:
    // speexdec neither skips the coder's delay nor cuts the last frame to
    // the sample, so this, not the source's length, is what a correct
    // stream decodes to.
    size_t referenceFrames(const std::string& wav, const std::string& options, uint32_t channels) {
        const std::string wav16 = dir.file("reference16.wav");
        const std::string spx = dir.file("reference.spx");
        EXPECT_EQ(
            test::runCommand("sox " + test::shellQuote(wav) + " -b 16 " + test::shellQuote(wav16))
                .exitCode,
            0);
        EXPECT_EQ(test::runCommand("speexenc " + options + " " + test::shellQuote(wav16) + " " +
                                   test::shellQuote(spx) + " 2>/dev/null")
                      .exitCode,
                  0);
        return decoded(spx).size() / channels;
    }

    static double rms(const std::vector<double>& samples) {
        double sum = 0;
        for (double s : samples)
            sum += s * s;
        return std::sqrt(sum / double(std::max<size_t>(1, samples.size())));
    }
};

} // namespace

TEST_F(OggSpeexEncodeOperationTest, EachRatePicksItsModeAndDecodesToTheInputLength) {
    struct Case {
        const char* name;
        uint32_t rate, channels, bits, mask, requestedRate, codedRate, codedChannels;
        const char* banner;
    } cases[] = {
        {"nb8k", 8000, 1, 16, 0, 0, 8000, 1, "8000 Hz audio using narrowband mode (mono"},
        {"wb16k24", 16000, 1, 24, 0, 0, 16000, 1,
         "16000 Hz audio using wideband (sub-band CELP) mode (mono"},
        {"uwb32k", 32000, 2, 16, 0, 0, 32000, 2,
         "32000 Hz audio using ultra-wideband (sub-band CELP) mode (stereo"},
        {"eight", 11025, 1, 8, 0, 0, 11025, 1, "11025 Hz audio using narrowband mode (mono"},
        {"cdTo16k", 44100, 2, 16, 0, 16000, 16000, 2,
         "16000 Hz audio using wideband (sub-band CELP) mode (stereo"},
        {"surround32bit", 48000, 6, 32, 0x3F, 16000, 16000, 2,
         "16000 Hz audio using wideband (sub-band CELP) mode (stereo"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const uint32_t frames = c.rate * 3 + 101;
        const auto signal = test::tones(frames, c.channels, c.rate, c.bits, 180.0);
        const std::string in = dir.file(std::string(c.name) + ".wav");
        test::writeWav(in, signal, c.channels, c.rate, c.bits, c.mask);
        settings->setSampleRate(c.requestedRate);
        test::LogWatch log;
        auto op = encode(in);
        ASSERT_TRUE(op->success()) << testing::PrintToString(log.lines());
        const std::string out = dir.file("out/" + std::string(c.name) + ".spx");
        ASSERT_EQ(op->outFilePath(), out);
        validated(out);

        std::string banner;
        const auto pcm = decoded(out, &banner);
        EXPECT_NE(banner.find(c.banner), std::string::npos) << banner;
        const size_t decodedFrames = pcm.size() / c.codedChannels;
        if (c.rate == c.codedRate) {
            EXPECT_EQ(
                decodedFrames,
                referenceFrames(in, c.channels == 2 ? "--vbr --stereo" : "--vbr", c.channels));
            EXPECT_NEAR(decodedFrames, frames, 2 * 640.0);
        } else {
            EXPECT_NEAR(double(decodedFrames), double(frames) * c.codedRate / c.rate, 2 * 320.0);
        }
        // The tones come through at about their level (not silence, not
        // clipped noise).
        const double level = 20 * std::log10(rms(pcm) / rms(test::normalised(signal, c.bits)));
        std::printf("[ speex ] %s: level %+.1f dB\n", c.name, level);
        EXPECT_NEAR(level, 0.0, 3.0);
    }
    settings->setSampleRate(0);
}

TEST_F(OggSpeexEncodeOperationTest, RateControlAndPreprocessorSwitches) {
    const uint32_t rate = 8000, frames = rate * 10;
    const std::string in = dir.file("speech.wav");
    test::writeWav(in, test::tones(frames, 1, rate, 16, 150.0), 1, rate, 16);
    prefs.set("writeMetadata", false);
    auto kbps = [&](const std::string& path) {
        return double(fs::file_size(path)) * 8 / 10.0 / 1000;
    };

    settings->setBitrateMethod(BitrateMethodCBR);
    settings->setBitrate(15000);
    auto cbr15 = encode(in);
    ASSERT_TRUE(cbr15->success());
    validated(*cbr15->outFilePath());
    // Narrowband mode 4 is 15 kbit/s; pages add about 2%.
    EXPECT_NEAR(kbps(*cbr15->outFilePath()), 15.0, 1.0);
    const double size15 = kbps(*cbr15->outFilePath());

    settings->setBitrate(8000);
    settings->setFramesPerPacket(4);
    auto cbr8 = encode(in);
    ASSERT_TRUE(cbr8->success());
    validated(*cbr8->outFilePath());
    EXPECT_LT(kbps(*cbr8->outFilePath()), size15 * 0.7);
    EXPECT_EQ(decoded(*cbr8->outFilePath()).size(),
              referenceFrames(in, "--bitrate 8000 --nframes 4", 1));

    settings->setBitrateMethod(BitrateMethodVBR);
    settings->setFramesPerPacket(3); // the last packet is cut short
    settings->setSpeexDenoise(true);
    settings->setSpeexAdaptiveGainControl(true);
    settings->setSpeexVoiceActivityDetection(true);
    settings->setSpeexDiscontinuousTransmission(true);
    auto processed = encode(in);
    ASSERT_TRUE(processed->success());
    validated(*processed->outFilePath());
    // speexenc has no preprocessor switches, so no reference here: speexdec
    // plays the coder's delay in front, and the preprocessor adds one frame
    // (160 samples in narrowband) to it.
    const size_t processedFrames = decoded(*processed->outFilePath()).size();
    EXPECT_GE(processedFrames, frames);
    EXPECT_LE(processedFrames, frames + 160 + 40);
}
