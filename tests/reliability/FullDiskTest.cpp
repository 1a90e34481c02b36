// Converting onto a disk that fills up: a 2 MB tmpfs, mounted for the run
// (directly as root, or in a user and mount namespace of its own where that
// is all that is allowed), and a source whose FLAC is larger. The file must
// fail with the system's reason and the folder named, and leave nothing
// behind: no output, no temporary file, no change to the source.

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include "cli/BatchCommandSandbox.h"

namespace velvox::test {
namespace {

struct FullDiskCase {
    const char* name;
    // Whether the temporary folder is on the full disk too, so that the
    // encoding itself runs out of room; otherwise the move into place does.
    bool temporaryFolderOnTheFullDisk;
};

class FullDisk : public ::testing::TestWithParam<FullDiskCase> {};

TEST_P(FullDisk, FailsNamingTheFolderAndLeavesNothingBehind) {
    CommandSandbox sandbox;
    const std::string source = sandbox.src("noise.wav");
    // White noise hardly compresses: its FLAC is about 3.9 MB.
    mustRun("sox -n -r 44100 -b 16 -c 2 " + shellQuote(source) + " synth 40 whitenoise");
    const std::string sourceMD5 = fileMD5(source);
    const std::string disk = sandbox.out("small-disk");
    std::filesystem::create_directories(disk);

    std::string environment;
    for (const std::string& variable : sandbox.environment())
        if (!GetParam().temporaryFolderOnTheFullDisk || variable.rfind("TMPDIR=", 0) != 0)
            environment += shellQuote(variable) + " ";
    const std::string temporaryFolder = disk + "/tmp";
    if (GetParam().temporaryFolderOnTheFullDisk)
        environment += shellQuote("TMPDIR=" + temporaryFolder) + " ";
    const std::string result = sandbox.scratch("result");
    // Everything that needs the mount happens inside one shell, which
    // records what the program said and what the disk held before leaving.
    const std::string script =
        "mount -t tmpfs -o size=2m tmpfs " + shellQuote(disk) + " || exit 99; " +
        (GetParam().temporaryFolderOnTheFullDisk ? "mkdir " + shellQuote(temporaryFolder) + "; "
                                                 : "") +
        "env " + environment + VELVOX_BINARY + " convert -f flac -o " + shellQuote(disk) +
        " --overwrite replace " + shellQuote(source) + " </dev/null >" +
        shellQuote(result + ".out") + " 2>&1; echo $? >" + shellQuote(result + ".status") +
        "; find " + shellQuote(disk) + " -mindepth 1 >" + shellQuote(result + ".listing") +
        "; umount " + shellQuote(disk);
    if (runCommand("sh -c " + shellQuote(script)).exitCode == 99) {
        ASSERT_EQ(runCommand("unshare -rm sh -c " + shellQuote(script)).exitCode, 0)
            << "a tmpfs can be mounted neither directly nor in a namespace of its own";
    }

    const std::vector<uint8_t> said = readFile(result + ".out");
    const std::string output(said.begin(), said.end());
    const std::vector<uint8_t> status = readFile(result + ".status");
    EXPECT_EQ(std::string(status.begin(), status.end()), "1\n") << output;
    EXPECT_NE(output.find("No space left on device"), std::string::npos) << output;
    EXPECT_NE(output.find(std::filesystem::path(disk).filename().string()), std::string::npos)
        << "the folder is not named: " << output;
    expectNoSanitizerReport(output);
    const std::vector<uint8_t> listing = readFile(result + ".listing");
    const std::string left(listing.begin(), listing.end());
    EXPECT_EQ(left, GetParam().temporaryFolderOnTheFullDisk ? temporaryFolder + "\n" : "")
        << "left on the full disk";
    EXPECT_TRUE(sandbox.temporaryLeftovers().empty());
    EXPECT_EQ(fileMD5(source), sourceMD5);
}

INSTANTIATE_TEST_SUITE_P(Reliability, FullDisk,
                         ::testing::Values(FullDiskCase{"OutputFolder", false},
                                           FullDiskCase{"OutputAndTemporaryFolder", true}),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
} // namespace velvox::test
