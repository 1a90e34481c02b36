// The FLAC encoder end to end: real sources in, FLAC files out, checked with
// the reference tools (flac decodes, metaflac reads the blocks and tags).

#include <algorithm>
#include <cctype>
#include <cmath>
#include <filesystem>
#include <map>

#include <gtest/gtest.h>

#include "encoders/EncoderTestHarness.h"
#include "encoders/FLACEncodeOperation.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

// The word (letters, digits, underscores) after every occurrence of `key`.
std::vector<std::string> valuesAfter(const std::string& text, const std::string& key) {
    std::vector<std::string> values;
    for (size_t at = text.find(key); at != std::string::npos; at = text.find(key, at + 1)) {
        size_t end = at + key.size();
        while (end < text.size() &&
               (std::isalnum(static_cast<unsigned char>(text[end])) || text[end] == '_'))
            ++end;
        values.push_back(text.substr(at + key.size(), end - at - key.size()));
    }
    return values;
}

class FLACEncodeOperationTest : public test::EncoderTest<FLACEncodeOperation> {
protected:
    void SetUp() override {
        EncoderTestBase::SetUp();
        settings->setEncoderType(EncoderTypeFLAC);
        settings->setExtension("flac");
        settings->setFlacCompressionLevel(5);
    }

    // The file's PCM as flac itself decodes it: little-endian signed samples.
    std::vector<uint8_t> decoded(const std::string& flacPath) const {
        const std::string raw = dir.file("decoded.raw");
        const auto r = test::runCommand("flac -d -s -f --force-raw-format --endian=little "
                                        "--sign=signed -o " +
                                        test::shellQuote(raw) + " " + test::shellQuote(flacPath));
        EXPECT_EQ(r.exitCode, 0) << "flac could not decode " << flacPath;
        auto bytes = test::readFile(raw);
        fs::remove(raw);
        return bytes;
    }

    std::string metaflac(const std::string& arguments, const std::string& path) const {
        return test::runCommand("metaflac " + arguments + " " + test::shellQuote(path)).output;
    }
    int64_t metaflacNumber(const std::string& option, const std::string& path) const {
        return std::stoll(metaflac(option, path));
    }
    std::vector<uint64_t> seekPoints(const std::string& path) const {
        std::vector<uint64_t> points;
        const std::string listing = metaflac("--list --block-type=SEEKTABLE", path);
        for (const std::string& value : valuesAfter(listing, "sample_number="))
            points.push_back(std::stoull(value));
        return points;
    }
};

} // namespace

TEST_F(FLACEncodeOperationTest, SeekPointsEveryTenSecondsAndPadding) {
    // Tags would take their room out of the padding; without them it is whole.
    prefs.set("writeMetadata", false);
    struct Case {
        double seconds;
        std::vector<uint64_t> targets;
    } cases[] = {{25.0, {0, 441000, 882000}}, {9.9, {0}}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.seconds);
        const std::string in = dir.file("long" + std::to_string(int(c.seconds * 10)) + ".wav");
        test::writeWav(in, test::makeSignal(uint32_t(c.seconds * 44100), 1, 16), 1, 44100, 16);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        const std::string out = *op->outFilePath();
        // libFLAC moves each point to the start of the frame holding its
        // target sample (frames of 4096 samples at level 5).
        const std::vector<uint64_t> points = seekPoints(out);
        ASSERT_EQ(points.size(), c.targets.size());
        for (size_t k = 0; k < points.size(); ++k) {
            EXPECT_LE(points[k], c.targets[k]);
            EXPECT_LT(c.targets[k], points[k] + 4096);
        }
        const std::string padding = metaflac("--list --block-type=PADDING", out);
        EXPECT_NE(padding.find("length: 8192\n"), std::string::npos) << padding;
    }
}

