#pragma once
// One logical Ogg stream written to a file: the libogg stream state and the
// output file, owned together because every page taken from the one goes to
// the other. Both encoders that do their own Ogg packaging (Opus, Speex) use
// it from their operation thread only.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>

#include <ogg/ogg.h>

namespace velvox {

class OggPageWriter {
public:
    // Opens path for writing and starts a stream with the given serial
    // number; throws the assertion openFailedText when the file cannot be
    // created, and "ogg_stream_init failed" when libogg refuses.
    OggPageWriter(const std::string& path, int serialNumber, const char* openFailedText);
    ~OggPageWriter();
    OggPageWriter(const OggPageWriter&) = delete;
    OggPageWriter& operator=(const OggPageWriter&) = delete;

    ogg_stream_state& stream() { return os_; }
    void packetin(ogg_packet& packet);

    // Puts in one of the stream's header packets (the first with the
    // beginning-of-stream mark) and flushes it to page(s) of its own, as the
    // Ogg mappings of Opus and Speex require. Throws the assertion failedText
    // on a short write.
    void writeHeaderPacket(unsigned char* data, long bytes, int64_t packetNumber,
                           const char* failedText);
    // Writes every page libogg has completed; throws the assertion
    // failedText on a short write.
    void writeReadyPages(const char* failedText);
    // Writes one page, header then body; false on a short write.
    bool writePage(const ogg_page& page);
    // Flushes every waiting packet to pages and writes them; false on a
    // short write.
    bool flushAll();
    // Closes the file; false when the close (the last write) failed.
    bool close();

private:
    struct FileCloser {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };
    ogg_stream_state os_{};
    bool streamReady_ = false;
    std::unique_ptr<std::FILE, FileCloser> file_;
};

} // namespace velvox
