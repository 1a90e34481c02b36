#include "jobs/ApplicationController.h"

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <system_error>

#include <unistd.h>

#include "core/FormatRegistry.h"
#include "jobs/BatchUserInterface.h"
#include "jobs/EncodeOperation.h"
#include "jobs/EncoderDescriptor.h"
#include "jobs/EncoderSettings.h"
#include "jobs/FileEncodeOperation.h"
#include "jobs/FormatSpecifiers.h"
#include "platform/ErrorLog.h"
#include "platform/FileManager.h"
#include "platform/MainRunLoop.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace fs = std::filesystem;

namespace {

constexpr const char* kEncoderSettingsKey = "encoderSettings";

bool isHidden(const fs::path& path) {
    const std::string name = path.filename().string();
    return !name.empty() && name.front() == '.';
}

} // namespace

ApplicationController::ApplicationController() { loadEncoderSettings(); }

ApplicationController::~ApplicationController() {
    for (size_t i = 0; i < operations_.size(); ++i)
        operations_[i]->removeObserver(finishObservers_[i]);
}

// ---- Output formats ----

std::vector<std::shared_ptr<EncoderSettings>> ApplicationController::savedEncoderSettings() {
    std::vector<std::shared_ptr<EncoderSettings>> list;
    const auto stored = UserDefaults::standardUserDefaults().objectForKey(kEncoderSettingsKey);
    if (stored && stored->is_array()) {
        for (const auto& dictionary : *stored) {
            if (!dictionary.is_object())
                continue;
            auto settings = std::make_shared<EncoderSettings>();
            settings->initWithDictionary(dictionary);
            list.push_back(std::move(settings));
        }
    }
    return list;
}

bool ApplicationController::saveEncoderSettings(
    const std::vector<std::shared_ptr<EncoderSettings>>& settings) {
    UserDefaults::Value list = UserDefaults::Value::array();
    for (const auto& format : settings)
        list.push_back(format->settingsDictionary());
    return UserDefaults::standardUserDefaults().setObject(kEncoderSettingsKey, list);
}

void ApplicationController::loadEncoderSettings() { encoderSettings_ = savedEncoderSettings(); }

void ApplicationController::setEncoderSettings(
    std::vector<std::shared_ptr<EncoderSettings>> settings) {
    encoderSettings_ = std::move(settings);
}

void ApplicationController::saveUserDefaults() {
    if (persistsOutputFormats_)
        saveEncoderSettings(encoderSettings_);
}

// ---- Intake ----

bool ApplicationController::containsMP3Files() const {
    // The family is the registry's to say: a file is MP3 when its row is
    // written by the MP3 encoder.
    return std::any_of(operations_.begin(), operations_.end(), [](const auto& job) {
        const FormatEntry* entry = FormatRegistry::match(job->inFilePath()).entry;
        return entry && entry->encoder && entry->encoder->encoderType == EncoderTypeMP3;
    });
}

bool ApplicationController::isQueued(const std::string& path) const {
    return std::any_of(operations_.begin(), operations_.end(),
                       [&](const auto& job) { return job->inFilePath() == path; });
}

bool ApplicationController::anyJobExecuting() const {
    return std::any_of(operations_.begin(), operations_.end(),
                       [](const auto& job) { return job->isExecuting(); });
}

void ApplicationController::addFileEncodeOperationToQueueWithFilePath(
    const std::string& path, const std::string& topLevelPath) {
    auto job = FileEncodeOperation::create(path, topLevelPath);
    job->setDelegate(this);
    std::weak_ptr<FileEncodeOperation> weakJob = job;
    const uint64_t token = job->addObserver(
        "isFinished", [this, weakJob](Observable&, const std::string&, Observable::ChangePhase) {
            auto finished = weakJob.lock();
            if (!finished || !finished->isFinished())
                return;
            // Handled as a task of its own: the job may have finished inside
            // a call that is still walking the queue.
            performOnMainThread([this, finished] { operationDidFinish(finished); }, false);
        });
    operations_.push_back(job);
    finishObservers_.push_back(token);
}

