// The platform encoder end to end: real sources in, every container and
// codec out, judged by independent decoders (ffmpeg, sox) and tag readers
// (mutagen, ffprobe, mediainfo).

#include <cmath>
#include <cstdlib>
#include <filesystem>
#include <optional>
#include <random>

#include <gtest/gtest.h>

#include "encoders/CoreAudioEncodeOperation.h"
#include "encoders/EncoderTestHarness.h"
#include "metadata/AlbumArtwork.h"
#include "metadata/MetadataFixtures.h"
#include "platform/StringFormat.h"
#include "support/TestSupport.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

using test::PrivateTemporaryFolder;

double signalToDifferenceDB(const std::vector<int32_t>& reference,
                            const std::vector<int32_t>& decoded) {
    double signal = 0, difference = 0;
    for (size_t i = 0; i < reference.size() && i < decoded.size(); ++i) {
        signal += double(reference[i]) * reference[i];
        const double d = double(reference[i]) - decoded[i];
        difference += d * d;
    }
    return 10 * std::log10(signal / std::max(difference, 1.0));
}

std::vector<int32_t> sine(uint32_t frames, uint32_t channels, double amplitude) {
    std::vector<int32_t> out;
    for (uint32_t f = 0; f < frames; ++f)
        for (uint32_t c = 0; c < channels; ++c)
            out.push_back(int32_t(
                std::lround(amplitude * std::sin(2 * M_PI * (440.0 + 110 * c) * f / 44100.0))));
    return out;
}

uint32_t code(const char* text) {
    return (uint32_t(uint8_t(text[0])) << 24) | (uint32_t(uint8_t(text[1])) << 16) |
           (uint32_t(uint8_t(text[2])) << 8) | uint32_t(uint8_t(text[3]));
}

// Three notes with a slow swell over a noise floor: something like music,
// which makes an AAC encoder spend the bits it is given.
std::vector<int32_t> chordsOverNoise(uint32_t frames) {
    std::mt19937 rng(5);
    std::uniform_int_distribution<int> noise(-2500, 2500);
    std::vector<int32_t> out;
    for (uint32_t f = 0; f < frames; ++f) {
        const double t = f / 44100.0;
        const double swell = 0.6 + 0.4 * std::sin(2 * M_PI * 0.5 * t);
        for (int c = 0; c < 2; ++c) {
            const double v = swell * (6000 * std::sin(2 * M_PI * (220 + c) * t) +
                                      5000 * std::sin(2 * M_PI * 277.2 * t) +
                                      4000 * std::sin(2 * M_PI * 329.6 * t));
            out.push_back(int32_t(std::lround(v)) + noise(rng));
        }
    }
    return out;
}

// The payload of the first RIFF chunk of that identifier, walked by hand.
std::vector<uint8_t> riffChunk(const std::string& path, const std::string& identifier) {
    const std::vector<uint8_t> bytes = test::readFile(path);
    size_t at = 12;
    while (at + 8 <= bytes.size()) {
        const size_t size = size_t(bytes[at + 4]) | (size_t(bytes[at + 5]) << 8) |
                            (size_t(bytes[at + 6]) << 16) | (size_t(bytes[at + 7]) << 24);
        if (std::string(bytes.begin() + long(at), bytes.begin() + long(at) + 4) == identifier &&
            at + 8 + size <= bytes.size())
            return std::vector<uint8_t>(bytes.begin() + long(at) + 8,
                                        bytes.begin() + long(at + 8 + size));
        at += 8 + size + (size & 1);
    }
    return {};
}

struct EditList {
    int64_t segmentDuration = -1;
    int64_t mediaTime = -1;
};

// The first entry of the first 'elst' box (version 0), read independently
// of any MP4 library.
EditList editListOf(const std::string& path) {
    const std::vector<uint8_t> bytes = test::readFile(path);
    const std::string text(bytes.begin(), bytes.end());
    const size_t at = text.find("elst");
    EditList edit;
    if (at == std::string::npos || at + 20 > bytes.size())
        return edit;
    auto be32 = [&bytes](size_t i) {
        return int64_t((uint32_t(bytes[i]) << 24) | (uint32_t(bytes[i + 1]) << 16) |
                       (uint32_t(bytes[i + 2]) << 8) | uint32_t(bytes[i + 3]));
    };
    edit.segmentDuration = be32(at + 12);
    edit.mediaTime = be32(at + 16);
    return edit;
}

class CoreAudioEncodeOperationTest : public test::EncoderTest<CoreAudioEncodeOperation> {
protected:
    void SetUp() override {
        EncoderTestBase::SetUp();
        test::requireTools({"mediainfo"});
        prefs.set("preserveBroadcastWavData", true);
        settings->setEncoderType(EncoderTypeCoreAudio);
    }

