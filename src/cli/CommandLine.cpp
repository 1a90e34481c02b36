#include "cli/CommandLine.h"

#include <iostream>

#include <CLI/CLI.hpp>

#include "Version.h"
#include "cli/ProbeCommand.h"
#include "decoders/DecoderRegistration.h"

namespace velvox {

int CommandLine::run(int argc, char** argv) {
    DecoderRegistration::registerAll();

    CLI::App app{"Velvox: convert audio files between formats, keeping tags and artwork"};
    app.set_version_flag("--version", std::string("velvox ") + kVelvoxShortVersion);
    app.require_subcommand(1);

    ProbeCommand probe;
    probe.addTo(app);

    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& e) {
        const int code = app.exit(e);
        return code == 0 ? 0 : 2;
    }
    if (app.got_subcommand("probe"))
        return probe.execute(std::cout, std::cerr);
    return 2;
}

} // namespace velvox
