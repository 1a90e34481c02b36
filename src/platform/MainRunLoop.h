#pragma once
// The program's main run loop: a queue of tasks drained by the one thread
// that owns the controller's state, the lists, the counters and every question
// to the user. Other threads hand work to it with perform().
//
// The thread that calls runUntil() is the main thread from then on.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <thread>

namespace velvox {

class MainRunLoop {
public:
    using Task = std::function<void()>;

    static MainRunLoop& shared();

    // Queues a task for the main thread. With waitUntilDone the caller blocks
    // until it has run (and receives any exception it threw); called on the
    // main thread itself, a waiting perform runs the task at once.
    void perform(Task task, bool waitUntilDone);

    // Runs tasks until `done` returns true (checked after every task and when
    // woken) or the timeout passes; returns whether `done` became true.
    bool runUntil(const std::function<bool()>& done,
                  std::optional<std::chrono::milliseconds> timeout = std::nullopt);
    // Wakes runUntil() so that it checks its condition again.
    void wake();

    // For a host that has its own event loop (the desktop application): the
    // handler is called, on the posting thread, each time a task is queued or
    // the loop is woken, and the host answers by calling runPendingTasks() on
    // its own main thread, which becomes this loop's main thread.
    void setTaskPostedHandler(std::function<void()> handler);
    // Runs the tasks queued so far (not those they queue in turn) and returns.
    void runPendingTasks();

    bool isMainThread() const;

private:
    MainRunLoop() = default;
    bool runOne(std::unique_lock<std::mutex>& lock);
    void notifyHost();

    mutable std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Task> tasks_;
    std::optional<std::thread::id> mainThread_;
    uint64_t wakeups_ = 0;
    std::function<void()> taskPosted_;
    std::atomic<bool> hasTaskPostedHandler_ = false;
};

// Shorthand used throughout the jobs code.
inline void performOnMainThread(MainRunLoop::Task task, bool waitUntilDone) {
    MainRunLoop::shared().perform(std::move(task), waitUntilDone);
}

} // namespace velvox
