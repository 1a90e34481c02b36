// The inputs decoded through codec libraries (WavPack, Monkey's Audio, True
// Audio, Musepack, tracker modules) as a user meets them: `velvox convert`
// to FLAC with their APEv2 tags, and `velvox probe` on damaged copies.

#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "cli/BatchCommandSandbox.h"

using namespace velvox::test;

namespace {

// Appends an APEv2 tag with the reference tagger.
void apeTag(const std::string& path, const std::string& title, const std::string& artist) {
    mustRun("/usr/bin/python3 -c 'import sys; from mutagen.apev2 import APEv2; t = APEv2(); "
            "t[\"Title\"] = sys.argv[2]; t[\"Artist\"] = sys.argv[3]; t.save(sys.argv[1])' " +
            shellQuote(path) + " " + shellQuote(title) + " " + shellQuote(artist));
}

// True Audio files carry ID3v2 tags.
void id3Tag(const std::string& path, const std::string& title, const std::string& artist) {
    mustRun("/usr/bin/python3 -c 'import sys; from mutagen.id3 import ID3, TIT2, TPE1; t = ID3(); "
            "t.add(TIT2(encoding=3, text=sys.argv[2])); t.add(TPE1(encoding=3, text=sys.argv[3])); "
            "t.save(sys.argv[1])' " +
            shellQuote(path) + " " + shellQuote(title) + " " + shellQuote(artist));
}

// A four-channel ProTracker module with one looped sample and one note.
std::vector<uint8_t> tinyModule() {
    std::vector<uint8_t> m(1084, 0);
    m[20 + 23] = 16, m[20 + 25] = 64, m[20 + 29] = 16; // sample 1: 16 words, looped
    m[950] = 1, m[951] = 127;
    std::copy_n("M.K.", 4, m.begin() + 1080);
    std::vector<uint8_t> pattern(1024, 0);
    pattern[0] = 0x01, pattern[1] = 0xAC, pattern[2] = 0x10; // sample 1, period 428
    m.insert(m.end(), pattern.begin(), pattern.end());
    for (int i = 0; i < 32; ++i)
        m.push_back(uint8_t(i < 16 ? i * 8 : 255 - i * 8));
    return m;
}

struct Source {
    std::string name, title;
    std::string pcmMD5; // of the signed little-endian source PCM; empty for lossy
};

// Makes one file of each kind in the sandbox's source folder from one sox
// signal, and returns what each should convert to.
std::vector<Source> makeSources(const CommandSandbox& box) {
    const std::string wav16 = box.scratch("s16.wav"), wav24 = box.scratch("s24.wav");
    mustRun("sox -n -r 44100 -b 16 -c 2 -t wavpcm " + shellQuote(wav16) +
            " synth 2.5 sine 300 sine 500 gain -4");
    mustRun("sox -n -r 48000 -b 24 -c 2 -t wavpcm " + shellQuote(wav24) +
            " synth 1.5 sine 200 pinknoise gain -6");
    const std::string md5_16 = pcmMD5BySox(wav16, 16), md5_24 = pcmMD5BySox(wav24, 24);

    mustRun("wavpack -q -y -hh " + shellQuote(wav24) + " -o " + shellQuote(box.src("w.wv")));
    mustRun("jmac c3 " + shellQuote(wav16) + " " + shellQuote(box.src("m.ape")) +
            " >/dev/null 2>&1");
    mustRun("ffmpeg -v error -y -i " + shellQuote(wav24) + " -c:a tta " +
            shellQuote(box.src("t.tta")));
    mustRun("mpcenc --silent " + shellQuote(wav16) + " " + shellQuote(box.src("p.mpc")));
    writeFile(box.src("k.mod"), tinyModule());

    std::vector<Source> sources{{"w.wv", "Wave Pack", md5_24},
                                {"m.ape", "Monkeys", md5_16},
                                {"t.tta", "True", md5_24},
                                {"p.mpc", "Muse", ""},
                                {"k.mod", "", ""}};
    for (const Source& s : sources) {
        if (s.name == "t.tta")
            id3Tag(box.src(s.name), s.title, "The Testers");
        else if (!s.title.empty())
            apeTag(box.src(s.name), s.title, "The Testers");
    }
    return sources;
}

} // namespace

