// `velvox convert` run as a user runs it: real WAV, AIFF and FLAC files made
// by the reference tools, the output checked with the reference decoder and
// metaflac, the preferences, trash and temporary folder the test's own.

#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/BatchCommandSandbox.h"
#include "cli/OutputFormatArgument.h"
#include "jobs/EncodeOperation.h"

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

// The name of an output type this build has no encoder for, if any.
std::optional<std::string> unbuiltOutputType() {
    const auto& names = velvox::OutputFormatArgument::typeNames();
    for (size_t type = 0; type < names.size(); ++type)
        if (!velvox::EncodeOperation::encodeOperationForType(int32_t(type)))
            return names[type];
    return std::nullopt;
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

TEST(ConvertCommand, OutputsGoBesideTheSourceFlatOrInTheSourceTree) {
    CommandSandbox box;
    // Two files of one name in different folders, and what intake must pass
    // over: a hidden folder, a hidden file, a file of no audio type.
    const std::string album = box.src("album");
    const std::string one = album + "/cd1/track.wav", two = album + "/cd2/track.wav";
    for (const char* folder : {"cd1", "cd2", ".hidden"})
        fs::create_directories(album + "/" + std::string(folder));
    ASSERT_NO_FATAL_FAILURE(makeSource(one, 44100, 16, 1, 4410, 7));
    ASSERT_NO_FATAL_FAILURE(makeSource(two, 44100, 16, 1, 4410, 8));
    ASSERT_NO_FATAL_FAILURE(makeSource(album + "/.hidden/h.wav", 44100, 16, 1, 441, 9));
    ASSERT_NO_FATAL_FAILURE(makeSource(album + "/cd1/.h.wav", 44100, 16, 1, 441, 9));
    writeFile(album + "/notes.txt", {'x'});

    {
        SCOPED_TRACE("--preserve-tree");
        const std::string out = box.out("tree");
        fs::create_directories(out);
        const Outcome r = box.run("convert -f flac --preserve-tree -o " + shellQuote(out) + " " +
                                  shellQuote(album));
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        EXPECT_EQ(filesBelow(out),
                  (std::vector<std::string>{"album/cd1/track.flac", "album/cd2/track.flac"}));
        EXPECT_EQ(pcmMD5ByFlac(out + "/album/cd1/track.flac"), pcmMD5BySox(one, 16));
        EXPECT_EQ(pcmMD5ByFlac(out + "/album/cd2/track.flac"), pcmMD5BySox(two, 16));
    }
    {
        SCOPED_TRACE("flat, one job at a time");
        const std::string out = box.out("flat");
        fs::create_directories(out);
        const Outcome r =
            box.run("convert -f flac -j 1 -o " + shellQuote(out) + " " + shellQuote(album));
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        // Intake queues a folder in name order, so cd1 comes first.
        EXPECT_EQ(filesBelow(out), (std::vector<std::string>{"track 2.flac", "track.flac"}));
        EXPECT_EQ(pcmMD5ByFlac(out + "/track.flac"), pcmMD5BySox(one, 16));
        EXPECT_EQ(pcmMD5ByFlac(out + "/track 2.flac"), pcmMD5BySox(two, 16));
    }
    {
        SCOPED_TRACE("--same-folder");
        const Outcome r = box.run("convert -f flac --same-folder " + shellQuote(album));
        EXPECT_EQ(r.exitCode, 0) << r.out << r.err;
        EXPECT_TRUE(contains(r.out, one + " -> " + album + "/cd1/track.flac\n")) << r.out;
        EXPECT_TRUE(contains(r.out, two + " -> " + album + "/cd2/track.flac\n")) << r.out;
        EXPECT_EQ(filesBelow(album),
                  (std::vector<std::string>{".hidden/h.wav", "cd1/.h.wav", "cd1/track.flac",
                                            "cd1/track.wav", "cd2/track.flac", "cd2/track.wav",
                                            "notes.txt"}));
    }
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}

TEST(ConvertCommand, UsageErrorsExitTwoAndTouchNothing) {
    CommandSandbox box;
    const std::string source = box.src("song.wav");
    ASSERT_NO_FATAL_FAILURE(makeSource(source, 44100, 16, 2, 4410, 11));
    const std::string md5 = fileMD5(source);
    const std::string out = shellQuote(box.out());
    const std::string in = shellQuote(source);

    struct Case {
        std::string args;
        std::string message;
    };
    std::vector<Case> cases = {
        {"-f wavpack -o " + out + " " + in, "unknown output type 'wavpack'"},
        {"-f flac:level=loud -o " + out + " " + in, "loud"},
        {"-f flac:nosuchkey=1 -o " + out + " " + in, "unknown key 'nosuchkey'"},
        {"-f flac -o " + out + " --same-folder " + in,
         "--output and --same-folder exclude each other"},
        {"-f flac --overwrite sometimes -o " + out + " " + in,
         "--overwrite takes ask, skip, replace or keep-both, not 'sometimes'"},
        {"-f flac -j 0 -o " + out + " " + in, "--jobs takes a number of 1 or more"},
        {"-f flac --update-tags " + in, "--update-tags rewrites tags only; it takes no --format"},
        {"-f flac -o " + out, "PATH is required"},
        {"-f flac --no-such-option -o " + out + " " + in, "no-such-option"},
    };
    if (const auto unbuilt = unbuiltOutputType())
        cases.push_back({"-f " + *unbuilt + " -o " + out + " " + in,
                         "the output type '" + *unbuilt + "' is not part of this build yet"});

    for (const Case& c : cases) {
        SCOPED_TRACE(c.args);
        const Outcome r = box.run("convert " + c.args);
        EXPECT_EQ(r.exitCode, 2) << r.out << r.err;
        EXPECT_TRUE(contains(r.err, c.message)) << r.err;
        EXPECT_FALSE(contains(r.out, "Converting")) << r.out;
        EXPECT_EQ(filesBelow(box.out()), std::vector<std::string>{});
        EXPECT_EQ(filesBelow(box.src()), std::vector<std::string>{"song.wav"});
    }
    EXPECT_EQ(fileMD5(source), md5);
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}

// ---- Runs that need a live child: interrupts and the terminal ----

namespace {

// Ten minutes of 44.1 kHz 16-bit stereo noise, written in pieces. Noise
// keeps the encoder busy long enough to be interrupted.
void writeLongNoiseWav(const std::string& path, uint32_t seconds) {
    const uint32_t rate = 44100, channels = 2, bytesPerFrame = 4;
    const uint32_t dataSize = seconds * rate * bytesPerFrame;
    std::vector<uint8_t> header = {'R', 'I', 'F', 'F'};
    putLE32(header, 36 + dataSize);
    for (char ch : std::string("WAVEfmt "))
        header.push_back(uint8_t(ch));
    putLE32(header, 16);
    header.insert(header.end(), {1, 0, uint8_t(channels), 0});
    putLE32(header, rate);
    putLE32(header, rate * bytesPerFrame);
    header.insert(header.end(), {uint8_t(bytesPerFrame), 0, 16, 0});
    for (char ch : std::string("data"))
        header.push_back(uint8_t(ch));
    putLE32(header, dataSize);

    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(header.data()), std::streamsize(header.size()));
    std::vector<uint32_t> block(1 << 18);
    uint64_t state = 0x9E3779B97F4A7C15ull;
    for (uint64_t written = 0; written < dataSize;) {
        for (uint32_t& word : block) {
            state ^= state << 13;
            state ^= state >> 7;
            state ^= state << 17;
            word = uint32_t(state);
        }
        const uint64_t n = std::min<uint64_t>(block.size() * 4, dataSize - written);
        out.write(reinterpret_cast<const char*>(block.data()), std::streamsize(n));
        written += n;
    }
    ASSERT_TRUE(out.good());
}

// `velvox ARGS` in the sandbox's environment, made ready before fork: after
// it, the child may only make async-signal-safe calls.
class ChildCommand {
public:
    ChildCommand(const CommandSandbox& box, const std::vector<std::string>& args) {
        argStorage_ = {VELVOX_BINARY};
        argStorage_.insert(argStorage_.end(), args.begin(), args.end());
        for (std::string& a : argStorage_)
            argv_.push_back(a.data());
        argv_.push_back(nullptr);
        envStorage_ = box.environment();
        for (char** e = environ; *e; ++e) {
            const std::string entry(*e);
            const std::string name = entry.substr(0, entry.find('='));
            if (name != "XDG_CONFIG_HOME" && name != "XDG_DATA_HOME" && name != "TMPDIR")
                envStorage_.push_back(entry);
        }
        for (std::string& e : envStorage_)
            envp_.push_back(e.data());
        envp_.push_back(nullptr);
    }

    [[noreturn]] void exec() {
        sigset_t none;
        sigemptyset(&none);
        ::sigprocmask(SIG_SETMASK, &none, nullptr);
        ::execve(argv_[0], argv_.data(), envp_.data());
        ::_exit(127);
    }

private:
    std::vector<std::string> argStorage_, envStorage_;
    std::vector<char*> argv_, envp_;
};

struct ChildRun {
    int exitCode = -1;
    bool timedOut = false;
    std::string out;
};

// Reads the child's output from `fd` until it ends, calling `onOutput` with
// all of it so far after each read, then reaps the child.
ChildRun readUntilExit(pid_t pid, int fd, const std::function<void(const std::string&)>& onOutput) {
    ChildRun result;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(3);
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
            deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            result.timedOut = true;
            ::kill(pid, SIGKILL);
            break;
        }
        pollfd poller{fd, POLLIN, 0};
        if (::poll(&poller, 1, int(left.count())) <= 0)
            continue;
        char buffer[4096];
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n <= 0)
            break; // end of the pipe, or EIO once a terminal's last user left
        result.out.append(buffer, size_t(n));
        onOutput(result.out);
    }
    ::close(fd);
    int status = 0;
    ::waitpid(pid, &status, 0);
    result.exitCode = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    return result;
}

