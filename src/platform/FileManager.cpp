#include "platform/FileManager.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include <fcntl.h>
#include <gio/gio.h>
#include <pwd.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include "platform/StorageFailure.h"
#include "platform/TemporaryFiles.h"

namespace velvox {

namespace {

struct GObjectDeleter {
    void operator()(void* object) const { g_object_unref(object); }
};
struct GErrorDeleter {
    void operator()(GError* error) const { g_error_free(error); }
};

// Copies then removes, for moves between file systems. The copy goes to a
// hidden temporary name beside the destination and is renamed into place, so
// no half-written file ever stands at the destination path.
bool copyThenRemove(const std::filesystem::path& from, const std::filesystem::path& to,
                    std::string& error, int& errorNumber) {
    const std::filesystem::path partial =
        to.parent_path() / ("." + to.filename().string() + ".velvox-partial");
    // Listed while it exists, so that a program ended at once removes it too.
    TemporaryFiles::add(partial.string());
    std::error_code ec;
    std::filesystem::copy_file(from, partial, std::filesystem::copy_options::overwrite_existing,
                               ec);
    if (!ec) {
        const int fd = ::open(partial.c_str(), O_RDONLY | O_CLOEXEC);
        if (fd >= 0) {
            ::fsync(fd);
            ::close(fd);
        }
        std::filesystem::rename(partial, to, ec);
    }
    if (ec) {
        // The kernel's in-kernel copy reports a full destination as an I/O
        // error; while the partial copy still fills it, the disk says why.
        if (StorageFailure::isFull(partial.parent_path()))
            ec = std::make_error_code(std::errc::no_space_on_device);
        std::error_code ignored;
        std::filesystem::remove(partial, ignored);
        TemporaryFiles::remove(partial.string());
        error = ec.message();
        errorNumber = ec.value();
        return false;
    }
    TemporaryFiles::remove(partial.string());
    std::filesystem::remove(from, ec);
    return true;
}

} // namespace

bool FileManager::moveItem(const std::filesystem::path& from, const std::filesystem::path& to,
                           std::string& error) {
    int errorNumber = 0;
    return moveItem(from, to, error, errorNumber);
}

bool FileManager::moveItem(const std::filesystem::path& from, const std::filesystem::path& to,
                           std::string& error, int& errorNumber) {
    if (::rename(from.c_str(), to.c_str()) == 0)
        return true;
    if (errno != EXDEV) {
        errorNumber = errno;
        error = std::strerror(errno);
        return false;
    }
    return copyThenRemove(from, to, error, errorNumber);
}

bool FileManager::renameNoReplace(const std::filesystem::path& from,
                                  const std::filesystem::path& to, int& errorNumber) {
    if (::renameat2(AT_FDCWD, from.c_str(), AT_FDCWD, to.c_str(), RENAME_NOREPLACE) == 0)
        return true;
    errorNumber = errno;
    return false;
}

bool FileManager::trashItem(const std::filesystem::path& path, std::string& error) {
    std::unique_ptr<GFile, GObjectDeleter> file(g_file_new_for_path(path.c_str()));
    GError* raw = nullptr;
    const gboolean ok = g_file_trash(file.get(), nullptr, &raw);
    std::unique_ptr<GError, GErrorDeleter> failure(raw);
    if (!ok) {
        error = failure ? failure->message : "the file could not be moved to the trash";
        return false;
    }
    return true;
}

void FileManager::clearQuarantine(const std::filesystem::path& path) {
    for (const char* name : {"user.xdg.origin.url", "user.xdg.referrer.url"})
        ::removexattr(path.c_str(), name);
}

std::filesystem::path FileManager::homeDirectory() {
    if (const char* home = std::getenv("HOME"); home && *home)
        return home;
    if (const passwd* pw = ::getpwuid(::getuid()); pw && pw->pw_dir)
        return pw->pw_dir;
    return "/";
}

bool FileManager::isInMusicLibraryFolder(const std::string& path) {
    const std::string library = (homeDirectory() / "Music/iTunes").string();
    return path.find(library) != std::string::npos;
}

} // namespace velvox
