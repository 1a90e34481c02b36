#pragma once
// velvox codecs [--json]
//
// Every format of this build, one row each from the format registry: its
// names, extensions, the class that reads it, the encoder that writes it
// (EncoderType and FORMAT word), the tag kinds written and the settings keys
// with their defaults. Nothing here lists formats of its own.

#include <iosfwd>

#include <nlohmann/json.hpp>

namespace CLI {
class App;
} // namespace CLI

namespace velvox {

class CodecsCommand {
public:
    void addTo(CLI::App& app);
    int execute(std::ostream& out) const;

    // The registry as the --json output shows it.
    static nlohmann::json describeFormats();

private:
    bool json_ = false;
};

} // namespace velvox
