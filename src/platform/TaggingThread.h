#pragma once
// The one long-lived thread on which all tag reading and writing happens.
// Tag libraries are not safe to drive from several threads at once on the same
// file, and a batch writes tags from many encode threads: handing every tag
// job to this one serial queue keeps them apart without locks in the callers.

#include <condition_variable>
#include <deque>
#include <functional>
#include <mutex>
#include <thread>

namespace velvox {

class TaggingThread {
public:
    using Task = std::function<void()>;

    TaggingThread();
    // Runs the tasks already queued, then ends the thread.
    ~TaggingThread();
    TaggingThread(const TaggingThread&) = delete;
    TaggingThread& operator=(const TaggingThread&) = delete;

    // Queues a task and returns at once.
    void perform(Task task);
    // Runs a task on the tagging thread and waits for it; an exception it
    // throws is raised again in the caller. On the tagging thread itself the
    // task runs at once.
    void performAndWait(const Task& task);

    bool isCurrentThread() const { return std::this_thread::get_id() == thread_.get_id(); }

private:
    void main();

    std::mutex mutex_;
    std::condition_variable changed_;
    std::deque<Task> tasks_;
    bool stopping_ = false;
    std::thread thread_;
};

} // namespace velvox
