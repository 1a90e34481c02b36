#pragma once
// One output file from one input file in one output format. Subclasses (one
// per encoder) supply main() — decode, encode into a temporary file, tag —
// and writeMetadata(). This base owns the job's paths and state, runs main()
// on a thread of its own, builds the output path from the naming preferences,
// moves the finished file into place, cleans up after a cancel, can rewrite
// tags without encoding, and saves the artwork beside the output.
//
// Observers hear "isExecuting", "isFinished", "waitingUserInput",
// "currentFrame", "currentStatus" and "metadata" on the thread that changed them.

#include <atomic>
#include <exception>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "core/DecoderDelegate.h"
#include "jobs/EncodeOperationDelegate.h"
#include "jobs/EncoderSettings.h"
#include "jobs/ObservableOperation.h"
#include "metadata/AudioMetadata.h"

namespace velvox {

class EncodeOperation : public ObservableOperation, public DecoderDelegate {
public:
    EncodeOperation();
    // Waits for main() to return when it still runs on its own thread.
    ~EncodeOperation() override;

    virtual bool initWithFilePath(const std::string& inFilePath, const std::string& topLevelPath);

    // ---- The operation protocol ----
    // Runs main() on a new thread; an operation cancelled before it started
    // finishes at once and counts as successful.
    void start();
    void cancel() { cancelled_ = true; }
    bool isCancelled() const { return cancelled_; }
    bool isConcurrent() const { return true; }

    virtual void main() = 0;
    virtual void writeMetadata() {}
    virtual bool isItunesCompatible() const { return false; }

    // ---- Steps shared by every encoder ----
    // Sets outFilePath from the naming preferences. False when the operation
    // must stop here: refused, or waiting for the user's overwrite answer.
    bool determineOutputPath();
    void moveEncodedFileToOutputLocation();
    void deletePartiallyEncodedFileIfCancelled();
    // The AppleDouble companion "._name" that some writers (libsndfile's
    // Sound Designer II) leave beside a file; it goes where the file goes.
    static std::string companionPath(const std::string& path);
    void updateMetadataOnly();
    void saveAlbumArtworkToFile();
    // Operation thread, after the move: adds the output to the desktop music
    // library (and its playlist, "addToiTunesPlaylist") when this encoder's
    // files belong there. A library that refuses is logged; the encode stands.
    void addToiTunes();

    // Progress of a decoder that first decodes its whole input to a file.
    void decoderDidUpdateProgressPercent(KDDecoder& decoder, double progress) override;

    // ---- Properties ----
    const std::string& inFilePath() const { return inFilePath_; }
    const std::string& topLevelPath() const { return topLevelPath_; }
    std::optional<std::string> outFilePath() const;
    void setOutFilePath(std::optional<std::string> path);
    std::optional<std::string> tempFilePath() const;
    void setTempFilePath(std::optional<std::string> path);
    std::optional<std::string> decodeFilePath() const;
    void setDecodeFilePath(std::optional<std::string> path);

    // Read from the input on first use (on the tagging thread when there is a
    // delegate), announcing "metadata".
    std::shared_ptr<AudioMetadata> metadata();
    void setMetadata(std::shared_ptr<AudioMetadata> metadata);

    const std::shared_ptr<EncoderSettings>& settings() const { return settings_; }
    void setSettings(std::shared_ptr<EncoderSettings> settings) { settings_ = std::move(settings); }
    EncodeOperationDelegate* delegate() const { return delegate_; }
    void setDelegate(EncodeOperationDelegate* delegate) { delegate_ = delegate; }

    int64_t currentFrame() const { return currentFrame_; }
    void setCurrentFrame(int64_t frame);
    int64_t totalFrames() const { return totalFrames_; }
    void setTotalFrames(int64_t frames) { totalFrames_ = frames; }
    std::string currentStatus() const;
    void setCurrentStatus(std::string status);

    bool success() const { return success_; }
    void setSuccess(bool value) { success_ = value; }
    bool skipped() const { return skipped_; }
    void setSkipped(bool value) { skipped_ = value; }
    bool waitingUserInput() const { return waitingUserInput_; }
    void setWaitingUserInput(bool value);
    bool outputFileExistedBeforeEncode() const { return outputFileExistedBeforeEncode_; }
    // Why the operation failed, in a few words for a summary ("No space left
    // on device in /music"); empty while it has not failed. Any thread.
    std::string failureReason() const;
    void setFailureReason(std::string reason);
    // Operation thread: what a failure's exception means for the user. A
    // full disk or quota is named as such with its folder, whatever the
    // codec library called it; anything else is the exception's own text.
    // `errorNumber` is errno as the failure left it (read first thing in
    // the handler: functions set it only when they fail).
    std::string describeFailure(const std::exception& failure, int errorNumber) const;

    // The input file's name as shown to the user.
    std::string inputDisplayName() const;

protected:
    // Runs a task on the main thread and waits for it.
    static void onMainThread(const std::function<void()>& task);
    // Runs a task on the tagging thread (or here, without a delegate) and waits.
    void onTaggingThread(const std::function<void()>& task);

private:
    // Operation thread: moves the temporary file into the first free name of
    // base, "base 2", ... and answers it; nothing on failure (error set).
    static std::optional<std::string> claimFreeName(const std::string& temp,
                                                    const std::string& base, std::string& error,
                                                    int& errorNumber);
    // Operation thread: fails the operation with `logLine` in the error log
    // and `reason` as its cause, and completes it on the main thread.
    void failAndComplete(const std::string& logLine, const std::string& reason);
    // Operation thread, tag-only updates: false (and the operation failed)
    // when the file cannot be opened for writing.
    bool inputIsWritable();

    std::string inFilePath_;
    std::string topLevelPath_;
    mutable std::mutex mutex_; // guards the strings and the metadata below
    std::optional<std::string> outFilePath_;
    std::optional<std::string> tempFilePath_;
    std::optional<std::string> decodeFilePath_;
    std::shared_ptr<AudioMetadata> metadata_;
    std::string currentStatus_;
    std::string failureReason_;
    std::shared_ptr<EncoderSettings> settings_;
    EncodeOperationDelegate* delegate_ = nullptr;

    std::atomic<int64_t> currentFrame_ = 0;
    std::atomic<int64_t> totalFrames_ = 100;
    std::atomic<bool> success_ = false;
    std::atomic<bool> skipped_ = false;
    std::atomic<bool> waitingUserInput_ = false;
    std::atomic<bool> cancelled_ = false;
    std::atomic<bool> outputFileExistedBeforeEncode_ = false;
    // The output path before any " 2" numbering (operation thread only).
    std::optional<std::string> outputBasePath_;

    std::mutex threadMutex_;
    std::thread thread_;
};

} // namespace velvox
