// The main run loop and the tagging thread: the hand-offs every batch relies on.

#include <atomic>
#include <stdexcept>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/MainRunLoop.h"
#include "platform/TaggingThread.h"

using namespace velvox;
using namespace std::chrono_literals;

TEST(MainRunLoop, WorkersHandOffAndWaitWhileTheMainThreadRuns) {
    MainRunLoop& loop = MainRunLoop::shared();
    std::vector<int> order; // touched only on the main thread
    std::atomic<int> finished = 0;
    std::vector<std::thread> workers;
    for (int w = 0; w < 4; ++w)
        workers.emplace_back([&, w] {
            for (int i = 0; i < 50; ++i) {
                bool onMain = false;
                performOnMainThread(
                    [&] {
                        onMain = loop.isMainThread();
                        order.push_back(w);
                    },
                    true);
                EXPECT_TRUE(onMain);
            }
            ++finished;
            loop.wake();
        });
    EXPECT_TRUE(loop.runUntil([&] { return finished == 4; }, 10s));
    for (auto& t : workers)
        t.join();
    EXPECT_EQ(order.size(), 200u);
    EXPECT_TRUE(loop.isMainThread());
}

TEST(MainRunLoop, WaitingPerformOnTheMainThreadRunsAtOnceAndExceptionsCrossBack) {
    MainRunLoop& loop = MainRunLoop::shared();
    loop.runUntil([] { return true; }); // this thread is the main thread
    bool ran = false;
    performOnMainThread([&] { ran = true; }, true);
    EXPECT_TRUE(ran);

    std::atomic<bool> caught = false, done = false;
    std::thread worker([&] {
        try {
            performOnMainThread([] { throw std::runtime_error("boom"); }, true);
        } catch (const std::runtime_error& e) {
            caught = std::string(e.what()) == "boom";
        }
        done = true;
        loop.wake();
    });
    EXPECT_TRUE(loop.runUntil([&] { return done.load(); }, 10s));
    worker.join();
    EXPECT_TRUE(caught);
}

TEST(TaggingThread, RunsTasksOneAtATimeInOrderOffTheCaller) {
    TaggingThread tagging;
    std::vector<int> seen;
    std::atomic<int> running = 0, overlap = 0;
    std::vector<std::thread> callers;
    for (int c = 0; c < 4; ++c)
        callers.emplace_back([&, c] {
            for (int i = 0; i < 25; ++i)
                tagging.performAndWait([&] {
                    if (++running > 1)
                        ++overlap;
                    EXPECT_TRUE(tagging.isCurrentThread());
                    seen.push_back(c);
                    --running;
                });
        });
    for (auto& t : callers)
        t.join();
    EXPECT_EQ(seen.size(), 100u);
    EXPECT_EQ(overlap, 0);
    EXPECT_FALSE(tagging.isCurrentThread());

    EXPECT_THROW(tagging.performAndWait([] { throw std::runtime_error("tag"); }),
                 std::runtime_error);
    // Nested waits on the tagging thread itself do not deadlock.
    bool inner = false;
    tagging.performAndWait([&] { tagging.performAndWait([&] { inner = true; }); });
    EXPECT_TRUE(inner);
}
