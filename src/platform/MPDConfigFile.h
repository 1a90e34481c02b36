#pragma once
// MPD's own configuration file, read for the one setting a client needs when
// MPD will not tell it: a daemon reached over TCP (even on this machine)
// refuses the "config" command, which only local-socket clients may use.

#include <filesystem>
#include <optional>
#include <string>

namespace velvox {

class MPDConfigFile {
public:
    // The music_directory of the first configuration file MPD itself would
    // read ($XDG_CONFIG_HOME/mpd/mpd.conf, ~/.mpdconf, ~/.mpd/mpd.conf,
    // /etc/mpd.conf), with a leading "~" expanded. Any thread.
    static std::optional<std::string> musicDirectory();
    // The same setting of one file; nothing when the file has none.
    static std::optional<std::string> musicDirectoryInFile(const std::filesystem::path& file);
};

} // namespace velvox
