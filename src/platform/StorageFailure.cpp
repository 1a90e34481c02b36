#include "platform/StorageFailure.h"

#include <cerrno>
#include <climits>

#include <sys/statvfs.h>
#include <unistd.h>

namespace velvox {

namespace fs = std::filesystem;

bool StorageFailure::isOutOfSpace(int errorNumber) {
    return errorNumber == ENOSPC || errorNumber == EDQUOT;
}

std::string StorageFailure::outOfSpaceText(const fs::path& folder) {
    return "No space left on device in " + folder.string();
}

bool StorageFailure::isFull(const fs::path& path) {
    struct statvfs info {};
    if (::statvfs(path.c_str(), &info) != 0 || info.f_blocks == 0)
        return false;
    return (::geteuid() == 0 ? info.f_bfree : info.f_bavail) == 0;
}

std::optional<std::string> StorageFailure::describe(int errorNumber, const fs::path& folder) {
    if (isOutOfSpace(errorNumber) || (!folder.empty() && isFull(folder)))
        return outOfSpaceText(folder);
    return std::nullopt;
}

std::optional<std::string> StorageFailure::overlongPart(const fs::path& path) {
    if (path.native().size() >= PATH_MAX)
        return path.string();
    // The limit belongs to the file system a component would live on: ask
    // the deepest folder that already exists.
    fs::path existing = path.parent_path();
    std::error_code ec;
    while (!existing.empty() && !fs::is_directory(existing, ec) &&
           existing != existing.parent_path())
        existing = existing.parent_path();
    long limit = existing.empty() ? -1 : ::pathconf(existing.c_str(), _PC_NAME_MAX);
    if (limit <= 0)
        limit = NAME_MAX;
    for (const fs::path& part : path)
        if (part.native().size() > size_t(limit))
            return part.string();
    return std::nullopt;
}

std::string StorageFailure::nameTooLongText(const fs::path& path) {
    return "File name too long for its file system: " + path.string();
}

} // namespace velvox
