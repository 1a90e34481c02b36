#include "platform/TemporaryFiles.h"

#include <chrono>
#include <filesystem>
#include <mutex>
#include <set>

#include <dirent.h>
#include <unistd.h>

namespace velvox {

namespace fs = std::filesystem;

namespace {

// Never destroyed: the list is still needed while the program ends.
struct Registry {
    std::timed_mutex mutex;
    std::set<std::string> paths;
    // Set once the program is being ended at once: other threads still run
    // until the process goes, and a file they make from then on is removed
    // as it is listed instead of outliving the run.
    bool closing = false;
};

Registry& registry() {
    static Registry* shared = new Registry;
    return *shared;
}

// Unlinks the own temporary files behind the process's open descriptors:
// an encoder stuck in a write still holds its file, listed or not.
void removeOpenTemporaryFiles() {
    DIR* folder = ::opendir("/proc/self/fd");
    if (!folder)
        return;
    while (const dirent* entry = ::readdir(folder)) {
        if (entry->d_name[0] == '.')
            continue;
        const std::string link = std::string("/proc/self/fd/") + entry->d_name;
        char target[4096];
        const ssize_t length = ::readlink(link.c_str(), target, sizeof target - 1);
        if (length <= 0)
            continue;
        target[length] = '\0';
        if (TemporaryFiles::isOwnTemporaryName(target))
            ::unlink(target);
    }
    ::closedir(folder);
}

} // namespace

void TemporaryFiles::add(const std::string& path) {
    Registry& shared = registry();
    std::lock_guard lock(shared.mutex);
    if (shared.closing)
        ::unlink(path.c_str());
    else
        shared.paths.insert(path);
}

void TemporaryFiles::remove(const std::string& path) {
    Registry& shared = registry();
    std::lock_guard lock(shared.mutex);
    shared.paths.erase(path);
}

bool TemporaryFiles::isOwnTemporaryName(const std::string& path) {
    std::error_code ec;
    const fs::path folder = fs::temp_directory_path(ec);
    if (ec)
        return false;
    const fs::path file(path);
    if (file.filename().string().rfind("Velvox-", 0) != 0)
        return false;
    // Without a trailing separator, both as given and with links resolved
    // (the kernel names open files by their resolved path).
    const fs::path given = (folder / "x").lexically_normal().parent_path();
    const fs::path resolved = fs::weakly_canonical(given, ec);
    const fs::path parent = file.lexically_normal().parent_path();
    return parent == given || (!ec && parent == resolved);
}

void TemporaryFiles::removeAllNow() noexcept {
    try {
        Registry& shared = registry();
        if (shared.mutex.try_lock_for(std::chrono::milliseconds(200))) {
            shared.closing = true;
            for (const std::string& path : shared.paths)
                ::unlink(path.c_str());
            shared.mutex.unlock();
        }
        removeOpenTemporaryFiles();
    } catch (...) {
    }
}

} // namespace velvox
