#pragma once
// Plain words for the ways writing a file runs into the limits of the file
// system: a full disk or quota, and a name longer than the file system takes.
// Library wrappers report these as "Input/output error" or a codec's own
// client-error code, which tells the user nothing; these texts name the cause
// and the folder or file, for the error log and the command line's summary.

#include <filesystem>
#include <optional>
#include <string>

namespace velvox {

class StorageFailure {
public:
    // ENOSPC and EDQUOT: the disk or the user's quota is full.
    static bool isOutOfSpace(int errorNumber);
    // "No space left on device in FOLDER".
    static std::string outOfSpaceText(const std::filesystem::path& folder);
    // Whether the file system holding `path` has no block left that this
    // process may use (root may use the reserved ones).
    static bool isFull(const std::filesystem::path& path);
    // The out-of-space text when `errorNumber` says so or the file system of
    // `folder` is full; nothing otherwise.
    static std::optional<std::string> describe(int errorNumber,
                                               const std::filesystem::path& folder);

    // The first component of `path` longer than its file system's name limit
    // (in bytes, as the kernel counts), or the whole path when it is longer
    // than the path limit; nothing when every part fits.
    static std::optional<std::string> overlongPart(const std::filesystem::path& path);
    // "File name too long for its file system: PATH".
    static std::string nameTooLongText(const std::filesystem::path& path);
};

} // namespace velvox
