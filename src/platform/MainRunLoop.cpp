#include "platform/MainRunLoop.h"

#include <exception>
#include <future>

namespace velvox {

MainRunLoop& MainRunLoop::shared() {
    // Never destroyed: an operation thread still finishing while the
    // process exits may post to it, and must not find it torn down.
    static MainRunLoop* const loop = new MainRunLoop;
    return *loop;
}

bool MainRunLoop::isMainThread() const {
    std::lock_guard lock(mutex_);
    return mainThread_ && *mainThread_ == std::this_thread::get_id();
}

void MainRunLoop::perform(Task task, bool waitUntilDone) {
    if (!waitUntilDone) {
        {
            std::lock_guard lock(mutex_);
            tasks_.push_back(std::move(task));
        }
        changed_.notify_all();
        notifyHost();
        return;
    }
    if (isMainThread()) {
        task();
        return;
    }
    auto done = std::make_shared<std::promise<void>>();
    std::future<void> finished = done->get_future();
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back([task = std::move(task), done] {
            try {
                task();
                done->set_value();
            } catch (...) {
                done->set_exception(std::current_exception());
            }
        });
    }
    changed_.notify_all();
    notifyHost();
    finished.get();
}

bool MainRunLoop::runOne(std::unique_lock<std::mutex>& lock) {
    if (tasks_.empty())
        return false;
    Task task = std::move(tasks_.front());
    tasks_.pop_front();
    lock.unlock();
    task();
    // The task's captures (often the last owner of a job, whose destructor
    // joins a thread that may be posting here) are released before the lock
    // is taken again.
    task = nullptr;
    lock.lock();
    return true;
}

bool MainRunLoop::runUntil(const std::function<bool()>& done,
                           std::optional<std::chrono::milliseconds> timeout) {
    const bool hasDeadline = timeout.has_value();
    const auto deadline =
        std::chrono::steady_clock::now() + timeout.value_or(std::chrono::milliseconds(0));
    std::unique_lock lock(mutex_);
    mainThread_ = std::this_thread::get_id();
    for (;;) {
        lock.unlock();
        const bool finished = done();
        lock.lock();
        if (finished)
            return true;
        if (runOne(lock))
            continue;
        const uint64_t seen = wakeups_;
        auto ready = [&] { return !tasks_.empty() || wakeups_ != seen; };
        if (hasDeadline) {
            if (!changed_.wait_until(lock, deadline, ready)) {
                lock.unlock();
                return done();
            }
        } else {
            changed_.wait(lock, ready);
        }
    }
}

void MainRunLoop::wake() {
    {
        std::lock_guard lock(mutex_);
        ++wakeups_;
    }
    changed_.notify_all();
    notifyHost();
}

void MainRunLoop::setTaskPostedHandler(std::function<void()> handler) {
    std::lock_guard lock(mutex_);
    hasTaskPostedHandler_ = bool(handler);
    taskPosted_ = std::move(handler);
}

void MainRunLoop::notifyHost() {
    if (!hasTaskPostedHandler_)
        return;
    std::function<void()> handler;
    {
        std::lock_guard lock(mutex_);
        handler = taskPosted_;
    }
    if (handler)
        handler();
}

void MainRunLoop::runPendingTasks() {
    std::unique_lock lock(mutex_);
    mainThread_ = std::this_thread::get_id();
    for (size_t pending = tasks_.size(); pending > 0 && !tasks_.empty(); --pending)
        runOne(lock);
}

} // namespace velvox
