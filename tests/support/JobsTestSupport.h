#pragma once
// Stand-ins the jobs and encoder tests share: a batch that owns the tagging
// thread and the set of created output paths, and preferences set for one
// test only.

#include <map>
#include <set>
#include <string>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "jobs/EncodeOperationDelegate.h"
#include "platform/MainRunLoop.h"
#include "platform/TaggingThread.h"
#include "platform/UserDefaults.h"

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

} // namespace velvox::test
