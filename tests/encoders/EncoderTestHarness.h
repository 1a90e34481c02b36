#pragma once
// What the encoder tests share besides the batch stand-in and the per-test
// preferences: running an operation to its end on the test's main loop,
// byte-block comparison and error-log inspection.

#include <algorithm>
#include <chrono>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "jobs/EncodeOperation.h"
#include "platform/ErrorLog.h"
#include "platform/MainRunLoop.h"
#include "platform/TaggingThread.h"
#include "platform/UserDefaults.h"
#include "support/JobsTestSupport.h"

namespace velvox::test {

// Byte blocks compared without printing them whole.
inline ::testing::AssertionResult sameBytes(const std::vector<uint8_t>& actual,
                                            const std::vector<uint8_t>& expected) {
    if (actual == expected)
        return ::testing::AssertionSuccess();
    const size_t n = std::min(actual.size(), expected.size());
    size_t i = 0;
    while (i < n && actual[i] == expected[i])
        ++i;
    return ::testing::AssertionFailure() << actual.size() << " bytes against " << expected.size()
                                         << " expected; first difference at byte " << i;
}

// Starts the operation and runs the main loop here until it has finished.
inline void runToEnd(EncodeOperation& operation) {
    using namespace std::chrono_literals;
    operation.start();
    ASSERT_TRUE(MainRunLoop::shared().runUntil([&] { return operation.isFinished(); }, 120s))
        << "the operation did not finish";
}

// The error-log lines written since it was made.
class LogWatch {
public:
    LogWatch() : start_(ErrorLog::sharedController().count()) {}
    std::vector<std::string> lines() const {
        const std::vector<std::string> all = ErrorLog::sharedController().messages();
        return std::vector<std::string>(all.begin() + long(std::min(start_, all.size())),
                                        all.end());
    }
    bool contains(const std::string& line) const {
        for (const std::string& l : lines())
            if (l == line)
                return true;
        return false;
    }

private:
    size_t start_;
};

} // namespace velvox::test
