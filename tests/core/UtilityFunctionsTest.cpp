#include <cstdio>
#include <filesystem>
#include <functional>
#include <string>

#include <gtest/gtest.h>
#include <ogg/ogg.h>
#include <unistd.h>

#include "core/KDDecoder.h"
#include "core/UtilityFunctions.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "support/TestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

// Writes an Ogg file whose first page holds one packet with the given bytes.
void writeOggWithFirstPacket(const std::string& path, const std::string& packetBytes,
                             bool beginningOfStream = true) {
    ogg_stream_state os;
    ogg_stream_init(&os, 0x1234);
    ogg_packet p{};
    std::vector<unsigned char> data(packetBytes.begin(), packetBytes.end());
    p.packet = data.data();
    p.bytes = long(data.size());
    p.b_o_s = beginningOfStream ? 1 : 0;
    p.e_o_s = 1;
    ogg_stream_packetin(&os, &p);
    ogg_page page;
    std::vector<uint8_t> out;
    while (ogg_stream_flush(&os, &page)) {
        out.insert(out.end(), page.header, page.header + page.header_len);
        out.insert(out.end(), page.body, page.body + page.body_len);
    }
    ogg_stream_clear(&os);
    writeFile(path, out);
}

} // namespace

TEST(OggStreamType, ClassifiesTheFirstPacket) {
    TempDir dir;
    const std::string opusHead = std::string("OpusHead\x01\x02\x38\x01\x80\xbb\0\0\0\0\0", 19);
    const struct {
        std::string packet;
        bool bos;
        OggStreamType type;
    } cases[] = {
        {std::string("\x01vorbis\0\0\0\0\x02", 12), true, OggStreamTypeVorbis},
        {"Speex   1.2rc1" + std::string(66, '\0'), true, OggStreamTypeSpeex},
        {opusHead, true, OggStreamTypeOpus},
        {std::string("\x7F"
                     "FLAC\x01\x00\x00\x01",
                     9),
         true, OggStreamTypeFLAC},
        {std::string("\x7F"
                     "FLAC\x01\x00\x00",
                     8),
         true, OggStreamTypeUnknown}, // too short
        {"Hello, this is not a codec header", true, OggStreamTypeUnknown},
    };
    int i = 0;
    for (const auto& c : cases) {
        const std::string path = dir.file("f" + std::to_string(i++) + ".ogg");
        writeOggWithFirstPacket(path, c.packet, c.bos);
        EXPECT_EQ(oggStreamType(path), c.type) << c.packet;
    }
}

TEST(TemporaryFilePath, CreatesDistinctEmptyFilesNamedForTheSession) {
    const std::string a = getTemporaryFilePath();
    const std::string b = getTemporaryFilePath("wav");
    EXPECT_NE(a, b);
    EXPECT_TRUE(std::filesystem::is_regular_file(a));
    EXPECT_EQ(std::filesystem::file_size(a), 0u);
    EXPECT_EQ(std::filesystem::path(b).extension(), ".wav");
    EXPECT_EQ(std::filesystem::path(a).parent_path(), std::filesystem::temp_directory_path());
    char session[16];
    std::snprintf(session, sizeof session, "%.8x", unsigned(getsid(0)));
    const std::string name = std::filesystem::path(a).filename().string();
    EXPECT_EQ(name.rfind("Velvox-" + std::string(session) + "-", 0), 0u) << name;
    EXPECT_EQ(name.size(), std::string("Velvox-").size() + 8 + 1 + 8);
    std::filesystem::remove(a);
    std::filesystem::remove(b);
}
