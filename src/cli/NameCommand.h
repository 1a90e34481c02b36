#pragma once
// velvox name [--scheme TEMPLATE] [--format FORMAT|N] FILE...
// One line per file: the naming template expanded for that file with its
// values made safe as file names: the part of the output path the template
// decides (no output folder in front, no extension after). Without --scheme the
// saved "customNamingScheme" is used; --format gives the output format that
// {outputFormat}, {bitrate} and their kind refer to, as a FORMAT or as the
// number of a saved format.

#include <iosfwd>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace velvox {

class TaggingThread;

class NameCommand {
public:
    void addTo(CLI::App& app);
    // Tags are read on `tagging`, where all tag access of the program runs.
    // 0 every file named, 1 a file is missing, 2 a bad --format.
    int execute(TaggingThread& tagging, std::ostream& out, std::ostream& err) const;

private:
    CLI::App* command_ = nullptr;
    std::string scheme_;
    std::string format_;
    std::vector<std::string> files_;
};

} // namespace velvox
