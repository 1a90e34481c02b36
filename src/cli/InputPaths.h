#pragma once
// The PATH arguments of a batch command, made absolute, with those that
// cannot be queued reported one per line on the error stream.

#include <iosfwd>
#include <string>
#include <vector>

namespace velvox {

class InputPaths {
public:
    // Keeps every folder and every existing file of a format Velvox reads;
    // each other path gets one line naming it.
    static InputPaths check(const std::vector<std::string>& arguments, std::ostream& err);

    const std::vector<std::string>& usable() const { return usable_; }
    size_t rejectedCount() const { return rejected_; }

private:
    std::vector<std::string> usable_;
    size_t rejected_ = 0;
};

} // namespace velvox
