#pragma once
// velvox info [--json] FILE...
// Every field that each file's metadata record holds: the tags, the facts
// about the source, and the picture as its MIME type, size and MD5. A file
// that cannot be read still gets its (nearly empty) record; it is reported on
// standard error and makes the exit status 1.

#include <iosfwd>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace CLI {
class App;
}

namespace velvox {

class AudioMetadata;
class TaggingThread;

class InfoCommand {
public:
    void addTo(CLI::App& app);
    // Tags are read on `tagging`, where all tag access of the program runs.
    int execute(TaggingThread& tagging, std::ostream& out, std::ostream& err) const;

    // Whether the record holds what any readable audio file yields: a fact
    // about its stream (rate, channels or length). A record without one comes
    // from a file that is missing or not audio Velvox can read.
    static bool describesAudio(const AudioMetadata& metadata);
    // The text form: the path, then one "  key  value" line per field.
    static std::string textFor(const std::string& path, const nlohmann::ordered_json& info);

private:
    std::vector<std::string> files_;
    bool json_ = false;
};

} // namespace velvox
