#pragma once
// Opens a file with libavformat, for decoding and for metadata reading. A
// file that is not there (yet) may still be arriving — a download finishing,
// a network share catching up — so a missing file is retried a few times after a randomised
// wait, so that parallel jobs do not retry in lockstep. Any other error gives
// up at once.

#include <chrono>
#include <functional>
#include <memory>
#include <string>

#include "core/LibavHandles.h"

namespace velvox {

class FFMPEGInputOpener {
public:
    using SleepFunction = std::function<void(std::chrono::microseconds)>;

    // Tries made to open a missing file before giving up.
    static constexpr int kMaxOpenTries = 4;

    // avformat_open_input with the retry; returns its result (0 or an AVERROR)
    // and, on success, the opened context.
    static int openInput(const std::string& path, AVFormatContextPtr& context);

    // How the waits between tries are made. Tests install a recorder; an
    // empty function restores the real sleep.
    static void setSleepFunction(SleepFunction sleep);

private:
    static void sleepFor(std::chrono::microseconds duration);
};

} // namespace velvox
