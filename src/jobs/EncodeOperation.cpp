#include "jobs/EncodeOperation.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include <algorithm>
#include <cctype>
#include <filesystem>
#include <map>
#include <system_error>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "core/KDDecoder.h"
#include "jobs/FormatSpecifiers.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/FileManager.h"
#include "platform/MainRunLoop.h"
#include "platform/MusicLibrary.h"
#include "platform/StorageFailure.h"
#include "platform/StringFormat.h"
#include "platform/TaggingThread.h"
#include "platform/TemporaryFiles.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace fs = std::filesystem;

namespace {

// "name" + "." + extension, or the name alone for an empty extension.
std::string withExtension(const std::string& name, const std::string& extension) {
    return extension.empty() ? name : name + "." + extension;
}

void logMessage(const std::string& message) { ErrorLog::sharedController().logMessage(message); }

} // namespace

EncodeOperation::EncodeOperation() = default;

EncodeOperation::~EncodeOperation() {
    for (const std::optional<std::string>& path : {tempFilePath_, decodeFilePath_})
        if (path)
            TemporaryFiles::remove(*path);
    std::lock_guard lock(threadMutex_);
    if (thread_.joinable()) {
        if (thread_.get_id() == std::this_thread::get_id())
            thread_.detach(); // the last owner let go on the operation's own thread
        else
            thread_.join();
    }
}

bool EncodeOperation::initWithFilePath(const std::string& inFilePath,
                                       const std::string& topLevelPath) {
    inFilePath_ = inFilePath;
    topLevelPath_ = topLevelPath;
    return true;
}

// ---- Operation protocol ----

void EncodeOperation::start() {
    if (cancelled_) {
        // Never ran: nothing failed. Set before the announcement, which its
        // file job counts.
        success_ = true;
        completeOperation();
        return;
    }
    std::lock_guard lock(threadMutex_);
    if (thread_.joinable() && thread_.get_id() != std::this_thread::get_id())
        thread_.join(); // an earlier run that stopped to wait for the user
    else if (thread_.joinable())
        thread_.detach();
    setExecuting(true);
    thread_ = std::thread([this] { main(); });
}

void EncodeOperation::setWaitingUserInput(bool value) {
    setObserved("waitingUserInput", waitingUserInput_, value);
}

void EncodeOperation::setCurrentFrame(int64_t frame) {
    setObserved("currentFrame", currentFrame_, frame);
}

std::string EncodeOperation::currentStatus() const {
    std::lock_guard lock(mutex_);
    return currentStatus_;
}

void EncodeOperation::setCurrentStatus(std::string status) {
    setObserved("currentStatus", mutex_, currentStatus_, std::move(status));
}

std::optional<std::string> EncodeOperation::outFilePath() const {
    std::lock_guard lock(mutex_);
    return outFilePath_;
}
void EncodeOperation::setOutFilePath(std::optional<std::string> path) {
    std::lock_guard lock(mutex_);
    outFilePath_ = std::move(path);
}
std::optional<std::string> EncodeOperation::tempFilePath() const {
    std::lock_guard lock(mutex_);
    return tempFilePath_;
}
// Temporary files of our own are listed for removal should the program be
// ended at once; a tag-only update points this at the input, never listed.
static void replaceListedTemporaryFile(const std::optional<std::string>& old,
                                       const std::optional<std::string>& now) {
    if (old && old != now)
        TemporaryFiles::remove(*old);
    if (now && TemporaryFiles::isOwnTemporaryName(*now))
        TemporaryFiles::add(*now);
}

void EncodeOperation::setTempFilePath(std::optional<std::string> path) {
    std::lock_guard lock(mutex_);
    replaceListedTemporaryFile(tempFilePath_, path);
    tempFilePath_ = std::move(path);
}
std::optional<std::string> EncodeOperation::decodeFilePath() const {
    std::lock_guard lock(mutex_);
    return decodeFilePath_;
}
void EncodeOperation::setDecodeFilePath(std::optional<std::string> path) {
    std::lock_guard lock(mutex_);
    replaceListedTemporaryFile(decodeFilePath_, path);
    decodeFilePath_ = std::move(path);
}

std::string EncodeOperation::failureReason() const {
    std::lock_guard lock(mutex_);
    return failureReason_;
}

void EncodeOperation::setFailureReason(std::string reason) {
    std::lock_guard lock(mutex_);
    failureReason_ = std::move(reason);
}

