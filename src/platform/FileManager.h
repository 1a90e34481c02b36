#pragma once
// File operations the batch needs beyond std::filesystem: moving across file
// systems, the desktop trash, and clearing download marks.

#include <filesystem>
#include <string>

namespace velvox {

class FileManager {
public:
    // Moves a file, also between file systems (copy, flush, then remove the
    // original); the destination is replaced. Returns false with `error` set.
    static bool moveItem(const std::filesystem::path& from, const std::filesystem::path& to,
                         std::string& error);
    // The same, with the failure's errno (so that a full disk can be named).
    static bool moveItem(const std::filesystem::path& from, const std::filesystem::path& to,
                         std::string& error, int& errorNumber);
    // Renames within one file system without ever replacing: fails with
    // EEXIST in `errorNumber` when `to` exists, so that two threads choosing
    // the same free name cannot both have it.
    static bool renameNoReplace(const std::filesystem::path& from, const std::filesystem::path& to,
                                int& errorNumber);
    // Moves a file to the user's trash (freedesktop.org trash, through GIO).
    static bool trashItem(const std::filesystem::path& path, std::string& error);
    // Removes the marks browsers leave on downloaded files
    // (user.xdg.origin.url, user.xdg.referrer.url); missing marks are fine.
    static void clearQuarantine(const std::filesystem::path& path);
    // The user's home folder.
    static std::filesystem::path homeDirectory();
    // Whether a path lies in the music library's media folder, which the
    // library manages itself (the home folder's "Music/iTunes", as text).
    static bool isInMusicLibraryFolder(const std::string& path);
};

} // namespace velvox
