// `velvox convert` run as a user runs it: real WAV, AIFF and FLAC files made
// by the reference tools, the output checked with the reference decoder and
// metaflac, the preferences, trash and temporary folder the test's own.

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/BatchCommandSandbox.h"

using namespace velvox::test;
namespace fs = std::filesystem;

namespace {

// ---- Fixtures ----

// A WAVE file of our own signal (every channel different), optionally
// turned into AIFF or FLAC by SoX.
void makeSource(const std::string& path, uint32_t rate, uint32_t bits, uint32_t channels,
                uint32_t frames, uint32_t seed) {
    const std::string ext = fs::path(path).extension().string();
    const std::string wav = ext == ".wav" ? path : path + ".tmp.wav";
    writeWav(wav, makeSignal(frames, channels, bits, seed), channels, rate, bits,
             channels == 6 ? 0x3F : 0);
    if (wav != path) {
        ASSERT_NO_FATAL_FAILURE(
            mustRun("sox --no-glob " + shellQuote(wav) + " " + shellQuote(path)));
        fs::remove(wav);
    }
}

std::string soxInfo(const std::string& option, const std::string& path) {
    std::string out = runCommand("soxi " + option + " " + shellQuote(path)).output;
    while (!out.empty() && (out.back() == '\n' || out.back() == ' '))
        out.pop_back();
    return out;
}

std::string tagValue(const std::multimap<std::string, std::string>& tags, const std::string& key) {
    const auto range = tags.equal_range(key);
    if (range.first == range.second)
        return "(absent)";
    if (std::next(range.first) != range.second)
        return "(more than one)";
    return range.first->second;
}

std::vector<uint8_t> bytesOf(const std::string& text) {
    return std::vector<uint8_t>(text.begin(), text.end());
}

} // namespace

// ---------------------------------------------------------------------------

