#include <cstdlib>
#include <filesystem>
#include <string>

#include <unistd.h>

#include <gtest/gtest.h>

#include "formats/FormatTable.h"
#include "platform/UserDefaults.h"

int main(int argc, char** argv) {
    // Tests never read or write the real user's preferences or data.
    const char* base = std::getenv("VELVOX_TEST_TMP");
    std::filesystem::path root = base ? base : std::filesystem::temp_directory_path();
    root /= "velvox-home-" + std::to_string(::getpid());
    std::filesystem::create_directories(root);
    setenv("XDG_CONFIG_HOME", (root / "config").c_str(), 1);
    setenv("XDG_DATA_HOME", (root / "data").c_str(), 1);
    velvox::UserDefaults::resetStandardUserDefaults(root / "config/velvox/defaults.json");

    velvox::FormatTable::installBuiltinFormats();
    testing::InitGoogleTest(&argc, argv);
    const int status = RUN_ALL_TESTS();
    std::error_code ec;
    std::filesystem::remove_all(root, ec);
    return status;
}
