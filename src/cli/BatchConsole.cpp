#include "cli/BatchConsole.h"

#include <chrono>
#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <optional>

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "jobs/ApplicationController.h"
#include "jobs/FileEncodeOperation.h"
#include "platform/ErrorLog.h"
#include "platform/MainRunLoop.h"
#include "platform/StringFormat.h"
#include "platform/TemporaryFiles.h"

namespace velvox {

namespace {

// Ctrl-C and SIGTERM reach the batch through this pipe: the handler may
// only write. The byte says which signal came.
int gInterruptPipe[2] = {-1, -1};
// The exit status an interrupted run ends with: 128 + the first signal. A
// global, because the watcher may outlive the console.
std::atomic<int> gInterruptStatus = 130;

extern "C" void onInterrupt(int signal) {
    const char byte = signal == SIGTERM ? 't' : 'i';
    [[maybe_unused]] ssize_t written = ::write(gInterruptPipe[1], &byte, 1);
}

// How long a cancelled batch may take to wind down before the program ends
// without it: a decoder blocked in a read never comes back to look at the
// cancel flag.
constexpr auto kWindDownLimit = std::chrono::milliseconds(1500);

// Ends the program now, from the interrupt watcher: removes what temporary
// files it can, then leaves without unwinding threads that may be stuck.
[[noreturn]] void endAtOnce(int status) {
    TemporaryFiles::removeAllNow();
    static const char note[] = "velvox: interrupted; quitting at once\n";
    [[maybe_unused]] ssize_t written = ::write(STDERR_FILENO, note, sizeof note - 1);
    ::_exit(status);
}

std::mutex& outputMutex() {
    static std::mutex mutex;
    return mutex;
}

size_t terminalWidth() {
    winsize size{};
    if (::ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0)
        return size.ws_col;
    return 80;
}

// Cuts UTF-8 text to at most `columns` characters, never inside a character.
std::string fitToColumns(const std::string& text, size_t columns) {
    size_t characters = 0;
    for (size_t i = 0; i < text.size(); ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) {
            if (characters == columns)
                return text.substr(0, i);
            ++characters;
        }
    }
    return text;
}

// Reads one line from standard input; false when `wakeup` became readable
// first or the input ended.
bool readAnswer(int wakeup, std::string& line) {
    line.clear();
    for (;;) {
        pollfd fds[2] = {{STDIN_FILENO, POLLIN, 0}, {wakeup, POLLIN, 0}};
        if (::poll(fds, 2, -1) < 0) {
            if (errno == EINTR)
                continue;
            return false;
        }
        if (fds[1].revents != 0)
            return false;
        char c;
        const ssize_t n = ::read(STDIN_FILENO, &c, 1);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        if (c == '\n')
            return true;
        line += c;
    }
}

} // namespace

BatchConsole::BatchConsole(std::ostream& out, std::ostream& err, Mode mode)
    : out_(out), err_(err), mode_(mode), liveRows_(standardOutputIsTerminal()) {}

BatchConsole::~BatchConsole() { joinQuestion(); }

bool BatchConsole::standardInputIsTerminal() { return ::isatty(STDIN_FILENO) == 1; }
bool BatchConsole::standardOutputIsTerminal() { return ::isatty(STDOUT_FILENO) == 1; }
bool BatchConsole::standardErrorIsTerminal() { return ::isatty(STDERR_FILENO) == 1; }

// ---- Output ----

void BatchConsole::printLine(const std::string& line) {
    std::lock_guard lock(outputMutex());
    clearRows();
    out_ << line << '\n';
    out_.flush();
}

void BatchConsole::clearRows() {
    if (drawnRows_ > 0)
        out_ << "\x1b[" << drawnRows_ << "F\x1b[J";
    drawnRows_ = 0;
}

