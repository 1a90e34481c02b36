// FLAC and Ogg FLAC decoding checked bit for bit against the reference
// `flac` decoder and against the samples the fixture was made from.

#include <memory>
#include <tuple>
#include <vector>

#include <FLAC/stream_encoder.h>
#include <gtest/gtest.h>

#include "decoders/DecoderTestSupport.h"
#include "decoders/FLACDecoder.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "support/TestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

// What the reference decoder makes of the file, as signed little-endian PCM.
std::vector<uint8_t> referencePCM(const std::string& flacPath, bool ogg = false) {
    TempDir dir;
    const std::string raw = dir.file("ref.raw");
    const std::string cmd = "flac -s -d -f --force-raw-format --endian=little --sign=signed " +
                            std::string(ogg ? "--ogg " : "") + shellQuote(flacPath) + " -o " +
                            shellQuote(raw);
    EXPECT_EQ(runCommand(cmd).exitCode, 0) << cmd;
    return readFile(raw);
}

// Encodes a WAV of the test signal with the reference encoder.
std::string makeFlac(const TempDir& dir, const std::string& name, uint32_t channels, uint32_t bits,
                     uint32_t frames, const std::string& options = "",
                     std::vector<int32_t>* samplesOut = nullptr) {
    const auto samples = makeSignal(frames, channels, bits, channels * 100 + bits);
    const std::string wav = dir.file(name + ".wav");
    writeWav(wav, samples, channels, 44100, bits);
    const std::string out = dir.file(name);
    const std::string cmd = "flac -s -f --channel-map=none " + options + " " + shellQuote(wav) +
                            " -o " + shellQuote(out);
    EXPECT_EQ(runCommand(cmd).exitCode, 0) << cmd;
    if (samplesOut)
        *samplesOut = samples;
    return out;
}

std::unique_ptr<KDDecoder> open(const std::string& path) {
    return KDDecoder::decoderWithFilename(path);
}

} // namespace

class FLACBitExact : public ::testing::TestWithParam<std::tuple<uint32_t, uint32_t>> {};

TEST_P(FLACBitExact, MatchesReferenceDecoderAndSourceSamples) {
    const auto [bits, channels] = GetParam();
    TempDir dir;
    std::vector<int32_t> samples;
    const std::string path = makeFlac(dir, "in.flac", channels, bits, 30000, "", &samples);
    auto decoder = open(path);
    ASSERT_TRUE(decoder);
    EXPECT_STREQ(decoder->className(), "FLACDecoder");
    const auto f = decoder->decodeFormat();
    EXPECT_EQ(f.mSampleRate, 44100);
    EXPECT_EQ(f.mFormatID, kAudioFormatLinearPCM);
    EXPECT_EQ(f.mFormatFlags, 0xCu);
    EXPECT_EQ(f.mBitsPerChannel, bits);
    EXPECT_EQ(f.mChannelsPerFrame, channels);
    EXPECT_EQ(f.mBytesPerFrame, bits / 8 * channels);
    EXPECT_EQ(f.mBytesPerPacket, f.mBytesPerFrame);
    EXPECT_EQ(f.mFramesPerPacket, 1u);
    EXPECT_EQ(decoder->totalFrames(), 30000);

    const Decoded d = decodeAll(*decoder, {4096});
    EXPECT_EQ(d.frames, 30000u);
    EXPECT_EQ(decoder->currentFrame(), 30000);
    EXPECT_EQ(md5Hex(d.pcm), md5Hex(referencePCM(path)));
    EXPECT_EQ(md5Hex(d.pcm), md5Hex(packLittleEndian(samples, bits)));
}

INSTANTIATE_TEST_SUITE_P(DepthsAndChannels, FLACBitExact,
                         ::testing::Values(std::make_tuple(8u, 1u), std::make_tuple(8u, 2u),
                                           std::make_tuple(16u, 1u), std::make_tuple(16u, 2u),
                                           std::make_tuple(16u, 3u), std::make_tuple(16u, 6u),
                                           std::make_tuple(24u, 2u), std::make_tuple(24u, 4u),
                                           std::make_tuple(24u, 5u), std::make_tuple(24u, 8u),
                                           std::make_tuple(16u, 7u)));

