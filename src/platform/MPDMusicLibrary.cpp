#include "platform/MPDMusicLibrary.h"

#include <chrono>
#include <filesystem>
#include <memory>
#include <system_error>
#include <thread>

#include <mpd/client.h>

#include "platform/ErrorLog.h"
#include "platform/M3UPlaylist.h"
#include "platform/MPDConfigFile.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace fs = std::filesystem;

namespace {

struct ConnectionDeleter {
    void operator()(mpd_connection* connection) const { mpd_connection_free(connection); }
};
struct StatusDeleter {
    void operator()(mpd_status* status) const { mpd_status_free(status); }
};
using Connection = std::unique_ptr<mpd_connection, ConnectionDeleter>;
using Status = std::unique_ptr<mpd_status, StatusDeleter>;

constexpr unsigned kConnectTimeoutMs = 10000;

void logMessage(const std::string& message) { ErrorLog::sharedController().logMessage(message); }

std::string errorText(mpd_connection* connection) {
    const char* message = mpd_connection_get_error_message(connection);
    return message ? message : "Unknown Error";
}

// Whether the daemon answered at all; a refused command is not "unreachable".
bool reachable(mpd_connection* connection) {
    if (!connection)
        return false;
    const mpd_error error = mpd_connection_get_error(connection);
    return error == MPD_ERROR_SUCCESS || error == MPD_ERROR_SERVER;
}

} // namespace

void MPDMusicLibrary::addFile(const std::string& path, const std::string& playlistName,
                              bool addToPlaylist, const std::atomic<bool>& cancelled) {
    const Connection connection(mpd_connection_new(nullptr, 0, kConnectTimeoutMs));
    if (!reachable(connection.get())) {
        addToPlaylistFile(path, playlistName);
        return;
    }
    std::optional<std::string> folder = musicDirectory(connection.get());
    std::string refusal;
    if (!folder) {
        // Refused over TCP: the daemon's own configuration file says it.
        refusal = errorText(connection.get());
        mpd_connection_clear_error(connection.get());
        folder = MPDConfigFile::musicDirectory();
    }
    if (!folder) {
        logMessage(stringWithFormat("Could Not Add %@ To The Music Library.  Error:%@", path,
                                    "MPD did not tell its music folder: " + refusal));
        return;
    }
    const std::optional<std::string> uri = relativeURI(path, *folder);
    if (!uri) {
        logMessage(
            stringWithFormat("Could Not Add %@ To The Music Library.  Error:%@", path,
                             "The file is not inside the music folder of MPD (" + *folder + ")."));
        return;
    }
    std::string error;
    if (!updateAndWait(connection.get(), *uri, cancelled, error)) {
        logMessage(
            stringWithFormat("Could Not Add %@ To The Music Library.  Error:%@", path, error));
        return;
    }
    if (addToPlaylist &&
        !mpd_run_playlist_add(connection.get(), playlistName.c_str(), uri->c_str()))
        logMessage(stringWithFormat("Could Not Add %@ To The Playlist %@.  Error:%@", path,
                                    playlistName, errorText(connection.get())));
}

std::optional<std::string> MPDMusicLibrary::musicDirectory(mpd_connection* connection) {
    if (!mpd_send_command(connection, "config", nullptr))
        return std::nullopt;
    std::optional<std::string> folder;
    while (mpd_pair* pair = mpd_recv_pair(connection)) {
        if (std::string_view(pair->name) == "music_directory")
            folder = pair->value;
        mpd_return_pair(connection, pair);
    }
    if (!mpd_response_finish(connection))
        return std::nullopt;
    return folder;
}

std::optional<std::string> MPDMusicLibrary::relativeURI(const std::string& path,
                                                        const std::string& folder) {
    // Both sides resolved, so that a symbolic link in either (a music folder
    // in /home reached through a link, say) does not hide that one holds the other.
    std::error_code ec;
    const fs::path file = fs::weakly_canonical(path, ec);
    const fs::path root = fs::weakly_canonical(folder, ec);
    if (ec || root.empty())
        return std::nullopt;
    const fs::path relative = file.lexically_relative(root);
    if (relative.empty() || *relative.begin() == ".." || relative == ".")
        return std::nullopt;
    return relative.generic_string();
}

bool MPDMusicLibrary::updateAndWait(mpd_connection* connection, const std::string& uri,
                                    const std::atomic<bool>& cancelled, std::string& error) {
    const unsigned job = mpd_run_update(connection, uri.c_str());
    if (job == 0) {
        error = errorText(connection);
        return false;
    }
    // Update jobs run one after another with rising numbers: ours is done
    // when none runs or a later one does. Polled, because MPD's idle wait
    // has no time limit and a stuck daemon must not hold the job forever.
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::seconds(updateTimeoutSeconds);
    while (std::chrono::steady_clock::now() < deadline && !cancelled) {
        const Status status(mpd_run_status(connection));
        if (!status) {
            error = errorText(connection);
            return false;
        }
        const unsigned running = mpd_status_get_update_id(status.get());
        if (running == 0 || running > job)
            return true;
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
    }
    error = cancelled ? "Cancelled while MPD updated its database."
                      : "MPD did not finish updating its database in time.";
    return false;
}

void MPDMusicLibrary::addToPlaylistFile(const std::string& path, const std::string& playlistName) {
    const M3UPlaylist playlist = M3UPlaylist::named(playlistName);
    std::string error;
    if (!playlist.append(path, error))
        logMessage(stringWithFormat("Could Not Add %@ To The Playlist %@.  Error:%@", path,
                                    playlist.file().string(), error));
}

} // namespace velvox
