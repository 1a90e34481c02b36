#include "jobs/FileEncodeOperation.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <filesystem>

#include "core/FormatRegistry.h"
#include "core/UtilityFunctions.h"
#include "jobs/EncodeOperation.h"
#include "jobs/EncoderDescriptor.h"
#include "jobs/EncoderSettings.h"
#include "jobs/FileEncodeOperationDelegate.h"
#include "metadata/CoreAudioFileInfo.h"
#include "platform/ErrorLog.h"
#include "platform/FileManager.h"
#include "platform/MainRunLoop.h"
#include "platform/StringFormat.h"
#include "platform/TaggingThread.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace fs = std::filesystem;

namespace {

void logMessage(const std::string& message) { ErrorLog::sharedController().logMessage(message); }

} // namespace

std::shared_ptr<FileEncodeOperation> FileEncodeOperation::create(const std::string& fullPath,
                                                                 const std::string& topLevelPath) {
    return std::shared_ptr<FileEncodeOperation>(new FileEncodeOperation(fullPath, topLevelPath));
}

FileEncodeOperation::FileEncodeOperation(std::string fullPath, std::string topLevelPath)
    : topLevelPath_(std::move(topLevelPath)), inFilePath_(std::move(fullPath)) {
    currentStatus_ = fs::path(inFilePath_).filename().string();
}

FileEncodeOperation::~FileEncodeOperation() {
    stopWatching();
    // The operations themselves (and their threads) go with the members.
}

std::vector<FileEncodeOperation::Watched> FileEncodeOperation::stopWatching() {
    std::vector<Watched> watched;
    {
        std::lock_guard lock(mutex_);
        watched.swap(operations_);
    }
    for (Watched& w : watched) {
        for (uint64_t token : w.tokens)
            w.operation->removeObserver(token);
        w.operation->cancel();
    }
    joinThreads();
    return watched;
}

void FileEncodeOperation::joinThreads() {
    std::lock_guard lock(threadMutex_);
    for (std::thread* t : {&mainThread_, &finishThread_}) {
        if (!t->joinable())
            continue;
        if (t->get_id() == std::this_thread::get_id())
            t->detach();
        else
            t->join();
    }
}

std::string FileEncodeOperation::inFilePath() const {
    std::lock_guard lock(mutex_);
    return inFilePath_;
}

std::string FileEncodeOperation::inputFileName() const {
    return fs::path(inFilePath()).filename().string();
}

std::string FileEncodeOperation::currentStatus() const {
    std::lock_guard lock(mutex_);
    return currentStatus_;
}

void FileEncodeOperation::setCurrentStatus(std::string status) {
    setObserved("currentStatus", mutex_, currentStatus_, std::move(status));
}

void FileEncodeOperation::setPercentCompleteNumber(float value) {
    setObserved("percentComplete", percentComplete_, value);
}

std::vector<std::shared_ptr<EncodeOperation>> FileEncodeOperation::operations() const {
    std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<EncodeOperation>> result;
    for (const Watched& w : operations_)
        result.push_back(w.operation);
    return result;
}

std::vector<std::string> FileEncodeOperation::outputPaths() const {
    std::lock_guard lock(mutex_);
    return outputPaths_;
}

std::vector<std::string> FileEncodeOperation::failureReasons() const {
    std::lock_guard lock(mutex_);
    return failureReasons_;
}

std::shared_ptr<AudioMetadata> FileEncodeOperation::metadata() {
    std::lock_guard loading(metadataLoadMutex_);
    {
        std::lock_guard lock(mutex_);
        if (metadata_)
            return metadata_;
    }
    const std::string path = inFilePath();
    std::shared_ptr<AudioMetadata> loaded;
    auto load = [&] { loaded = AudioMetadata::metadataFromFile(path); };
    if (delegate_)
        delegate_->taggingThread().performAndWait(load);
    else
        load();
    setMetadata(loaded);
    return loaded;
}

void FileEncodeOperation::setMetadata(std::shared_ptr<AudioMetadata> metadata) {
    setObserved("metadata", mutex_, metadata_, std::move(metadata));
}

// ---- Running ----

void FileEncodeOperation::start() {
    if (cancelled_) {
        // Never ran: nothing failed.
        success_ = true;
        completeOperation();
        return;
    }
    joinThreads(); // an earlier run of this row
    setExecuting(true);
    std::lock_guard lock(threadMutex_);
    mainThread_ = std::thread([this] { main(); });
}