std::string EncodeOperation::describeFailure(const std::exception& failure, int errorNumber) const {
    if (const auto* raised = dynamic_cast<const Exception*>(&failure)) {
        // A close that failed says how in its user info.
        const auto code = raised->userInfo().find("errorCode");
        if (code != raised->userInfo().end() &&
            StorageFailure::isOutOfSpace(std::atoi(code->second.c_str())))
            errorNumber = std::atoi(code->second.c_str());
    }
    // The codec writes into the temporary folder; that is where room ran out.
    const std::optional<std::string> temp = tempFilePath();
    const fs::path folder = temp ? fs::path(*temp).parent_path() : fs::path();
    if (const auto storage = StorageFailure::describe(errorNumber, folder))
        return *storage;
    return failure.what();
}

void EncodeOperation::failAndComplete(const std::string& logLine, const std::string& reason) {
    logMessage(logLine);
    success_ = false;
    setFailureReason(reason);
    onMainThread([this] { completeOperation(); });
}

std::string EncodeOperation::inputDisplayName() const {
    return fs::path(inFilePath_).filename().string();
}

std::shared_ptr<AudioMetadata> EncodeOperation::metadata() {
    {
        std::lock_guard lock(mutex_);
        if (metadata_)
            return metadata_;
    }
    // Read without holding the lock: the tagging thread may be busy with a
    // task that asks this operation for something.
    std::shared_ptr<AudioMetadata> loaded;
    onTaggingThread([&] { loaded = AudioMetadata::metadataFromFile(inFilePath_); });
    willChangeValueForKey("metadata");
    {
        std::lock_guard lock(mutex_);
        if (!metadata_)
            metadata_ = std::move(loaded);
        loaded = metadata_;
    }
    didChangeValueForKey("metadata");
    return loaded;
}

void EncodeOperation::setMetadata(std::shared_ptr<AudioMetadata> metadata) {
    setObserved("metadata", mutex_, metadata_, std::move(metadata));
}

void EncodeOperation::onMainThread(const std::function<void()>& task) {
    performOnMainThread(task, true);
}

void EncodeOperation::onTaggingThread(const std::function<void()>& task) {
    if (delegate_)
        delegate_->taggingThread().performAndWait(task);
    else
        task();
}

void EncodeOperation::decoderDidUpdateProgressPercent(KDDecoder& decoder, double progress) {
    setTotalFrames(100);
    setCurrentFrame(int64_t(progress * 100));
    if (isCancelled())
        decoder.cancel();
}

// ---- Output path ----

bool EncodeOperation::determineOutputPath() {
    if (outFilePath())
        return true;
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    const bool sameAsSource = defaults.boolForKey("outputSameAsSource");
    const std::string extension = settings_ ? settings_->extension().value_or("") : "";
    const fs::path base =
        sameAsSource ? fs::path(inFilePath_).parent_path()
                     : fs::path(defaults.stringForKey("destinationDirectory").value_or(""));

    std::string path;
    if (defaults.boolForKey("preserveInputFileDirectoryStructure") && !sameAsSource) {
        std::string relative;
        if (inFilePath_.size() != topLevelPath_.size()) {
            // The input's path below the folder that holds what the user dropped.
            std::string parent = fs::path(topLevelPath_).parent_path().string();
            relative = inFilePath_.substr(std::min(parent.size(), inFilePath_.size()));
            while (!relative.empty() && relative.front() == '/')
                relative.erase(0, 1);
        } else {
            relative = fs::path(inFilePath_).filename().string();
        }
        fs::path rel(relative);
        rel.replace_extension();
        path = (base / (rel.string())).string();
        path = withExtension(path, extension);
    } else if (defaults.boolForKey("useCustomNamingScheme")) {
        const std::string name =
            expandFormatSpecifiers(defaults.stringForKey("customNamingScheme"), metadata().get(),
                                   settings_.get(), inFilePath_, true);
        path = withExtension((base / name).string(), extension);
    } else {
        path = withExtension((base / fs::path(inFilePath_).stem()).string(), extension);
    }

    if (const auto overlong = StorageFailure::overlongPart(path)) {
        // Encoding first would only fail at the very end, at the move.
        failAndComplete(stringWithFormat("The Output Name For %@ Is Too Long For Its File "
                                         "System: %@",
                                         inputDisplayName(), *overlong),
                        StorageFailure::nameTooLongText(path));
        return false;
    }
    if (FileManager::isInMusicLibraryFolder(path)) {
        logMessage("Tracks can not be written to your iTunes library folder.  Please choose an "
                   "alternate destination folder in the preferences.");
        onMainThread([this] { completeOperation(); });
        return false;
    }

    // Any number chosen below is only a preview: other jobs may take it
    // before this one finishes, so the move claims a free name again from
    // the path itself.
    outputBasePath_ = path;
    std::error_code ec;
    if (fs::exists(path, ec)) {
        outputFileExistedBeforeEncode_ = true;
        bool madeEarlier = false;
        if (delegate_)
            onMainThread([&] { madeEarlier = delegate_->createdOutputPathsContains(path); });
        if (defaults.boolForKey("overwriteOutputFiles")) {
            setOutFilePath(path);
            if (defaults.boolForKey("promptBeforeOverwriting") && !madeEarlier) {
                willChangeValueForKey("isExecuting");
                willChangeValueForKey("waitingUserInput");
                executing_ = false;
                waitingUserInput_ = true;
                didChangeValueForKey("waitingUserInput");
                didChangeValueForKey("isExecuting");
                return false;
            }
        } else {
            const bool reEncodeInPlace =
                sameAsSource && lowercaseExtension(inFilePath_) == lowercaseASCII(extension);
            setOutFilePath(reEncodeInPlace ? path : uniquePathForPath(path));
        }
    } else {
        setOutFilePath(uniquePathForPath(path));
    }
    return true;
}

