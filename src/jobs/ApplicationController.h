#pragma once
// Owns a batch: the queue of file jobs, the output formats, the intake of
// dropped files and folders, the start of a batch with its checks, the
// throttle that keeps at most "numProcesses" file jobs running, the question
// about existing output files and the report at the end.
//
// Its state lives on the main thread: every call except parseDroppedFiles()
// is made there, and the jobs report back there. The user interface is
// reached through BatchUserInterface.

#include <atomic>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "jobs/FileEncodeOperationDelegate.h"
#include "platform/TaggingThread.h"

namespace velvox {

class BatchUserInterface;
class EncoderSettings;
class FileEncodeOperation;

class ApplicationController : public FileEncodeOperationDelegate {
public:
    // The batch-wide answer to the overwrite question.
    enum : int32_t {
        OverwriteHandlingAsk = 0,
        OverwriteHandlingSkip = 1,
        OverwriteHandlingOverwrite = 2,
        OverwriteHandlingKeepBoth = 3,
    };
    // Return codes of the question's buttons, in the order they are offered.
    static constexpr int kAlertFirstButtonReturn = 1000;  // "No"
    static constexpr int kAlertSecondButtonReturn = 1001; // "Yes"
    static constexpr int kAlertThirdButtonReturn = 1002;  // "Skip"

    // Loads the output formats from the saved preferences.
    ApplicationController();
    // Waits for the tagging thread; the batch must be over.
    ~ApplicationController() override;

    void setUserInterface(BatchUserInterface* ui) { ui_ = ui; }

    // ---- Intake ----
    // Off the main thread: walks the paths (folders recursively, hidden
    // files left out) and queues every accepted file not queued yet.
    void parseDroppedFiles(const std::vector<std::string>& paths);
    void addFileEncodeOperationToQueueWithFilePath(const std::string& path,
                                                   const std::string& topLevelPath);
    bool isParsing() const { return parsing_; }
    // Main thread: takes the given jobs out of the queue, except those that
    // are running; answers how many went.
    size_t removeOperations(std::vector<std::shared_ptr<FileEncodeOperation>> jobs);

    // ---- The batch ----
    void encode();
    void cancel();
    void operationDidFinish(const std::shared_ptr<FileEncodeOperation>& operation);
    void waitingUserInputDidChange(const std::shared_ptr<EncodeOperation>& operation) override;
    void alertDidEnd(int returnCode, bool suppressionButtonOn);

    // ---- Lists and state ----
    const std::vector<std::shared_ptr<FileEncodeOperation>>& operations() const {
        return operations_;
    }
    std::vector<std::shared_ptr<EncoderSettings>> encoderSettings() override {
        return encoderSettings_;
    }
    void setEncoderSettings(std::vector<std::shared_ptr<EncoderSettings>> settings);
    void loadEncoderSettings();
    // The output formats as the preferences keep them ("encoderSettings", a
    // list of settings dictionaries); entries that are not dictionaries are
    // passed over. Saving answers whether the store was written.
    static std::vector<std::shared_ptr<EncoderSettings>> savedEncoderSettings();
    static bool saveEncoderSettings(const std::vector<std::shared_ptr<EncoderSettings>>& settings);
    // Writes the output formats under "encoderSettings", unless they were
    // given for this run only.
    void saveUserDefaults();
    void setPersistsOutputFormats(bool value) { persistsOutputFormats_ = value; }

    int32_t overwriteExistingFilesHandling() const { return overwriteExistingFilesHandling_; }
    // The answer each batch starts with; the command line presets one when
    // nobody is there to ask.
    void setInitialOverwriteHandling(int32_t value) { initialOverwriteHandling_ = value; }

    bool encoderRunning() const { return encoderRunning_; }
    // Some queued input is an MP3 file.
    bool containsMP3Files() const;
    bool stopRequested() const { return stop_; }
    int64_t runningCount() const { return runningCount_; }
    int64_t failedCount() const { return failedCount_; }
    int64_t successfulCount() const { return successfulCount_; }
    // The largest number of file jobs that ran at once in this batch.
    int64_t peakRunningCount() const { return peakRunningCount_; }

    bool createdOutputPathsContains(const std::string& path) override;
    void addCreatedOutputPath(const std::string& path) override;
    TaggingThread& taggingThread() override { return taggingThread_; }

private:
    bool isQueued(const std::string& path) const;
    bool anyJobExecuting() const;
    int64_t numProcesses() const;
    bool firstFormatUpdatesMetadataOnly() const;
    bool keepsFinishedJobs() const;
    // Checks the output folder; false after showing the alert.
    bool outputFolderIsUsable();
    void startJob(const std::shared_ptr<FileEncodeOperation>& job);
    // Starts jobs from the cursor on while fewer than "numProcesses" run.
    void startNextJobs();
    // Resumes an operation stopped at the overwrite question with an answer.
    void applyOverwriteHandling(EncodeOperation& operation, int32_t handling);
    void batchDidEnd();
    void removeJob(const std::shared_ptr<FileEncodeOperation>& job);

    BatchUserInterface* ui_ = nullptr;
    TaggingThread taggingThread_;

    std::vector<std::shared_ptr<FileEncodeOperation>> operations_;
    std::vector<uint64_t> finishObservers_; // parallel to operations_
    std::vector<std::shared_ptr<EncoderSettings>> encoderSettings_;
    std::vector<std::string> createdOutputPaths_;

    int64_t runningCount_ = 0;
    int64_t nextIndex_ = 0;
    int64_t failedCount_ = 0;
    int64_t successfulCount_ = 0;
    int64_t peakRunningCount_ = 0;
    int32_t overwriteExistingFilesHandling_ = OverwriteHandlingAsk;
    int32_t initialOverwriteHandling_ = OverwriteHandlingAsk;
    bool alertUp_ = false;
    std::shared_ptr<EncodeOperation> alertOperation_;
    std::atomic<bool> parsing_ = false;
    std::atomic<bool> stop_ = false;
    bool encoderRunning_ = false;
    bool persistsOutputFormats_ = true;
};

} // namespace velvox