TEST(FLACDecoder, OggFLACIsChosenByContentAndDecodesBitExact) {
    TempDir dir;
    std::vector<int32_t> samples;
    // ".ogg" and ".oga" are both classified by their first packet.
    for (const char* name : {"in.oga", "in.ogg"}) {
        const std::string path = makeFlac(dir, name, 2, 24, 20000, "--ogg", &samples);
        auto decoder = open(path);
        ASSERT_TRUE(decoder);
        EXPECT_STREQ(decoder->className(), "OggFLACDecoder");
        EXPECT_EQ(decoder->totalFrames(), 20000);
        const Decoded d = decodeAll(*decoder);
        EXPECT_EQ(md5Hex(d.pcm), md5Hex(referencePCM(path, true)));
        EXPECT_EQ(md5Hex(d.pcm), md5Hex(packLittleEndian(samples, 24)));
    }
}

TEST(FLACDecoder, BadFilesFailWithOneLogLineEach) {
    TempDir dir;
    auto& log = ErrorLog::sharedController();

    struct Case {
        std::string name;
        std::vector<uint8_t> bytes;
        std::string expectedLine;
    };
    std::vector<uint8_t> text(2000);
    for (size_t i = 0; i < text.size(); ++i)
        text[i] = uint8_t("The quick brown fox jumps over the lazy dog. "[i % 45]);
    const std::vector<Case> cases = {
        {"empty.flac", {}, "FLAC Stream Decoder Failed To Process Metadata For File: "},
        {"text.flac", text, "FLAC Stream Decoder Failed To Process Metadata For File: "},
    };
    for (const auto& c : cases) {
        writeFile(dir.file(c.name), c.bytes);
        const size_t mark = log.count();
        EXPECT_EQ(open(dir.file(c.name)), nullptr) << c.name;
        const auto lines = log.messages();
        ASSERT_EQ(lines.size(), mark + 1) << c.name;
        EXPECT_EQ(lines.back(), c.expectedLine + dir.file(c.name));
    }

    const size_t mark = log.count();
    EXPECT_EQ(open(dir.file("missing.flac")), nullptr);
    ASSERT_EQ(log.count(), mark + 1);
    EXPECT_EQ(log.messages().back(),
              "Initialization of FLAC Decoder Failed For File: " + dir.file("missing.flac") +
                  " Error: 4"); // FLAC__STREAM_DECODER_INIT_STATUS_ERROR_OPENING_FILE
}

// A damaged stream decodes as far as libFLAC takes it (a frame that fails its
// CRC comes out as silence, a cut file ends early); the MD5 check at its end
// then marks it damaged, so that it is never passed off as whole.
TEST(FLACDecoder, DamagedFilesDecodeToTheirEndAndThenFailTheMD5Check) {
    TempDir dir;
    const auto bytes = readFile(makeFlac(dir, "ok.flac", 2, 16, 60000));
    auto cut = bytes;
    cut.resize(bytes.size() * 6 / 10);
    auto scribbled = bytes;
    for (size_t i = bytes.size() / 2; i < bytes.size() / 2 + 3000; ++i)
        scribbled[i] = uint8_t(i * 31);
    for (const auto& [name, damaged, atLeast] :
         {std::tuple{"cut.flac", cut, 10000}, std::tuple{"bad.flac", scribbled, 30000}}) {
        writeFile(dir.file(name), damaged);
        auto decoder = open(dir.file(name));
        ASSERT_TRUE(decoder);
        EXPECT_EQ(decoder->totalFrames(), 60000);
        decodeAll(*decoder);
        EXPECT_EQ(decoder->damage(),
                  "The decoded audio does not match the MD5 signature of the FLAC stream.")
            << name;
        EXPECT_GT(decoder->currentFrame(), atLeast) << name;
    }
}
