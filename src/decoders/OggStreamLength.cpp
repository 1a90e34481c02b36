#include "decoders/OggStreamLength.h"

#include <cstdio>
#include <memory>

#include <ogg/ogg.h>

namespace velvox {

namespace {

struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};
using File = std::unique_ptr<FILE, FileCloser>;

// A page can be up to 65307 bytes long, so twice that from the end holds at
// least one whole page whenever the file has one there.
constexpr long kTailBytes = 2 * 65536;

class SyncState {
public:
    SyncState() { ogg_sync_init(&oy_); }
    ~SyncState() { ogg_sync_clear(&oy_); }
    SyncState(const SyncState&) = delete;
    SyncState& operator=(const SyncState&) = delete;

    // Feeds up to `limit` bytes from the file's current position.
    bool feed(FILE* f, long limit) {
        while (limit > 0) {
            const long want = limit < 4096 ? limit : 4096;
            char* buffer = ogg_sync_buffer(&oy_, want);
            if (!buffer)
                return false;
            const size_t got = std::fread(buffer, 1, size_t(want), f);
            if (got == 0 || ogg_sync_wrote(&oy_, long(got)) != 0)
                return got == 0;
            limit -= long(got);
        }
        return true;
    }
    // 1 for a page, 0 when none is complete; lost sync is skipped.
    int nextPage(ogg_page& page) {
        for (;;) {
            const int r = ogg_sync_pageout(&oy_, &page);
            if (r >= 0)
                return r;
        }
    }

private:
    ogg_sync_state oy_;
};

} // namespace

OggStreamLength::Ends OggStreamLength::scan(const std::string& path) {
    Ends ends;
    File file(std::fopen(path.c_str(), "rb"));
    if (!file)
        return ends;
    ogg_page page;
    SyncState head;
    if (!head.feed(file.get(), 65536 + 4096) || head.nextPage(page) != 1)
        return ends;
    const int serial = ogg_page_serialno(&page);
    ends.first = ogg_page_granulepos(&page);

    if (std::fseek(file.get(), 0, SEEK_END) != 0)
        return ends;
    const long size = std::ftell(file.get());
    const long start = size > kTailBytes ? size - kTailBytes : 0;
    if (size < 0 || std::fseek(file.get(), start, SEEK_SET) != 0)
        return ends;
    SyncState tail;
    if (!tail.feed(file.get(), size - start))
        return ends;
    while (tail.nextPage(page) == 1) {
        // Whatever stream the file's last page belongs to, a complete file
        // ends on an end-of-stream page (chained files on the last link's).
        ends.lastIsEos = ogg_page_eos(&page) != 0;
        if (ogg_page_serialno(&page) != serial)
            continue;
        if (ogg_page_granulepos(&page) >= 0)
            ends.last = ogg_page_granulepos(&page);
    }
    return ends;
}

int64_t OggStreamLength::granuleSpan(const std::string& path) {
    const Ends ends = scan(path);
    if (ends.first < 0 || ends.last < 1 || ends.last < ends.first)
        return -1;
    return ends.last - ends.first;
}

bool OggStreamLength::endsWithLastPage(const std::string& path) { return scan(path).lastIsEos; }

} // namespace velvox
