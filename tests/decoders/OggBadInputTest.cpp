// Damaged Ogg Vorbis, Speex and Opus files: each gets one clear failure, a
// lost page included, never a crash or a hang. Then the same files through
// `velvox convert`, where every failure is reported against its file.

#include <filesystem>
#include <functional>

#include <gtest/gtest.h>

#include "cli/BatchCommandSandbox.h"
#include "core/KDDecoder.h"
#include "decoders/DecoderTestSupport.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"

using namespace velvox;
using namespace velvox::test;

namespace {

struct Format {
    std::string extension;
    std::string encode; // shell command, {in} and {out} replaced
    // What a decoder says when pages are lost in the middle of the stream.
    const char* lostPagesReason;
};

const std::vector<Format>& formats() {
    static const std::vector<Format> all = {
        {"ogg", "oggenc -Q -q 2 -t 'Song ogg' -o {out} {in}", "ov_read Failed."},
        {"opus", "opusenc --quiet --title 'Song opus' {in} {out}", "Ogg loss of streaming."},
        {"spx", "speexenc --quiet --title 'Song spx' {in} {out}", "Ogg loss of streaming."},
    };
    return all;
}

std::string encode(const Format& format, const std::string& wav, const std::string& out) {
    std::string command = format.encode;
    command.replace(command.find("{in}"), 4, shellQuote(wav));
    command.replace(command.find("{out}"), 5, shellQuote(out));
    run(command);
    return out;
}

// What happened to one damaged file: the exception text, or the samples and
// the damage the decoder noted on its way past.
struct Attempt {
    bool threw = false;
    std::string reason;
    std::string damage;
    size_t samples = 0;
};

Attempt attempt(const std::string& path) {
    Attempt a;
    try {
        auto decoder = KDDecoder::decoderWithFilename(path);
        if (!decoder) {
            a.threw = true;
            return a;
        }
        a.samples = decodeAll16(*decoder).size();
        a.damage = decoder->damage();
    } catch (const Exception& e) {
        a.threw = true;
        a.reason = e.reason();
    }
    return a;
}

std::vector<uint8_t> flipped(std::vector<uint8_t> bytes, size_t from, size_t count) {
    for (size_t i = from; i < from + count && i < bytes.size(); ++i)
        bytes[i] ^= 0x10;
    return bytes;
}

} // namespace

TEST(OggBadInput, ZeroLengthTruncatedAndBitFlippedFilesFailCleanly) {
    TempDir dir;
    const std::string wav = makeWav(dir, "in.wav", 16000, 1, 4.0);
    for (const Format& format : formats()) {
        SCOPED_TRACE(format.extension);
        const auto good = readFile(encode(format, wav, dir.file("good." + format.extension)));
        const auto name = [&](const std::string& stem) {
            return dir.file(stem + "." + format.extension);
        };

        writeFile(name("empty"), {});
        EXPECT_TRUE(attempt(name("empty")).threw);

        writeFile(name("cut"), std::vector<uint8_t>(good.begin(), good.begin() + good.size() / 2));
        const Attempt cut = attempt(name("cut"));
        EXPECT_TRUE(cut.threw);
        EXPECT_EQ(cut.reason, "The Ogg Stream Ends Before Its Last Page.  The File Is Truncated.");

        writeFile(name("header"), flipped(good, 30, 8));
        EXPECT_TRUE(attempt(name("header")).threw);

        // A page that fails its CRC is a hole: the file is damaged, however
        // well the pages after it decode. Vorbis and Opus decode on past it
        // and say so; Speex stops there.
        writeFile(name("middle"), flipped(good, good.size() / 2, 16));
        const Attempt middle = attempt(name("middle"));
        EXPECT_EQ(middle.threw ? middle.reason : middle.damage, format.lostPagesReason);
        if (!middle.threw)
            EXPECT_GT(middle.samples, 0u);
    }
}

TEST(OggBadInput, ConvertNamesEveryDamagedFileAndConvertsTheRest) {
    CommandSandbox box;
    TempDir dir;
    const std::string wav = makeWav(dir, "in.wav", 16000, 1, 3.0);
    std::vector<std::string> bad;
    for (const Format& format : formats()) {
        const std::string good = box.src("good-" + format.extension + "." + format.extension);
        const auto bytes = readFile(encode(format, wav, good));
        const std::string empty = box.src("empty." + format.extension);
        const std::string cut = box.src("cut." + format.extension);
        writeFile(empty, {});
        writeFile(cut, std::vector<uint8_t>(bytes.begin(), bytes.begin() + bytes.size() / 2));
        bad.push_back(empty);
        bad.push_back(cut);
    }
    const Outcome r =
        box.run("convert -f flac -o " + shellQuote(box.out()) + " " + shellQuote(box.src()));
    EXPECT_EQ(r.exitCode, 1) << r.out << r.err;
    for (const std::string& path : bad)
        EXPECT_NE(r.out.find("FAILED: " + path + "\n"), std::string::npos) << path << r.out;
    const size_t errors = r.err.find("Error log:\n");
    ASSERT_NE(errors, std::string::npos) << r.err;
    for (const std::string& path : bad) {
        const std::string name = std::filesystem::path(path).filename().string();
        EXPECT_NE(r.err.find(name, errors), std::string::npos) << path << r.err;
    }
    // The good files arrive with their tags.
    for (const Format& format : formats()) {
        const std::string flac = box.out("good-" + format.extension + ".flac");
        ASSERT_TRUE(std::filesystem::exists(flac)) << r.out;
        const CommandResult title = runCommand("metaflac --show-tag=TITLE " + shellQuote(flac));
        EXPECT_EQ(title.output, "TITLE=Song " + format.extension + "\n");
    }
    EXPECT_NE(r.out.find("3 converted, 0 skipped, 6 failed.\n"), std::string::npos) << r.out;
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}