void BatchConsole::drawRows() {
    if (!liveRows_ || questionUp_)
        return;
    std::lock_guard lock(outputMutex());
    clearRows();
    const size_t width = terminalWidth();
    for (const FileEncodeOperation* job : running_) {
        const std::string row = stringWithFormat(
            "[%5.1f%%] %@", double(job->percentComplete()) * 100.0, job->currentStatus());
        out_ << fitToColumns(row, width > 1 ? width - 1 : width) << '\n';
        ++drawnRows_;
    }
    out_.flush();
}

// ---- BatchUserInterface ----

void BatchConsole::beep() {
    if (liveRows_)
        printLine("\a");
}

void BatchConsole::showAlert(const std::string& message, const std::string& informativeText,
                             const std::string&) {
    alertShown_ = true;
    std::lock_guard lock(outputMutex());
    clearRows();
    err_ << "velvox: " << message << "\n" << informativeText << "\n";
    err_.flush();
}

void BatchConsole::askQuestion(const std::string& message, const std::string& informativeText,
                               const std::vector<std::string>& buttons,
                               const std::string& suppressionTitle) {
    joinQuestion();
    {
        std::lock_guard lock(outputMutex());
        clearRows();
    }
    questionUp_ = true;
    if (::pipe(questionWakeup_) != 0) {
        // Without a way to withdraw it the question cannot be asked safely;
        // keeping both files loses nothing.
        questionUp_ = false;
        controller_->alertDidEnd(ApplicationController::kAlertFirstButtonReturn, false);
        return;
    }
    const int wakeup = questionWakeup_[0];
    questionThread_ =
        std::thread([this, message, informativeText, buttons, suppressionTitle, wakeup] {
            int code = ApplicationController::kAlertFirstButtonReturn;
            bool applyToAll = false;
            std::string line;
            // The question goes where the user sees it even when the
            // results are piped away: the error stream, a terminal.
            {
                std::lock_guard lock(outputMutex());
                err_ << message << '\n' << informativeText << '\n';
            }
            bool answered = false;
            bool withdrawnOrEnded = false;
            while (!answered) {
                {
                    std::lock_guard lock(outputMutex());
                    // "No" keeps both files under a new name; "Yes" replaces.
                    err_ << "[n] " << buttons.at(0) << " (keep both)  [y] " << buttons.at(1)
                         << " (overwrite)  [s] " << buttons.at(2) << ": ";
                    err_.flush();
                }
                if (!readAnswer(wakeup, line)) {
                    withdrawnOrEnded = true;
                    break;
                }
                const char c = line.empty() ? '\0' : char(std::tolower(line.front()));
                if (c == 'n' || c == 'y' || c == 's') {
                    code = c == 'n'   ? ApplicationController::kAlertFirstButtonReturn
                           : c == 'y' ? ApplicationController::kAlertSecondButtonReturn
                                      : ApplicationController::kAlertThirdButtonReturn;
                    answered = true;
                }
            }
            if (answered) {
                {
                    std::lock_guard lock(outputMutex());
                    err_ << suppressionTitle << "? [y/N]: ";
                    err_.flush();
                }
                if (readAnswer(wakeup, line))
                    applyToAll = !line.empty() && std::tolower(line.front()) == 'y';
                else
                    withdrawnOrEnded = true;
            }
            if (withdrawnOrEnded && !answered) {
                // Input ended: keep both files, for the rest of the batch too.
                pollfd wake{wakeup, POLLIN, 0};
                if (::poll(&wake, 1, 0) > 0)
                    return; // withdrawn: the batch no longer waits for an answer
                code = ApplicationController::kAlertFirstButtonReturn;
                applyToAll = true;
            }
            performOnMainThread(
                [this, code, applyToAll] {
                    questionUp_ = false;
                    controller_->alertDidEnd(code, applyToAll);
                },
                false);
        });
}

void BatchConsole::withdrawQuestion() {
    questionUp_ = false;
    if (questionWakeup_[1] >= 0) {
        const char byte = 'w';
        [[maybe_unused]] ssize_t written = ::write(questionWakeup_[1], &byte, 1);
    }
    printLine("");
}