void ApplicationController::parseDroppedFiles(const std::vector<std::string>& paths) {
    bool refused = false;
    performOnMainThread(
        [&] {
            if (anyJobExecuting() || encoderRunning_) {
                refused = true;
                if (ui_)
                    ui_->beep();
                return;
            }
            parsing_ = true;
            stop_ = false;
            encoderRunning_ = true;
        },
        true);
    if (refused)
        return;

    // A folder that holds the output folder is walked without it: what an
    // earlier run wrote there is not a source of this one.
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    const std::string destination =
        defaults.boolForKey("outputSameAsSource")
            ? std::string()
            : defaults.stringForKey("destinationDirectory").value_or("");
    auto isDestination = [&destination](const fs::path& folder) {
        std::error_code ec;
        return !destination.empty() && fs::equivalent(folder, destination, ec);
    };

    auto add = [this](const std::string& file, const std::string& topLevel) {
        performOnMainThread(
            [&] {
                // Nor is a file this batch has written.
                if (!isQueued(file) && !createdOutputPathsContains(file)) {
                    addFileEncodeOperationToQueueWithFilePath(file, topLevel);
                    if (ui_)
                        ui_->operationsDidChange();
                }
            },
            true);
    };

    for (const std::string& dropped : paths) {
        if (stop_)
            break;
        std::error_code ec;
        if (fs::is_directory(dropped, ec)) {
            // Collected first and sorted, so that a folder queues in name order.
            std::vector<std::string> files;
            fs::recursive_directory_iterator it(dropped,
                                                fs::directory_options::skip_permission_denied, ec);
            for (; !ec && it != fs::recursive_directory_iterator(); it.increment(ec)) {
                if (stop_)
                    break;
                if (isHidden(it->path()) || (it->is_directory(ec) && isDestination(it->path()))) {
                    if (it->is_directory(ec))
                        it.disable_recursion_pending();
                    continue;
                }
                if (it->is_regular_file(ec) && FormatRegistry::isAcceptedFile(it->path().string()))
                    files.push_back(it->path().string());
            }
            std::sort(files.begin(), files.end());
            for (const std::string& file : files) {
                if (stop_)
                    break;
                add(file, dropped);
            }
        } else if (fs::is_regular_file(dropped, ec) && FormatRegistry::isAcceptedFile(dropped)) {
            // FIFOs and devices are never queued: reading one never ends.
            add(dropped, dropped);
        }
    }

    performOnMainThread(
        [&] {
            encoderRunning_ = false;
            parsing_ = false;
            if (ui_)
                ui_->operationsDidChange();
        },
        true);
}

// ---- Starting a batch ----

int64_t ApplicationController::numProcesses() const {
    return std::max<int64_t>(1, UserDefaults::standardUserDefaults().integerForKey("numProcesses"));
}

bool ApplicationController::firstFormatUpdatesMetadataOnly() const {
    return !encoderSettings_.empty() &&
           encoderSettings_.front()->encoderAction() == EncoderActionUpdateMetadata;
}

bool ApplicationController::keepsFinishedJobs() const {
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    if (!firstFormatUpdatesMetadataOnly())
        return defaults.boolForKey("keepFilesInQueueAfterEncoding") &&
               !defaults.boolForKey("deleteOriginal");
    return defaults.boolForKey("keepFilesInQueueAfterWritingMetadata");
}

bool ApplicationController::outputFolderIsUsable() {
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    if (defaults.boolForKey("outputSameAsSource"))
        return true;
    const std::string folder = defaults.stringForKey("destinationDirectory").value_or("");
    auto refuse = [this](const char* message, const char* informative) {
        if (ui_) {
            ui_->showAlert(message, informative, "OK");
            ui_->openPreferences();
        }
        return false;
    };
    std::error_code ec;
    if (folder.empty() || !fs::is_directory(folder, ec))
        return refuse("Output Folder Not Found", "The destination folder does not exist.  Please "
                                                 "specify a new one in preferences.");
    if (::access(folder.c_str(), W_OK) != 0)
        return refuse("Permissions Error.", "You do not have write permissions to the output "
                                            "folder.  Please specify a new one in preferences.");
    if (FileManager::isInMusicLibraryFolder(folder))
        return refuse("Invalid Output Folder.",
                      "Files can not be written to a user's iTunes library folder.  Please choose "
                      "a different output folder in the preferences.");
    return true;
}