    void use(const char* fileType, const char* formatID, const char* extension,
             uint32_t bitDepth = 0, uint32_t flags = 0) {
        settings->setFileType(code(fileType));
        settings->setFormatID(code(formatID));
        settings->setExtension(extension);
        settings->setBitDepth(bitDepth);
        settings->setFormatFlags(flags);
    }

    // The file's PCM through ffmpeg (or sox), as 32-bit little-endian.
    std::vector<uint8_t> decodedBy(const std::string& tool, const std::string& path) const {
        const std::string raw = dir.file("decoded.raw");
        const std::string command =
            tool == "sox" ? "sox " + test::shellQuote(path) +
                                " -t raw -e signed-integer -b 32 -L " + test::shellQuote(raw)
                          : "ffmpeg -v error -y -i " + test::shellQuote(path) +
                                " -f s32le -c:a pcm_s32le " + test::shellQuote(raw);
        EXPECT_EQ(test::runCommand(command).exitCode, 0) << tool << " could not decode " << path;
        auto bytes = test::readFile(raw);
        fs::remove(raw);
        return bytes;
    }

    std::string probe(const std::string& entries, const std::string& path) const {
        return test::runCommand("ffprobe -v error -show_entries " + entries +
                                " -of default=nw=1:nk=1 " + test::shellQuote(path))
            .output;
    }

    // mutagen's view of the file: "key=value" lines and the picture count.
    std::string tagsOf(const std::string& path) const {
        const std::string script = "import sys, mutagen\n"
                                   "f = mutagen.File(sys.argv[1])\n"
                                   "t = f.tags\n"
                                   "pics = 0\n"
                                   "for k in t.keys():\n"
                                   "    v = t[k]\n"
                                   "    if k == 'covr' or k.startswith('APIC'):\n"
                                   "        pics += 1\n"
                                   "    elif k.startswith('----'):\n"
                                   "        print(k, '=', bytes(v[0]).decode())\n"
                                   "    else:\n"
                                   "        print(k, '=', v)\n"
                                   "print('pictures =', pics)\n";
        return test::mutagen(script, path);
    }

    std::string taggedFLAC() const {
        test::makeTaggedFLAC(dir, dir.file("tagged.flac"));
        return dir.file("tagged.flac");
    }
};

} // namespace

TEST_F(CoreAudioEncodeOperationTest, CompandedAndADPCMOutputsStayCloseToTheSource) {
    const auto tone = sine(44100, 2, 32000);
    const std::string in = dir.file("tone.wav");
    test::writeWav(in, tone, 2, 44100, 16);
    struct Case {
        const char *fileType, *formatID, *extension;
        double minimumDB;
    } cases[] = {{"WAVE", "alaw", "wav", 35}, {"WAVE", "ulaw", "wav", 35},
                 {"NeXT", "alaw", "au", 35},  {"NeXT", "ulaw", "au", 35},
                 {"caff", "ulaw", "caf", 35}, {"caff", "ima4", "caf", 20},
                 {"AIFC", "ima4", "aifc", 20}};
    for (const Case& c : cases) {
        SCOPED_TRACE(std::string(c.fileType) + " " + c.formatID);
        use(c.fileType, c.formatID, c.extension);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        const auto decoded = test::unpackLittleEndian(decodedBy("ffmpeg", *op->outFilePath()), 32);
        // IMA 4:1 codes whole 64-frame packets; the tail is silence.
        ASSERT_GE(decoded.size(), tone.size());
        std::vector<int32_t> reference;
        for (int32_t s : tone)
            reference.push_back(int32_t(uint32_t(s) << 16));
        const double db = signalToDifferenceDB(reference, decoded);
        EXPECT_GE(db, c.minimumDB);
        std::printf("[ info ] %s %s: %.1f dB\n", c.fileType, c.formatID, db);
    }
}