void BatchConsole::joinQuestion() {
    if (questionThread_.joinable()) {
        if (questionWakeup_[1] >= 0) {
            const char byte = 'w';
            [[maybe_unused]] ssize_t written = ::write(questionWakeup_[1], &byte, 1);
        }
        questionThread_.join();
    }
    for (int& fd : questionWakeup_) {
        if (fd >= 0)
            ::close(fd);
        fd = -1;
    }
}

void BatchConsole::operationDidStart(const FileEncodeOperation& job) {
    running_.push_back(&job);
    if (!liveRows_)
        printLine((mode_ == Mode::Tag ? "Tagging " : "Converting ") + job.inFilePath());
}

void BatchConsole::operationDidFinish(const FileEncodeOperation& job) {
    std::erase(running_, &job);
    const std::string in = job.inFilePath();
    if (job.isCancelled()) {
        printLine("Cancelled: " + in);
    } else if (!job.success()) {
        ++failed_;
        printLine("FAILED: " + in);
        for (const std::string& reason : job.failureReasons())
            printLine("  " + reason);
    } else if (job.skipped() && job.outputPaths().empty()) {
        ++skipped_;
        printLine("Skipped: " + in);
    } else {
        ++succeeded_;
        if (mode_ == Mode::Tag) {
            printLine("Tagged: " + in);
        } else {
            for (const std::string& out : job.outputPaths())
                printLine(in + " -> " + out);
        }
    }
}

void BatchConsole::showFailureSheet(const std::string& message, const std::vector<std::string>&) {
    failureMessage_ = message;
}

void BatchConsole::openFolder(const std::string& path) { printLine("Output folder: " + path); }

// ---- The run ----

// The watcher's own thread. After the first signal it stays until the
// program has ended, whatever the rest of it does: it ends the program
// itself at the second signal or when winding down takes too long.
void BatchConsole::watchForInterrupts() {
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> deadline;
    for (;;) {
        int timeout = -1;
        if (deadline) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now());
            if (left.count() <= 0)
                endAtOnce(gInterruptStatus);
            timeout = int(left.count());
        }
        pollfd fd{gInterruptPipe[0], POLLIN, 0};
        const int ready = ::poll(&fd, 1, timeout);
        if (ready < 0 && errno != EINTR)
            return;
        if (ready <= 0)
            continue;
        char byte;
        if (::read(gInterruptPipe[0], &byte, 1) != 1)
            return;
        if (byte == 'q') {
            if (!deadline)
                return;
            continue;
        }
        if (deadline)
            endAtOnce(gInterruptStatus); // the second signal
        gInterruptStatus = byte == 't' ? 128 + SIGTERM : 128 + SIGINT;
        interrupted_ = true;
        deadline = Clock::now() + kWindDownLimit;
        performOnMainThread(
            [this] {
                printLine("Cancelling; press Ctrl-C again to quit at once.");
                controller_->cancel();
            },
            false);
    }
}

