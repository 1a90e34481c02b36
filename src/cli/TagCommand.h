#pragma once
// velvox tag [--set FIELD=VALUE|KEY=VALUE]... [--clear FIELD|KEY]... [--clear-all]
//            [--artwork IMAGE | --clear-artwork] FILE...
//
// Edits the tags of files in place: each file's tags are read, the edits are
// applied to that record (--clear-all first, then --clear, then --set, then
// the picture), and the record is written back by the encoder of the file's
// own format. Tags the edits do not name are kept as they were, other tags
// (KEY: MusicBrainz identifiers, ReplayGain, custom keys) included; each
// --set of a KEY adds one value. The audio is never touched.

#include <iosfwd>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace velvox {

class TagCommand {
public:
    void addTo(CLI::App& app);
    // 0 every file tagged, 1 some failed, 2 usage error, 130 interrupted.
    int execute(std::ostream& out, std::ostream& err) const;

private:
    CLI::App* command_ = nullptr;
    std::vector<std::string> assignments_;
    std::vector<std::string> clears_;
    bool clearAll_ = false;
    std::string artwork_;
    bool clearArtwork_ = false;
    std::vector<std::string> files_;
};

} // namespace velvox