// ---- Moving the result into place ----

std::optional<std::string> EncodeOperation::claimFreeName(const std::string& temp,
                                                          const std::string& base,
                                                          std::string& error, int& errorNumber) {
    // The file is first brought into the output folder under a hidden name
    // (a copy when the temporary folder is on another file system); the
    // rename into a free name is then one step that never replaces.
    const fs::path folder = fs::path(base).parent_path();
    const fs::path staged = folder / ("." + fs::path(temp).filename().string() + ".part");
    TemporaryFiles::add(staged.string());
    struct Unlist {
        std::string path;
        ~Unlist() { TemporaryFiles::remove(path); }
    } unlist{staged.string()};
    if (!FileManager::moveItem(temp, staged, error, errorNumber))
        return std::nullopt;
    for (unsigned long n = 1;; ++n) {
        const std::string candidate = numberedPath(base, n);
        if (FileManager::renameNoReplace(staged, candidate, errorNumber))
            return candidate;
        if (errorNumber != EEXIST) {
            error = std::strerror(errorNumber);
            std::error_code ec;
            fs::remove(staged, ec);
            return std::nullopt;
        }
    }
}

void EncodeOperation::moveEncodedFileToOutputLocation() {
    const std::optional<std::string> temp = tempFilePath();
    const std::optional<std::string> out = outFilePath();
    std::error_code ec;
    if (temp && out && fs::exists(*temp, ec)) {
        UserDefaults& defaults = UserDefaults::standardUserDefaults();
        ::chmod(temp->c_str(), 0644);

        const fs::path folder = fs::path(*out).parent_path();
        std::string error;
        int errorNumber = 0;
        fs::create_directories(folder, ec);
        if (ec) {
            error = ec.message();
            errorNumber = ec.value();
        }
        std::optional<std::string> claimed;
        if (error.empty())
            claimed = claimFreeName(*temp, outputBasePath_.value_or(*out), error, errorNumber);
        if (!claimed) {
            logMessage(stringWithFormat("Could Not Move Encoded File To Folder %@.  Error:%@",
                                        folder.filename().string(), error));
            success_ = false;
            if (const auto storage = StorageFailure::describe(errorNumber, folder))
                setFailureReason(*storage);
            else if (errorNumber == ENAMETOOLONG)
                setFailureReason(StorageFailure::nameTooLongText(*out));
            else
                setFailureReason(error + ": " + folder.string());
        } else {
            const std::string unique = *claimed;
            std::string finalPath = unique;
            const fs::path companion = companionPath(*temp);

            const bool existsNow = fs::exists(*out, ec);
            const bool overwrite = defaults.boolForKey("overwriteOutputFiles");
            bool madeThisBatch = false;
            if (delegate_)
                onMainThread([&] { madeThisBatch = delegate_->createdOutputPathsContains(*out); });
            const bool replacingSource =
                defaults.boolForKey("deleteOriginal") && inFilePath_ == *out;
            // Only the very path the user agreed to overwrite is replaced:
            // an operation told to keep both has a numbered path, and the
            // file there may be one another job has just moved in.
            const bool agreedPath = *out == outputBasePath_.value_or(*out);
            const bool replace = (existsNow && overwrite && outputFileExistedBeforeEncode_ &&
                                  !madeThisBatch && agreedPath) ||
                                 replacingSource;

            if (replace && unique != *out) {
                std::string trashError;
                if (!FileManager::trashItem(*out, trashError))
                    fs::remove(*out, ec);
                std::string moveError;
                if (!FileManager::moveItem(unique, *out, moveError)) {
                    logMessage(stringWithFormat(
                        "Could Not Move File To Output Location %@.  Error:%@", *out, moveError));
                    success_ = false;
                    setFailureReason(moveError + ": " + *out);
                } else {
                    finalPath = *out;
                }
            }
            if (fs::exists(companion, ec)) {
                std::string companionError;
                FileManager::moveItem(companion, companionPath(finalPath), companionError);
            }
            FileManager::clearQuarantine(finalPath);
            // The file is where it is: the path the batch knows must say so.
            setOutFilePath(finalPath);
            if (delegate_)
                onMainThread([&] { delegate_->addCreatedOutputPath(finalPath); });
        }
    }
    if (temp) {
        fs::remove(*temp, ec);
        fs::remove(companionPath(*temp), ec);
    }
    if (const auto decoded = decodeFilePath())
        fs::remove(*decoded, ec);
}

