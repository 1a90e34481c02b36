#include "cli/BatchConsole.h"

#include <csignal>
#include <cstdio>
#include <filesystem>
#include <iostream>

#include <poll.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include "jobs/ApplicationController.h"
#include "jobs/FileEncodeOperation.h"
#include "platform/ErrorLog.h"
#include "platform/MainRunLoop.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

// Ctrl-C reaches the batch through this pipe: the handler may only write.
int gInterruptPipe[2] = {-1, -1};

extern "C" void onInterrupt(int) {
    const char byte = 'i';
    [[maybe_unused]] ssize_t written = ::write(gInterruptPipe[1], &byte, 1);
    // A second Ctrl-C ends the program at once.
    struct sigaction fallback {};
    fallback.sa_handler = SIG_DFL;
    sigemptyset(&fallback.sa_mask);
    ::sigaction(SIGINT, &fallback, nullptr);
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
            {
                std::lock_guard lock(outputMutex());
                out_ << message << '\n' << informativeText << '\n';
            }
            bool answered = false;
            bool withdrawnOrEnded = false;
            while (!answered) {
                {
                    std::lock_guard lock(outputMutex());
                    // "No" keeps both files under a new name; "Yes" replaces.
                    out_ << "[n] " << buttons.at(0) << " (keep both)  [y] " << buttons.at(1)
                         << " (overwrite)  [s] " << buttons.at(2) << ": ";
                    out_.flush();
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
                    out_ << suppressionTitle << "? [y/N]: ";
                    out_.flush();
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

void BatchConsole::watchForInterrupts() {
    for (;;) {
        pollfd fd{gInterruptPipe[0], POLLIN, 0};
        if (::poll(&fd, 1, -1) < 0) {
            if (errno == EINTR)
                continue;
            return;
        }
        char byte;
        if (::read(gInterruptPipe[0], &byte, 1) != 1 || byte == 'q')
            return;
        interrupted_ = true;
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
        if (watching) {
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
        return finish(130);
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
            return finish(130);
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
    if (!failureMessage_.empty())
        printLine(failureMessage_);
    std::vector<ErrorLog::Entry> log = ErrorLog::sharedController().entries();
    std::vector<ErrorLog::Entry> info;
    std::erase_if(log, [&info](const ErrorLog::Entry& entry) {
        const bool isInfo = entry.level == ErrorLog::Level::Info;
        if (isInfo)
            info.push_back(entry);
        return isInfo;
    });
    if (showsInfoLines_ && !info.empty()) {
        std::lock_guard lock(outputMutex());
        for (const ErrorLog::Entry& entry : info)
            out_ << entry.message << '\n';
        out_.flush();
    }
    if (!log.empty()) {
        std::lock_guard lock(outputMutex());
        err_ << "Error log:\n";
        for (const ErrorLog::Entry& entry : log)
            err_ << "  " << ErrorLog::formatEntry(entry) << '\n';
        err_.flush();
    }
    if (interrupted_)
        return finish(130);
    return finish(failed_ + missingInputs > 0 ? 1 : 0);
}

} // namespace velvox