TEST(LibraryInputsCommand, ConvertToFlacKeepsSamplesAndTags) {
    CommandSandbox box;
    const std::vector<Source> sources = makeSources(box);
    const Outcome r =
        box.run("convert -f flac -o " + shellQuote(box.out()) + " " + shellQuote(box.src()));
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    expectNoSanitizerReport(r.err);

    for (const Source& s : sources) {
        SCOPED_TRACE(s.name);
        const std::string stem = std::filesystem::path(s.name).stem().string();
        const std::string out = box.out(stem + ".flac");
        EXPECT_TRUE(contains(r.out, box.src(s.name) + " -> " + out + "\n")) << r.out;
        ASSERT_TRUE(std::filesystem::exists(out));
        if (!s.pcmMD5.empty()) {
            EXPECT_EQ(pcmMD5ByFlac(out), s.pcmMD5);
        }
        if (!s.title.empty()) {
            const auto tags = flacTags(out);
            EXPECT_EQ(tags.count("TITLE"), 1u);
            EXPECT_EQ(tags.find("TITLE")->second, s.title);
            EXPECT_EQ(tags.find("ARTIST")->second, "The Testers");
        }
    }
    EXPECT_TRUE(contains(r.out, "5 converted, 0 skipped, 0 failed.\n")) << r.out;
    // The module rendered as 16-bit stereo at 44.1 kHz, not silence.
    const std::string module = box.out("k.flac");
    EXPECT_EQ(metaflacShow("--show-sample-rate", module), "44100");
    EXPECT_EQ(metaflacShow("--show-channels", module), "2");
    EXPECT_EQ(metaflacShow("--show-bps", module), "16");
    const auto stat =
        runCommand("sox " + shellQuote(module) + " -n stat 2>&1 | grep 'RMS     amplitude'");
    ASSERT_EQ(stat.exitCode, 0);
    EXPECT_GT(std::atof(stat.output.substr(stat.output.find(':') + 1).c_str()), 0.01);
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}

TEST(LibraryInputsCommand, DamagedFilesGiveOneErrorNamingTheFile) {
    CommandSandbox box;
    const std::vector<Source> sources = makeSources(box);
    std::vector<std::string> damaged;
    for (const Source& s : sources) {
        const std::vector<uint8_t> good = readFile(box.src(s.name));
        const std::string ext = std::filesystem::path(s.name).extension().string();
        const std::string stem = std::filesystem::path(s.name).stem().string();
        writeFile(box.scratch(stem + "-empty" + ext), {});
        damaged.push_back(box.scratch(stem + "-empty" + ext));
        if (s.name == "k.mod") {
            // A module is a few headers and raw samples: libmodplug plays
            // what it can of a cut or altered one, so only an unreadable
            // header can be told apart.
            std::vector<uint8_t> header(good.begin(), good.begin() + 600);
            writeFile(box.scratch("k-header" + ext), header);
            damaged.push_back(box.scratch("k-header" + ext));
            continue;
        }
        std::vector<uint8_t> cut(good.begin(), good.begin() + long(good.size() * 6 / 10));
        writeFile(box.scratch(stem + "-cut" + ext), cut);
        damaged.push_back(box.scratch(stem + "-cut" + ext));
        // Musepack audio packets carry no checksum: a flipped bit there
        // decodes to other sound, for mpcdec as for us.
        if (s.name == "p.mpc")
            continue;
        std::vector<uint8_t> flipped = good;
        for (size_t i = flipped.size() / 2; i < flipped.size() / 2 + 64; i += 7)
            flipped[i] ^= uint8_t(1u << (i % 8));
        writeFile(box.scratch(stem + "-flipped" + ext), flipped);
        damaged.push_back(box.scratch(stem + "-flipped" + ext));
    }

    std::string args = "probe --json";
    for (const Source& s : sources)
        args += " " + shellQuote(box.src(s.name));
    for (const std::string& path : damaged)
        args += " " + shellQuote(path);
    const Outcome r = box.run(args);
    EXPECT_EQ(r.exitCode, 1) << r.err; // failures reported, no crash, no hang
    expectNoSanitizerReport(r.err);
    const auto json = nlohmann::json::parse(r.out);
    ASSERT_EQ(json.size(), sources.size() + damaged.size());
    for (size_t i = 0; i < sources.size(); ++i)
        EXPECT_FALSE(json[i].contains("error")) << json[i];
    for (size_t i = 0; i < damaged.size(); ++i) {
        const auto& entry = json[sources.size() + i];
        ASSERT_TRUE(entry.contains("error")) << entry;
        EXPECT_NE(entry["error"].get<std::string>().find(damaged[i]), std::string::npos) << entry;
    }
}
