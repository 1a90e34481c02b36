#include <filesystem>
#include <fstream>
#include <thread>

#include <gtest/gtest.h>

#include "platform/ErrorLog.h"
#include "platform/UserDefaults.h"
#include "support/TestSupport.h"

using namespace velvox;

TEST(UserDefaults, RegisteredDefaultsComeFromTheResource) {
    test::TempDir dir;
    UserDefaults d(dir.file("defaults.json"));
    unsigned processors = std::max(1u, std::thread::hardware_concurrency());
    // Stored as a decimal string, read as a number where a number is wanted.
    EXPECT_EQ(d.stringForKey("numProcesses"), std::to_string(processors));
    EXPECT_EQ(d.integerForKey("numProcesses"), processors);
    EXPECT_TRUE(d.boolForKey("writeMetadata"));
    EXPECT_FALSE(d.boolForKey("deleteOriginal"));
    ASSERT_TRUE(d.objectForKey("encoderSettings"));
    EXPECT_TRUE(d.objectForKey("encoderSettings")->is_array());
    EXPECT_FALSE(d.objectForKey("noSuchKey"));
    EXPECT_FALSE(std::filesystem::exists(dir.file("defaults.json"))); // nothing written yet
}

TEST(UserDefaults, SavedValuesPersistAndRunOnlyValuesDoNot) {
    test::TempDir dir;
    const std::string path = dir.file("sub/folder/defaults.json");
    {
        UserDefaults d(path);
        ASSERT_TRUE(d.setObject("outputSameAsSource", false));
        ASSERT_TRUE(d.setObject("destinationDirectory", "/music/out"));
        d.setVolatileObject("numProcesses", "7");
        d.setVolatileObject("destinationDirectory", "/elsewhere");
        EXPECT_EQ(d.integerForKey("numProcesses"), 7);
        EXPECT_EQ(d.stringForKey("destinationDirectory"), "/elsewhere");
    }
    UserDefaults again(path);
    EXPECT_FALSE(again.boolForKey("outputSameAsSource"));
    EXPECT_EQ(again.stringForKey("destinationDirectory"), "/music/out");
    EXPECT_NE(again.integerForKey("numProcesses"), 7);
    // No temporary file is left beside the store.
    size_t files = 0;
    for ([[maybe_unused]] const auto& e :
         std::filesystem::directory_iterator(std::filesystem::path(path).parent_path()))
        ++files;
    EXPECT_EQ(files, 1u);
    ASSERT_TRUE(again.removeObjectForKey("outputSameAsSource"));
    EXPECT_TRUE(UserDefaults(path).boolForKey("outputSameAsSource"));
}

TEST(UserDefaults, UnreadableStoreFallsBackToDefaultsAndIsLogged) {
    test::TempDir dir;
    std::ofstream(dir.file("defaults.json")) << "{ this is not json";
    const size_t mark = ErrorLog::sharedController().count();
    UserDefaults d(dir.file("defaults.json"));
    EXPECT_TRUE(d.boolForKey("writeMetadata"));
    EXPECT_EQ(ErrorLog::sharedController().count(), mark + 1);
}
