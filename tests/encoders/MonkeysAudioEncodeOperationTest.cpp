// The Monkey's Audio encoder end to end: real sources in through the shared
// encode loop, APE files out, decoded by FFmpeg, tags read by mutagen.

#include <filesystem>

#include <gtest/gtest.h>

#include "Version.h"
#include "encoders/EncoderTestHarness.h"
#include "encoders/MonkeysAudioEncodeOperation.h"
#include "metadata/AlbumArtwork.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

class MonkeysAudioEncodeOperationTest : public test::EncoderTest<MonkeysAudioEncodeOperation> {
protected:
    void SetUp() override {
        EncoderTestBase::SetUp();
        settings->setEncoderType(EncoderTypeMonkeysAudio);
        settings->setExtension("ape");
        settings->setMacCompressionLevel(2000);
    }

    std::vector<uint8_t> decoded(const std::string& ape, uint32_t bits) {
        const char* format = bits == 8 ? "s8" : bits == 16 ? "s16le" : "s24le";
        const std::string raw = dir.file("decoded.raw");
        EXPECT_EQ(test::runCommand("ffmpeg -v error -y -i " + test::shellQuote(ape) +
                                   " -map 0:a -f " + format + " " + test::shellQuote(raw))
                      .exitCode,
                  0);
        return test::readFile(raw);
    }
};

} // namespace

TEST_F(MonkeysAudioEncodeOperationTest, TagsAndPictureArriveAsAPEv2AndRetaggingKeepsTheAudio) {
    const auto signal = test::makeSignal(50000, 2, 16, 9);
    const std::string in = dir.file("tagged.wav");
    test::writeWav(in, signal, 2, 44100, 16);
    auto record = std::make_shared<AudioMetadata>();
    record->setTrackTitle("Ünïcode Title");
    record->setTrackArtist("Artist");
    record->setTrackNumber(4);
    record->setTrackYear(2001);
    auto art = std::make_shared<AlbumArtwork>();
    // A PNG signature and bytes of every value: the tag must carry them as is.
    std::vector<uint8_t> png = {0x89, 'P', 'N', 'G', '\r', '\n', 0x1A, '\n'};
    for (int i = 0; i < 600; ++i)
        png.push_back(uint8_t(i * 7));
    art->setData(png);
    art->setArtworkType(3);
    art->setOriginalFilename(std::string("cover.png"));
    record->setAlbumArtwork(art);

    auto op = encode(in, record);
    ASSERT_TRUE(op->success());
    const std::string out = *op->outFilePath();
    const std::vector<uint8_t> pcm = decoded(out, 16);
    EXPECT_TRUE(test::sameBytes(pcm, test::packLittleEndian(signal, 16)));

    auto readTags = [&](const std::string& path) {
        return test::mutagen(
            "import sys; from mutagen.apev2 import APEv2; t = APEv2(sys.argv[1]); "
            "print('|'.join(str(t[k]) for k in ('Title', 'Artist', 'Track', 'Year', "
            "'EncodedBy'))); c = t['Cover Art (front)'].value; "
            "print(c.split(b'\\0')[0].decode(), len(c))",
            path);
    };
    const std::string encodedBy = std::string("MAC ") +
                                  MonkeysAudioEncodeOperation::compressorVersion() +
                                  " via Velvox " + std::string(kVelvoxShortVersion);
    EXPECT_EQ(readTags(out), "Ünïcode Title|Artist|4|2001|" + encodedBy + "\ncover.png " +
                                 std::to_string(10 + png.size()) + "\n");

    // Re-tagging the finished file in place: new text, same audio.
    record->setTrackTitle("A much longer title than the one before, so the tag grows");
    auto update = retag(out, record);
    ASSERT_TRUE(update->success());
    EXPECT_EQ(readTags(out).substr(0, 58),
              "A much longer title than the one before, so the tag grows|");
    EXPECT_TRUE(test::sameBytes(decoded(out, 16), pcm));
}
