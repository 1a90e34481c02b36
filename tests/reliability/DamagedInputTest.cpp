// The converter over a corpus of damaged files (scripts/make-damaged-corpus.sh:
// every input family, cut short, bit-flipped, with zeroed headers and lying
// chunk sizes). Each file is converted on its own, under a time limit, and
// whatever happens must be clean: no crash, no hang, no output for a file
// that failed, nothing left in the temporary folder, every source untouched,
// and no damaged file passed off as converted with audio its source does not
// hold.

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "cli/BatchCommandSandbox.h"

namespace velvox::test {
namespace {

struct DamagedFile {
    std::string path;   // relative to the corpus
    std::string intact; // its undamaged fixture
    std::string damage; // trunc01, flipmid, datahuge, ...
    std::string kind;   // what the format can notice: crc, plain, lossy, lossy-crc, module
};

std::vector<DamagedFile> readManifest(const std::string& path) {
    std::vector<DamagedFile> files;
    std::ifstream in(path);
    for (std::string line; std::getline(in, line);) {
        std::istringstream fields(line);
        DamagedFile file;
        std::getline(fields, file.path, '\t');
        std::getline(fields, file.intact, '\t');
        std::getline(fields, file.damage, '\t');
        std::getline(fields, file.kind, '\t');
        files.push_back(file);
    }
    return files;
}

std::map<std::string, std::string> md5sOfFolder(const std::filesystem::path& folder) {
    std::map<std::string, std::string> md5s;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(folder))
        if (entry.is_regular_file())
            md5s[entry.path().string()] = fileMD5(entry.path().string());
    return md5s;
}

// What counts as a hang: 10 seconds a file. The sanitizer builds run the
// program several times slower, so there the bound is wider; it is there to
// catch a hang, not to time the program.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr int kSecondsPerFile = 60;
#else
constexpr int kSecondsPerFile = 10;
#endif

// Runs `velvox convert -f flac` once per input, two at a time, each killed
// after kSecondsPerFile seconds. The exit status by input path; standard error of all
// runs goes to one log.
std::map<std::string, int> convertEach(const CommandSandbox& sandbox,
                                       const std::vector<std::string>& inputs,
                                       const std::string& outputFolder, const std::string& log) {
    const std::string list = sandbox.scratch("inputs.txt");
    std::ofstream(list) << [&] {
        std::string text;
        for (const std::string& input : inputs)
            text += input + "\n";
        return text;
    }();
    std::string environment;
    for (const std::string& variable : sandbox.environment())
        environment += shellQuote(variable) + " ";
    const CommandResult r =
        runCommand("env " + environment + "xargs -d '\\n' -P 2 -n 1 sh -c " +
                   shellQuote("timeout -s KILL " + std::to_string(kSecondsPerFile) + " " +
                              std::string(VELVOX_BINARY) +
                              " convert -f flac -o " + shellQuote(outputFolder) +
                              " --overwrite replace \"$1\" </dev/null >/dev/null 2>>" +
                              shellQuote(log) + "; echo \"$? $1\"") +
                   " sh <" + shellQuote(list));
    std::map<std::string, int> statuses;
    std::istringstream lines(r.output);
    for (std::string line; std::getline(lines, line);) {
        const size_t space = line.find(' ');
        statuses[line.substr(space + 1)] = std::stoi(line.substr(0, space));
    }
    return statuses;
}

std::vector<uint8_t> pcmOfFLAC(const std::string& path) {
    const CommandResult r =
        runCommand("flac -d -s -c --force-raw-format --endian=little --sign=signed " +
                   shellQuote(path) + " 2>/dev/null");
    return std::vector<uint8_t>(r.output.begin(), r.output.end());
}

uint32_t bytesPerFrameOfFLAC(const std::string& path) {
    const CommandResult r = runCommand("metaflac --show-channels --show-bps " + shellQuote(path));
    std::istringstream values(r.output);
    uint32_t channels = 0, bits = 0;
    values >> channels >> bits;
    return channels * ((bits + 7) / 8);
}

// What a damaged file that converts may hold, decided by what its format can
// notice:
// - a lossless format must give exactly the audio of its source as far as it
//   goes (a cut file a prefix, a lying chunk size no extra samples), except
//   that a flipped bit in the samples of a format without checksums is
//   a different sample that no reader can tell from a real one;
// - a lossy format cut short may decode its last frames differently (the
//   bit reservoir, the overlap of the next frame), so the last few thousand
//   frames are not compared; a lossy stream in checksummed pages is held to
//   that for every damage;
// - a flipped bit or a zeroed start in a lossy format without checksums
//   (MP3, AAC, WMA, Musepack) decodes as whatever the frames now say, and an
//   MP3 without its first bytes is an MP3 without its gapless header: any
//   audio is acceptable there;
// - a tracker module is rendered, not decoded: libmodplug plays sample data
//   cut off or changed as silence or as what it now says, and a module has
//   no length or checksum to hold the rendering to.
enum class Expect { SameAudio, SameAudioButTheTail, Anything };

Expect expectationFor(const DamagedFile& file) {
    const bool lossless = file.kind == "crc" || file.kind == "plain";
    if (file.kind == "module")
        return Expect::Anything;
    if (file.kind == "plain" && file.damage == "flipmid")
        return Expect::Anything;
    if (lossless)
        return Expect::SameAudio;
    if (file.kind == "lossy-crc" || file.damage.starts_with("trunc"))
        return Expect::SameAudioButTheTail;
    return Expect::Anything;
}

constexpr size_t kLossyTailFrames = 4096;

::testing::AssertionResult holdsItsSourceAudio(const std::vector<uint8_t>& pcm,
                                               const std::vector<uint8_t>& source,
                                               size_t tailBytes) {
    if (pcm.empty())
        return ::testing::AssertionFailure() << "its output does not decode";
    if (pcm.size() > source.size())
        return ::testing::AssertionFailure() << "its output holds " << pcm.size()
                                             << " bytes of audio, its source " << source.size();
    const size_t compared = pcm.size() > tailBytes ? pcm.size() - tailBytes : 0;
    const auto [differs, ignored] =
        std::mismatch(pcm.begin(), pcm.begin() + std::ptrdiff_t(compared), source.begin());
    if (differs != pcm.begin() + std::ptrdiff_t(compared))
        return ::testing::AssertionFailure()
               << "its audio differs from its source's at byte " << (differs - pcm.begin());
    return ::testing::AssertionSuccess();
}

std::string stem(const std::string& path) { return std::filesystem::path(path).stem().string(); }

TEST(DamagedInput, EachFileFailsAloneOrConvertsOnlyTheAudioItHolds) {
    CommandSandbox sandbox;
    const std::string corpus = sandbox.src("corpus");
    mustRun("bash " +
            shellQuote(std::string(VELVOX_SOURCE_DIR) + "/scripts/make-damaged-corpus.sh") + " " +
            shellQuote(corpus));
    const std::vector<DamagedFile> files = readManifest(corpus + "/manifest.tsv");
    ASSERT_GT(files.size(), 100u);
    const auto sourcesBefore = md5sOfFolder(corpus);

    std::vector<std::string> intact, damaged;
    for (const auto& entry : std::filesystem::directory_iterator(corpus + "/intact"))
        intact.push_back(entry.path().string());
    for (const DamagedFile& file : files)
        damaged.push_back(corpus + "/" + file.path);
    const std::string log = sandbox.scratch("stderr.txt");
    const std::string references = sandbox.scratch("intact");
    std::filesystem::create_directories(references);
    for (const auto& [input, status] : convertEach(sandbox, intact, references, log))
        ASSERT_EQ(status, 0) << input << " (an undamaged fixture) did not convert";
    const std::map<std::string, int> statuses = convertEach(sandbox, damaged, sandbox.out(), log);
    ASSERT_EQ(statuses.size(), files.size());

    size_t converted = 0;
    for (const DamagedFile& file : files) {
        SCOPED_TRACE(file.path);
        const int status = statuses.at(corpus + "/" + file.path);
        const std::string output = sandbox.out(stem(file.path) + ".flac");
        EXPECT_TRUE(status == 0 || status == 1)
            << "exit status " << status << " (killed after " << kSecondsPerFile << " s: 137)";
        if (status != 0) {
            EXPECT_FALSE(std::filesystem::exists(output)) << "a failed file left its output";
            continue;
        }
        ++converted;
        const Expect expect = expectationFor(file);
        if (expect == Expect::Anything)
            continue;
        const std::string reference = references + "/" + stem(file.intact) + ".flac";
        const size_t tail =
            expect == Expect::SameAudio ? 0 : kLossyTailFrames * bytesPerFrameOfFLAC(reference);
        EXPECT_TRUE(holdsItsSourceAudio(pcmOfFLAC(output), pcmOfFLAC(reference), tail))
            << "damaged (" << file.damage << ") but reported converted";
    }
    size_t outputs = 0;
    for ([[maybe_unused]] const auto& entry : std::filesystem::directory_iterator(sandbox.out()))
        ++outputs;
    EXPECT_EQ(outputs, converted) << "files in the output folder besides the outputs";
    EXPECT_TRUE(sandbox.temporaryLeftovers().empty());
    EXPECT_EQ(md5sOfFolder(corpus), sourcesBefore) << "a source changed";
    const std::vector<uint8_t> errors = readFile(log);
    expectNoSanitizerReport(std::string(errors.begin(), errors.end()));
}

} // namespace
} // namespace velvox::test
