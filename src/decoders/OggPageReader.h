#pragma once
// The reading side of one Ogg file as the Opus and Speex decoders use it: the
// file, libogg's sync layer that finds pages in its bytes, the current page,
// and the stream state of the one logical stream the decoder follows. Which
// pages belong to that stream is the decoder's own policy (chained links,
// interleaved streams); this class only reads and hands over.
//
// Used by the decoder that owns it, on its encode operation's thread.

#include <cstdio>
#include <memory>
#include <string>

#include <ogg/ogg.h>

namespace velvox {

class OggPageReader {
public:
    // Opens path; throws the assertion "Unable to open the input file (%s)."
    // when it cannot.
    explicit OggPageReader(const std::string& path);
    ~OggPageReader();
    OggPageReader(const OggPageReader&) = delete;
    OggPageReader& operator=(const OggPageReader&) = delete;

    // Reads until a whole page is in page(), skipping bytes that are not one;
    // false at the end of the file. Throws on a read error.
    bool readPage();
    const ogg_page& page() const { return page_; }
    ogg_page& page() { return page_; }

    // The logical stream: none until startStream(); the serial of a started
    // stream is stream().serialno.
    bool hasStream() const { return streamStarted_; }
    ogg_stream_state& stream() { return stream_; }
    // Follows the logical stream with this serial from now on (the first
    // time, or for the next link of a chain), forgetting any packets held.
    void startStream(int serial);
    // Hands the current page to the stream; throws "Error reading Ogg page."
    // when libogg refuses it.
    void pagein();

private:
    struct FileCloser {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    std::unique_ptr<std::FILE, FileCloser> file_;
    ogg_sync_state sync_{};
    ogg_page page_{};
    ogg_stream_state stream_{};
    bool streamStarted_ = false;
};

} // namespace velvox
