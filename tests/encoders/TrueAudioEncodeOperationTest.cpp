// The True Audio encoder end to end: the bit-depth setting decoded back by
// ffmpeg, and its refusals.

#include <filesystem>

#include <gtest/gtest.h>

#include "encoders/EncoderTestHarness.h"
#include "encoders/TrueAudioEncodeOperation.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

class TrueAudioEncodeOperationTest : public test::EncoderTest<TrueAudioEncodeOperation> {
protected:
    void SetUp() override {
        EncoderTestBase::SetUp();
        settings->setEncoderType(EncoderTypeTrueAudio);
        settings->setExtension("tta");
    }

    // The PCM as ffmpeg decodes it, as little-endian signed samples of `bits`.
    std::vector<uint8_t> decoded(const std::string& path, uint32_t bits) const {
        const std::string codec = bits == 8 ? "pcm_s8" : "pcm_s" + std::to_string(bits) + "le";
        const std::string format = bits == 8 ? "s8" : "s" + std::to_string(bits) + "le";
        const std::string raw = dir.file("decoded.raw");
        const auto r =
            test::runCommand("ffmpeg -v error -y -i " + test::shellQuote(path) + " -c:a " + codec +
                             " -f " + format + " " + test::shellQuote(raw));
        EXPECT_EQ(r.exitCode, 0) << "ffmpeg could not decode " << path;
        auto bytes = test::readFile(raw);
        fs::remove(raw);
        return bytes;
    }
};

} // namespace

TEST_F(TrueAudioEncodeOperationTest, BitDepthSettingWidensAndThirtyTwoBitsAreRefused) {
    std::vector<int32_t> samples;
    const std::string in = makeSource({"widen", 2, 16, 44100, 0}, samples);
    settings->setBitDepth(24);
    auto op = encode(in);
    ASSERT_TRUE(op->success());
    std::vector<int32_t> widened(samples);
    for (int32_t& s : widened)
        s *= 256;
    EXPECT_TRUE(
        test::sameBytes(decoded(*op->outFilePath(), 24), test::packLittleEndian(widened, 24)));
    std::filesystem::remove_all(dir.file("out"));

    // Asked for by the setting, or brought by the source: each its own words.
    const std::string deep = dir.file("deep.wav");
    test::writeWav(deep, test::makeSignal(10000, 2, 32), 2, 44100, 32);
    struct Case {
        std::string in;
        uint32_t bitDepth;
        const char* message;
    } cases[] = {{in, 32,
                  "TTA Encode Operation Failed To Encode File: widen.wav.  Error:TTA Set Info "
                  "Error - Unsupported Format"},
                 {deep, 0,
                  "TTA Encode Operation Failed To Encode File: deep.wav.  Error:True Audio Does "
                  "Not Support 32 Bit Files."}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.message);
        test::PrivateTemporaryFolder tmp;
        settings->setBitDepth(c.bitDepth);
        test::LogWatch log;
        auto refused = encode(c.in);
        EXPECT_FALSE(refused->success());
        EXPECT_TRUE(log.contains(c.message)) << testing::PrintToString(log.lines());
        EXPECT_TRUE(outputFolderIsEmpty());
        EXPECT_TRUE(tmp.isEmpty());
    }
}
