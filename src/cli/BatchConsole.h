#pragma once
// The terminal face of a batch, shared by "convert" and "tag": it queues the
// inputs, runs the controller's batch on the main run loop, shows progress,
// asks the overwrite question, turns Ctrl-C into the batch's cancel, and ends
// with the summary, the failure report and the error log.
//
// On a terminal each running file has a live row (its status and percentage)
// and results scroll above the rows; otherwise every start and every result
// is one plain line. The question is asked on the error stream, and only
// when standard input and the error stream are a terminal; the caller presets
// an answer otherwise.
//
// SIGINT and SIGTERM cancel the batch (exit status 130 and 143); a second
// one, or a batch that has not wound down within a second and a half (a
// decoder blocked in a read), ends the program at once after removing its
// temporary files.

#include <atomic>
#include <functional>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "jobs/BatchUserInterface.h"

namespace velvox {

class ApplicationController;

class BatchConsole : public BatchUserInterface {
public:
    enum class Mode { Convert, Tag };
    // Gets the queued jobs and the controller (to see whether the user
    // cancelled); false stops the run.
    using Preparation = std::function<bool(
        const std::vector<std::shared_ptr<FileEncodeOperation>>& jobs, ApplicationController&)>;

    BatchConsole(std::ostream& out, std::ostream& err, Mode mode);
    ~BatchConsole() override;

    // Whether standard input and output are terminals (the defaults of the
    // two switches below).
    static bool standardInputIsTerminal();
    static bool standardOutputIsTerminal();
    static bool standardErrorIsTerminal();
    void setLiveRows(bool value) { liveRows_ = value; }

    // Runs one batch on the calling thread, which becomes the main thread.
    // Main thread.
    // `prepare` runs on a worker thread after intake and before the batch
    // starts (the tag command edits the queued files' records there); it
    // returns false to stop. `missingInputs` counts inputs the caller already
    // reported as unusable. Returns the exit status: 0 when every file
    // succeeded or was skipped, 1 when any failed, 130 or 143 when
    // interrupted by SIGINT or SIGTERM.
    int run(ApplicationController& controller, const std::vector<std::string>& paths,
            size_t missingInputs, const Preparation& prepare);

    // ---- BatchUserInterface ----
    void beep() override;
    void showAlert(const std::string& message, const std::string& informativeText,
                   const std::string& button) override;
    void askQuestion(const std::string& message, const std::string& informativeText,
                     const std::vector<std::string>& buttons,
                     const std::string& suppressionTitle) override;
    void withdrawQuestion() override;
    void operationDidStart(const FileEncodeOperation& job) override;
    void operationDidFinish(const FileEncodeOperation& job) override;
    void showFailureSheet(const std::string& message,
                          const std::vector<std::string>& buttons) override;
    void openFolder(const std::string& path) override;

private:
    void printLine(const std::string& line);
    void clearRows();
    void drawRows();
    void joinQuestion();
    void watchForInterrupts();

    std::ostream& out_;
    std::ostream& err_;
    Mode mode_;
    bool liveRows_;
    ApplicationController* controller_ = nullptr;

    std::vector<const FileEncodeOperation*> running_;
    size_t drawnRows_ = 0;
    bool questionUp_ = false;
    bool alertShown_ = false;
    std::string failureMessage_;

    size_t succeeded_ = 0;
    size_t skipped_ = 0;
    size_t failed_ = 0;

    std::thread questionThread_;
    int questionWakeup_[2] = {-1, -1};
    std::thread interruptThread_;
    std::atomic<bool> interrupted_ = false;
};

} // namespace velvox
