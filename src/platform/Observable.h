#pragma once
// Change announcements keyed by property name. A class derives from
// Observable and brackets each store with willChangeValueForKey() and
// didChangeValueForKey(); whoever registered for that key is called on the
// thread that made the change.
//
// Observers hear the change after the store. One that also wants to see the
// object before the store asks for the prior announcement when registering.
//
// Registration and removal may happen on any thread, also from inside a
// callback. Once removeObserver() returns, the callback is not running on any
// other thread and will not be called again, so the observer may be destroyed.

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

namespace velvox {

class Observable {
public:
    enum class ChangePhase { WillChange, DidChange };

    using Observer =
        std::function<void(Observable& object, const std::string& key, ChangePhase phase)>;
    // Identifies one registration; 0 is never handed out.
    using ObserverToken = uint64_t;

    Observable();
    virtual ~Observable();
    Observable(const Observable&) = delete;
    Observable& operator=(const Observable&) = delete;

    // Calls `observer` after every change of `key` (and, with notifyPrior,
    // also before it).
    ObserverToken addObserver(const std::string& key, Observer observer, bool notifyPrior = false);
    // Unknown or already removed tokens are ignored.
    void removeObserver(ObserverToken token);
    size_t observerCount(const std::string& key) const;

protected:
    void willChangeValueForKey(const std::string& key);
    void didChangeValueForKey(const std::string& key);

private:
    struct Registration;

    void announce(const std::string& key, ChangePhase phase);

    mutable std::mutex mutex_;
    std::condition_variable callsFinished_;
    std::vector<std::shared_ptr<Registration>> registrations_;
    ObserverToken nextToken_ = 1;
};

} // namespace velvox
