#pragma once
// The music library on Linux: the user's Music Player Daemon, reached the way
// every MPD client reaches it (MPD_HOST and MPD_PORT, else the default socket
// and port). MPD names files relative to its music folder, so only files
// inside that folder can be added; the folder is asked of MPD, or read from
// its configuration file when MPD will not say. Without a reachable MPD the playlist is
// kept as an M3U8 file in the music folder's "Playlists" instead.

#include <optional>
#include <string>

#include "platform/MusicLibrary.h"

struct mpd_connection;

namespace velvox {

class MPDMusicLibrary : public MusicLibrary {
public:
    // Encode-operation thread: one connection per call, so that operations
    // finishing together never share one. Waits (polling, at most
    // `updateTimeoutSeconds`) for MPD to index the file before it goes into
    // the playlist, which MPD accepts only for files it knows.
    void addFile(const std::string& path, const std::string& playlistName, bool addToPlaylist,
                 const std::atomic<bool>& cancelled) override;

    static constexpr int updateTimeoutSeconds = 120;

private:
    // MPD's music folder, as its "config" command answers (local-socket
    // connections only).
    static std::optional<std::string> musicDirectory(mpd_connection* connection);
    // The path as MPD names it, or nothing when it lies outside `folder`.
    static std::optional<std::string> relativeURI(const std::string& path,
                                                  const std::string& folder);
    // Starts a database update of `uri` and waits until MPD has done it.
    static bool updateAndWait(mpd_connection* connection, const std::string& uri,
                              const std::atomic<bool>& cancelled, std::string& error);
    static void addToPlaylistFile(const std::string& path, const std::string& playlistName);
};

} // namespace velvox