TEST_F(CoreAudioEncodeOperationTest, AACKeepsTheBitRateTheLengthAndTheProfile) {
    const uint32_t frames = 44100 * 20 + 777; // not a whole number of AAC frames
    const auto music = chordsOverNoise(frames);
    const std::string in = dir.file("music.wav");
    test::writeWav(in, music, 2, 44100, 16);
    for (int64_t kbps : {128, 256}) {
        SCOPED_TRACE(kbps);
        use("m4af", "aac ", "m4a");
        settings->setBitrate(kbps * 1000);
        auto op = encode(in);
        ASSERT_TRUE(op->success());
        const std::string out = *op->outFilePath();
        const double rate = std::stod(probe("stream=bit_rate", out));
        EXPECT_NEAR(rate, double(kbps * 1000), 0.1 * double(kbps * 1000));
        const std::string info = test::runCommand("mediainfo " + test::shellQuote(out)).output;
        EXPECT_NE(info.find("MPEG-4"), std::string::npos) << info;
        EXPECT_NE(info.find("AAC LC"), std::string::npos) << info;

        // The edit list skips the coder's 1024 frames of priming and the
        // silence that makes the audio end with a whole frame, and keeps
        // exactly the source's frames; iTunSMPB says the same.
        const uint32_t priming = 1024 + (1024 - frames % 1024) % 1024;
        const EditList edit = editListOf(out);
        EXPECT_EQ(edit.mediaTime, priming);
        EXPECT_EQ(edit.segmentDuration, frames);
        EXPECT_NE(tagsOf(out).find(stringWithFormat("iTunSMPB =  00000000 %08X 00000000 %016X",
                                                    priming, frames)),
                  std::string::npos)
            << tagsOf(out);
        const auto decoded = test::unpackLittleEndian(decodedBy("ffmpeg", out), 32);
        EXPECT_EQ(decoded.size(), size_t(frames) * 2);
        std::vector<int32_t> reference;
        for (int32_t sample : music)
            reference.push_back(int32_t(uint32_t(sample) << 16));
        const double aligned = signalToDifferenceDB(reference, decoded);
        const std::vector<int32_t> late(decoded.begin() + 2048, decoded.end());
        const double shifted = signalToDifferenceDB(reference, late);
        std::printf("[ info ] AAC %lld kbit/s: %.0f bit/s, %.1f dB aligned, %.1f dB a frame off\n",
                    static_cast<long long>(kbps), rate, aligned, shifted);
        EXPECT_GE(aligned, 9.0);
        EXPECT_LT(shifted, aligned - 6.0);
        EXPECT_TRUE(op->isItunesCompatible());
    }
}

TEST_F(CoreAudioEncodeOperationTest, BroadcastChunkOfAWavSourceIsKept) {
    // A WAV source with a "bext" chunk made by sox's companion, ffmpeg.
    const std::string in = dir.file("broadcast.wav");
    test::writeWav(dir.file("plain.wav"), test::makeSignal(8000, 1, 16), 1, 44100, 16);
    ASSERT_EQ(test::runCommand("ffmpeg -v error -y -i " + test::shellQuote(dir.file("plain.wav")) +
                               " -write_bext 1 -metadata description=Interview-7 " +
                               test::shellQuote(in))
                  .exitCode,
              0);
    const std::vector<uint8_t> original = riffChunk(in, "bext");
    ASSERT_EQ(original.size(), 602u);
    use("WAVE", "lpcm", "wav");
    auto op = encode(in, nullptr);
    ASSERT_TRUE(op->success());
    const std::string out = *op->outFilePath();
    EXPECT_TRUE(test::sameBytes(riffChunk(out, "bext"), original));
    EXPECT_EQ(probe("format_tags=time_reference", out), "0\n"); // ffmpeg reads it too
    EXPECT_TRUE(test::sameBytes(decodedBy("ffmpeg", out), decodedBy("ffmpeg", in)));
}

TEST_F(CoreAudioEncodeOperationTest, HighEfficiencyAACIsRefusedAndLeavesNothing) {
    const std::string in = dir.file("long.wav");
    test::writeWav(in, test::makeSignal(44100 * 3, 2, 16), 2, 44100, 16);
    {
        EXPECT_FALSE(CoreAudioEncodeOperation::cannotWriteReason(fourCharCode("m4af"),
                                                                 fourCharCode("alac")));
        const auto reason =
            CoreAudioEncodeOperation::cannotWriteReason(fourCharCode("m4af"), fourCharCode("aach"));
        ASSERT_TRUE(reason);
        EXPECT_EQ(*reason, "The Core Audio Encoder Can Not Write MPEG-4 High Efficiency AAC To "
                           "AAC Files.");
        PrivateTemporaryFolder temporary;
        test::LogWatch log;
        use("m4af", "aach", "m4a");
        auto op = encode(in);
        EXPECT_FALSE(op->success());
        EXPECT_TRUE(temporary.isEmpty());
        EXPECT_FALSE(fs::exists(dir.file("out/long.m4a")));
        EXPECT_TRUE(log.contains("Core Audio Encode Operation Failed To Encode File: long.wav.  "
                                 "Error:" +
                                 *reason));
    }
}

TEST_F(CoreAudioEncodeOperationTest, NeXTOutputLogsTheFieldsItCannotCarry) {
    const std::string in = taggedFLAC();
    use("NeXT", "lpcm", "au", 16, 2);
    test::LogWatch log;
    auto op = encode(in, nullptr);
    ASSERT_TRUE(op->success());
    EXPECT_TRUE(log.contains("Core Audio Encode Operation Could Not Write Metadata To "
                             "tagged.flac.  NeXT/Sun Files Have No Place For: Title, Artist, "
                             "Album, Year, Track, Album Artwork"))
        << (log.lines().empty() ? "" : log.lines().back());
    EXPECT_FALSE(op->isItunesCompatible());
}