void FileEncodeOperation::main() {
    std::vector<std::shared_ptr<EncoderSettings>> formats;
    if (delegate_)
        performOnMainThread([&] { formats = delegate_->encoderSettings(); }, true);

    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    const bool skipSameType = defaults.boolForKey("skipFilesOfSameType");
    const std::string inputExtension = lowercaseExtension(inFilePath());

    std::vector<std::shared_ptr<EncodeOperation>> created;
    bool passedOverAsSkip = false;
    for (const std::shared_ptr<EncoderSettings>& settings : formats) {
        const bool encodes = settings->encoderAction() == EncoderActionEncode;
        if (encodes && !settings->enabled())
            continue;
        if (skipSameType && encodes &&
            inputExtension == lowercaseASCII(settings->extension().value_or(""))) {
            const FormatEntry* family = FormatRegistry::match(inFilePath()).entry;
            if (!family || !family->sameTypeByDataFormat || isSameTypeAsInput(*settings)) {
                passedOverAsSkip = true;
                continue;
            }
        }
        std::shared_ptr<EncodeOperation> operation = operationFor(*settings);
        if (operation) {
            operation->initWithFilePath(inFilePath(), topLevelPath_);
            operation->setSettings(settings);
            operation->setDelegate(delegate_);
            operation->setMetadata(metadata());
            watch(operation);
            created.push_back(operation);
        }
        if (!encodes)
            break;
    }

    if (created.empty()) {
        if (passedOverAsSkip && failedEncodes_ == 0)
            skipped_ = true;
        auto self = shared_from_this();
        performOnMainThread([self] { self->completeOperation(); }, false);
        return;
    }
    // Every operation is in the list before the first starts, so that one
    // finishing at once cannot look like the last.
    for (const std::shared_ptr<EncodeOperation>& operation : created) {
        if (cancelled_)
            operation->cancel();
        operation->start();
    }
}

bool FileEncodeOperation::isSameTypeAsInput(const EncoderSettings& settings) const {
    const std::optional<CoreAudioFileInfo> info = CoreAudioFileInfo::infoWithFile(inFilePath());
    // A container the reader cannot open is passed over like one of the same type.
    return !info || info->dataFormat().mFormatID == settings.formatID();
}

std::shared_ptr<EncodeOperation>
FileEncodeOperation::operationFor(const EncoderSettings& settings) {
    std::unique_ptr<EncodeOperation> made;
    if (settings.encoderAction() == EncoderActionEncode) {
        if (const EncoderDescriptor* encoder = EncoderDescriptor::forType(settings.encoderType()))
            made = encoder->make();
        if (!made) {
            logMessage(
                stringWithFormat("Velvox Can Not Encode %@: No %@ Encoder Is Part Of This Build.",
                                 inputFileName(), settings.outputFormatDescription()));
        }
    } else {
        // The encoder of the file's own format rewrites its tags.
        const FormatEntry* family = FormatRegistry::match(inFilePath()).entry;
        if (family && family->encoder)
            made = family->encoder->make();
        if (!made) {
            logMessage(stringWithFormat("Velvox Can Not Write The Metadata Of %@: Its Format Has "
                                        "No Tag Writer In This Build.",
                                        inputFileName()));
        }
    }
    if (!made) {
        // Counted as a failed encode so that the batch reports it.
        success_ = false;
        ++failedEncodes_;
        std::lock_guard lock(mutex_);
        failureReasons_.push_back(settings.encoderAction() == EncoderActionEncode
                                      ? "This build has no encoder for " +
                                            settings.outputFormatDescription()
                                      : "This build cannot write tags into this format");
        return nullptr;
    }
    return std::shared_ptr<EncodeOperation>(std::move(made));
}

void FileEncodeOperation::watch(const std::shared_ptr<EncodeOperation>& operation) {
    Watched watched{operation, {}};
    for (const char* key : {"isFinished", "waitingUserInput", "currentFrame", "currentStatus"}) {
        watched.tokens.push_back(operation->addObserver(
            key, [this](Observable& object, const std::string& changed, Observable::ChangePhase) {
                operationDidChange(static_cast<EncodeOperation&>(object), changed);
            }));
    }
    std::lock_guard lock(mutex_);
    operations_.push_back(std::move(watched));
}

void FileEncodeOperation::operationDidChange(EncodeOperation& operation, const std::string& key) {
    std::weak_ptr<FileEncodeOperation> weakSelf = weak_from_this();
    if (key == "currentFrame") {
        size_t open;
        {
            std::lock_guard lock(mutex_);
            open = operations_.size();
        }
        const float done = float(successfulEncodes_ + failedEncodes_);
        const int64_t total = operation.totalFrames();
        const int64_t current = operation.currentFrame();
        progressUnknown_ = total <= 0;
        float part = 0;
        if (total > 0 && current > 0)
            part = std::min(1.0f, float(current) / float(total));
        if (done + float(open) <= 0)
            return;
        const float progress = (done + part) / (done + float(open));
        performOnMainThread(
            [weakSelf, progress] {
                if (auto self = weakSelf.lock())
                    self->setPercentCompleteNumber(progress);
            },
            false);
    } else if (key == "currentStatus") {
        const std::string status =
            stringWithFormat("%@ - %@", inputFileName(), operation.currentStatus());
        performOnMainThread(
            [weakSelf, status] {
                if (auto self = weakSelf.lock())
                    self->setCurrentStatus(status);
            },
            false);
    } else if (key == "waitingUserInput") {
        if (!operation.waitingUserInput())
            return;
        std::shared_ptr<EncodeOperation> shared;
        {
            std::lock_guard lock(mutex_);
            for (const Watched& w : operations_)
                if (w.operation.get() == &operation)
                    shared = w.operation;
        }
        if (!shared || !delegate_)
            return;
        performOnMainThread(
            [weakSelf, shared] {
                if (auto self = weakSelf.lock())
                    if (self->delegate_)
                        self->delegate_->waitingUserInputDidChange(shared);
            },
            false);
    } else if (key == "isFinished") {
        if (operation.isFinished())
            operationDidFinish(operation);
    }
}

