#include "platform/TaggingThread.h"

#include <exception>
#include <future>

namespace velvox {

TaggingThread::TaggingThread() : thread_([this] { main(); }) {}

TaggingThread::~TaggingThread() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    changed_.notify_all();
    thread_.join();
}

void TaggingThread::perform(Task task) {
    {
        std::lock_guard lock(mutex_);
        tasks_.push_back(std::move(task));
    }
    changed_.notify_all();
}

void TaggingThread::performAndWait(const Task& task) {
    if (isCurrentThread()) {
        task();
        return;
    }
    std::promise<void> done;
    std::future<void> finished = done.get_future();
    perform([&] {
        try {
            task();
            done.set_value();
        } catch (...) {
            done.set_exception(std::current_exception());
        }
    });
    finished.get();
}

void TaggingThread::main() {
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return stopping_ || !tasks_.empty(); });
        if (tasks_.empty())
            return; // stopping, nothing left
        Task task = std::move(tasks_.front());
        tasks_.pop_front();
        lock.unlock();
        try {
            task();
        } catch (...) {
            // A fire-and-forget task has nobody to report to; the tag code
            // logs its own failures.
        }
        lock.lock();
    }
}

} // namespace velvox
