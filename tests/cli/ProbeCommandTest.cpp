// `velvox probe` run as a user runs it: the real binary on generated files.

#include <set>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "support/TestSupport.h"

using namespace velvox::test;

namespace {

CommandResult runVelvox(const std::string& args) {
    return runCommand(std::string(VELVOX_BINARY) + " " + args + " 2>/dev/null");
}

std::string flacReferenceMD5(const std::string& path) {
    return runCommand("flac -s -d -c --force-raw-format --endian=little --sign=signed " +
                      shellQuote(path) + " | md5sum | cut -c1-32")
        .output.substr(0, 32);
}

} // namespace

TEST(ProbeCommand, JsonReportsEveryFileAndFailuresDoNotStopTheOthers) {
    TempDir dir;
    const std::string good = dir.file("good.flac");
    const std::string ogg = dir.file("good.oga");
    ASSERT_EQ(runCommand("sox -n -r 48000 -b 24 -c 2 " + shellQuote(good) +
                         " synth 2 sine 300 sine 500 gain -3")
                  .exitCode,
              0);
    ASSERT_EQ(
        runCommand("flac -s -f --ogg " + shellQuote(good) + " -o " + shellQuote(ogg)).exitCode, 0);
    auto bytes = readFile(good);
    bytes.resize(bytes.size() / 2);
    writeFile(dir.file("cut.flac"), bytes);
    writeFile(dir.file("notes.flac"), std::vector<uint8_t>(300, 'a'));

    const auto r =
        runVelvox("probe --json " + shellQuote(good) + " " + shellQuote(dir.file("missing.flac")) +
                  " " + shellQuote(dir.file("cut.flac")) + " " +
                  shellQuote(dir.file("notes.flac")) + " " + shellQuote(ogg));
    EXPECT_EQ(r.exitCode, 1);
    const auto json = nlohmann::json::parse(r.output);
    ASSERT_TRUE(json.is_array());
    ASSERT_EQ(json.size(), 5u);

    const auto& first = json[0];
    std::set<std::string> keys;
    for (auto it = first.begin(); it != first.end(); ++it)
        keys.insert(it.key());
    EXPECT_EQ(keys, (std::set<std::string>{"path", "decoder", "mSampleRate", "mBitsPerChannel",
                                           "mChannelsPerFrame", "mBytesPerFrame", "layoutTag",
                                           "totalFrames", "framesDecoded", "pcmMD5"}));
    EXPECT_EQ(first["decoder"], "FLACDecoder");
    EXPECT_EQ(first["mSampleRate"], 48000);
    EXPECT_EQ(first["mBitsPerChannel"], 24);
    EXPECT_EQ(first["mChannelsPerFrame"], 2);
    EXPECT_EQ(first["mBytesPerFrame"], 6);
    EXPECT_EQ(first["layoutTag"], (101 << 16) | 2);
    EXPECT_EQ(first["totalFrames"], 96000);
    EXPECT_EQ(first["framesDecoded"], 96000);
    EXPECT_EQ(first["pcmMD5"], flacReferenceMD5(good));

    for (int i : {1, 2, 3}) {
        EXPECT_EQ(json[i].size(), 2u) << json[i];
        EXPECT_TRUE(json[i].contains("error")) << json[i];
    }
    EXPECT_NE(json[1]["error"].get<std::string>().find("No such file"), std::string::npos);
    EXPECT_NE(json[2]["error"].get<std::string>().find("truncated"), std::string::npos);
    EXPECT_NE(json[3]["error"].get<std::string>().find("notes.flac"), std::string::npos);

    EXPECT_EQ(json[4]["decoder"], "OggFLACDecoder");
    EXPECT_EQ(json[4]["pcmMD5"], first["pcmMD5"]);
}
