// What a FLAC source carries besides its fields, through the real program:
// the CUESHEET block (kept while sample positions hold), ReplayGain (kept
// while the level holds) and the picture's description and pixel size. The
// reference tools make the source and read the outputs.

#include <string>

#include <gtest/gtest.h>

#include "cli/BatchCommandSandbox.h"

using namespace velvox::test;

namespace {

std::string run(const std::string& command) {
    const CommandResult r = runCommand(command + " 2>/dev/null");
    return r.exitCode == 0 ? r.output : std::string("(failed)");
}

// The sheet without its first line, which names the file it was read from.
std::string cueSheetOf(const std::string& flac) {
    const std::string sheet = run("metaflac --export-cuesheet-to=- " + shellQuote(flac));
    const size_t lineEnd = sheet.find('\n');
    return lineEnd == std::string::npos ? sheet : sheet.substr(lineEnd + 1);
}

std::string replayGainOf(const std::string& flac) {
    std::string gains;
    for (const char* key :
         {"REPLAYGAIN_TRACK_GAIN", "REPLAYGAIN_TRACK_PEAK", "REPLAYGAIN_ALBUM_GAIN",
          "REPLAYGAIN_ALBUM_PEAK", "REPLAYGAIN_REFERENCE_LOUDNESS"})
        gains += run("metaflac --show-tag=" + std::string(key) + " " + shellQuote(flac));
    return gains;
}

// Two seconds at 44.1 kHz with a two-track CD sheet, ReplayGain from the
// reference tool, two artists and a described picture.
void makeSource(const CommandSandbox& box, const std::string& flac) {
    const std::string wav = box.scratch("signal.wav"), cue = box.scratch("sheet.cue");
    const std::string cover = box.scratch("cover.png");
    writeWav(wav, makeSignal(88200, 2, 16, 3), 2, 44100, 16);
    const std::string sheet = "FILE \"signal.wav\" WAVE\n  TRACK 01 AUDIO\n    INDEX 01 00:00:00\n"
                              "  TRACK 02 AUDIO\n    INDEX 01 00:01:00\n";
    writeFile(cue, std::vector<uint8_t>(sheet.begin(), sheet.end()));
    ASSERT_NO_FATAL_FAILURE(writePNG(cover, 30, 20, 1));
    ASSERT_NO_FATAL_FAILURE(mustRun("flac -s -f --cuesheet=" + shellQuote(cue) + " -o " +
                                    shellQuote(flac) + " " + shellQuote(wav)));
    ASSERT_NO_FATAL_FAILURE(
        mustRun("metaflac --add-replay-gain --set-tag=ARTIST=piman --set-tag=ARTIST=jzig "
                "--set-tag=MUSICBRAINZ_TRACKID=abc " +
                shellQuote("--import-picture-from=3|image/png|On the sleeve||" + cover) + " " +
                shellQuote(flac)));
}

TEST(FLACExtrasCarry, CueSheetAndReplayGainGoWhereTheyStillHold) {
    CommandSandbox box;
    const std::string source = box.src("album.flac");
    ASSERT_NO_FATAL_FAILURE(makeSource(box, source));
    const std::string sheet = cueSheetOf(source), gains = replayGainOf(source);
    ASSERT_NE(sheet, "(failed)");
    ASSERT_NE(gains.find("REPLAYGAIN_ALBUM_GAIN="), std::string::npos);

    auto convert = [&](const std::string& format, const std::string& name) {
        const std::string folder = box.out(name);
        std::filesystem::create_directories(folder);
        const Outcome r =
            box.run("convert -f " + format + " --naming '{trackTitle}' -o " + shellQuote(folder) +
                    " --set writeEncodedByMetadataTag=false " + shellQuote(source));
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        for (const auto& entry : std::filesystem::directory_iterator(folder))
            return entry.path().string();
        return std::string();
    };
    const std::string same = convert("flac", "same");
    EXPECT_EQ(cueSheetOf(same), sheet);
    EXPECT_EQ(replayGainOf(same), gains);
    EXPECT_EQ(run("metaflac --show-tag=ARTIST " + shellQuote(same)), "ARTIST=piman\nARTIST=jzig\n");
    // The picture block keeps its description and says its size (--list
    // shows "width: 30" and so on).
    const std::string blocks = run("metaflac --list --block-type=PICTURE " + shellQuote(same));
    for (const char* line : {"description: On the sleeve", "width: 30", "height: 20", "depth: 24"})
        EXPECT_NE(blocks.find(line), std::string::npos) << line << " in\n" << blocks;

    // Ogg FLAC: the reference encoder re-encodes it to native FLAC, keeping
    // its metadata blocks, so metaflac can read the sheet.
    const std::string ogg = convert("oggflac", "ogg");
    const std::string native = box.scratch("from-ogg.flac");
    ASSERT_NO_FATAL_FAILURE(mustRun("flac -s -f -o " + shellQuote(native) + " " + shellQuote(ogg)));
    EXPECT_EQ(cueSheetOf(native), sheet);

    // Resampled: the sheet's sample positions are wrong, so it goes; the
    // level is the same, so ReplayGain stays.
    const std::string resampled = convert("flac:rate=48000", "resampled");
    EXPECT_EQ(cueSheetOf(resampled), "(failed)"); // metaflac: no CUESHEET block
    EXPECT_EQ(replayGainOf(resampled), gains);
    // Down-mixed: the level changed, so ReplayGain goes; other keys stay.
    const std::string mono = convert("flac:channels=mono", "mono");
    EXPECT_EQ(replayGainOf(mono), "");
    EXPECT_EQ(run("metaflac --show-tag=MUSICBRAINZ_TRACKID " + shellQuote(mono)),
              "MUSICBRAINZ_TRACKID=abc\n");
}

} // namespace
