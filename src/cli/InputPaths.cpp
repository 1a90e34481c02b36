#include "cli/InputPaths.h"

#include "core/FormatRegistry.h"

#include <filesystem>
#include <ostream>
#include <system_error>

#include "jobs/ApplicationController.h"

namespace velvox {

namespace fs = std::filesystem;

InputPaths InputPaths::check(const std::vector<std::string>& arguments, std::ostream& err) {
    InputPaths result;
    for (const std::string& argument : arguments) {
        std::error_code ec;
        const fs::path absolute = fs::absolute(argument, ec).lexically_normal();
        std::string path = absolute.string();
        // "dir/" normalises to "dir/"; the queue compares plain paths.
        while (path.size() > 1 && path.back() == '/')
            path.pop_back();
        const fs::file_status status = fs::status(path, ec);
        if (!fs::exists(status)) {
            err << "velvox: " << argument << ": No such file or directory\n";
            ++result.rejected_;
        } else if (fs::is_directory(status)) {
            result.usable_.push_back(path);
        } else if (!fs::is_regular_file(status)) {
            // A FIFO or a device never ends: reading one would hang the batch.
            err << "velvox: " << argument << ": not a regular file\n";
            ++result.rejected_;
        } else if (!FormatRegistry::isAcceptedFile(path)) {
            err << "velvox: " << argument << ": not a format Velvox reads\n";
            ++result.rejected_;
        } else {
            result.usable_.push_back(path);
        }
    }
    return result;
}

} // namespace velvox
