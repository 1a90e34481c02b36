// The Ogg Vorbis encoder end to end: real sources in, Ogg Vorbis files out,
// checked with the reference tools (ogginfo validates, oggdec and ffmpeg
// decode, mutagen and ffprobe read the tags).

#include <cctype>
#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "encoders/EncoderTestHarness.h"
#include "encoders/LossyEncoderTestSupport.h"
#include "encoders/OggVorbisEncodeOperation.h"
#include "metadata/AlbumArtwork.h"
#include "metadata/MetadataFixtures.h"
#include "support/TestSupport.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

class CancellingOggVorbisEncodeOperation : public OggVorbisEncodeOperation {
public:
    void encodeChunk(const AudioBufferList& list, uint32_t frames) override {
        OggVorbisEncodeOperation::encodeChunk(list, frames);
        if (++chunks == cancelAtChunk)
            cancel();
    }
    int chunks = 0;
    int cancelAtChunk = -1;
};

class OggVorbisEncodeOperationTest : public ::testing::Test {
protected:
    void SetUp() override {
        test::requireTools({"ogginfo", "oggdec", "ffmpeg", "ffprobe", "sox", "flac", "metaflac"});
        prefs.set("outputSameAsSource", false);
        prefs.set("destinationDirectory", dir.file("out"));
        prefs.set("writeMetadata", true);
        prefs.set("writeEncodedByMetadataTag", true);
        prefs.set("writeFormatStringToComments", false);
        prefs.set("saveAlbumArtworkToFile", false);
        prefs.set("overwriteOutputFiles", true);
        prefs.set("promptBeforeOverwriting", false);
        // What a user gets without choosing: quality 5.
        settings = std::make_shared<EncoderSettings>();
        settings->setEncoderType(EncoderTypeOggVorbis);
        settings->setExtension("ogg");
        settings->setBitrateMethod(BitrateMethodVBR);
        settings->setVbrQuality(5);
        settings->setBitrate(160000);
    }

    template <typename Operation = OggVorbisEncodeOperation>
    std::unique_ptr<Operation>
    encode(const std::string& in,
           std::shared_ptr<AudioMetadata> metadata = std::make_shared<AudioMetadata>()) {
        auto op = std::make_unique<Operation>();
        op->initWithFilePath(in, in);
        op->setSettings(settings);
        op->setDelegate(&batch);
        if (metadata)
            op->setMetadata(std::move(metadata));
        test::runToEnd(*op);
        return op;
    }

    std::string wavOf(const std::string& name, const std::vector<int32_t>& samples,
                      uint32_t channels, uint32_t rate, uint32_t bits, uint32_t mask = 0) {
        const std::string path = dir.file(name + ".wav");
        test::writeWav(path, samples, channels, rate, bits, mask);
        return path;
    }

    // ogginfo's report; any warning or error fails.
    std::string validated(const std::string& ogg) {
        const auto r = test::runWithErrors("ogginfo " + test::shellQuote(ogg));
        EXPECT_EQ(r.exitCode, 0) << r.output;
        std::string lower = r.output;
        for (char& ch : lower)
            ch = char(std::tolower(static_cast<unsigned char>(ch)));
        EXPECT_EQ(lower.find("warning"), std::string::npos) << r.output;
        EXPECT_EQ(lower.find("error"), std::string::npos) << r.output;
        return r.output;
    }

    // oggdec's 16-bit PCM, in WAVE channel order.
    std::vector<int16_t> oggdec(const std::string& ogg) {
        const std::string wav = dir.file("oggdec.wav"), raw = dir.file("oggdec.raw");
        EXPECT_EQ(test::runCommand("oggdec -Q -b 16 -o " + test::shellQuote(wav) + " " +
                                   test::shellQuote(ogg) + " && sox " + test::shellQuote(wav) +
                                   " -t raw -e signed -b 16 -L " + test::shellQuote(raw))
                      .exitCode,
                  0);
        return test::samples16(test::readFile(raw));
    }

    test::TempDir dir;
    test::Preferences prefs;
    test::Batch batch;
    std::shared_ptr<EncoderSettings> settings;
};

} // namespace