// Runs velvox with standard input from /dev/null and standard error into
// `errPath`, and sends `signal` once a line starting with `trigger` has
// appeared on its standard output.
ChildRun runAndSignal(const CommandSandbox& box, const std::vector<std::string>& args,
                      const std::string& trigger, int signal, const std::string& errPath) {
    ChildCommand command(box, args);
    int pipeFds[2];
    if (::pipe(pipeFds) != 0)
        return {};
    const int errFd = ::open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const int nullFd = ::open("/dev/null", O_RDONLY);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(nullFd, STDIN_FILENO);
        ::dup2(pipeFds[1], STDOUT_FILENO);
        ::dup2(errFd, STDERR_FILENO);
        ::close(pipeFds[0]);
        command.exec();
    }
    ::close(pipeFds[1]);
    ::close(errFd);
    ::close(nullFd);
    if (pid < 0) {
        ::close(pipeFds[0]);
        return {};
    }
    bool signalled = false;
    size_t scanned = 0;
    return readUntilExit(pid, pipeFds[0], [&](const std::string& out) {
        for (size_t end; !signalled && (end = out.find('\n', scanned)) != std::string::npos;
             scanned = end + 1) {
            if (out.compare(scanned, trigger.size(), trigger) == 0) {
                ::kill(pid, signal);
                signalled = true;
            }
        }
    });
}