void FileEncodeOperation::operationDidFinish(EncodeOperation& operation) {
    Watched finished;
    size_t remaining;
    {
        std::lock_guard lock(mutex_);
        auto it = std::find_if(operations_.begin(), operations_.end(),
                               [&](const Watched& w) { return w.operation.get() == &operation; });
        if (it == operations_.end())
            return; // already counted
        finished = std::move(*it);
        operations_.erase(it);
        remaining = operations_.size();

        if (!operation.success()) {
            success_ = false;
            ++failedEncodes_;
            const std::string reason = operation.failureReason();
            if (!reason.empty() && std::find(failureReasons_.begin(), failureReasons_.end(),
                                             reason) == failureReasons_.end())
                failureReasons_.push_back(reason);
        } else {
            ++successfulEncodes_;
        }
        const std::optional<std::string> out = operation.outFilePath();
        if (out && *out == operation.inFilePath())
            reEncodeToSamefile_ = true;
        skipped_ = operation.skipped();
        if (operation.success() && !operation.skipped() && !operation.isCancelled() && out &&
            std::find(outputPaths_.begin(), outputPaths_.end(), *out) == outputPaths_.end())
            outputPaths_.push_back(*out);
        // Kept until the row is reset: its thread may still be on its way out.
        finishedOperations_.push_back(finished.operation);
    }
    // Outside the lock: removal waits for callbacks running on other threads,
    // and those take the lock.
    for (uint64_t token : finished.tokens)
        operation.removeObserver(token);
    if (remaining > 0)
        return;

    const bool trashInput = UserDefaults::standardUserDefaults().boolForKey("deleteOriginal") &&
                            success_ && !reEncodeToSamefile_ && !cancelled_ && !skipped_;
    std::optional<std::string> newInFilePath;
    if (operation.settings() &&
        operation.settings()->encoderAction() == EncoderActionUpdateMetadata)
        newInFilePath = operation.outFilePath();
    finishJob(trashInput, newInFilePath);
}

void FileEncodeOperation::finishJob(bool trashInput, std::optional<std::string> newInFilePath) {
    auto self = shared_from_this();
    if (newInFilePath) {
        std::lock_guard lock(mutex_);
        inFilePath_ = *newInFilePath;
    }
    if (!trashInput) {
        performOnMainThread([self] { self->completeOperation(); }, false);
        return;
    }
    // Moving the input away is file I/O; it is kept off the main thread.
    std::lock_guard lock(threadMutex_);
    if (finishThread_.joinable())
        finishThread_.join();
    finishThread_ = std::thread([this, self] {
        const std::string path = inFilePath();
        std::string error;
        if (!FileManager::trashItem(path, error))
            logMessage(stringWithFormat("Could Not Move %@ To The Trash.  Error:%@",
                                        fs::path(path).filename().string(), error));
        performOnMainThread([self] { self->completeOperation(); }, false);
    });
}

void FileEncodeOperation::cancel() { setCancelled(true); }

void FileEncodeOperation::setCancelled(bool value) {
    cancelled_ = value;
    if (!value)
        return;
    for (const std::shared_ptr<EncodeOperation>& operation : operations()) {
        operation->cancel();
        // One that stopped to ask about its output has no thread to notice
        // the cancel; starting it now finishes it at once.
        if (operation->waitingUserInput() && !operation->isExecuting() &&
            !operation->isFinished()) {
            operation->setWaitingUserInput(false);
            operation->start();
        }
    }
}

void FileEncodeOperation::resetOperation() {
    std::vector<Watched> unfinished = stopWatching();
    std::vector<std::shared_ptr<EncodeOperation>> released;
    {
        std::lock_guard lock(mutex_);
        // Operations that are still on their way out stay until they are done.
        for (Watched& w : unfinished)
            finishedOperations_.push_back(w.operation);
        for (auto& operation : finishedOperations_)
            if (operation->isFinished())
                released.push_back(std::move(operation));
        std::erase(finishedOperations_, nullptr);
        outputPaths_.clear();
        failureReasons_.clear();
    }
    released.clear();

    successfulEncodes_ = 0;
    failedEncodes_ = 0;
    setPercentCompleteNumber(0);
    progressUnknown_ = false;
    setCurrentStatus(inputFileName());
    cancelled_ = false;
    skipped_ = false;
    setRunState(false, false);
    reEncodeToSamefile_ = false;
    success_ = true;
}

} // namespace velvox