std::string EncodeOperation::companionPath(const std::string& path) {
    const fs::path p(path);
    return (p.parent_path() / ("._" + p.filename().string())).string();
}

void EncodeOperation::deletePartiallyEncodedFileIfCancelled() {
    if (!isCancelled())
        return;
    if (const auto temp = tempFilePath()) {
        std::error_code ec;
        fs::remove(*temp, ec);
        fs::remove(companionPath(*temp), ec);
    }
}

void EncodeOperation::updateMetadataOnly() {
    success_ = true;
    setTempFilePath(inFilePath_);
    if (FileManager::isInMusicLibraryFolder(inFilePath_)) {
        const std::string text = "The Metadata Of Music In Your iTunes Library Can Not Be Edited";
        failAndComplete(text, text);
        return;
    }

    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    std::string out = inFilePath_;
    if (defaults.boolForKey("useCustomNamingScheme") &&
        defaults.boolForKey("renameAfterUpdatingMetadata")) {
        if (!determineOutputPath())
            return;
        // The file keeps its own format, so it keeps its own extension.
        fs::path renamed(*outFilePath());
        renamed.replace_extension(fs::path(inFilePath_).extension());
        out = renamed.string();
    }
    setOutFilePath(out);

    if (!inputIsWritable())
        return;
    std::string tagError;
    onTaggingThread([this, &tagError] {
        try {
            writeMetadata();
        } catch (const std::exception& e) {
            tagError = e.what();
        }
    });
    if (!tagError.empty()) {
        failAndComplete(stringWithFormat("Could Not Update The Metadata Of %@.  Error:%@",
                                         inputDisplayName(), tagError),
                        "Could not update the tags: " + tagError);
        return;
    }

    if (out != inFilePath_) {
        std::error_code ec;
        const fs::path folder = fs::path(out).parent_path();
        fs::create_directories(folder, ec);
        fs::remove(out, ec);
        std::string error;
        if (!FileManager::moveItem(inFilePath_, out, error)) {
            logMessage(stringWithFormat("Could Not Move Encoded File To Folder %@.  Error:%@",
                                        folder.filename().string(), error));
            success_ = false;
            setFailureReason("Tags updated, but the file could not be moved: " + error);
        }
    }
    onMainThread([this] { completeOperation(); });
}

bool EncodeOperation::inputIsWritable() {
    // The tag writers rewrite the file in place and say nothing when they
    // cannot; opening it for writing first finds the cause while it can
    // still be named.
    const int fd = ::open(inFilePath_.c_str(), O_WRONLY | O_CLOEXEC);
    if (fd >= 0) {
        ::close(fd);
        return true;
    }
    const std::string error = std::strerror(errno);
    failAndComplete(stringWithFormat("Could Not Update The Metadata Of %@.  Error:%@",
                                     inputDisplayName(), error),
                    "Could not update the tags: " + error);
    return false;
}

void EncodeOperation::saveAlbumArtworkToFile() {
    const std::shared_ptr<AudioMetadata> record = metadata();
    const std::shared_ptr<AlbumArtwork> artwork = record ? record->albumArtwork() : nullptr;
    const auto out = outFilePath();
    if (!artwork || !artwork->data() || !out)
        return;
    const std::string mime = artwork->mimeType().value_or("");
    std::string extension = "jpg";
    if (mime == "image/png")
        extension = "png";
    else if (mime == "image/gif")
        extension = "gif";
    else if (mime == "image/tiff")
        extension = "tiff";
    else if (mime == "image/bmp")
        extension = "bmp";
    const std::string name = expandFormatSpecifiers(
        UserDefaults::standardUserDefaults().stringForKey("albumArtworkFileName"), record.get(),
        settings_.get(), inFilePath_, true);
    const fs::path target = fs::path(*out).parent_path() / (name + "." + extension);
    if (artwork->writeToFile(target))
        FileManager::clearQuarantine(target);
}

void EncodeOperation::addToiTunes() {
    const auto out = outFilePath();
    if (!out || !success() || !isItunesCompatible())
        return;
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    // A playlist name is no file name: the values go in as they are.
    const std::string playlist =
        expandFormatSpecifiers(defaults.stringForKey("iTunesPlaylistName"), metadata().get(),
                               settings_.get(), inFilePath_, false);
    MusicLibrary::sharedLibrary().addFile(*out, playlist,
                                          defaults.boolForKey("addToiTunesPlaylist"), cancelled_);
}

} // namespace velvox
