#pragma once
// What the tests of the batch commands (convert, tag) share: a sandbox in
// which the built program runs with preferences, data (and so trash) and a
// temporary folder of its own, and readers of FLAC files that go through the
// reference tools rather than through Velvox.

#include <sys/stat.h>

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <stb_image_write.h>

#include "support/TestSupport.h"

namespace velvox::test {

struct Outcome {
    int exitCode = -1;
    std::string out;
    std::string err;
    // From the first signal to the program's end (runAndSignal only).
    double secondsToExit = 0;
    // `ls -A` of the mounted folder as the program left it (runWithMount only).
    std::string mountedFolder;
};

// In the sanitizer build the program reports what it finds on its standard
// error; an exit status alone can hide it where the test expects a failure.
inline void expectNoSanitizerReport(const std::string& err) {
    for (const char* mark : {"ERROR: AddressSanitizer", "ERROR: LeakSanitizer", "runtime error:"})
        EXPECT_EQ(err.find(mark), std::string::npos) << err;
}

class CommandSandbox {
public:
    CommandSandbox() {
        for (const char* folder : {"config", "data", "tmp", "src", "out", "scratch"})
            std::filesystem::create_directories(dir_.path() / folder);
    }

    std::filesystem::path root() const { return dir_.path(); }
    // Sources and outputs; the names are the tests' own.
    std::string src(const std::string& name = "") const { return path("src", name); }
    std::string out(const std::string& name = "") const { return path("out", name); }
    // For files the test itself makes on the side (exported pictures, ...).
    std::string scratch(const std::string& name) const { return path("scratch", name); }
    // The folder the program's TMPDIR points at.
    std::string temporaryFolder() const { return path("tmp", ""); }
    std::string dataHome() const { return path("data", ""); }
    std::string trashedFile(const std::string& name) const {
        return (dir_.path() / "data/Trash/files" / name).string();
    }
    // GIO puts a file into the user's trash only when it lies on the file
    // system of the home folder; elsewhere it uses that volume's own.
    bool trashIsTheUsersOwn() const {
        const char* home = std::getenv("HOME");
        struct stat homeInfo {
        }, sandboxInfo{};
        return home && ::stat(home, &homeInfo) == 0 &&
               ::stat(dir_.path().c_str(), &sandboxInfo) == 0 &&
               homeInfo.st_dev == sandboxInfo.st_dev;
    }

    // "NAME=VALUE" for each variable the program gets besides the inherited.
    std::vector<std::string> environment() const {
        std::vector<std::string> variables{"XDG_CONFIG_HOME=" + path("config", ""),
                                           "XDG_DATA_HOME=" + path("data", ""),
                                           "TMPDIR=" + path("tmp", "")};
        variables.insert(variables.end(), extra_.begin(), extra_.end());
        return variables;
    }
    // One more variable for every later run.
    void setEnvironment(const std::string& name, const std::string& value) {
        extra_.push_back(name + "=" + value);
    }

    // Runs `velvox ARGS` with no terminal on standard input.
    Outcome run(const std::string& args) const {
        const CommandResult r =
            runCommand(velvoxCommand(args) + " </dev/null 2>" + shellQuote(errorPath()));
        return outcome(r.exitCode, r.output);
    }

    // The same, sending each of SIGNALS (kill(1) names, one right after the
    // other) once a line starting with `trigger` has appeared on its
    // standard output.
    Outcome runAndSignal(const std::string& args, const std::string& trigger,
                         const std::vector<std::string>& signals) const {
        const std::string outPath = (dir_.path() / "stdout.txt").string();
        std::string kills;
        for (const std::string& signal : signals)
            kills += "kill -" + signal + " $pid; ";
        // The old output goes first: a trigger left from an earlier run would
        // send the signals before the program has set up its handlers, and a
        // background job of a non-interactive shell starts with SIGINT ignored.
        const std::string script =
            "rm -f " + shellQuote(outPath) + "; " + velvoxCommand(args) + " </dev/null >" +
            shellQuote(outPath) + " 2>" + shellQuote(errorPath()) +
            " & pid=$!; i=0; while ! grep -q " + shellQuote("^" + trigger) + " " +
            shellQuote(outPath) +
            " 2>/dev/null && [ $i -lt 1200 ]; do sleep 0.05; i=$((i+1)); done; t0=$(date +%s%N); " +
            kills + "wait $pid; echo $? $(( ($(date +%s%N) - t0) / 1000000 )) >" +
            shellQuote(outPath + ".status");
        runCommand(script);
        const std::vector<uint8_t> out = readFile(outPath);
        const std::vector<uint8_t> bytes = readFile(outPath + ".status");
        int status = -1;
        long milliseconds = -1;
        std::istringstream(std::string(bytes.begin(), bytes.end())) >> status >> milliseconds;
        Outcome result = outcome(status, std::string(out.begin(), out.end()));
        result.secondsToExit = double(milliseconds) / 1000.0;
        return result;
    }

