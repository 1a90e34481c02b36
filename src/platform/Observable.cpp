#include "platform/Observable.h"

#include <algorithm>
#include <thread>

namespace velvox {

struct Observable::Registration {
    ObserverToken token = 0;
    std::string key;
    Observer observer;
    bool notifyPrior = false;
    bool removed = false;
    // Threads currently inside this observer's callback (a thread appears
    // once per nesting level when a callback triggers another change).
    std::vector<std::thread::id> callers;
};

Observable::Observable() = default;

Observable::~Observable() = default;

Observable::ObserverToken Observable::addObserver(const std::string& key, Observer observer,
                                                  bool notifyPrior) {
    auto registration = std::make_shared<Registration>();
    registration->key = key;
    registration->observer = std::move(observer);
    registration->notifyPrior = notifyPrior;
    std::lock_guard lock(mutex_);
    registration->token = nextToken_++;
    registrations_.push_back(registration);
    return registration->token;
}

void Observable::removeObserver(ObserverToken token) {
    std::unique_lock lock(mutex_);
    auto it = std::find_if(registrations_.begin(), registrations_.end(),
                           [token](const auto& r) { return r->token == token; });
    if (it == registrations_.end())
        return;
    std::shared_ptr<Registration> registration = *it;
    registrations_.erase(it);
    registration->removed = true;
    // Wait for calls in progress on other threads; a callback that removes
    // itself must not wait for its own call to end.
    const auto self = std::this_thread::get_id();
    callsFinished_.wait(lock, [&] {
        return std::all_of(registration->callers.begin(), registration->callers.end(),
                           [self](std::thread::id id) { return id == self; });
    });
}

size_t Observable::observerCount(const std::string& key) const {
    std::lock_guard lock(mutex_);
    return size_t(std::count_if(registrations_.begin(), registrations_.end(),
                                [&key](const auto& r) { return r->key == key; }));
}

void Observable::willChangeValueForKey(const std::string& key) {
    announce(key, ChangePhase::WillChange);
}

void Observable::didChangeValueForKey(const std::string& key) {
    announce(key, ChangePhase::DidChange);
}

void Observable::announce(const std::string& key, ChangePhase phase) {
    std::vector<std::shared_ptr<Registration>> targets;
    {
        std::lock_guard lock(mutex_);
        for (const auto& r : registrations_)
            if (r->key == key && (phase == ChangePhase::DidChange || r->notifyPrior))
                targets.push_back(r);
    }
    const auto self = std::this_thread::get_id();
    for (const auto& r : targets) {
        {
            // An observer removed by an earlier callback of this round is
            // not called any more.
            std::lock_guard lock(mutex_);
            if (r->removed)
                continue;
            r->callers.push_back(self);
        }
        struct CallEnd {
            Observable& owner;
            Registration& registration;
            std::thread::id self;
            ~CallEnd() {
                std::lock_guard lock(owner.mutex_);
                auto& callers = registration.callers;
                callers.erase(std::find(callers.begin(), callers.end(), self));
                owner.callsFinished_.notify_all();
            }
        } end{*this, *r, self};
        r->observer(*this, key, phase);
    }
}

} // namespace velvox