TEST(ConvertCommand, LosslessSourcesArriveBitExactWithTagsAndPictureWhereTheTemplateSays) {
    // Every layout and sample size is the encoders' own concern; here each
    // container and size once, through the program, the template and the
    // tag carry. The WAVE and AIFF sources are untagged: the template's
    // fallbacks name them.
    CommandSandbox box;
    struct Source {
        std::string path, title, md5, expected;
        uint32_t bits = 0;
        bool tagged = false;
    };
    std::vector<Source> sources;
    const std::string artist = "Velvox Ensemble", album = "Album";
    const std::string cover = box.scratch("cover.png");
    ASSERT_NO_FATAL_FAILURE(writePNG(cover, 20, 12, 1));
    uint32_t seed = 1;
    int track = 0;
    for (const std::string container : {"wav", "aiff", "flac"}) {
        for (const uint32_t bits : {16u, 24u}) {
            Source s;
            s.bits = bits;
            s.tagged = container == "flac";
            const uint32_t channels = bits == 16 ? 2 : 6;
            const std::string stem =
                container + "-" + std::to_string(bits) + "-" + std::to_string(channels);
            s.path = box.src(stem + "." + container);
            ASSERT_NO_FATAL_FAILURE(makeSource(s.path, bits == 16 ? 44100 : 96000, bits, channels,
                                               bits == 16 ? 11025 : 24000, seed++));
            if (s.tagged) {
                // The slash must not make a folder: it becomes ":".
                s.title = container + " " + std::to_string(bits) + "/" + std::to_string(channels);
                const std::string number = std::to_string(++track);
                ASSERT_NO_FATAL_FAILURE(
                    tagFLAC(s.path,
                            {"TITLE=" + s.title, "ARTIST=" + artist, "ALBUM=" + album,
                             "ALBUMARTIST=" + artist, "TRACKNUMBER=" + number},
                            cover));
                s.expected =
                    box.out(artist + "/" + album + "/0" + number + " - " + container + " " +
                            std::to_string(bits) + ":" + std::to_string(channels) + ".flac");
            } else {
                s.expected = box.out("Unknown Artist/Unknown Album/" + stem + ".flac");
            }
            s.md5 = fileMD5(s.path);
            sources.push_back(s);
        }
    }

    const Outcome r =
        box.run("convert -f flac -j 2 -o " + shellQuote(box.out()) +
                " --naming '{albumArtist}/{albumTitle}/{trackNumber - }{trackTitle}' " +
                shellQuote(box.src()));
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "6 converted, 0 skipped, 0 failed.\n")) << r.out;

    for (const Source& s : sources) {
        SCOPED_TRACE(s.path);
        EXPECT_TRUE(contains(r.out, "Converting " + s.path + "\n")) << r.out;
        EXPECT_TRUE(contains(r.out, s.path + " -> " + s.expected + "\n")) << r.out;
        ASSERT_TRUE(fs::exists(s.expected));
        EXPECT_EQ(pcmMD5ByFlac(s.expected), pcmMD5BySox(s.path, s.bits));
        EXPECT_EQ(metaflacShow("--show-sample-rate", s.expected), soxInfo("-r", s.path));
        EXPECT_EQ(metaflacShow("--show-bps", s.expected), std::to_string(s.bits));

        const auto tags = flacTags(s.expected);
        const auto pictures = flacPictures(s.expected);
        if (s.tagged) {
            EXPECT_EQ(tagValue(tags, "TITLE"), s.title);
            EXPECT_EQ(tagValue(tags, "ARTIST"), artist);
            EXPECT_EQ(tagValue(tags, "ALBUMARTIST"), artist);
            EXPECT_EQ(tagValue(tags, "ALBUM"), album);
            ASSERT_EQ(pictures.size(), 1u);
            EXPECT_EQ(pictures[0].type, 3);
            EXPECT_EQ(pictures[0].mimeType, "image/png");
            EXPECT_EQ(flacPictureData(s.expected, box.scratch("exported")), readFile(cover));
        } else {
            EXPECT_EQ(tagValue(tags, "ARTIST"), "(absent)");
            EXPECT_EQ(pictures.size(), 0u);
        }
        EXPECT_EQ(fileMD5(s.path), s.md5) << "the source was changed";
    }
    // Nothing else was made, and nothing was left behind.
    EXPECT_EQ(filesBelow(box.out()).size(), sources.size());
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}

TEST(ConvertCommand, OverwriteAnswersDoWhatTheySay) {
    CommandSandbox box;
    const std::string source = box.src("song.wav");
    ASSERT_NO_FATAL_FAILURE(makeSource(source, 44100, 16, 2, 8820, 3));
    const std::string pcm = pcmMD5BySox(source, 16);
    const std::vector<uint8_t> old = {'o', 'l', 'd', '\n'};

    auto runWith = [&](const std::string& answer, const std::string& folder) {
        fs::create_directories(folder);
        writeFile(folder + "/song.flac", old);
        return box.run("convert -f flac -o " + shellQuote(folder) +
                       (answer.empty() ? "" : " --overwrite " + answer) + " " + shellQuote(source));
    };

    {
        SCOPED_TRACE("skip");
        const std::string folder = box.out("skip");
        const Outcome r = runWith("skip", folder);
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        EXPECT_TRUE(contains(r.out, "Skipped: " + source + "\n")) << r.out;
        EXPECT_TRUE(contains(r.out, "0 converted, 1 skipped, 0 failed.\n")) << r.out;
        EXPECT_EQ(readFile(folder + "/song.flac"), old);
        EXPECT_EQ(filesBelow(folder), std::vector<std::string>{"song.flac"});
    }
    {
        SCOPED_TRACE("replace");
        const std::string folder = box.out("replace");
        const Outcome r = runWith("replace", folder);
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        EXPECT_TRUE(contains(r.out, source + " -> " + folder + "/song.flac\n")) << r.out;
        EXPECT_EQ(filesBelow(folder), std::vector<std::string>{"song.flac"});
        EXPECT_EQ(pcmMD5ByFlac(folder + "/song.flac"), pcm);
    }
    for (const std::string answer : {"keep-both", ""}) {
        // Without an answer and without a terminal to ask on, both stay.
        SCOPED_TRACE(answer.empty() ? "no answer" : answer);
        const std::string folder = box.out(answer.empty() ? "none" : answer);
        const Outcome r = runWith(answer, folder);
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        EXPECT_TRUE(contains(r.out, source + " -> " + folder + "/song 2.flac\n")) << r.out;
        EXPECT_EQ(filesBelow(folder), (std::vector<std::string>{"song 2.flac", "song.flac"}));
        EXPECT_EQ(readFile(folder + "/song.flac"), old);
        EXPECT_EQ(pcmMD5ByFlac(folder + "/song 2.flac"), pcm);
    }
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}

