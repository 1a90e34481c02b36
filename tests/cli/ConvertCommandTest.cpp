// `velvox convert` run as a user runs it: real WAV, AIFF and FLAC files made
// by the reference tools, the output checked with the reference decoder and
// metaflac, the preferences, trash and temporary folder the test's own.

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/BatchCommandSandbox.h"

extern char** environ;

using namespace velvox::test;
namespace fs = std::filesystem;

namespace {

// ---- Fixtures ----

void putBE32(std::vector<uint8_t>& v, uint32_t x) {
    for (int shift : {24, 16, 8, 0})
        v.push_back(uint8_t(x >> shift));
}

void putLE32(std::vector<uint8_t>& v, uint32_t x) {
    for (int shift : {0, 8, 16, 24})
        v.push_back(uint8_t(x >> shift));
}

// An ID3v2.3 tag of text frames and, when given, one front-cover picture.
std::vector<uint8_t> id3v23Tag(const std::vector<std::pair<std::string, std::string>>& texts,
                               const std::vector<uint8_t>& png) {
    std::vector<uint8_t> frames;
    auto frame = [&frames](const std::string& id, const std::vector<uint8_t>& body) {
        frames.insert(frames.end(), id.begin(), id.end());
        putBE32(frames, uint32_t(body.size())); // v2.3 frame sizes are plain
        frames.push_back(0);
        frames.push_back(0);
        frames.insert(frames.end(), body.begin(), body.end());
    };
    for (const auto& [id, text] : texts) {
        std::vector<uint8_t> body{0x00}; // ISO-8859-1: the texts are ASCII
        body.insert(body.end(), text.begin(), text.end());
        frame(id, body);
    }
    if (!png.empty()) {
        const std::string mime = "image/png";
        std::vector<uint8_t> body{0x00};
        body.insert(body.end(), mime.begin(), mime.end());
        body.push_back(0);
        body.push_back(0x03); // front cover
        body.push_back(0);    // empty description
        body.insert(body.end(), png.begin(), png.end());
        frame("APIC", body);
    }
    std::vector<uint8_t> tag{'I', 'D', '3', 3, 0, 0};
    const uint32_t size = uint32_t(frames.size());
    for (int shift : {21, 14, 7, 0})
        tag.push_back(uint8_t((size >> shift) & 0x7F)); // synch-safe
    tag.insert(tag.end(), frames.begin(), frames.end());
    return tag;
}

// Appends an ID3 chunk to a WAVE ("id3 ", little-endian sizes) or AIFF
// ("ID3 ", big-endian) file and fixes the container's size.
void appendID3Chunk(const std::string& path, const std::vector<uint8_t>& tag, bool aiff) {
    std::vector<uint8_t> bytes = readFile(path);
    ASSERT_GE(bytes.size(), 12u);
    const std::string id = aiff ? "ID3 " : "id3 ";
    bytes.insert(bytes.end(), id.begin(), id.end());
    std::vector<uint8_t> size;
    aiff ? putBE32(size, uint32_t(tag.size())) : putLE32(size, uint32_t(tag.size()));
    bytes.insert(bytes.end(), size.begin(), size.end());
    bytes.insert(bytes.end(), tag.begin(), tag.end());
    if (tag.size() % 2)
        bytes.push_back(0);
    std::vector<uint8_t> total;
    aiff ? putBE32(total, uint32_t(bytes.size() - 8)) : putLE32(total, uint32_t(bytes.size() - 8));
    std::copy(total.begin(), total.end(), bytes.begin() + 4);
    writeFile(path, bytes);
}

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

std::string metaflacShow(const std::string& option, const std::string& path) {
    std::string out = runCommand("metaflac " + option + " " + shellQuote(path)).output;
    while (!out.empty() && out.back() == '\n')
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

bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Every regular file below a folder, relative to it, sorted.
std::vector<std::string> filesBelow(const std::string& folder) {
    std::vector<std::string> files;
    for (const auto& entry : fs::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            files.push_back(fs::relative(entry.path(), folder).string());
    std::sort(files.begin(), files.end());
    return files;
}

} // namespace

// ---------------------------------------------------------------------------

TEST(ConvertCommand, LosslessSourcesArriveBitExactWithTagsAndPictureWhereTheTemplateSays) {
    CommandSandbox box;
    struct Source {
        std::string path;
        uint32_t bits = 0;
        std::string title;
        std::string album;
        int track = 0;
        std::vector<uint8_t> cover;
        std::string md5;
        std::string expected; // output path
    };
    std::vector<Source> sources;
    const std::string artist = "Velvox Ensemble";
    uint32_t seed = 1;
    for (const std::string container : {"wav", "aiff", "flac"}) {
        const std::string cover = box.scratch("cover-" + container + ".png");
        ASSERT_NO_FATAL_FAILURE(writePNG(cover, 20, 12, seed));
        int track = 0;
        for (const uint32_t bits : {16u, 24u}) {
            for (const uint32_t channels : {1u, 2u, 6u}) {
                Source s;
                s.bits = bits;
                s.track = ++track;
                s.album = "Album " + container;
                // The slash must not make a folder: it becomes ":".
                s.title = container + " " + std::to_string(bits) + "/" + std::to_string(channels);
                s.path = box.src(container + "-" + std::to_string(bits) + "-" +
                                 std::to_string(channels) + "." + container);
                s.cover = readFile(cover);
                ASSERT_NO_FATAL_FAILURE(makeSource(s.path, bits == 16 ? 44100 : 96000, bits,
                                                   channels, bits == 16 ? 11025 : 24000, seed++));
                const std::string trackText = std::to_string(s.track);
                if (container == "flac") {
                    ASSERT_NO_FATAL_FAILURE(
                        tagFLAC(s.path,
                                {"TITLE=" + s.title, "ARTIST=" + artist, "ALBUM=" + s.album,
                                 "ALBUMARTIST=" + artist, "TRACKNUMBER=" + trackText},
                                cover));
                } else {
                    ASSERT_NO_FATAL_FAILURE(appendID3Chunk(s.path,
                                                           id3v23Tag({{"TIT2", s.title},
                                                                      {"TPE1", artist},
                                                                      {"TALB", s.album},
                                                                      {"TPE2", artist},
                                                                      {"TRCK", trackText}},
                                                                     s.cover),
                                                           container == "aiff"));
                }
                char number[8];
                std::snprintf(number, sizeof number, "%02d", s.track);
                s.expected =
                    box.out(artist + "/" + s.album + "/" + number + " - " + container + " " +
                            std::to_string(bits) + ":" + std::to_string(channels) + ".flac");
                s.md5 = fileMD5(s.path);
                sources.push_back(s);
            }
        }
    }
    // One without any tags: the template's fallbacks name it.
    Source plain;
    plain.path = box.src("plain.wav");
    plain.bits = 16;
    ASSERT_NO_FATAL_FAILURE(makeSource(plain.path, 44100, 16, 2, 4410, 99));
    plain.expected = box.out("Unknown Artist/Unknown Album/plain.flac");
    plain.md5 = fileMD5(plain.path);

    const Outcome r =
        box.run("convert -f flac -j 2 -o " + shellQuote(box.out()) +
                " --naming '{albumArtist}/{albumTitle}/{trackNumber - }{trackTitle}' " +
                shellQuote(box.src()));
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    EXPECT_TRUE(contains(r.out, "19 converted, 0 skipped, 0 failed.\n")) << r.out;

    for (const Source& s : sources) {
        SCOPED_TRACE(s.path);
        EXPECT_TRUE(contains(r.out, "Converting " + s.path + "\n")) << r.out;
        EXPECT_TRUE(contains(r.out, s.path + " -> " + s.expected + "\n")) << r.out;
        ASSERT_TRUE(fs::exists(s.expected));
        EXPECT_EQ(pcmMD5ByFlac(s.expected), pcmMD5BySox(s.path, s.bits));
        EXPECT_EQ(metaflacShow("--show-sample-rate", s.expected), soxInfo("-r", s.path));
        EXPECT_EQ(metaflacShow("--show-channels", s.expected), soxInfo("-c", s.path));
        EXPECT_EQ(metaflacShow("--show-bps", s.expected), std::to_string(s.bits));

        const auto tags = flacTags(s.expected);
        EXPECT_EQ(tagValue(tags, "TITLE"), s.title);
        EXPECT_EQ(tagValue(tags, "ARTIST"), artist);
        EXPECT_EQ(tagValue(tags, "ALBUMARTIST"), artist);
        EXPECT_EQ(tagValue(tags, "ALBUM"), s.album);
        EXPECT_EQ(tagValue(tags, "TRACKNUMBER"), std::to_string(s.track));

        const auto pictures = flacPictures(s.expected);
        ASSERT_EQ(pictures.size(), 1u);
        EXPECT_EQ(pictures[0].type, 3);
        EXPECT_EQ(pictures[0].mimeType, "image/png");
        EXPECT_EQ(flacPictureData(s.expected, box.scratch("exported")), s.cover);

        EXPECT_EQ(fileMD5(s.path), s.md5) << "the source was changed";
    }

    EXPECT_TRUE(contains(r.out, plain.path + " -> " + plain.expected + "\n")) << r.out;
    EXPECT_EQ(pcmMD5ByFlac(plain.expected), pcmMD5BySox(plain.path, 16));
    EXPECT_EQ(flacPictures(plain.expected).size(), 0u);
    EXPECT_EQ(tagValue(flacTags(plain.expected), "ARTIST"), "(absent)");
    EXPECT_EQ(fileMD5(plain.path), plain.md5);

    // Nothing else was made, and nothing was left behind.
    EXPECT_EQ(filesBelow(box.out()).size(), sources.size() + 1);
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}

TEST(ConvertCommand, CorruptAndMissingInputsFailAloneAndAreNamed) {
    CommandSandbox box;
    const std::string a = box.src("a.wav"), c = box.src("c.wav");
    ASSERT_NO_FATAL_FAILURE(makeSource(a, 44100, 16, 2, 8820, 1));
    ASSERT_NO_FATAL_FAILURE(makeSource(c, 48000, 24, 1, 9600, 2));
    // Noise under a FLAC name; noise behind a FLAC signature and a
    // STREAMINFO header; a WAVE header that claims far more than there is.
    std::vector<uint8_t> noise(6000);
    uint32_t x = 12345;
    for (uint8_t& byte : noise)
        byte = uint8_t((x = x * 1103515245u + 12345u) >> 24);
    const std::string garbage = box.src("b-garbage.flac");
    writeFile(garbage, noise);
    std::vector<uint8_t> signed_ = {'f', 'L', 'a', 'C', 0x00, 0x00, 0x00, 0x22};
    signed_.insert(signed_.end(), noise.begin(), noise.end());
    const std::string fakeFlac = box.src("b-signature.flac");
    writeFile(fakeFlac, signed_);
    std::vector<uint8_t> wave = {'R', 'I', 'F', 'F', 0xFF, 0xFF, 0xFF, 0x7F,
                                 'W', 'A', 'V', 'E', 'f',  'm',  't',  ' '};
    wave.insert(wave.end(), noise.begin(), noise.end());
    const std::string fakeWave = box.src("b-header.wav");
    writeFile(fakeWave, wave);
    const std::string missing = box.src("not-there.wav");

    const Outcome r = box.run("convert -f flac -o " + shellQuote(box.out()) + " " +
                              shellQuote(box.src()) + " " + shellQuote(missing));
    EXPECT_EQ(r.exitCode, 1) << r.out << r.err;

    // The good ones converted, whatever came between them.
    EXPECT_EQ(filesBelow(box.out()), (std::vector<std::string>{"a.flac", "c.flac"}));
    EXPECT_EQ(pcmMD5ByFlac(box.out("a.flac")), pcmMD5BySox(a, 16));
    EXPECT_EQ(pcmMD5ByFlac(box.out("c.flac")), pcmMD5BySox(c, 24));

    for (const std::string& bad : {garbage, fakeFlac, fakeWave}) {
        EXPECT_TRUE(contains(r.out, "FAILED: " + bad + "\n")) << r.out;
        // The error log names it.
        const size_t log = r.err.find("Error log:\n");
        ASSERT_NE(log, std::string::npos) << r.err;
        EXPECT_NE(r.err.find(bad, log), std::string::npos) << r.err;
    }
    EXPECT_TRUE(contains(r.err, "velvox: " + missing + ": No such file or directory\n")) << r.err;
    // The missing input counts as failed in the summary; the controller's
    // report counts the files it tried.
    EXPECT_TRUE(contains(r.out, "2 converted, 0 skipped, 4 failed.\n")) << r.out;
    EXPECT_TRUE(contains(r.out, "Failed To Encode 3 of 5 Files.\n")) << r.out;
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

TEST(ConvertCommand, AFullDiskIsNamedWithItsFolderAndLeavesNothing) {
    // A tmpfs too small for the encode, once as the temporary folder (the
    // codec's writes fail) and once as the output folder (the move fails).
    CommandSandbox box;
    const std::string source = box.src("noise.wav");
    mustRun("sox -n -r 44100 -b 16 -c 2 " + shellQuote(source) + " synth 10 whitenoise");
    for (const bool fullTemporaryFolder : {true, false}) {
        SCOPED_TRACE(fullTemporaryFolder ? "temporary folder" : "output folder");
        const std::string output = box.out(fullTemporaryFolder ? "a" : "b");
        const std::string full = fullTemporaryFolder ? box.temporaryFolder() : output;
        fs::create_directories(output);
        const Outcome r = box.runWithMount(
            full, "256k", "convert -f flac -o " + shellQuote(output) + " " + shellQuote(source));
        EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
        const std::string cause = "No space left on device in " + fs::path(full).string();
        EXPECT_TRUE(contains(r.out, "FAILED: " + source + "\n  " + cause + "\n")) << r.out;
        EXPECT_TRUE(contains(r.err, fullTemporaryFolder ? cause : "Error:No space left on device"))
            << r.err;
        for (const char* vague : {"Input/output error", "CLIENT_ERROR"})
            EXPECT_FALSE(contains(r.out + r.err, vague)) << r.out << r.err;
        EXPECT_EQ(r.mountedFolder, "");
        EXPECT_EQ(filesBelow(output), std::vector<std::string>{});
        EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
    }
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
        const Outcome r =
            box.run("convert -f flac --delete-original -o " + shellQuote(box.out()) + " " + inputs);
        EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
        for (const std::string& cut : {cutFlac, cutWav})
            EXPECT_TRUE(contains(r.out, "FAILED: " + cut + "\n  The input ended after ")) << r.out;
        EXPECT_TRUE(contains(r.out, "FAILED: " + wma + "\n  No audio Velvox can decode")) << r.out;
        EXPECT_TRUE(contains(r.out, "0 converted, 0 skipped, 3 failed.\n")) << r.out;
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
