#pragma once
// An Observable that runs as an operation: it announces "isExecuting" and
// "isFinished", and sets its other observed properties in one step, each
// store bracketed by the observers' will- and did-change notes for its key.

#include <atomic>
#include <mutex>
#include <string>
#include <utility>

#include "platform/Observable.h"

namespace velvox {

class ObservableOperation : public Observable {
public:
    bool isExecuting() const { return executing_; }
    bool isFinished() const { return finished_; }
    // Announces the end: executing off, finished on. Any thread; observers
    // hear it on the calling thread.
    void completeOperation() { setRunState(false, true); }

protected:
    // Any thread, like the setters below.
    void setExecuting(bool value) { setObserved("isExecuting", executing_, value); }
    // Both flags at once, announced together.
    void setRunState(bool executing, bool finished) {
        willChangeValueForKey("isFinished");
        willChangeValueForKey("isExecuting");
        executing_ = executing;
        finished_ = finished;
        didChangeValueForKey("isExecuting");
        didChangeValueForKey("isFinished");
    }

    template <typename Member, typename Value>
    void setObserved(const std::string& key, Member& member, Value&& value) {
        willChangeValueForKey(key);
        member = std::forward<Value>(value);
        didChangeValueForKey(key);
    }
    // For a member that `mutex` guards; observers are called outside it.
    template <typename Member, typename Value>
    void setObserved(const std::string& key, std::mutex& mutex, Member& member, Value&& value) {
        willChangeValueForKey(key);
        {
            std::lock_guard lock(mutex);
            member = std::forward<Value>(value);
        }
        didChangeValueForKey(key);
    }

    std::atomic<bool> executing_ = false;

private:
    std::atomic<bool> finished_ = false;
};

} // namespace velvox
