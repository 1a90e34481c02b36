#include "core/FFMPEGInputOpener.h"

#include <cerrno>
#include <ctime>
#include <mutex>
#include <random>
#include <thread>

namespace velvox {

namespace {

struct SleepHook {
    std::mutex mutex;
    FFMPEGInputOpener::SleepFunction function;
};

SleepHook& sleepHook() {
    static SleepHook hook;
    return hook;
}

} // namespace

void FFMPEGInputOpener::setSleepFunction(SleepFunction sleep) {
    std::lock_guard lock(sleepHook().mutex);
    sleepHook().function = std::move(sleep);
}

void FFMPEGInputOpener::sleepFor(std::chrono::microseconds duration) {
    SleepFunction function;
    {
        std::lock_guard lock(sleepHook().mutex);
        function = sleepHook().function;
    }
    if (function)
        function(duration);
    else
        std::this_thread::sleep_for(duration);
}

int FFMPEGInputOpener::openInput(const std::string& path, AVFormatContextPtr& context) {
    // Seeded from the clock on every call: 1.0 to 3.9999 seconds in steps of
    // 100 microseconds.
    std::minstd_rand random(uint32_t(std::time(nullptr)));
    int err = 0;
    for (int tries = 1;; ++tries) {
        AVFormatContext* raw = nullptr;
        err = avformat_open_input(&raw, path.c_str(), nullptr, nullptr);
        context.reset(raw);
        if (err != AVERROR(ENOENT) || tries >= kMaxOpenTries)
            break;
        sleepFor(std::chrono::microseconds(1000000 + int64_t(random() % 30000) * 100));
    }
    return err;
}

} // namespace velvox
