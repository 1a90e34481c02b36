#include <atomic>
#include <chrono>
#include <future>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "platform/Observable.h"

using velvox::Observable;

namespace {

class Counter : public Observable {
public:
    void set(int v) {
        willChangeValueForKey("value");
        value_ = v;
        didChangeValueForKey("value");
    }
    void touch(const std::string& key) { didChangeValueForKey(key); }
    int value() const { return value_; }

private:
    std::atomic<int> value_ = 0;
};

} // namespace

TEST(Observable, CallsOnlyObserversOfTheChangedKey) {
    Counter c;
    std::vector<std::string> log;
    c.addObserver("value", [&](Observable&, const std::string& key, Observable::ChangePhase) {
        log.push_back("a:" + key);
    });
    c.addObserver("other", [&](Observable&, const std::string& key, Observable::ChangePhase) {
        log.push_back("b:" + key);
    });
    c.set(1);
    c.touch("other");
    c.touch("nobody");
    EXPECT_EQ(log, (std::vector<std::string>{"a:value", "b:other"}));
    EXPECT_EQ(c.observerCount("value"), 1u);
    EXPECT_EQ(c.observerCount("nobody"), 0u);
}

TEST(Observable, CallbacksMayRemoveThemselvesAndOthers) {
    Counter c;
    int first = 0, second = 0;
    Observable::ObserverToken secondToken = 0;
    Observable::ObserverToken firstToken = 0;
    firstToken =
        c.addObserver("value", [&](Observable& o, const std::string&, Observable::ChangePhase) {
            ++first;
            o.removeObserver(firstToken);
            o.removeObserver(secondToken);
        });
    secondToken = c.addObserver(
        "value", [&](Observable&, const std::string&, Observable::ChangePhase) { ++second; });
    c.set(1);
    c.set(2);
    EXPECT_EQ(first, 1);
    // Removed by the first callback before its turn in the same round.
    EXPECT_EQ(second, 0);
    EXPECT_EQ(c.observerCount("value"), 0u);
    c.removeObserver(firstToken); // already gone: ignored
    c.removeObserver(0);
}

TEST(Observable, RemovalWaitsForACallInProgressOnAnotherThread) {
    Counter c;
    std::promise<void> entered;
    std::promise<void> release;
    std::shared_future<void> released = release.get_future().share();
    std::atomic<bool> callbackDone = false;
    const auto token =
        c.addObserver("value", [&](Observable&, const std::string&, Observable::ChangePhase) {
            entered.set_value();
            released.wait();
            callbackDone = true;
        });
    std::thread setter([&] { c.set(5); });
    entered.get_future().wait();

    std::atomic<bool> removed = false;
    std::thread remover([&] {
        c.removeObserver(token);
        removed = true;
        // Once removal returns the callback has finished.
        EXPECT_TRUE(callbackDone.load());
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    EXPECT_FALSE(removed.load());
    release.set_value();
    setter.join();
    remover.join();
    EXPECT_TRUE(removed.load());
}
