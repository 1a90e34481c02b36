#pragma once
// A playlist kept as an extended M3U file in UTF-8 (".m3u8"), the form music
// players on Linux read: "#EXTM3U" on the first line, then one absolute path
// per line.

#include <filesystem>
#include <string>

namespace velvox {

class M3UPlaylist {
public:
    explicit M3UPlaylist(std::filesystem::path file) : file_(std::move(file)) {}

    // "<music folder>/Playlists/<name>.m3u8". The music folder is
    // $XDG_MUSIC_DIR, else what `xdg-user-dir MUSIC` answers, else ~/Music.
    static M3UPlaylist named(const std::string& name);
    static std::filesystem::path musicDirectory();

    const std::filesystem::path& file() const { return file_; }

    // Any thread: appends one entry, creating the folder and the file (with
    // its header) when absent. Appends from several threads or processes
    // never interleave. Returns false with `error` set.
    bool append(const std::string& entry, std::string& error) const;

private:
    std::filesystem::path file_;
};

} // namespace velvox
