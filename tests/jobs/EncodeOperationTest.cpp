// The encode operation's shared steps: where the output goes, what happens to
// a file already there, and that nothing is left behind.

#include <filesystem>
#include <set>

#include <gtest/gtest.h>

#include "core/KDDecoder.h"
#include "core/UtilityFunctions.h"
#include "jobs/EncodeOperation.h"
#include "platform/ErrorLog.h"
#include "platform/FileManager.h"
#include "platform/MainRunLoop.h"
#include "platform/TaggingThread.h"
#include "platform/UserDefaults.h"
#include "support/JobsTestSupport.h"
#include "support/TestSupport.h"

using namespace velvox;
using velvox::test::Batch;
using velvox::test::Preferences;
using namespace std::chrono_literals;
namespace fs = std::filesystem;

namespace {

// "Encodes" by copying the input's bytes to the temporary file, so that the
// shared steps can be watched on their own.
class CopyOperation : public EncodeOperation {
public:
    void main() override {
        if (!determineOutputPath())
            return;
        const std::string temp = getTemporaryFilePath();
        setTempFilePath(temp);
        fs::copy_file(inFilePath(), temp, fs::copy_options::overwrite_existing);
        setSuccess(true);
        moveEncodedFileToOutputLocation();
        performOnMainThread([this] { completeOperation(); }, true);
    }
};

std::shared_ptr<EncoderSettings> settingsWithExtension(const std::string& ext) {
    auto s = std::make_shared<EncoderSettings>();
    s->setEncoderType(EncoderTypeFLAC);
    s->setExtension(ext);
    return s;
}

std::unique_ptr<CopyOperation> makeOperation(Batch& batch, const std::string& in,
                                             const std::string& topLevel, const std::string& ext) {
    auto op = std::make_unique<CopyOperation>();
    op->initWithFilePath(in, topLevel);
    op->setSettings(settingsWithExtension(ext));
    op->setDelegate(&batch);
    op->setMetadata(std::make_shared<AudioMetadata>());
    return op;
}

void run(EncodeOperation& op) {
    // A stop to wait for the user is announced on the operation's thread and
    // posts nothing to the main loop: wake it so that it looks again.
    auto wake = [](Observable&, const std::string&, Observable::ChangePhase) {
        MainRunLoop::shared().wake();
    };
    const auto t1 = op.addObserver("waitingUserInput", wake);
    const auto t2 = op.addObserver("isFinished", wake);
    op.start();
    const bool ended = MainRunLoop::shared().runUntil(
        [&] { return op.isFinished() || op.waitingUserInput(); }, 30s);
    op.removeObserver(t1);
    op.removeObserver(t2);
    ASSERT_TRUE(ended);
}

std::string text(const std::string& path) {
    const auto bytes = test::readFile(path);
    return std::string(bytes.begin(), bytes.end());
}

void writeText(const std::string& path, const std::string& s) {
    fs::create_directories(fs::path(path).parent_path());
    test::writeFile(path, std::vector<uint8_t>(s.begin(), s.end()));
}

} // namespace

TEST(EncodeOperation, DestinationFolderPreservedTreeAndNamingScheme) {
    test::TempDir dir;
    Preferences prefs;
    prefs.set("outputSameAsSource", false);
    prefs.set("destinationDirectory", dir.file("out"));
    prefs.set("useCustomNamingScheme", false);
    Batch batch;
    writeText(dir.file("in/Artist/Album/01 A.wav"), "a");

    prefs.set("preserveInputFileDirectoryStructure", true);
    auto tree =
        makeOperation(batch, dir.file("in/Artist/Album/01 A.wav"), dir.file("in/Artist"), "flac");
    run(*tree);
    EXPECT_EQ(tree->outFilePath(), dir.file("out/Artist/Album/01 A.flac"));
    EXPECT_TRUE(fs::exists(dir.file("out/Artist/Album/01 A.flac")));

    prefs.set("preserveInputFileDirectoryStructure", false);
    prefs.set("useCustomNamingScheme", true);
    prefs.set("customNamingScheme", "{albumArtist}/{trackNumber - }{trackTitle}");
    auto named = makeOperation(batch, dir.file("in/Artist/Album/01 A.wav"),
                               dir.file("in/Artist/Album/01 A.wav"), "flac");
    auto record = std::make_shared<AudioMetadata>();
    record->setAlbumArtist("The Band");
    record->setTrackNumber(3);
    record->setTrackTitle("Day/Night");
    named->setMetadata(record);
    prefs.set("useTwoDigitNumbers", true);
    prefs.set("createWindowsSafeFilenames", false);
    run(*named);
    EXPECT_EQ(named->outFilePath(), dir.file("out/The Band/03 - Day:Night.flac"));
    EXPECT_TRUE(fs::exists(dir.file("out/The Band/03 - Day:Night.flac")));
}

TEST(EncodeOperation, OverwritingReplacesOlderFilesButNotThisBatchsOwn) {
    test::TempDir dir;
    Preferences prefs;
    prefs.set("outputSameAsSource", false);
    prefs.set("destinationDirectory", dir.file("out"));
    prefs.set("useCustomNamingScheme", false);
    prefs.set("preserveInputFileDirectoryStructure", false);
    prefs.set("overwriteOutputFiles", true);
    prefs.set("promptBeforeOverwriting", false);
    Batch batch;
    writeText(dir.file("a/Song.wav"), "first");
    writeText(dir.file("b/Song.wav"), "second");
    writeText(dir.file("out/Song.flac"), "from an earlier day");

    auto first = makeOperation(batch, dir.file("a/Song.wav"), dir.file("a/Song.wav"), "flac");
    run(*first);
    EXPECT_EQ(text(dir.file("out/Song.flac")), "first");
    // The replaced file went to the trash, not into thin air.
    const fs::path trash = fs::path(std::getenv("XDG_DATA_HOME")) / "Trash/files";
    bool trashed = false;
    if (fs::exists(trash))
        for (const auto& e : fs::directory_iterator(trash))
            trashed |= e.path().filename().string().rfind("Song", 0) == 0 &&
                       text(e.path().string()) == "from an earlier day";
    EXPECT_TRUE(trashed);

    // Same name again in the same batch: the earlier output is kept.
    auto second = makeOperation(batch, dir.file("b/Song.wav"), dir.file("b/Song.wav"), "flac");
    run(*second);
    EXPECT_EQ(text(dir.file("out/Song.flac")), "first");
    EXPECT_EQ(second->outFilePath(), dir.file("out/Song 2.flac"));
    EXPECT_EQ(text(dir.file("out/Song 2.flac")), "second");
}

TEST(EncodeOperation, ArtworkIsSavedBesideTheOutputByItsType) {
    test::TempDir dir;
    Preferences prefs;
    prefs.set("outputSameAsSource", true);
    prefs.set("useCustomNamingScheme", false);
    prefs.set("albumArtworkFileName", "{albumTitle} cover");
    Batch batch;
    writeText(dir.file("Song.wav"), "x");
    auto op = makeOperation(batch, dir.file("Song.wav"), dir.file("Song.wav"), "flac");
    auto record = std::make_shared<AudioMetadata>();
    record->setAlbumTitle("Blue");
    auto art = std::make_shared<AlbumArtwork>();
    art->setData(std::vector<uint8_t>{'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'E', 'B', 'P'});
    art->setMimeType("image/webp"); // not one of the named types: saved as "jpg"
    record->setAlbumArtwork(art);
    op->setMetadata(record);
    run(*op);
    op->saveAlbumArtworkToFile();
    EXPECT_TRUE(fs::exists(dir.file("Blue cover.jpg")));
}
