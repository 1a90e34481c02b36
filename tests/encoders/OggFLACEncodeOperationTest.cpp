// The Ogg FLAC encoder end to end: the header packets and serial number read
// straight from the Ogg pages, the audio decoded back by the reference flac
// tool.

#include <ctime>
#include <filesystem>

#include <FLAC/format.h>
#include <gtest/gtest.h>

#include "encoders/EncoderTestHarness.h"
#include "encoders/OggFLACEncodeOperation.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

// The first logical stream of an Ogg file: its serial number and its first
// packets, put together from the pages' segments.
struct OggStream {
    uint32_t serial = 0;
    std::vector<std::vector<uint8_t>> packets;
};

OggStream firstStream(const std::vector<uint8_t>& bytes, size_t packetLimit) {
    OggStream stream;
    std::vector<uint8_t> packet;
    size_t at = 0;
    bool first = true;
    while (at + 27 <= bytes.size() && stream.packets.size() < packetLimit) {
        EXPECT_EQ(std::string(bytes.begin() + long(at), bytes.begin() + long(at) + 4), "OggS");
        uint32_t serial = 0;
        for (int b = 0; b < 4; ++b)
            serial |= uint32_t(bytes[at + 14 + b]) << (8 * b);
        if (first)
            stream.serial = serial;
        EXPECT_EQ(serial, stream.serial) << "a second stream in the file";
        first = false;
        const size_t segments = bytes[at + 26];
        size_t data = at + 27 + segments;
        for (size_t s = 0; s < segments && data <= bytes.size(); ++s) {
            const size_t lace = bytes[at + 27 + s];
            if (data + lace > bytes.size())
                break;
            packet.insert(packet.end(), bytes.begin() + long(data),
                          bytes.begin() + long(data + lace));
            data += lace;
            if (lace < 255) {
                stream.packets.push_back(std::move(packet));
                packet.clear();
            }
        }
        at = data;
    }
    return stream;
}

class OggFLACEncodeOperationTest : public test::EncoderTest<OggFLACEncodeOperation> {
protected:
    void SetUp() override {
        EncoderTestBase::SetUp();
        settings->setEncoderType(EncoderTypeOggFLAC);
        settings->setExtension("oga");
        settings->setFlacCompressionLevel(5);
    }

    std::vector<uint8_t> decoded(const std::string& path) const {
        const std::string raw = dir.file("decoded.raw");
        const auto r = test::runCommand(
            "flac -d --ogg -s -f --force-raw-format --endian=little --sign=signed -o " +
            test::shellQuote(raw) + " " + test::shellQuote(path));
        EXPECT_EQ(r.exitCode, 0) << "flac could not decode " << path;
        auto bytes = test::readFile(raw);
        fs::remove(raw);
        return bytes;
    }
};

} // namespace

TEST_F(OggFLACEncodeOperationTest, LongFileHasPaddingAndNoSeekTable) {
    prefs.set("writeMetadata", false);
    const std::string in = dir.file("long.wav");
    test::writeWav(in, test::makeSignal(44100 * 25, 1, 16), 1, 44100, 16);
    auto op = encode(in);
    ASSERT_TRUE(op->success());

    const OggStream stream = firstStream(test::readFile(*op->outFilePath()), 8);
    ASSERT_GE(stream.packets.size(), 2u);
    const std::vector<uint8_t>& head = stream.packets[0];
    ASSERT_GE(head.size(), 13u);
    EXPECT_EQ(std::string(head.begin() + 1, head.begin() + 5), "FLAC");
    EXPECT_EQ(std::string(head.begin() + 9, head.begin() + 13), "fLaC");
    // The metadata blocks follow, one a packet, until the one marked last.
    std::vector<int> types;
    uint32_t paddingLength = 0;
    for (size_t p = 1; p < stream.packets.size(); ++p) {
        const std::vector<uint8_t>& block = stream.packets[p];
        ASSERT_GE(block.size(), 4u);
        types.push_back(block[0] & 0x7F);
        if ((block[0] & 0x7F) == FLAC__METADATA_TYPE_PADDING)
            paddingLength = uint32_t(block[1]) << 16 | uint32_t(block[2]) << 8 | block[3];
        if (block[0] & 0x80)
            break;
    }
    // libFLAC always writes its own comment block; the rest is ours.
    EXPECT_EQ(types,
              (std::vector<int>{FLAC__METADATA_TYPE_VORBIS_COMMENT, FLAC__METADATA_TYPE_PADDING}));
    EXPECT_EQ(paddingLength, 8192u);
}

TEST_F(OggFLACEncodeOperationTest, EncodesStartedInTheSameSecondShareTheSerialNumber) {
    const std::string in = dir.file("short.wav");
    test::writeWav(in, test::makeSignal(4410, 2, 16), 2, 44100, 16);
    // Two encodes side by side; should they straddle a second, try again.
    for (int attempt = 0; attempt < 5; ++attempt) {
        const std::time_t before = std::time(nullptr);
        auto first = std::make_unique<OggFLACEncodeOperation>();
        auto second = std::make_unique<OggFLACEncodeOperation>();
        for (auto* op : {first.get(), second.get()}) {
            op->initWithFilePath(in, in);
            op->setSettings(settings);
            op->setDelegate(&batch);
            op->setMetadata(std::make_shared<AudioMetadata>());
            op->start();
        }
        ASSERT_TRUE(MainRunLoop::shared().runUntil(
            [&] { return first->isFinished() && second->isFinished(); }, std::chrono::seconds(60)));
        const std::time_t after = std::time(nullptr);
        ASSERT_TRUE(first->success() && second->success());
        ASSERT_NE(first->outFilePath(), second->outFilePath());
        const uint32_t a = firstStream(test::readFile(*first->outFilePath()), 1).serial;
        const uint32_t b = firstStream(test::readFile(*second->outFilePath()), 1).serial;
        EXPECT_GE(a, uint32_t(before));
        EXPECT_LE(a, uint32_t(after));
        if (before != after)
            continue;
        EXPECT_EQ(a, b);
        EXPECT_EQ(a, uint32_t(before));
        return;
    }
    FAIL() << "no two encodes ran within one second";
}
