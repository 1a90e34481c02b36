// FFmpeg is opened on demand: a conversion that never reaches it must not pay
// for loading its hundred-odd libraries, and one that does must still work.
// The dynamic loader's own trace (LD_DEBUG=files) tells which libraries a run
// opened.

#include <string>

#include <gtest/gtest.h>

#include "support/TestSupport.h"

using namespace velvox::test;

namespace {

struct TracedRun {
    int exitCode = -1;
    std::string loaderTrace;
};

TracedRun convert(const TempDir& dir, const std::string& format) {
    const std::string trace = dir.file(format + "-trace.txt");
    const auto r = runCommand("LD_DEBUG=files XDG_CONFIG_HOME=" + shellQuote(dir.file("config")) +
                              " " + VELVOX_BINARY + " convert --overwrite replace -f " + format +
                              " -o " + shellQuote(dir.path().string()) + " " +
                              shellQuote(dir.file("in.wav")) + " 2>" + shellQuote(trace));
    const auto bytes = readFile(trace);
    return {r.exitCode, std::string(bytes.begin(), bytes.end())};
}

} // namespace

TEST(LibavLoading, OnlyConversionsThatUseFFmpegOpenIt) {
    TempDir dir;
    writeWav(dir.file("in.wav"), makeSignal(44100, 2, 16), 2, 44100, 16);

    const TracedRun flac = convert(dir, "flac");
    ASSERT_EQ(flac.exitCode, 0) << flac.loaderTrace;
    EXPECT_NE(flac.loaderTrace.find("file=libFLAC.so"), std::string::npos)
        << "the loader trace is not what this test reads";
    EXPECT_EQ(flac.loaderTrace.find("libavformat"), std::string::npos);
    EXPECT_EQ(flac.loaderTrace.find("libavcodec"), std::string::npos);

    // The MP4 muxer is FFmpeg's: this run opens it, and the file is written.
    const TracedRun aac = convert(dir, "aac");
    ASSERT_EQ(aac.exitCode, 0) << aac.loaderTrace;
    EXPECT_NE(aac.loaderTrace.find("file=libavformat.so"), std::string::npos);
    EXPECT_FALSE(readFile(dir.file("in.m4a")).empty());
}