void ApplicationController::startJob(const std::shared_ptr<FileEncodeOperation>& job) {
    ++runningCount_;
    peakRunningCount_ = std::max(peakRunningCount_, runningCount_);
    if (ui_)
        ui_->operationDidStart(*job);
    job->start();
}

void ApplicationController::encode() {
    if (operations_.empty()) {
        if (ui_)
            ui_->beep();
        return;
    }
    if (encoderRunning_)
        return;
    const bool updatesTags =
        std::any_of(encoderSettings_.begin(), encoderSettings_.end(), [](const auto& s) {
            return s->encoderAction() == EncoderActionUpdateMetadata;
        });
    const bool anyEnabled = std::any_of(encoderSettings_.begin(), encoderSettings_.end(),
                                        [](const auto& s) { return s->enabled(); });
    if (!updatesTags && !anyEnabled) {
        if (ui_)
            ui_->showAlert("No Output Formats Enabled.",
                           "Please enable at least one output format.", "OK.");
        return;
    }
    if (!outputFolderIsUsable())
        return;

    saveUserDefaults();
    ErrorLog::sharedController().clear();
    runningCount_ = 0;
    nextIndex_ = 0;
    failedCount_ = 0;
    successfulCount_ = 0;
    peakRunningCount_ = 0;
    overwriteExistingFilesHandling_ = initialOverwriteHandling_;
    stop_ = false;
    createdOutputPaths_.clear();

    startNextJobs();
    encoderRunning_ = runningCount_ > 0;
}

void ApplicationController::cancel() {
    stop_ = true;
    if (alertUp_) {
        alertUp_ = false;
        if (ui_)
            ui_->withdrawQuestion();
        alertOperation_.reset();
    }
    const auto jobs = operations_;
    for (const auto& job : jobs)
        if (job->isExecuting())
            job->cancel();
}

// ---- A job finishes ----

void ApplicationController::removeJob(const std::shared_ptr<FileEncodeOperation>& job) {
    auto it = std::find(operations_.begin(), operations_.end(), job);
    if (it == operations_.end())
        return;
    const size_t index = size_t(it - operations_.begin());
    job->removeObserver(finishObservers_[index]);
    finishObservers_.erase(finishObservers_.begin() + std::ptrdiff_t(index));
    operations_.erase(it);
    if (int64_t(index) < nextIndex_)
        --nextIndex_;
}

// Takes its own list: callers may pass operations() itself.
size_t
ApplicationController::removeOperations(std::vector<std::shared_ptr<FileEncodeOperation>> jobs) {
    size_t removed = 0;
    for (const auto& job : jobs) {
        if (job->isExecuting() ||
            std::find(operations_.begin(), operations_.end(), job) == operations_.end())
            continue;
        removeJob(job);
        ++removed;
    }
    if (removed > 0 && ui_)
        ui_->operationsDidChange();
    return removed;
}

// Jobs before the cursor have been started in this batch (and are running,
// finished and gone, or kept and reset); jobs from it on have not.
void ApplicationController::startNextJobs() {
    const int64_t limit = numProcesses();
    while (runningCount_ < limit && nextIndex_ < int64_t(operations_.size())) {
        const auto job = operations_[size_t(nextIndex_++)];
        if (!job->isExecuting() && !job->isFinished())
            startJob(job);
    }
}

void ApplicationController::operationDidFinish(const std::shared_ptr<FileEncodeOperation>& job) {
    if (std::find(operations_.begin(), operations_.end(), job) == operations_.end() ||
        !job->isFinished())
        return; // already handled
    --runningCount_;
    if (ui_)
        ui_->operationDidFinish(*job);

    if (job->isCancelled()) {
        job->resetOperation();
        if (ui_)
            ui_->operationsDidChange();
    } else {
        if (job->success()) {
            successfulCount_ += int64_t(job->successfulEncodes());
        } else {
            failedCount_ += int64_t(job->failedEncodes());
            if (UserDefaults::standardUserDefaults().boolForKey("showLogOnError") && ui_)
                ui_->showErrorLog();
        }

        const bool kept = keepsFinishedJobs();
        if (kept)
            job->resetOperation();
        else
            removeJob(job);
        if (ui_)
            ui_->operationsDidChange();

        if (!stop_)
            startNextJobs();
    }

    if (runningCount_ == 0)
        batchDidEnd();
}

