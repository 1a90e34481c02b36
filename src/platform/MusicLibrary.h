#pragma once
// The desktop music library that finished files can be added to. Encode
// operations call it once their output is in place; which library stands
// behind it (the user's MPD, or a playlist file) is the implementation's.

#include <atomic>
#include <string>

namespace velvox {

class MusicLibrary {
public:
    virtual ~MusicLibrary() = default;

    // The library of this desktop session.
    static MusicLibrary& sharedLibrary();

    // Encode-operation thread (never the main loop: it may wait seconds for
    // the library to index the file). Adds `path` to the library and, when
    // `addToPlaylist`, to the playlist `playlistName`, created when absent.
    // Stops waiting once `cancelled` is set. Failures are written to the
    // error log; nothing is thrown.
    virtual void addFile(const std::string& path, const std::string& playlistName,
                         bool addToPlaylist, const std::atomic<bool>& cancelled) = 0;
};

} // namespace velvox