TEST(ConvertCommand, JobsFinishingTogetherNeverTakeTheSameNumber) {
    // Eight sources of one name in eight folders, four at a time, into a
    // folder that already holds the name: "X 2" to "X 9", each once.
    CommandSandbox box;
    std::string paths;
    for (int i = 1; i <= 8; ++i) {
        const std::string source = box.src("d" + std::to_string(i) + "/X.wav");
        fs::create_directories(fs::path(source).parent_path());
        ASSERT_NO_FATAL_FAILURE(makeSource(source, 44100, 16, 2, 4410, uint32_t(i)));
        paths += " " + shellQuote(source);
    }
    std::vector<std::string> expected = {"X.flac"};
    for (int n = 2; n <= 9; ++n)
        expected.push_back("X " + std::to_string(n) + ".flac");
    std::sort(expected.begin(), expected.end());
    for (int run = 0; run < 20; ++run) {
        SCOPED_TRACE("run " + std::to_string(run));
        const std::string folder = box.out("run" + std::to_string(run));
        fs::create_directories(folder);
        writeFile(folder + "/X.flac", {'o', 'l', 'd', '\n'});
        const Outcome r =
            box.run("convert -f flac -j 4 --overwrite keep-both -o " + shellQuote(folder) + paths);
        ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
        EXPECT_EQ(filesBelow(folder), expected);
    }
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}

TEST(ConvertCommand, DeleteOriginalTrashesOnlySourcesThatConverted) {
    CommandSandbox box;
    const std::string good = box.src("good.wav");
    ASSERT_NO_FATAL_FAILURE(makeSource(good, 44100, 16, 2, 4410, 4));
    const std::vector<uint8_t> goodBytes = readFile(good);
    const std::string bad = box.src("bad.flac");
    writeFile(bad, std::vector<uint8_t>(3000, 0x5A));
    const std::vector<uint8_t> badBytes = readFile(bad);

    const Outcome r = box.run("convert -f flac --delete-original -o " + shellQuote(box.out()) +
                              " " + shellQuote(good) + " " + shellQuote(bad));
    EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "FAILED: " + bad + "\n")) << r.out;
    EXPECT_EQ(filesBelow(box.out()), std::vector<std::string>{"good.flac"});

    EXPECT_FALSE(fs::exists(good));
    if (box.trashIsTheUsersOwn()) {
        EXPECT_EQ(readFile(box.trashedFile("good.wav")), goodBytes);
    }
    EXPECT_EQ(readFile(bad), badBytes);
    EXPECT_FALSE(fs::exists(box.trashedFile("bad.flac")));
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}

