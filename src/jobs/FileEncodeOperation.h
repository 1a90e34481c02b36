#pragma once
// The job for one queued input file. It fans the file out to one encode
// operation per applicable output format, runs them side by side, folds their
// progress and status into one row, counts what succeeded and what failed and,
// when every operation is done, may move the input to the trash.
//
// Observers hear "isExecuting", "isFinished", "percentComplete" and
// "currentStatus". Everything the user sees changes on the main thread; the
// encode operations report from their own threads and are handed over.

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "jobs/ObservableOperation.h"
#include "metadata/AudioMetadata.h"

namespace velvox {

class EncodeOperation;
class EncoderSettings;
class FileEncodeOperationDelegate;

class FileEncodeOperation : public ObservableOperation,
                            public std::enable_shared_from_this<FileEncodeOperation> {
public:
    // Jobs hand themselves to other threads, so they only live in shared_ptrs.
    static std::shared_ptr<FileEncodeOperation> create(const std::string& fullPath,
                                                       const std::string& topLevelPath);
    // Cancels what still runs and waits for every thread of this job.
    ~FileEncodeOperation() override;

    // Runs main() on a thread of its own; a job cancelled before it started
    // finishes at once.
    void start();
    void main();
    void cancel();
    void setCancelled(bool value);
    // Makes the row ready to run again.
    void resetOperation();

    // ---- Properties ----
    std::string inFilePath() const;
    const std::string& topLevelPath() const { return topLevelPath_; }
    FileEncodeOperationDelegate* delegate() const { return delegate_; }
    void setDelegate(FileEncodeOperationDelegate* delegate) { delegate_ = delegate; }

    // Read from the input on first use, on the delegate's tagging thread, and
    // shared by every encode operation of this job.
    std::shared_ptr<AudioMetadata> metadata();
    void setMetadata(std::shared_ptr<AudioMetadata> metadata);

    // The encode operations not yet finished.
    std::vector<std::shared_ptr<EncodeOperation>> operations() const;
    // The output files made by this run of the job (skips and failures left out).
    std::vector<std::string> outputPaths() const;
    // The causes its failed operations gave, each once, in the order they
    // failed (empty for a failure that named none). Any thread.
    std::vector<std::string> failureReasons() const;

    float percentComplete() const { return percentComplete_; }
    void setPercentCompleteNumber(float value);
    bool progressUnknown() const { return progressUnknown_; }
    uint64_t successfulEncodes() const { return successfulEncodes_; }
    uint64_t failedEncodes() const { return failedEncodes_; }
    bool success() const { return success_; }
    bool skipped() const { return skipped_; }
    bool isCancelled() const { return cancelled_; }
    bool reEncodeToSamefile() const { return reEncodeToSamefile_; }
    std::string currentStatus() const;
    void setCurrentStatus(std::string status);

private:
    FileEncodeOperation(std::string fullPath, std::string topLevelPath);

    struct Watched {
        std::shared_ptr<EncodeOperation> operation;
        std::vector<uint64_t> tokens;
    };

    std::string inputFileName() const;
    // Steps of main(): which encode operation (if any) one output format gets.
    std::shared_ptr<EncodeOperation> operationFor(const EncoderSettings& settings);
    bool isSameTypeAsInput(const EncoderSettings& settings) const;
    void watch(const std::shared_ptr<EncodeOperation>& operation);
    void operationDidChange(EncodeOperation& operation, const std::string& key);
    void operationDidFinish(EncodeOperation& operation);
    void finishJob(bool trashInput, std::optional<std::string> newInFilePath);
    void joinThreads();
    // Stops observing and cancels the running operations, waits for this
    // job's threads and answers the operations it watched.
    std::vector<Watched> stopWatching();

    std::string topLevelPath_;
    FileEncodeOperationDelegate* delegate_ = nullptr;

    mutable std::mutex mutex_; // guards everything below that is not atomic
    std::string inFilePath_;
    std::shared_ptr<AudioMetadata> metadata_;
    std::vector<Watched> operations_;
    std::vector<std::shared_ptr<EncodeOperation>> finishedOperations_;
    std::vector<std::string> outputPaths_;
    std::vector<std::string> failureReasons_;
    std::string currentStatus_;

    std::atomic<float> percentComplete_ = 0;
    std::atomic<bool> progressUnknown_ = false;
    std::atomic<uint64_t> successfulEncodes_ = 0;
    std::atomic<uint64_t> failedEncodes_ = 0;
    std::atomic<bool> success_ = true;
    std::atomic<bool> skipped_ = false;
    std::atomic<bool> cancelled_ = false;
    std::atomic<bool> reEncodeToSamefile_ = false;

    std::mutex metadataLoadMutex_; // one load at a time
    std::mutex threadMutex_;
    std::thread mainThread_;
    std::thread finishThread_;
};

} // namespace velvox
