#include "cli/CommandLine.h"

#include <iostream>
#include <string>
#include <vector>

#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>

#include "Version.h"
#include "cli/CodecsCommand.h"
#include "cli/ConvertCommand.h"
#include "cli/FormatsCommand.h"
#include "cli/InfoCommand.h"
#include "cli/NameCommand.h"
#include "cli/ProbeCommand.h"
#include "cli/TagCommand.h"
#include "formats/FormatTable.h"
#include "jobs/FormatSpecifiers.h"
#include "platform/TaggingThread.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

// Applies each KEY=VALUE for this run only. A value that reads as JSON is
// taken as such (numbers, booleans, lists), anything else as text, so that
// "--set customNamingScheme={trackTitle}" needs no quoting of its own.
bool applyVolatileSettings(const std::vector<std::string>& assignments, std::ostream& err) {
    for (const std::string& assignment : assignments) {
        const size_t equals = assignment.find('=');
        if (equals == std::string::npos || equals == 0) {
            err << "velvox: --set takes KEY=VALUE, not '" << assignment << "'\n";
            return false;
        }
        const std::string key = assignment.substr(0, equals);
        const std::string text = assignment.substr(equals + 1);
        nlohmann::json value = nlohmann::json::parse(text, nullptr, false);
        if (value.is_discarded())
            value = text;
        UserDefaults::standardUserDefaults().setVolatileObject(key, value);
    }
    return true;
}

} // namespace

int CommandLine::run(int argc, char** argv) {
    FormatTable::installBuiltinFormats();
    // The metadata reader names picture files beside a source with a template.
    FormatSpecifiers::installAsFilenamePatternExpander();

    CLI::App app{"Velvox: convert audio files between formats, keeping tags and artwork"};
    app.set_version_flag("--version", std::string("velvox ") + kVelvoxShortVersion);
    app.require_subcommand(1);
    // Global options (--set) may also follow the subcommand; every subcommand
    // added below inherits this.
    app.fallthrough();

    std::vector<std::string> assignments;
    app.add_option("--set", assignments,
                   "Set a preference for this run only (VALUE is read as JSON when it can be, "
                   "else as text); may be repeated, before or after the command")
        ->type_name("KEY=VALUE")
        ->allow_extra_args(false);

    ProbeCommand probe;
    probe.addTo(app);
    FormatsCommand formats;
    formats.addTo(app);
    CodecsCommand codecs;
    codecs.addTo(app);
    InfoCommand info;
    info.addTo(app);
    NameCommand name;
    name.addTo(app);
    ConvertCommand convert;
    convert.addTo(app);
    TagCommand tag;
    tag.addTo(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : 2;
    }
    if (!applyVolatileSettings(assignments, std::cerr))
        return 2;

    if (app.got_subcommand("probe"))
        return probe.execute(std::cout, std::cerr);
    if (app.got_subcommand("formats"))
        return formats.execute(std::cout, std::cerr);
    if (app.got_subcommand("codecs"))
        return codecs.execute(std::cout);
    if (app.got_subcommand("convert"))
        return convert.execute(std::cout, std::cerr);
    if (app.got_subcommand("tag"))
        return tag.execute(std::cout, std::cerr);
    if (app.got_subcommand("info") || app.got_subcommand("name")) {
        // Every tag read of the run goes through the one tagging thread.
        TaggingThread tagging;
        if (app.got_subcommand("info"))
            return info.execute(tagging, std::cout, std::cerr);
        return name.execute(tagging, std::cout, std::cerr);
    }
    return 2;
}

} // namespace velvox
