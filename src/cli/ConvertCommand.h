#pragma once
// velvox convert [OPTIONS] PATH...
//
// Runs one batch: every file of a format Velvox reads among the PATHs (folders
// are walked, hidden files left out) is converted to every output format,
// given with -f/--format FORMAT (repeatable) or, without it, the saved enabled
// formats. The options set the preferences of this run only; the saved ones
// are never changed.

#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
}

namespace velvox {

class ConvertCommand {
public:
    void addTo(CLI::App& app);
    // 0 every file converted or skipped, 1 some failed, 2 usage error,
    // 130 interrupted (143 terminated).
    int execute(std::ostream& out, std::ostream& err) const;

private:
    CLI::App* command_ = nullptr;
    std::vector<std::string> formats_;
    std::string output_;
    bool sameFolder_ = false;
    std::string naming_;
    bool preserveTree_ = false;
    int jobs_ = 0;
    std::string overwrite_;
    bool deleteOriginal_ = false;
    bool skipSameType_ = false;
    bool updateTags_ = false;
    bool allowIncomplete_ = false;
    std::vector<std::string> paths_;
};

} // namespace velvox