TEST(ConvertCommand, InterruptOrTerminateCancelsTheBatchQuicklyAndLeavesNothing) {
    CommandSandbox box;
    const std::string source = box.src("long.wav");
    // Ten minutes of noise at FLAC's slowest level keeps the encoder busy.
    mustRun("sox -n -r 44100 -b 16 -c 2 " + shellQuote(source) + " synth 600 whitenoise");
    const std::string md5 = fileMD5(source);
    const std::string args =
        "convert -f flac:level=8 -o " + shellQuote(box.out()) + " " + shellQuote(source);

    struct Case {
        std::vector<std::string> signals;
        int status;
    };
    for (const Case& c : {Case{{"INT"}, 130}, Case{{"TERM"}, 143}, Case{{"INT", "INT"}, 130}}) {
        const bool twice = c.signals.size() > 1;
        SCOPED_TRACE(c.signals.front() + (twice ? " twice" : ""));
        const Outcome r = box.runAndSignal(args, "Converting ", c.signals);
        EXPECT_EQ(r.exitCode, c.status) << r.out << r.err;
        EXPECT_LT(r.secondsToExit, 2.0);
        if (!twice) {
            EXPECT_TRUE(contains(r.out, "Cancelled: " + source + "\n")) << r.out;
            EXPECT_TRUE(contains(r.out, "(interrupted).\n")) << r.out;
        }
        EXPECT_FALSE(contains(r.out, " -> ")) << r.out;
        EXPECT_EQ(filesBelow(box.out()), std::vector<std::string>{});
        EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
    }
    EXPECT_EQ(fileMD5(source), md5);
}

TEST(ConvertCommand, OutputProblemsNameTheirCause) {
    CommandSandbox box;
    const std::string source = box.src("song.wav");
    ASSERT_NO_FATAL_FAILURE(makeSource(source, 44100, 16, 2, 4410, 5));
    {
        SCOPED_TRACE("a name longer than the file system takes");
        const std::string name(300, 'n');
        const Outcome r = box.run("convert -f flac --naming " + name + " -o " +
                                  shellQuote(box.out()) + " " + shellQuote(source));
        EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
        EXPECT_TRUE(contains(r.out, "FAILED: " + source +
                                        "\n  File name too long for its file "
                                        "system: " +
                                        box.out(name + ".flac")))
            << r.out;
        EXPECT_TRUE(contains(r.err, "The Output Name For song.wav Is Too Long")) << r.err;
    }
    {
        SCOPED_TRACE("a missing output folder");
        const std::string missing = box.out("not-there");
        const Outcome r =
            box.run("convert -f flac -o " + shellQuote(missing) + " " + shellQuote(source));
        EXPECT_EQ(r.exitCode, 2) << r.out << r.err;
        EXPECT_TRUE(contains(
            r.err, "The output folder given with -o/--output does not exist: " + missing + "\n"))
            << r.err;
        EXPECT_FALSE(fs::exists(missing));
    }
    EXPECT_EQ(filesBelow(box.out()), std::vector<std::string>{});
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}

TEST(ConvertCommand, AFolderHoldingTheOutputFolderIsWalkedWithoutIt) {
    CommandSandbox box;
    const std::string music = box.src("music");
    const std::string output = music + "/out";
    fs::create_directories(output);
    ASSERT_NO_FATAL_FAILURE(makeSource(music + "/a.wav", 44100, 16, 2, 4410, 6));
    ASSERT_NO_FATAL_FAILURE(makeSource(output + "/earlier.wav", 44100, 16, 2, 4410, 7));
    const Outcome r = box.run("convert -f flac -o " + shellQuote(output) + " " + shellQuote(music));
    EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_EQ(filesBelow(output), (std::vector<std::string>{"a.flac", "earlier.wav"}));
    EXPECT_TRUE(contains(r.out, "1 converted, 0 skipped, 0 failed.\n")) << r.out;
}