    // Runs `velvox ARGS` in a user and mount namespace of its own (no root
    // needed) in which FOLDER (made if missing) is a tmpfs of SIZE (e.g.
    // "256k"), or, with SIZE "ro", a read-only view of itself.
    Outcome runWithMount(const std::string& folder, const std::string& size,
                         const std::string& args) const {
        std::filesystem::create_directories(folder);
        const std::string mount =
            size == "ro" ? "mount --bind " + shellQuote(folder) + " " + shellQuote(folder) +
                               " && mount -o remount,bind,ro " + shellQuote(folder)
                         : "mount -t tmpfs -o size=" + size + " tmpfs " + shellQuote(folder);
        // What the mounted folder holds at the end is listed from inside,
        // before the mount goes with the namespace.
        const std::string listing = (dir_.path() / "mounted.txt").string();
        const std::string script = mount + " && { " + velvoxCommand(args) + " </dev/null 2>" +
                                   shellQuote(errorPath()) + "; status=$?; ls -A " +
                                   shellQuote(folder) + " >" + shellQuote(listing) +
                                   "; exit $status; }";
        const CommandResult r = runCommand("unshare -rm sh -c " + shellQuote(script));
        Outcome result = outcome(r.exitCode, r.output);
        const std::vector<uint8_t> names = readFile(listing);
        result.mountedFolder.assign(names.begin(), names.end());
        return result;
    }

    // Whatever the program left in its temporary folder.
    std::vector<std::string> temporaryLeftovers() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(temporaryFolder()))
            names.push_back(entry.path().filename().string());
        return names;
    }

private:
    std::string errorPath() const { return (dir_.path() / "stderr.txt").string(); }
    std::string velvoxCommand(const std::string& args) const {
        std::string command;
        for (const std::string& variable : environment()) {
            const size_t equals = variable.find('=');
            command +=
                variable.substr(0, equals + 1) + shellQuote(variable.substr(equals + 1)) + " ";
        }
        return command + VELVOX_BINARY + " " + args;
    }
    Outcome outcome(int exitCode, std::string out) const {
        const std::vector<uint8_t> err = readFile(errorPath());
        Outcome result{exitCode, std::move(out), std::string(err.begin(), err.end())};
        expectNoSanitizerReport(result.err);
        return result;
    }

    std::string path(const char* folder, const std::string& name) const {
        const std::filesystem::path base = dir_.path() / folder;
        return (name.empty() ? base : base / name).string();
    }

    TempDir dir_;
    std::vector<std::string> extra_;
};

// Runs a shell command that has to succeed (fixture making).
inline void mustRun(const std::string& command) {
    ASSERT_EQ(runCommand(command + " 2>&1 >/dev/null").exitCode, 0) << command;
}

inline std::string fileMD5(const std::string& path) { return md5Hex(readFile(path)); }

inline bool contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

// Every regular file below a folder, relative to it, sorted.
inline std::vector<std::string> filesBelow(const std::string& folder) {
    std::vector<std::string> files;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            files.push_back(std::filesystem::relative(entry.path(), folder).string());
    std::sort(files.begin(), files.end());
    return files;
}

// One of metaflac's --show-* answers, without the line end.
inline std::string metaflacShow(const std::string& option, const std::string& path) {
    std::string out = runCommand("metaflac " + option + " " + shellQuote(path)).output;
    while (!out.empty() && out.back() == '\n')
        out.pop_back();
    return out;
}

// The MD5 of what a command writes to standard output (binary safe).
inline std::string md5OfCommandOutput(const std::string& command) {
    const CommandResult r = runCommand(command);
    if (r.exitCode != 0 || r.output.empty())
        return "(" + command + " failed)";
    return md5Hex(std::vector<uint8_t>(r.output.begin(), r.output.end()));
}

// The PCM of any source as SoX decodes it: little-endian signed integers of
// the source's own sample size, channels interleaved.
inline std::string pcmMD5BySox(const std::string& path, uint32_t bits) {
    return md5OfCommandOutput("sox " + shellQuote(path) + " -t raw -e signed -b " +
                              std::to_string(bits) + " -L - 2>/dev/null");
}