// Runs velvox on a terminal of its own and types the next of `answers`
// whenever it prompts. Returns its output with carriage returns and the
// cursor movements of the live rows taken out.
ChildRun runOnTerminal(const CommandSandbox& box, const std::vector<std::string>& args,
                       std::vector<std::string> answers) {
    ChildCommand command(box, args);
    int master = -1;
    const pid_t pid = ::forkpty(&master, nullptr, nullptr, nullptr);
    if (pid == 0)
        command.exec();
    if (pid < 0)
        return {};
    size_t answered = 0;
    ChildRun result = readUntilExit(pid, master, [&](const std::string& out) {
        // Both prompts end the same way; each one gets the next answer.
        size_t prompts = 0;
        for (const char* prompt : {"[s] Skip: ", "[y/N]: "})
            for (size_t at = out.find(prompt); at != std::string::npos;
                 at = out.find(prompt, at + 1))
                ++prompts;
        while (answered < prompts && answered < answers.size()) {
            const std::string line = answers[answered++] + "\n";
            [[maybe_unused]] ssize_t written = ::write(master, line.data(), line.size());
        }
    });
    std::string clean;
    for (size_t i = 0; i < result.out.size(); ++i) {
        if (result.out[i] == '\r')
            continue;
        if (result.out[i] == '\x1b' && i + 1 < result.out.size() && result.out[i + 1] == '[') {
            size_t j = i + 2;
            while (j < result.out.size() && (std::isdigit(uint8_t(result.out[j])) != 0))
                ++j;
            i = j; // the final letter goes too
            continue;
        }
        clean += result.out[i];
    }
    result.out = clean;
    return result;
}

size_t occurrences(const std::string& text, const std::string& part) {
    size_t count = 0;
    for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1))
        ++count;
    return count;
}

} // namespace