void ApplicationController::batchDidEnd() {
    encoderRunning_ = false;
    if (ui_) {
        if (failedCount_ > 0)
            ui_->showFailureSheet(stringWithFormat("Failed To Encode %ld of %ld Files.",
                                                   long(failedCount_),
                                                   long(failedCount_ + successfulCount_)),
                                  {"OK", "Show Report"});
        UserDefaults& defaults = UserDefaults::standardUserDefaults();
        if (defaults.boolForKey("openOutputDirectoryWhenFinished") &&
            !defaults.boolForKey("outputSameAsSource"))
            ui_->openFolder(defaults.stringForKey("destinationDirectory").value_or(""));
        ui_->batchDidFinish();
    }
}

// ---- The overwrite question ----

void ApplicationController::waitingUserInputDidChange(
    const std::shared_ptr<EncodeOperation>& operation) {
    if (!operation || !operation->waitingUserInput() || operation->isFinished())
        return;
    if (operation->isCancelled() || stop_) {
        // Nothing to ask any more: let it finish as cancelled.
        operation->cancel();
        operation->setWaitingUserInput(false);
        operation->start();
        return;
    }
    if (overwriteExistingFilesHandling_ != OverwriteHandlingAsk) {
        applyOverwriteHandling(*operation, overwriteExistingFilesHandling_);
        return;
    }
    if (alertUp_)
        return; // one question at a time; it comes back when this one ends
    alertUp_ = true;
    alertOperation_ = operation;
    if (ui_)
        ui_->askQuestion(
            stringWithFormat("The file \"%@\" already exists.",
                             fs::path(operation->outFilePath().value_or("")).filename().string()),
            "Do you want to overwrite the existing file?", {"No", "Yes", "Skip"},
            "Apply to all in this batch");
}

void ApplicationController::applyOverwriteHandling(EncodeOperation& operation, int32_t handling) {
    operation.setWaitingUserInput(false);
    switch (handling) {
    case OverwriteHandlingSkip:
        operation.setSuccess(true);
        operation.setSkipped(true);
        operation.completeOperation();
        break;
    case OverwriteHandlingKeepBoth:
        operation.setOutFilePath(uniquePathForPath(operation.outFilePath().value_or("")));
        operation.start();
        break;
    default:
        // Overwrite: the operation keeps its path; when it moves the new file
        // into place, the old one goes to the trash, on the operation's thread.
        operation.start();
        break;
    }
}

void ApplicationController::alertDidEnd(int returnCode, bool suppressionButtonOn) {
    alertUp_ = false;
    std::shared_ptr<EncodeOperation> operation = std::move(alertOperation_);
    if (!operation)
        return;
    operation->setWaitingUserInput(false);

    const auto jobs = operations_;
    if (suppressionButtonOn) {
        // Every other operation that waits builds its path anew, under the
        // answer recorded below.
        for (const auto& job : jobs) {
            for (const auto& other : job->operations()) {
                if (other == operation || !other->waitingUserInput())
                    continue;
                other->setOutFilePath(std::nullopt);
                other->setWaitingUserInput(false);
                other->start();
            }
        }
    }

    if (operation->isCancelled() || stop_) {
        operation->start(); // finishes at once
    } else {
        const int32_t answer = returnCode == kAlertThirdButtonReturn    ? OverwriteHandlingSkip
                               : returnCode == kAlertSecondButtonReturn ? OverwriteHandlingOverwrite
                                                                        : OverwriteHandlingKeepBoth;
        applyOverwriteHandling(*operation, answer);
        if (suppressionButtonOn)
            overwriteExistingFilesHandling_ = answer;
    }

    if (!suppressionButtonOn) {
        for (const auto& job : jobs) {
            for (const auto& other : job->operations()) {
                if (other->waitingUserInput()) {
                    performOnMainThread([this, other] { waitingUserInputDidChange(other); }, false);
                    break;
                }
            }
        }
    } else if (!stop_) {
        startNextJobs();
    }
}

// ---- What the encode operations ask ----

bool ApplicationController::createdOutputPathsContains(const std::string& path) {
    return std::find(createdOutputPaths_.begin(), createdOutputPaths_.end(), path) !=
           createdOutputPaths_.end();
}

void ApplicationController::addCreatedOutputPath(const std::string& path) {
    createdOutputPaths_.push_back(path);
}

} // namespace velvox