TEST(ConvertCommand, TheOverwriteQuestionIsAskedOnATerminal) {
    // standard input and error on a pseudo-terminal, the results to a file;
    // the question is answered as it appears.
    CommandSandbox box;
    const std::string source = box.src("song.wav");
    ASSERT_NO_FATAL_FAILURE(makeSource(source, 44100, 16, 2, 4410, 8));
    const std::string script = box.scratch("answer.py");
    writeFile(script, bytesOf(R"(import os, pty, subprocess, sys, select
command, results, answers = sys.argv[1], sys.argv[2], sys.argv[3:]
master, slave = pty.openpty()
with open(results, "wb") as out:
    child = subprocess.Popen(command, shell=True, stdin=slave, stdout=out, stderr=slave)
os.close(slave)
seen = transcript = b""
while True:
    ready, _, _ = select.select([master], [], [], 30)
    if not ready:
        child.kill()
        break
    try:
        chunk = os.read(master, 4096)
    except OSError:
        break
    if not chunk:
        break
    seen += chunk
    transcript += chunk
    if answers and seen.rstrip().endswith(b":"):
        os.write(master, answers.pop(0).encode() + b"\n")
        seen = b""
sys.stdout.buffer.write(transcript)
sys.exit(child.wait())
)"));
    const std::vector<uint8_t> old = {'o', 'l', 'd', '\n'};
    struct Case {
        std::vector<std::string> answers;
        std::vector<std::string> files;
    };
    for (const Case& c :
         {Case{{"y", "n"}, {"song.flac"}}, Case{{"n", "n"}, {"song 2.flac", "song.flac"}},
          Case{{"s", "y"}, {"song.flac"}}}) {
        SCOPED_TRACE(c.answers.front());
        const std::string folder = box.out(c.answers.front());
        fs::create_directories(folder);
        writeFile(folder + "/song.flac", old);
        std::string command = "";
        for (const std::string& variable : box.environment())
            command += shellQuote(variable) + " ";
        command = "env " + command + VELVOX_BINARY + " convert -f flac -o " + shellQuote(folder) +
                  " " + shellQuote(source);
        const CommandResult r =
            runCommand("/usr/bin/python3 " + shellQuote(script) + " " + shellQuote(command) + " " +
                       shellQuote(box.scratch("results.txt")) + " " + c.answers[0] + " " +
                       c.answers[1] + " 2>&1");
        EXPECT_EQ(r.exitCode, 0) << r.output;
        EXPECT_TRUE(contains(r.output, "The file \"song.flac\" already exists.")) << r.output;
        EXPECT_TRUE(contains(r.output, "Apply to all in this batch")) << r.output;
        EXPECT_EQ(filesBelow(folder), c.files);
        const std::string kept = c.answers.front() == "n" ? "/song 2.flac" : "/song.flac";
        if (c.answers.front() == "s")
            EXPECT_EQ(readFile(folder + kept), old);
        else
            EXPECT_EQ(pcmMD5ByFlac(folder + kept), pcmMD5BySox(source, 16));
    }
}

TEST(ConvertCommand, DamagedSourcesFailWithTheirCauseUnlessIncompleteIsAllowed) {
    CommandSandbox box;
    const std::string wav = box.src("whole.wav");
    mustRun("sox -n -r 44100 -b 16 -c 2 " + shellQuote(wav) + " synth 4 sine 440");
    const std::vector<uint8_t> whole = readFile(wav);
    const std::string flac = box.scratch("whole.flac");
    mustRun("flac -s -f -o " + shellQuote(flac) + " " + shellQuote(wav));
    const std::vector<uint8_t> flacBytes = readFile(flac);
    const std::string cutFlac = box.src("cut-f.flac"), cutWav = box.src("cut-w.wav");
    writeFile(cutFlac,
              std::vector<uint8_t>(flacBytes.begin(),
                                   flacBytes.begin() + std::ptrdiff_t(flacBytes.size() / 2)));
    writeFile(cutWav, std::vector<uint8_t>(whole.begin(),
                                           whole.begin() + std::ptrdiff_t(whole.size() / 2)));
    fs::remove(wav);
    // An ASF header object's GUID in front of noise: FFmpeg's stand-in for
    // a file whose audio no decoder here can read (protected WMA).
    std::vector<uint8_t> asf = {0x30, 0x26, 0xB2, 0x75, 0x8E, 0x66, 0xCF, 0x11,
                                0xA6, 0xD9, 0x00, 0xAA, 0x00, 0x62, 0xCE, 0x6C};
    for (uint32_t i = 0, x = 7; i < 4000; ++i)
        asf.push_back(uint8_t((x = x * 1103515245u + 12345u) >> 24));
    const std::string wma = box.src("locked.wma");
    writeFile(wma, asf);

    const std::string inputs =
        shellQuote(cutFlac) + " " + shellQuote(cutWav) + " " + shellQuote(wma);
    {
        SCOPED_TRACE("refused, even with --delete-original");
        // A missing input is named on its own and counts as failed.
        const std::string missing = box.src("not-there.wav");
        const Outcome r = box.run("convert -f flac --delete-original -o " + shellQuote(box.out()) +
                                  " " + inputs + " " + shellQuote(missing));
        EXPECT_TRUE(contains(r.err, "velvox: " + missing + ": No such file or directory\n"))
            << r.err;
        EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
        for (const std::string& cut : {cutFlac, cutWav})
            EXPECT_TRUE(contains(r.out, "FAILED: " + cut + "\n  The input ended after ")) << r.out;
        EXPECT_TRUE(contains(r.out, "FAILED: " + wma + "\n  No audio Velvox can decode")) << r.out;
        EXPECT_TRUE(contains(r.out, "0 converted, 0 skipped, 4 failed.\n")) << r.out;
        EXPECT_TRUE(contains(r.out, "Failed To Encode 3 of 3 Files.\n")) << r.out;
        EXPECT_EQ(filesBelow(box.out()), std::vector<std::string>{});
        EXPECT_EQ(readFile(cutFlac).size(), flacBytes.size() / 2);
        EXPECT_EQ(readFile(cutWav).size(), whole.size() / 2);
    }
    {
        SCOPED_TRACE("--allow-incomplete");
        const Outcome r = box.run("convert -f flac --allow-incomplete -o " + shellQuote(box.out()) +
                                  " " + inputs);
        EXPECT_EQ(r.exitCode, 1) << r.out << r.err; // the WMA still fails
        EXPECT_TRUE(contains(r.out, "2 converted, 0 skipped, 1 failed.\n")) << r.out;
        for (const std::string name : {"cut-f.flac", "cut-w.wav"}) {
            SCOPED_TRACE(name);
            EXPECT_TRUE(contains(r.err, "Warning: " + box.src(name) + " Is Incomplete.")) << r.err;
            const std::string output = box.out(fs::path(name).stem().string() + ".flac");
            EXPECT_EQ(runCommand("flac -t -s " + shellQuote(output) + " 2>&1").exitCode, 0);
            const long samples = std::atol(metaflacShow("--show-total-samples", output).c_str());
            EXPECT_GT(samples, 44100 / 2);
            EXPECT_LT(samples, 44100 * 4);
        }
        EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
    }
}

TEST(ConvertCommand, FifosAndDevicesAreRefusedNotRead) {
    // Reading either would never end; both are refused by name at once.
    CommandSandbox box;
    const std::string fifo = box.src("stream.flac");
    ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
    for (const std::string& path : {fifo, std::string("/dev/zero")}) {
        SCOPED_TRACE(path);
        const Outcome convert =
            box.run("convert -f flac -o " + shellQuote(box.out()) + " " + shellQuote(path));
        EXPECT_NE(convert.exitCode, 0);
        EXPECT_TRUE(contains(convert.err, path + ": not a regular file")) << convert.err;
        const Outcome probe = box.run("probe " + shellQuote(path));
        EXPECT_EQ(probe.exitCode, 1);
        EXPECT_TRUE(contains(probe.out + probe.err, "Not a regular file: " + path))
            << probe.out << probe.err;
    }
    EXPECT_EQ(filesBelow(box.out()), std::vector<std::string>{});
}
