#pragma once
// Stand-ins the jobs and encoder tests share: a batch that owns the tagging
// thread and the set of created output paths, and preferences set for one
// test only.

#include <cstdlib>
#include <filesystem>
#include <map>
#include <optional>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "jobs/EncodeOperationDelegate.h"
#include "platform/MainRunLoop.h"
#include "platform/TaggingThread.h"
#include "platform/UserDefaults.h"
#include "support/TestSupport.h"

namespace velvox::test {

class Batch : public EncodeOperationDelegate {
public:
    bool createdOutputPathsContains(const std::string& path) override {
        EXPECT_TRUE(MainRunLoop::shared().isMainThread());
        return created.count(path) != 0;
    }
    void addCreatedOutputPath(const std::string& path) override {
        EXPECT_TRUE(MainRunLoop::shared().isMainThread());
        created.insert(path);
    }
    TaggingThread& taggingThread() override { return tagging; }

    std::set<std::string> created;
    TaggingThread tagging;
};

// Preferences for one test, restored when it ends.
class Preferences {
public:
    Preferences() = default;
    Preferences(const Preferences&) = delete;
    Preferences& operator=(const Preferences&) = delete;
    ~Preferences() {
        for (const auto& [key, value] : saved_)
            UserDefaults::standardUserDefaults().setVolatileObject(key, value);
    }
    void set(const std::string& key, const nlohmann::json& value) {
        UserDefaults& defaults = UserDefaults::standardUserDefaults();
        if (!saved_.count(key))
            saved_[key] = defaults.objectForKey(key).value_or(nullptr);
        defaults.setVolatileObject(key, value);
    }

private:
    std::map<std::string, nlohmann::json> saved_;
};

// Points the temporary folder somewhere empty for one test, so that what an
// operation leaves behind there can be seen.
class PrivateTemporaryFolder {
public:
    PrivateTemporaryFolder() {
        if (const char* old = std::getenv("TMPDIR"))
            saved_ = old;
        setenv("TMPDIR", dir_.path().c_str(), 1);
    }
    ~PrivateTemporaryFolder() {
        if (saved_)
            setenv("TMPDIR", saved_->c_str(), 1);
        else
            unsetenv("TMPDIR");
    }
    bool isEmpty() const { return std::filesystem::is_empty(dir_.path()); }

private:
    TempDir dir_;
    std::optional<std::string> saved_;
};

} // namespace velvox::test
