// `velvox formats` run as a user runs it, with the preferences in a folder of
// the test's own so that what one run saves is what the next run reads.

#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "cli/BatchCommandSandbox.h"

using namespace velvox::test;

namespace {

// The program with preferences of the test's own: what one run saves is what
// the next reads.
class Velvox : public CommandSandbox {
public:
    Outcome operator()(const std::string& args) const { return run(args); }
    nlohmann::json list(const std::string& extra = "") const {
        const Outcome r = run("formats --json " + extra);
        EXPECT_EQ(r.exitCode, 0) << r.err;
        return nlohmann::json::parse(r.out);
    }
    // The preferences file as saved.
    nlohmann::json saved() const {
        const auto bytes = readFile((root() / "config/velvox/defaults.json").string());
        return bytes.empty() ? nlohmann::json()
                             : nlohmann::json::parse(std::string(bytes.begin(), bytes.end()));
    }
};

std::vector<std::string> descriptions(const nlohmann::json& list) {
    std::vector<std::string> out;
    for (const auto& entry : list)
        out.push_back(entry["description"]);
    return out;
}

} // namespace

TEST(FormatsCommand, AddRefusesDuplicatesAndEveryChangePersists) {
    Velvox velvox;
    EXPECT_EQ(velvox("formats --add flac:level=8").exitCode, 0);
    EXPECT_EQ(velvox("formats --add mp3:bitrate=320").exitCode, 0);
    EXPECT_EQ(descriptions(velvox.list()),
              (std::vector<std::string>{"FLAC - Compression Level 5", "FLAC - Compression Level 8",
                                        "MP3 - 320.00 kbps CBR"}));

    // The same output under another spelling is refused and nothing changes.
    for (const char* format : {"flac:level=8", "FLAC:flacCompressionLevel=8,ext=flac",
                               "flac:level=8,enabled=false", "mp3:method=cbr,bitrate=320k"}) {
        SCOPED_TRACE(format);
        const Outcome refused = velvox(std::string("formats --add ") + shellQuote(format));
        EXPECT_EQ(refused.exitCode, 1);
        EXPECT_NE(refused.err.find("not added"), std::string::npos) << refused.err;
        EXPECT_NE(refused.err.find("output format"), std::string::npos) << refused.err;
    }
    EXPECT_EQ(velvox.list().size(), 3u);
    // A different extension is a different output.
    EXPECT_EQ(velvox("formats --add flac:level=8,ext=fla").exitCode, 0);

    // What is saved is the settings dictionaries themselves.
    const auto saved = velvox.saved();
    ASSERT_EQ(saved["encoderSettings"].size(), 4u);
    const auto& mp3 = saved["encoderSettings"][2];
    EXPECT_EQ(mp3["encoderType"], 0);
    EXPECT_EQ(mp3["bitrate"], 320);
    EXPECT_EQ(mp3["method"], 0);
    EXPECT_EQ(mp3["extension"], "mp3");
    EXPECT_EQ(mp3["enabled"], true);
    EXPECT_EQ(saved["encoderSettings"][3]["extension"], "fla");
    EXPECT_EQ(saved["defaultEncoderSetting"], 0);

    // Removing the default makes the first one the default.
    const Outcome removed = velvox("formats --remove 1");
    EXPECT_EQ(removed.exitCode, 0);
    EXPECT_EQ(removed.out.substr(0, removed.out.find('\n')),
              "1. FLAC - Compression Level 8  [default]");
    EXPECT_EQ(velvox.list().size(), 3u);
    EXPECT_EQ(velvox.saved()["defaultEncoderSetting"], 0);
}

TEST(FormatsCommand, SetChangesPreferencesForOneRunBeforeOrAfterTheCommand) {
    Velvox velvox;
    const std::string two =
        R"([{"encoderType":2,"enabled":true,"extension":"flac","flacCompressionLevel":1},)"
        R"({"encoderType":7,"enabled":false,"extension":"tta"}])";
    const Outcome before = velvox("--set " + shellQuote("encoderSettings=" + two) + " formats");
    EXPECT_EQ(before.exitCode, 0) << before.err;
    EXPECT_EQ(before.out,
              "1. FLAC - Compression Level 1  [default]\n2. True Audio - TTA  [disabled]\n");
    const Outcome after = velvox("formats --set " + shellQuote("encoderSettings=" + two) +
                                 " --set defaultEncoderSetting=1");
    EXPECT_EQ(after.exitCode, 0) << after.err;
    EXPECT_EQ(after.out,
              "1. FLAC - Compression Level 1\n2. True Audio - TTA  [default]  [disabled]\n");

    // Nothing of it was saved.
    EXPECT_TRUE(velvox.saved().is_null());
    EXPECT_EQ(velvox("formats").out, "1. FLAC - Compression Level 5  [default]\n");

    EXPECT_EQ(velvox("--set nokey formats").exitCode, 2);
    EXPECT_EQ(velvox("formats --set =1").exitCode, 2);
}
