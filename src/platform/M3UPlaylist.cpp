#include "platform/M3UPlaylist.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <memory>
#include <system_error>

#include "platform/FileManager.h"

namespace velvox {

namespace fs = std::filesystem;

namespace {

// What `xdg-user-dir MUSIC` prints, or nothing. The tool answers the home
// folder itself when the user has no music folder configured.
fs::path configuredMusicDirectory() {
    std::unique_ptr<FILE, int (*)(FILE*)> pipe(::popen("xdg-user-dir MUSIC 2>/dev/null", "r"),
                                               ::pclose);
    if (!pipe)
        return {};
    std::string answer;
    char buffer[512];
    while (std::fgets(buffer, sizeof buffer, pipe.get()))
        answer += buffer;
    while (!answer.empty() && (answer.back() == '\n' || answer.back() == '\r'))
        answer.pop_back();
    if (answer.empty() || fs::path(answer) == FileManager::homeDirectory())
        return {};
    return answer;
}

// Closes the descriptor (and with it the lock) on every path.
struct Descriptor {
    int fd = -1;
    ~Descriptor() {
        if (fd >= 0)
            ::close(fd);
    }
};

bool writeAll(int fd, const std::string& text) {
    size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += size_t(n);
    }
    return true;
}

} // namespace

fs::path M3UPlaylist::musicDirectory() {
    if (const char* music = std::getenv("XDG_MUSIC_DIR"); music && *music)
        return music;
    if (fs::path configured = configuredMusicDirectory(); !configured.empty())
        return configured;
    return FileManager::homeDirectory() / "Music";
}

M3UPlaylist M3UPlaylist::named(const std::string& name) {
    // The name comes from the user's template unsanitised; a slash would
    // make a folder of it.
    std::string fileName = name.empty() ? "Velvox" : name;
    for (char& c : fileName)
        if (c == '/')
            c = '-';
    return M3UPlaylist(musicDirectory() / "Playlists" / (fileName + ".m3u8"));
}

bool M3UPlaylist::append(const std::string& entry, std::string& error) const {
    std::error_code ec;
    fs::create_directories(file_.parent_path(), ec);
    if (ec) {
        error = ec.message();
        return false;
    }
    Descriptor file{::open(file_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644)};
    if (file.fd < 0 || ::flock(file.fd, LOCK_EX) != 0) {
        error = std::strerror(errno);
        return false;
    }
    // Under the lock, an empty file is one nobody has written the header to.
    struct stat info {};
    if (::fstat(file.fd, &info) != 0) {
        error = std::strerror(errno);
        return false;
    }
    const std::string text = (info.st_size == 0 ? "#EXTM3U\n" : "") + entry + "\n";
    if (!writeAll(file.fd, text)) {
        error = std::strerror(errno);
        return false;
    }
    return true;
}

} // namespace velvox