TEST(ConvertCommand, InterruptOrTerminateCancelsTheBatchAndLeavesNothing) {
    CommandSandbox box;
    const std::string source = box.src("long.wav");
    ASSERT_NO_FATAL_FAILURE(writeLongNoiseWav(source, 600));
    const std::string md5 = fileMD5(source);
    const std::string output = box.out("long.flac");
    const std::string errPath = box.scratch("stderr.txt");

    for (const int signal : {SIGINT, SIGTERM}) {
        SCOPED_TRACE(signal == SIGINT ? "SIGINT" : "SIGTERM");
        const ChildRun r = runAndSignal(box, {"convert", "-f", "flac", "-o", box.out(), source},
                                        "Converting ", signal, errPath);
        const std::vector<uint8_t> errBytes = readFile(errPath);
        const std::string err(errBytes.begin(), errBytes.end());
        expectNoSanitizerReport(err);
        ASSERT_FALSE(r.timedOut) << r.out << err;
        EXPECT_EQ(r.exitCode, 130) << r.out << err;
        EXPECT_TRUE(contains(r.out, "Cancelled: " + source + "\n")) << r.out;
        EXPECT_TRUE(contains(r.out, "(interrupted).\n")) << r.out;
        EXPECT_FALSE(contains(r.out, " -> ")) << r.out;
        EXPECT_FALSE(fs::exists(output));
        EXPECT_EQ(filesBelow(box.out()), std::vector<std::string>{});
        EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
    }
    EXPECT_EQ(fileMD5(source), md5);
}

TEST(ConvertCommand, OnATerminalTheQuestionIsAskedPerFileOrAnsweredForTheBatch) {
    CommandSandbox box;
    const std::vector<uint8_t> old = {'o', 'l', 'd', '\n'};
    std::vector<std::string> pcm;
    for (const char* name : {"a", "b", "c"}) {
        const std::string source = box.src(std::string(name) + ".wav");
        ASSERT_NO_FATAL_FAILURE(makeSource(source, 44100, 16, 2, 4410, uint32_t(20 + pcm.size())));
        pcm.push_back(pcmMD5BySox(source, 16));
    }
    auto resetOutputs = [&](const std::string& folder) {
        fs::create_directories(folder);
        for (const char* name : {"a", "b", "c"})
            writeFile(folder + "/" + name + ".flac", old);
    };

    {
        SCOPED_TRACE("one answer per file");
        const std::string folder = box.out("each");
        resetOutputs(folder);
        // a: overwrite; b: keep both; c: skip; never for the whole batch.
        const ChildRun r = runOnTerminal(
            box,
            {"convert", "-f", "flac", "-j", "1", "--overwrite", "ask", "-o", folder, box.src()},
            {"y", "n", "n", "n", "s", "n"});
        expectNoSanitizerReport(r.out); // the terminal carries standard error too
        ASSERT_FALSE(r.timedOut) << r.out;
        EXPECT_EQ(r.exitCode, 0) << r.out;
        EXPECT_EQ(occurrences(r.out, "already exists."), 3u) << r.out;
        EXPECT_TRUE(contains(r.out, "The file \"b.flac\" already exists.\nDo you want to "
                                    "overwrite the existing file?\n"))
            << r.out;
        EXPECT_TRUE(contains(r.out, "2 converted, 1 skipped, 0 failed.\n")) << r.out;
        EXPECT_EQ(filesBelow(folder),
                  (std::vector<std::string>{"a.flac", "b 2.flac", "b.flac", "c.flac"}));
        EXPECT_EQ(pcmMD5ByFlac(folder + "/a.flac"), pcm[0]);
        EXPECT_EQ(pcmMD5ByFlac(folder + "/b 2.flac"), pcm[1]);
        EXPECT_EQ(readFile(folder + "/b.flac"), old);
        EXPECT_EQ(readFile(folder + "/c.flac"), old);
    }
    {
        SCOPED_TRACE("skip, for the whole batch");
        const std::string folder = box.out("all");
        resetOutputs(folder);
        // Two jobs at once, so that another one waits while the first asks.
        const ChildRun r = runOnTerminal(
            box,
            {"convert", "-f", "flac", "-j", "2", "--overwrite", "ask", "-o", folder, box.src()},
            {"s", "y"});
        expectNoSanitizerReport(r.out);
        ASSERT_FALSE(r.timedOut) << r.out;
        EXPECT_EQ(r.exitCode, 0) << r.out;
        EXPECT_EQ(occurrences(r.out, "already exists."), 1u) << r.out;
        EXPECT_TRUE(contains(r.out, "0 converted, 3 skipped, 0 failed.\n")) << r.out;
        EXPECT_EQ(filesBelow(folder), (std::vector<std::string>{"a.flac", "b.flac", "c.flac"}));
        for (const char* name : {"a", "b", "c"})
            EXPECT_EQ(readFile(folder + "/" + name + ".flac"), old) << name;
    }
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}
