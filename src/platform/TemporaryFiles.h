#pragma once
// The files a run has made that must not outlive it: temporary encodes and
// hidden partial copies in an output folder. Normally their owners remove
// them; this list is for the one case where they cannot, when the program
// is ended at once (a second Ctrl-C, or threads that do not wind down in
// time) and nothing is unwound.

#include <string>

namespace velvox {

class TemporaryFiles {
public:
    // Any thread. Once removeAllNow has run, a file added is removed at once.
    static void add(const std::string& path);
    static void remove(const std::string& path);
    // Whether a path is one of the program's own temporary files
    // ("Velvox-..." in the temporary folder), the only kind added from there.
    static bool isOwnTemporaryName(const std::string& path);
    // The thread that ends the program: removes every listed file and every
    // own temporary file the process still holds open. Waits at most briefly
    // for the list; never throws.
    static void removeAllNow() noexcept;
};

} // namespace velvox
