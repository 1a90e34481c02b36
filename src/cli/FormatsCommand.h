#pragma once
// velvox formats [--json]
// velvox formats --add FORMAT | --remove N | --duplicate N | --enable N |
//                --disable N | --default N
//
// The user's list of output formats, as the preferences keep it
// ("encoderSettings", a list of settings dictionaries, and
// "defaultEncoderSetting", the index of the default one). Formats are
// numbered from 1 on the command line; the stored index counts from 0.

#include <iosfwd>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace CLI {
class App;
class Option;
} // namespace CLI

namespace velvox {

class EncoderSettings;

class FormatsCommand {
public:
    using FormatList = std::vector<std::shared_ptr<EncoderSettings>>;

    void addTo(CLI::App& app);
    // 0 done, 1 refused (duplicate, the last format, preferences not saved),
    // 2 usage error (bad FORMAT, no such number).
    int execute(std::ostream& out, std::ostream& err) const;

    // The saved formats from the standard preferences, every entry in order.
    static FormatList savedFormats();
    // The stored default index, when it names one of `count` formats.
    static std::optional<size_t> defaultFormatIndex(size_t count);

private:
    int listFormats(const FormatList& formats, std::optional<size_t> defaultIndex,
                    std::ostream& out) const;

    CLI::App* command_ = nullptr;
    std::string addFormat_;
    int removeNumber_ = 0;
    int duplicateNumber_ = 0;
    int enableNumber_ = 0;
    int disableNumber_ = 0;
    int defaultNumber_ = 0;
    bool json_ = false;
};

} // namespace velvox