int BatchConsole::run(ApplicationController& controller, const std::vector<std::string>& paths,
                      size_t missingInputs, const Preparation& prepare) {
    controller_ = &controller;
    controller.setUserInterface(this);
    MainRunLoop& loop = MainRunLoop::shared();

    // Ctrl-C (and a polite kill) cancel the batch instead of killing it half-way.
    struct sigaction previousInt {
    }, previousTerm{};
    const bool watching = ::pipe(gInterruptPipe) == 0;
    if (watching) {
        struct sigaction action {};
        action.sa_handler = onInterrupt;
        sigemptyset(&action.sa_mask);
        ::sigaction(SIGINT, &action, &previousInt);
        ::sigaction(SIGTERM, &action, &previousTerm);
        interruptThread_ = std::thread([this] { watchForInterrupts(); });
    }
    auto finish = [&](int status) {
        if (watching && interrupted_) {
            // The watcher stays, handlers and all, to end the program should
            // what follows (threads joined as the batch's objects go) hang.
            interruptThread_.detach();
        } else if (watching) {
            ::sigaction(SIGINT, &previousInt, nullptr);
            ::sigaction(SIGTERM, &previousTerm, nullptr);
            const char byte = 'q';
            [[maybe_unused]] ssize_t written = ::write(gInterruptPipe[1], &byte, 1);
            interruptThread_.join();
            ::close(gInterruptPipe[0]);
            ::close(gInterruptPipe[1]);
            gInterruptPipe[0] = gInterruptPipe[1] = -1;
        }
        joinQuestion();
        // Tasks still queued for the main thread (late progress reports, a
        // cancel that came after the end) run now, while their targets live.
        bool drained = false;
        loop.perform([&drained] { drained = true; }, false);
        loop.runUntil([&drained] { return drained; });
        controller.setUserInterface(nullptr);
        return status;
    };

    // Intake walks folders off the main thread.
    std::atomic<bool> workerDone = false;
    std::thread intake([&] {
        controller.parseDroppedFiles(paths);
        workerDone = true;
        loop.wake();
    });
    loop.runUntil([&] { return workerDone.load(); });
    intake.join();
    if (interrupted_)
        return finish(gInterruptStatus);
    const size_t queued = controller.operations().size();
    if (queued == 0) {
        err_ << "velvox: nothing to " << (mode_ == Mode::Tag ? "tag" : "convert")
             << ": no file of a format Velvox reads was given\n";
        return finish(1);
    }

    if (prepare) {
        bool prepared = false;
        workerDone = false;
        // The queue as it stands, taken here on the main thread: the list
        // itself belongs to the main thread.
        const auto jobs = controller.operations();
        std::thread worker([&] {
            prepared = prepare(jobs, controller);
            workerDone = true;
            loop.wake();
        });
        loop.runUntil([&] { return workerDone.load(); });
        worker.join();
        if (!prepared)
            return finish(1);
        if (interrupted_)
            return finish(gInterruptStatus);
    }

    controller.encode();
    if (!controller.encoderRunning() && alertShown_)
        return finish(1);
    while (controller.encoderRunning()) {
        loop.runUntil([&] { return !controller.encoderRunning(); }, std::chrono::milliseconds(100));
        drawRows();
    }
    {
        std::lock_guard lock(outputMutex());
        clearRows();
    }

    const size_t notDone =
        queued > succeeded_ + skipped_ + failed_ ? queued - succeeded_ - skipped_ - failed_ : 0;
    std::string summary = stringWithFormat("%zu %s, %zu skipped, %zu failed", succeeded_,
                                           mode_ == Mode::Tag ? "tagged" : "converted", skipped_,
                                           failed_ + missingInputs);
    if (interrupted_)
        summary += stringWithFormat(", %zu not done (interrupted)", notDone);
    printLine(summary + ".");
    if (!failureMessage_.empty()) {
        // The controller's report speaks of encoding; a tag-only run says
        // what it failed to do.
        if (mode_ == Mode::Tag && controller.failedCount() > 0)
            printLine(stringWithFormat(
                "Failed to update the tags of %ld of %ld files.", long(controller.failedCount()),
                long(controller.failedCount() + controller.successfulCount())));
        else
            printLine(failureMessage_);
    }
    const std::vector<ErrorLog::Entry> log = ErrorLog::sharedController().entries();
    if (!log.empty()) {
        std::lock_guard lock(outputMutex());
        err_ << "Error log:\n";
        for (const ErrorLog::Entry& entry : log)
            err_ << "  " << ErrorLog::formatEntry(entry) << '\n';
        err_.flush();
    }
    if (interrupted_)
        return finish(gInterruptStatus);
    return finish(failed_ + missingInputs > 0 ? 1 : 0);
}

} // namespace velvox
