// The Sound Designer II encoder end to end: the file and its "._" companion
// read back by libsndfile's own tools, the subtype chosen by bitDepth, the
// tags the container cannot hold named in the error log.

#include <filesystem>

#include <gtest/gtest.h>

#include "encoders/EncoderTestHarness.h"
#include "encoders/LibsndfileEncodeOperation.h"
#include "metadata/MetadataFixtures.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

class LibsndfileEncodeOperationTest : public test::EncoderTest<LibsndfileEncodeOperation> {
protected:
    void SetUp() override {
        EncoderTestBase::SetUp();
        settings->setEncoderType(EncoderTypeSndFile);
        settings->setExtension("sd2");
    }

    // libsndfile reads the file (it needs the companion for the rate and
    // channels) into an AIFF file; sox turns that into raw little-endian PCM.
    // Returns the samples and the bit depth libsndfile reported.
    std::vector<uint8_t> decoded(const std::string& path, uint32_t& bits) const {
        const std::string wav = dir.file("decoded.aiff"); // AIFF, unlike WAVE, holds signed 8-bit
        const std::string raw = dir.file("decoded.raw");
        const auto converted = test::runCommand("sndfile-convert " + test::shellQuote(path) + " " +
                                                test::shellQuote(wav) + " 2>&1");
        EXPECT_EQ(converted.exitCode, 0) << converted.output;
        bits = uint32_t(
            std::stoul("0" + test::runCommand("sox --i -b " + test::shellQuote(wav)).output));
        EXPECT_EQ(test::runCommand("sox " + test::shellQuote(wav) + " -t raw -e signed -L " +
                                   test::shellQuote(raw))
                      .exitCode,
                  0);
        auto bytes = test::readFile(raw);
        // An odd-sized AIFF sound chunk ends in a pad byte, which sox keeps;
        // the SD2 file's own frame count says where the audio ends.
        auto number = [&](const std::string& field) {
            const std::string line = soxInfo(field, path);
            const size_t colon = line.find(':');
            EXPECT_NE(colon, std::string::npos) << line;
            return colon == std::string::npos ? size_t(0)
                                              : size_t(std::stoull(line.substr(colon + 1)));
        };
        const size_t audioBytes = number("Frames") * number("Channels") * (bits / 8);
        if (bytes.size() == audioBytes + 1)
            bytes.resize(audioBytes);
        fs::remove(wav);
        fs::remove(raw);
        return bytes;
    }
    std::string soxInfo(const std::string& option, const std::string& wavOrSd2) const {
        return test::runCommand("sndfile-info " + test::shellQuote(wavOrSd2) + " | grep '" +
                                option + "'")
            .output;
    }
};

std::vector<int32_t> shiftedRight(std::vector<int32_t> samples, int shift) {
    for (int32_t& s : samples)
        s >>= shift;
    return samples;
}

} // namespace

TEST_F(LibsndfileEncodeOperationTest, BitDepthChoosesTheSubtypeWithThirtyTwoCappedAtTwentyFour) {
    std::vector<int32_t> samples;
    const std::string in = makeSource({"deep", 2, 24, 48000, 0}, samples);
    struct Case {
        uint32_t bitDepth, bitsWritten;
    } cases[] = {{0, 16}, {32, 24}, {16, 16}, {8, 8}};
    for (const Case& c : cases) {
        SCOPED_TRACE(c.bitDepth);
        settings->setBitDepth(c.bitDepth);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        uint32_t bits = 0;
        const auto pcm = decoded(*op->outFilePath(), bits);
        EXPECT_EQ(bits, c.bitsWritten);
        // libsndfile narrows by dropping the low bits.
        EXPECT_TRUE(test::sameBytes(
            pcm,
            test::packLittleEndian(shiftedRight(samples, int(24 - c.bitsWritten)), c.bitsWritten)));
    }
}

TEST_F(LibsndfileEncodeOperationTest, TagsTheContainerCannotHoldAreNamedAndTheAudioKept) {
    std::vector<int32_t> samples;
    const std::string in = makeSource({"tagged", 2, 16, 44100, 0}, samples);
    settings->setBitDepth(16);
    test::LogWatch log;
    auto op = encode(in, test::taggedRecord("A Title"));
    ASSERT_TRUE(op->success());
    EXPECT_TRUE(log.contains("Libsndfile Encode Operation Could Not Write These Tags To "
                             "tagged.wav: title, artist, album, composer, genre, year, track "
                             "number, tempo, comments, encoding application"))
        << testing::PrintToString(log.lines());
    uint32_t bits = 0;
    EXPECT_TRUE(
        test::sameBytes(decoded(*op->outFilePath(), bits), test::packLittleEndian(samples, 16)));

    // Nothing to carry, nothing to say.
    prefs.set("writeEncodedByMetadataTag", false);
    test::LogWatch quiet;
    auto untagged = encode(in);
    ASSERT_TRUE(untagged->success());
    EXPECT_TRUE(quiet.lines().empty()) << testing::PrintToString(quiet.lines());
}