// The last page's granule position is exact, so oggdec and ffmpeg give back
// the source's frame count; each tone must come back in its own speaker,
// which for 5.1 means the encoder moved the channels into Vorbis order.
TEST_F(OggVorbisEncodeOperationTest, EverySampleSizeAndLayoutDecodesGaplessly) {
    struct Case {
        const char* name;
        uint32_t channels, bits, rate, mask;
        const char* layout;
    } cases[] = {
        {"mono8", 1, 8, 44100, 0, "mono"},         {"stereo16", 2, 16, 44100, 0, "stereo"},
        {"stereo24", 2, 24, 48000, 0, "stereo"},   {"stereo32", 2, 32, 44100, 0, "stereo"},
        {"surround16", 6, 16, 48000, 0x3F, "5.1"},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const uint32_t frames = c.rate * 2 + 999;
        const auto source = test::tones(frames, c.channels, c.bits, c.rate);
        const std::string in = wavOf(c.name, source, c.channels, c.rate, c.bits, c.mask);
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
        const auto pcm = test::decodeWithFFmpeg(out, dir.file("ffmpeg.raw"));
        EXPECT_EQ(pcm.size(), size_t(frames) * c.channels);
        // libvorbis codes the LFE channel coarsely; a misplaced channel
        // would still score below 0 dB there.
        for (uint32_t ch = 0; ch < c.channels; ++ch)
            EXPECT_GT(test::channelSNR(pcm, source, c.channels, ch, c.bits),
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
            wavOf(c.name, test::tones(c.rate * 2, c.channels, 16, c.rate), c.channels, c.rate, 16);
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
    const std::string in = wavOf("q", test::tones(44100 * 2, 2, 16, 44100), 2, 44100, 16);
    {
        SCOPED_TRACE("quality 5");
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        const std::string info = validated(*op->outFilePath());
        EXPECT_NE(info.find("Nominal bitrate: 160.000000 kb/s"), std::string::npos) << info;
    }
    {
        SCOPED_TRACE("constrained VBR");
        test::ScopedTemporaryFolder tmp;
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

TEST_F(OggVorbisEncodeOperationTest, TagsAndCoverArriveAndRetaggingKeepsTheAudio) {
    const std::string wav = wavOf("tagged", test::tones(44100, 2, 16, 44100), 2, 44100, 16);
    const std::string flac = dir.file("tagged.flac");
    const auto cover = test::pngBytes(8, 8);
    test::writeFile(dir.file("cover.png"), cover);
    ASSERT_EQ(test::runCommand("flac -s -f -o " + test::shellQuote(flac) + " " +
                               test::shellQuote(wav) + " && metaflac --set-tag='TITLE=Grüße' " +
                               "--set-tag='ARTIST=東京 Ensemble' --set-tag=TRACKNUMBER=7 " +
                               "--import-picture-from=" + test::shellQuote(dir.file("cover.png")) +
                               " " + test::shellQuote(flac))
                  .exitCode,
              0);
    auto op = encode(flac, nullptr);
    ASSERT_TRUE(op->success());
    const std::string out = *op->outFilePath();
    validated(out);
    const char* script =
        "import sys, base64, hashlib\n"
        "from mutagen.oggvorbis import OggVorbis\nfrom mutagen.flac import Picture\n"
        "t = OggVorbis(sys.argv[1])\n"
        "p = [Picture(base64.b64decode(b)) for b in t.get('metadata_block_picture', [])]\n"
        "print(t['title'][0], t['artist'][0], t['tracknumber'][0], len(p),\n"
        "      hashlib.md5(p[0].data).hexdigest() if p else '-', p[0].type if p else '-',\n"
        "      p[0].mime if p else '-', sep='|')\n";
    EXPECT_EQ(test::mutagen(script, out),
              "Grüße|東京 Ensemble|7|1|" + test::md5Hex(cover) + "|3|image/png\n");
    EXPECT_EQ(test::runCommand("ffprobe -v error -show_entries format_tags=title:stream_tags=title "
                               "-of default=nw=1:nk=1 " +
                               test::shellQuote(out))
                  .output.find("Grüße"),
              0u);
    const auto pcmBefore = oggdec(out);

    auto record = std::make_shared<AudioMetadata>();
    record->setTrackTitle("Second Thoughts");
    auto artwork = std::make_shared<AlbumArtwork>();
    const auto bigger = test::jpegBytes(64, 64);
    artwork->setData(bigger);
    record->setAlbumArtwork(artwork);
    settings->setEncoderAction(EncoderActionUpdateMetadata);
    auto retag = encode(out, record);
    ASSERT_TRUE(retag->success());
    validated(out);
    EXPECT_TRUE(oggdec(out) == pcmBefore);
    const std::string after =
        test::mutagen("import sys, base64, hashlib\nfrom mutagen.oggvorbis import OggVorbis\n"
                      "from mutagen.flac import Picture\nt = OggVorbis(sys.argv[1])\n"
                      "p = [Picture(base64.b64decode(b)) for b in t['metadata_block_picture']]\n"
                      "print(t['title'][0], len(p), hashlib.md5(p[0].data).hexdigest(), sep='|')\n",
                      out);
    EXPECT_EQ(after, "Second Thoughts|1|" + test::md5Hex(bigger) + "\n");
}