// The same PCM of a FLAC file, decoded by the reference decoder.
inline std::string pcmMD5ByFlac(const std::string& path) {
    return md5OfCommandOutput("flac -d -s -c --force-raw-format --endian=little --sign=signed " +
                              shellQuote(path) + " 2>/dev/null");
}

// The MD5 of the audio that the STREAMINFO block records.
inline std::string streamInfoMD5(const std::string& path) {
    const CommandResult r = runCommand("metaflac --show-md5sum " + shellQuote(path));
    return r.exitCode == 0 ? r.output : "(metaflac failed)";
}

// The Vorbis comments of a FLAC file, as metaflac exports them.
inline std::multimap<std::string, std::string> flacTags(const std::string& path) {
    std::multimap<std::string, std::string> tags;
    const CommandResult r = runCommand("metaflac --export-tags-to=- " + shellQuote(path));
    std::istringstream lines(r.output);
    for (std::string line; std::getline(lines, line);) {
        const size_t equals = line.find('=');
        if (equals != std::string::npos)
            tags.emplace(line.substr(0, equals), line.substr(equals + 1));
    }
    return tags;
}

struct FlacPicture {
    int type = -1;
    std::string mimeType;
};

// The picture blocks of a FLAC file, in file order.
inline std::vector<FlacPicture> flacPictures(const std::string& path) {
    std::vector<FlacPicture> pictures;
    const CommandResult r = runCommand("metaflac --list --block-type=PICTURE " + shellQuote(path));
    std::istringstream lines(r.output);
    // Each block lists "type: 6 (PICTURE)" and then the picture's own type.
    bool inHeader = false;
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("METADATA block #", 0) == 0) {
            pictures.emplace_back();
            inHeader = true;
        } else if (!pictures.empty() && line.rfind("  type: ", 0) == 0) {
            if (inHeader)
                inHeader = false; // the block type
            else
                pictures.back().type = std::atoi(line.c_str() + 8);
        } else if (!pictures.empty() && line.rfind("  MIME type: ", 0) == 0) {
            pictures.back().mimeType = line.substr(13);
        }
    }
    return pictures;
}

// The bytes of the first picture block.
inline std::vector<uint8_t> flacPictureData(const std::string& path, const std::string& scratch) {
    std::filesystem::remove(scratch);
    if (runCommand("metaflac --export-picture-to=" + shellQuote(scratch) + " " + shellQuote(path) +
                   " 2>/dev/null")
            .exitCode != 0)
        return {};
    return readFile(scratch);
}

// Everything after the metadata blocks: the audio frames, untouched by any
// tag edit. Empty when the file does not parse.
inline std::vector<uint8_t> flacAudioFrames(const std::string& path) {
    const std::vector<uint8_t> bytes = readFile(path);
    if (bytes.size() < 4 || std::string(bytes.begin(), bytes.begin() + 4) != "fLaC")
        return {};
    size_t position = 4;
    for (;;) {
        if (bytes.size() - position < 4)
            return {};
        const bool last = (bytes[position] & 0x80) != 0;
        const size_t length = (size_t(bytes[position + 1]) << 16) |
                              (size_t(bytes[position + 2]) << 8) | bytes[position + 3];
        position += 4;
        if (bytes.size() - position < length)
            return {};
        position += length;
        if (last)
            break;
    }
    return std::vector<uint8_t>(bytes.begin() + std::ptrdiff_t(position), bytes.end());
}

// A small RGB PNG whose bytes depend on `seed`.
inline void writePNG(const std::string& path, int width, int height, unsigned seed) {
    std::vector<unsigned char> pixels(size_t(width) * size_t(height) * 3);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<unsigned char>((i * 37 + seed * 101) & 0xFF);
    ASSERT_NE(stbi_write_png(path.c_str(), width, height, 3, pixels.data(), width * 3), 0);
}

// Tags a FLAC file with the given "KEY=VALUE" comments only (metaflac's
// encoder leaves its own vendor string, no fields) and, when given, a
// front-cover picture.
inline void tagFLAC(const std::string& path, const std::vector<std::string>& tags,
                    const std::string& picture = "") {
    std::string edit = "metaflac --remove-all-tags";
    for (const std::string& tag : tags)
        edit += " --set-tag=" + shellQuote(tag);
    if (!picture.empty())
        edit += " --import-picture-from=" + shellQuote("3||Front cover||" + picture);
    mustRun(edit + " " + shellQuote(path));
}

} // namespace velvox::test
