#include "platform/MPDConfigFile.h"

#include <cstdlib>
#include <fstream>
#include <vector>

#include "platform/FileManager.h"

namespace velvox {

namespace fs = std::filesystem;

namespace {

// The value of a `name "value"` line, or nothing. MPD's files allow
// backslash escapes inside the quotes.
std::optional<std::string> quotedValue(const std::string& line, const std::string& name) {
    size_t position = line.find_first_not_of(" \t");
    if (position == std::string::npos || line.compare(position, name.size(), name) != 0)
        return std::nullopt;
    position = line.find_first_not_of(" \t", position + name.size());
    if (position == std::string::npos || line[position] != '"')
        return std::nullopt;
    std::string value;
    for (++position; position < line.size(); ++position) {
        if (line[position] == '"')
            return value;
        if (line[position] == '\\' && position + 1 < line.size())
            ++position;
        value += line[position];
    }
    return std::nullopt; // no closing quote
}

} // namespace

std::optional<std::string> MPDConfigFile::musicDirectoryInFile(const fs::path& file) {
    std::ifstream in(file);
    for (std::string line; std::getline(in, line);) {
        std::optional<std::string> value = quotedValue(line, "music_directory");
        if (!value)
            continue;
        if (value->starts_with("~/"))
            return (FileManager::homeDirectory() / value->substr(2)).string();
        return value;
    }
    return std::nullopt;
}

std::optional<std::string> MPDConfigFile::musicDirectory() {
    const fs::path home = FileManager::homeDirectory();
    const char* configHome = std::getenv("XDG_CONFIG_HOME");
    const std::vector<fs::path> candidates{
        (configHome && *configHome ? fs::path(configHome) : home / ".config") / "mpd/mpd.conf",
        home / ".mpdconf", home / ".mpd/mpd.conf", "/etc/mpd.conf"};
    for (const fs::path& file : candidates) {
        std::error_code ec;
        if (fs::is_regular_file(file, ec))
            return musicDirectoryInFile(file);
    }
    return std::nullopt;
}

} // namespace velvox
