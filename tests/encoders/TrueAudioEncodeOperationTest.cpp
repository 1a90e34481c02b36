// The True Audio encoder end to end: the bit-depth setting decoded back by
// ffmpeg, its refusals, ID3v2 read by mutagen and ID3v1 read from the file's
// last 128 bytes.

#include <filesystem>

#include <gtest/gtest.h>

#include "encoders/EncoderTestHarness.h"
#include "encoders/TrueAudioEncodeOperation.h"
#include "metadata/MetadataFixtures.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

constexpr const char* kMutagenTrueAudio = R"(
import sys, hashlib
from mutagen.trueaudio import TrueAudio
f = TrueAudio(sys.argv[1])
t = f.tags
print('version=%d.%d' % t.version[:2])
for fid in ('TIT2', 'TPE1', 'TALB', 'TCOM', 'TCON', 'TDRC', 'TRCK', 'TBPM', 'TENC'):
    print(fid + '=' + (str(t[fid]) if fid in t else ''))
comments = [c for c in t.getall('COMM') if c.desc == '']
print('COMM=' + (str(comments[0]) if comments else ''))
pictures = t.getall('APIC')
print('pictures=%d' % len(pictures))
for p in pictures:
    print('picture=%d %s %s' % (p.type, p.mime, hashlib.md5(p.data).hexdigest()))
print('rate=%d' % f.info.sample_rate)
)";

// The ID3v1 tag's title and artist, straight from the last 128 bytes.
std::pair<std::string, std::string> id3v1TitleAndArtist(const std::string& path) {
    const auto bytes = test::readFile(path);
    if (bytes.size() < 128 || std::string(bytes.end() - 128, bytes.end() - 125) != "TAG")
        return {};
    auto field = [&](size_t offset) {
        std::string text(bytes.end() - 128 + long(offset), bytes.end() - 128 + long(offset) + 30);
        return text.substr(0, text.find('\0'));
    };
    return {field(3), field(33)};
}

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

TEST_F(TrueAudioEncodeOperationTest, ID3TagsReachMutagenAndRetaggingKeepsTheAudio) {
    std::vector<int32_t> samples;
    const std::string in = makeSource({"tagged", 2, 16, 44100, 0}, samples);
    auto op = encode(in, test::taggedRecord("First Title"));
    ASSERT_TRUE(op->success());
    const std::string out = *op->outFilePath();

    auto facts = test::mutagenFacts(kMutagenTrueAudio, out);
    EXPECT_EQ(facts["version"], "2.4");
    EXPECT_EQ(facts["TIT2"], "First Title");
    EXPECT_EQ(facts["TPE1"], "Ünïcode Artist");
    EXPECT_EQ(facts["TALB"], "Lossless Album");
    EXPECT_EQ(facts["TCOM"], "A. Composer");
    EXPECT_EQ(facts["TCON"], "Ambient");
    EXPECT_EQ(facts["TDRC"], "2024");
    EXPECT_EQ(facts["TRCK"].rfind("7", 0), 0u) << facts["TRCK"];
    EXPECT_EQ(facts["TBPM"], "120");
    EXPECT_EQ(facts["COMM"], "made by the encoder tests");
    EXPECT_EQ(facts["TENC"].rfind("libtta++ 2.2 via Velvox ", 0), 0u) << facts["TENC"];
    EXPECT_EQ(facts["pictures"], "1");
    EXPECT_EQ(facts["picture"], "3 image/png " + test::md5Hex(test::pngBytes(9, 7)));
    EXPECT_EQ(facts["rate"], "44100");
    // ID3v1 holds Latin-1 only: the artist's accents survive, as Latin-1.
    const auto [title, artist] = id3v1TitleAndArtist(out);
    EXPECT_EQ(title, "First Title");
    EXPECT_EQ(artist, "\xDCn\xEF"
                      "code Artist");

    const auto before = decoded(out, 16);
    EXPECT_TRUE(test::sameBytes(before, test::packLittleEndian(samples, 16)));
    auto update = retag(out, test::taggedRecord("Second Title"));
    ASSERT_TRUE(update->success());
    facts = test::mutagenFacts(kMutagenTrueAudio, out);
    EXPECT_EQ(facts["TIT2"], "Second Title");
    EXPECT_EQ(facts["pictures"], "1");
    EXPECT_EQ(id3v1TitleAndArtist(out).first, "Second Title");
    EXPECT_TRUE(test::sameBytes(decoded(out, 16), before));
}
