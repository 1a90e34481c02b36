// DSF sources through the built program: `velvox probe`, `info` and
// `convert -f flac`, checked with the reference FLAC tools and a tag writer
// that is not ours.

#include <filesystem>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "cli/BatchCommandSandbox.h"
#include "decoders/DSDTestFiles.h"

using namespace velvox::test;

namespace {

constexpr uint32_t kDSD64 = 2822400;

// A stereo DSF of 1 kHz left, 440 Hz right, titled by mutagen.
std::string makeTaggedDSF(const CommandSandbox& box, const std::string& name, size_t bits) {
    const std::string path = box.src(name);
    writeFile(path, makeDSF({sigmaDeltaSine(1000, 0.4, kDSD64, bits),
                             sigmaDeltaSine(440, 0.3, kDSD64, bits)},
                            kDSD64));
    const std::string script =
        "import sys\nfrom mutagen.dsf import DSF\nfrom mutagen.id3 import TIT2, TPE1\n"
        "f = DSF(sys.argv[1])\nf.add_tags()\n"
        "f.tags.add(TIT2(encoding=3, text='One Bit Song'))\n"
        "f.tags.add(TPE1(encoding=3, text='Delta Sigma'))\nf.save()\n";
    EXPECT_EQ(
        runCommand("/usr/bin/python3 -c " + shellQuote(script) + " " + shellQuote(path)).exitCode,
        0);
    return path;
}

} // namespace

TEST(DSDCommand, ProbeInfoAndConvertToFlacAgreeOnThePCM) {
    CommandSandbox box;
    const size_t bits = size_t(kDSD64) * 7 / 10; // 0.7 s, not whole blocks
    const std::string dsf = makeTaggedDSF(box, "song.dsf", bits);

    const Outcome probe = box.run("probe --json " + shellQuote(dsf));
    ASSERT_EQ(probe.exitCode, 0) << probe.err;
    const auto p = nlohmann::json::parse(probe.out).at(0);
    EXPECT_EQ(p["decoder"], "DSDDecoder");
    EXPECT_EQ(p["mSampleRate"], 88200);
    EXPECT_EQ(p["mBitsPerChannel"], 24);
    EXPECT_EQ(p["mChannelsPerFrame"], 2);
    EXPECT_EQ(p["totalFrames"], bits / 32);
    EXPECT_EQ(p["framesDecoded"], bits / 32);
    const std::string pcmMD5 = p["pcmMD5"];

    const Outcome info = box.run("info --json " + shellQuote(dsf));
    ASSERT_EQ(info.exitCode, 0) << info.err;
    const auto i = nlohmann::json::parse(info.out).at(0);
    EXPECT_EQ(i["trackTitle"], "One Bit Song");
    EXPECT_EQ(i["trackArtist"], "Delta Sigma");

    const Outcome convert =
        box.run("convert -f flac -o " + shellQuote(box.out()) + " " + shellQuote(dsf));
    ASSERT_EQ(convert.exitCode, 0) << convert.out << convert.err;
    const auto found = filesBelow(box.out());
    ASSERT_EQ(found.size(), 1u);
    const std::string output = box.out(found[0]);
    EXPECT_EQ(pcmMD5ByFlac(output), pcmMD5);
    EXPECT_EQ(
        runCommand("metaflac --show-sample-rate --show-bps --show-channels " + shellQuote(output))
            .output,
        "88200\n24\n2\n");
    const auto tags = flacTags(output);
    const auto title = tags.equal_range("TITLE");
    ASSERT_EQ(std::distance(title.first, title.second), 1);
    EXPECT_EQ(title.first->second, "One Bit Song");
    EXPECT_EQ(box.temporaryLeftovers(), std::vector<std::string>{});
}