TEST_F(FLACEncodeOperationTest, LevelAboveEightWritesOnlyVerbatimSubframes) {
    // Tones, which any predictor compresses, so that verbatim is a choice.
    std::vector<int32_t> signal;
    for (int f = 0; f < 44100; ++f)
        for (int c = 0; c < 2; ++c)
            signal.push_back(int32_t(std::lround(12000.0 * std::sin(f * (0.06 + 0.02 * c)))));
    const std::string in = dir.file("verbatim.wav");
    test::writeWav(in, signal, 2, 44100, 16);

    auto subframeTypes = [&](const std::string& flacPath) {
        const std::string analysis = dir.file("analysis.ana");
        EXPECT_EQ(test::runCommand("flac -a -s -f -o " + test::shellQuote(analysis) + " " +
                                   test::shellQuote(flacPath))
                      .exitCode,
                  0);
        const auto bytes = test::readFile(analysis);
        const std::string text(bytes.begin(), bytes.end());
        std::map<std::string, int> types;
        for (const std::string& type : valuesAfter(text, "\ttype="))
            ++types[type];
        return types;
    };

    settings->setFlacCompressionLevel(5);
    auto compressed = encode(in);
    ASSERT_TRUE(compressed->success());
    const std::string compressedPath = *compressed->outFilePath();
    // The check can tell: a normal level uses predictors.
    const auto compressedTypes = subframeTypes(compressedPath);
    EXPECT_EQ(compressedTypes.count("VERBATIM"), 0u) << testing::PrintToString(compressedTypes);
    EXPECT_FALSE(compressedTypes.empty());

    settings->setFlacCompressionLevel(9);
    auto uncompressed = encode(in);
    ASSERT_TRUE(uncompressed->success());
    const std::string path = *uncompressed->outFilePath();
    ASSERT_NE(path, compressedPath);
    const auto types = subframeTypes(path);
    ASSERT_EQ(types.size(), 1u) << testing::PrintToString(types);
    EXPECT_EQ(types.begin()->first, "VERBATIM");
    EXPECT_GT(fs::file_size(path), fs::file_size(compressedPath));
    EXPECT_TRUE(test::sameBytes(decoded(path), test::packLittleEndian(signal, 16)));
}

TEST_F(FLACEncodeOperationTest, SampleRateSettingResamples) {
    const std::string in = dir.file("rate.wav");
    test::writeWav(in, test::makeSignal(88200, 2, 16), 2, 44100, 16);
    settings->setSampleRate(48000);
    auto op = encode(in);
    ASSERT_TRUE(op->success());
    const std::string out = *op->outFilePath();
    EXPECT_EQ(metaflacNumber("--show-sample-rate", out), 48000);
    EXPECT_NEAR(double(metaflacNumber("--show-total-samples", out)), 96000.0, 2.0);
    EXPECT_EQ(op->totalFrames(), 96000);
}

TEST_F(FLACEncodeOperationTest, BitDepthSettingWidensExactlyAndNarrowsByRounding) {
    struct Case {
        uint32_t from, to;
    } cases[] = {{16, 24}, {16, 32}, {24, 16}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.from) + " to " + std::to_string(c.to));
        const auto signal = test::makeSignal(30000, 2, c.from, c.to);
        const std::string in = wav("depth" + std::to_string(c.to), signal, 2, 44100, c.from);
        settings->setBitDepth(c.to);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        EXPECT_EQ(metaflacNumber("--show-bps", *op->outFilePath()), c.to);
        // Widening shifts left exactly; narrowing rounds to the nearest step.
        std::vector<int32_t> expected(signal.size());
        for (size_t i = 0; i < signal.size(); ++i)
            expected[i] =
                c.to > c.from
                    ? int32_t(uint32_t(signal[i]) << (c.to - c.from))
                    : int32_t(std::clamp(std::nearbyint(signal[i] / 256.0), -32768.0, 32767.0));
        EXPECT_TRUE(
            test::sameBytes(decoded(*op->outFilePath()), test::packLittleEndian(expected, c.to)));
    }
}

TEST_F(FLACEncodeOperationTest, ChannelModeFoldsStereoToMonoAndCopiesMonoToStereo) {
    {
        SCOPED_TRACE("stereo to mono");
        const auto signal = test::makeSignal(20000, 2, 16);
        const std::string in = dir.file("fold.wav");
        test::writeWav(in, signal, 2, 44100, 16);
        settings->setChannelMode(3);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        EXPECT_EQ(metaflacNumber("--show-channels", *op->outFilePath()), 1);
        const auto mono = test::unpackLittleEndian(decoded(*op->outFilePath()), 16);
        ASSERT_EQ(mono.size(), 20000u);
        for (size_t f = 0; f < mono.size(); f += 101) {
            const double expected = 0.70710677 * (signal[2 * f] + signal[2 * f + 1]);
            EXPECT_NEAR(mono[f], std::clamp(expected, -32768.0, 32767.0), 1.0) << "frame " << f;
        }
    }
    {
        SCOPED_TRACE("mono to stereo");
        const auto signal = test::makeSignal(20000, 1, 16);
        const std::string in = dir.file("spread.wav");
        test::writeWav(in, signal, 1, 44100, 16);
        settings->setChannelMode(1);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        EXPECT_EQ(metaflacNumber("--show-channels", *op->outFilePath()), 2);
        std::vector<int32_t> both;
        for (int32_t s : signal)
            both.insert(both.end(), {s, s});
        EXPECT_TRUE(test::sameBytes(decoded(*op->outFilePath()), test::packLittleEndian(both, 16)));
    }
}
