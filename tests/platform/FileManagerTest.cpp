#include <filesystem>

#include <gtest/gtest.h>
#include <sys/xattr.h>

#include "platform/FileManager.h"
#include "support/TestSupport.h"

using namespace velvox;

TEST(FileManager, MoveReplacesAndKeepsBytes) {
    test::TempDir dir;
    test::writeFile(dir.file("a"), {1, 2, 3});
    test::writeFile(dir.file("b"), {9});
    std::string error;
    ASSERT_TRUE(FileManager::moveItem(dir.file("a"), dir.file("b"), error)) << error;
    EXPECT_FALSE(std::filesystem::exists(dir.file("a")));
    EXPECT_EQ(test::readFile(dir.file("b")), (std::vector<uint8_t>{1, 2, 3}));
    EXPECT_FALSE(FileManager::moveItem(dir.file("missing"), dir.file("c"), error));
    EXPECT_FALSE(error.empty());
}

TEST(FileManager, MoveAcrossFileSystemsWhenAvailable) {
    // /dev/shm is a separate file system on most Linux machines.
    if (!std::filesystem::is_directory("/dev/shm"))
        GTEST_SKIP() << "no second file system to move across";
    test::TempDir dir;
    const std::string from = "/dev/shm/velvox-move-test-" + std::to_string(::getpid());
    test::writeFile(from, std::vector<uint8_t>(100000, 7));
    std::string error;
    ASSERT_TRUE(FileManager::moveItem(from, dir.file("moved"), error)) << error;
    EXPECT_FALSE(std::filesystem::exists(from));
    EXPECT_EQ(std::filesystem::file_size(dir.file("moved")), 100000u);
    for (const auto& e : std::filesystem::directory_iterator(dir.path()))
        EXPECT_EQ(e.path().filename(), "moved"); // no partial copy left behind
}

TEST(FileManager, TrashMovesTheFileIntoTheUsersTrash) {
    // XDG_DATA_HOME points at a test folder, so the trash is the test's own.
    test::TempDir dir;
    const auto dataHome = std::filesystem::path(std::getenv("XDG_DATA_HOME"));
    std::filesystem::create_directories(dataHome);
    const auto victim = dataHome / ("trash-me-" + std::to_string(::getpid()) + ".flac");
    test::writeFile(victim.string(), {1});
    std::string error;
    ASSERT_TRUE(FileManager::trashItem(victim, error)) << error;
    EXPECT_FALSE(std::filesystem::exists(victim));
    EXPECT_TRUE(std::filesystem::exists(dataHome / "Trash/files" / victim.filename()));
    EXPECT_FALSE(FileManager::trashItem(dataHome / "not-there", error));
}

TEST(FileManager, QuarantineMarksAreCleared) {
    test::TempDir dir;
    test::writeFile(dir.file("f"), {1});
    if (::setxattr(dir.file("f").c_str(), "user.xdg.origin.url", "http://x", 8, 0) != 0)
        GTEST_SKIP() << "no user extended attributes on this file system";
    FileManager::clearQuarantine(dir.file("f"));
    char value[16];
    EXPECT_LT(::getxattr(dir.file("f").c_str(), "user.xdg.origin.url", value, sizeof value), 0);
}
