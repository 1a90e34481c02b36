#include "encoders/OggPageWriter.h"

#include "platform/Exception.h"

namespace velvox {

OggPageWriter::OggPageWriter(const std::string& path, int serialNumber,
                             const char* openFailedText) {
    VLX_ASSERT(ogg_stream_init(&os_, serialNumber) == 0, "ogg_stream_init failed");
    streamReady_ = true;
    file_.reset(std::fopen(path.c_str(), "wb"));
    if (!file_) {
        ogg_stream_clear(&os_);
        streamReady_ = false;
        VLX_ASSERT(false, "%@", std::string(openFailedText));
    }
}

OggPageWriter::~OggPageWriter() {
    if (streamReady_)
        ogg_stream_clear(&os_);
}

void OggPageWriter::packetin(ogg_packet& packet) {
    VLX_ASSERT(ogg_stream_packetin(&os_, &packet) == 0, "ogg_stream_packetin failed");
}

void OggPageWriter::writeHeaderPacket(unsigned char* data, long bytes, int64_t packetNumber,
                                      const char* failedText) {
    ogg_packet op{};
    op.packet = data;
    op.bytes = bytes;
    op.b_o_s = packetNumber == 0 ? 1 : 0;
    op.e_o_s = 0;
    op.granulepos = 0;
    op.packetno = packetNumber;
    packetin(op);
    VLX_ASSERT(flushAll(), "%@", std::string(failedText));
}

void OggPageWriter::writeReadyPages(const char* failedText) {
    ogg_page page;
    while (ogg_stream_pageout(&os_, &page) != 0)
        VLX_ASSERT(writePage(page), "%@", std::string(failedText));
}

bool OggPageWriter::writePage(const ogg_page& page) {
    if (!file_)
        return false;
    const size_t header = std::fwrite(page.header, 1, size_t(page.header_len), file_.get());
    const size_t body = std::fwrite(page.body, 1, size_t(page.body_len), file_.get());
    return header == size_t(page.header_len) && body == size_t(page.body_len);
}

bool OggPageWriter::flushAll() {
    ogg_page page;
    while (ogg_stream_flush(&os_, &page) != 0)
        if (!writePage(page))
            return false;
    return true;
}

bool OggPageWriter::close() {
    if (!file_)
        return true;
    const bool flushed = std::fflush(file_.get()) == 0 && !std::ferror(file_.get());
    const bool closed = std::fclose(file_.release()) == 0;
    return flushed && closed;
}

} // namespace velvox
