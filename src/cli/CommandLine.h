#pragma once

namespace velvox {

// The velvox command: parses arguments and dispatches to the subcommands.
class CommandLine {
public:
    // Returns the process exit status: 0 success, 1 a file failed, 2 usage error.
    static int run(int argc, char** argv);
};

} // namespace velvox
