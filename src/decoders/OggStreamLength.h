#pragma once
// The length of an Ogg stream from its first and last page headers, without
// decoding: the last granule position of the first logical stream minus the
// first page's.

#include <cstdint>
#include <string>

namespace velvox {

class OggStreamLength {
public:
    // Granule units of the stream's codec; -1 when the file has no usable
    // first or last page (too short, cut before any granule, unreadable).
    static int64_t granuleSpan(const std::string& path);
    // Whether the file's last page carries the end-of-stream mark; a file cut
    // short has lost that page.
    static bool endsWithLastPage(const std::string& path);

private:
    struct Ends {
        int64_t first = -1;
        int64_t last = -1;
        bool lastIsEos = false;
    };
    static Ends scan(const std::string& path);
};

} // namespace velvox
