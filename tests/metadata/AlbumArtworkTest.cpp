#include "metadata/AlbumArtwork.h"

#include <filesystem>
#include <random>

#include <gtest/gtest.h>
#include <stb_image.h>
#include <stb_image_write.h>

#include "support/TestSupport.h"

namespace velvox {
namespace {

using test::md5Hex;
using test::readFile;
using test::TempDir;
using test::writeFile;
using Bytes = std::vector<uint8_t>;

// A picture whose pixels differ everywhere, so that flips and swaps show.
Bytes makePixels(int width, int height, int components) {
    Bytes pixels(static_cast<size_t>(width) * height * components);
    for (int y = 0; y < height; ++y)
        for (int x = 0; x < width; ++x)
            for (int c = 0; c < components; ++c)
                pixels[(static_cast<size_t>(y) * width + x) * components + c] =
                    static_cast<uint8_t>(x * 7 + y * 13 + c * 61);
    return pixels;
}

void appendBytes(void* context, void* data, int size) {
    auto* out = static_cast<Bytes*>(context);
    out->insert(out->end(), static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
}

Bytes makePNG(int width, int height, int components = 3) {
    const Bytes pixels = makePixels(width, height, components);
    Bytes out;
    EXPECT_TRUE(stbi_write_png_to_func(appendBytes, &out, width, height, components, pixels.data(),
                                       width * components));
    return out;
}

Bytes makeJPEG(int width, int height) {
    const Bytes pixels = makePixels(width, height, 3);
    Bytes out;
    EXPECT_TRUE(stbi_write_jpg_to_func(appendBytes, &out, width, height, 3, pixels.data(), 90));
    return out;
}

// A TIFF header with one directory: an unrelated tag first, then the width
// and height in the given types (3 SHORT, 4 LONG), in either byte order.
Bytes makeTIFFHeader(bool bigEndian, uint32_t width, uint16_t widthType, uint32_t height,
                     uint16_t heightType) {
    Bytes out;
    auto put = [&](uint64_t value, int size) {
        for (int i = 0; i < size; ++i) {
            const int shift = bigEndian ? 8 * (size - 1 - i) : 8 * i;
            out.push_back(static_cast<uint8_t>(value >> shift));
        }
    };
    auto entry = [&](uint16_t tag, uint16_t type, uint32_t value) {
        put(tag, 2);
        put(type, 2);
        put(1, 4);
        if (type == 3) {
            put(value, 2);
            put(0, 2);
        } else {
            put(value, 4);
        }
    };
    out.push_back(bigEndian ? 'M' : 'I');
    out.push_back(bigEndian ? 'M' : 'I');
    put(42, 2);
    put(16, 4); // the directory after some padding
    out.resize(16, 0xEE);
    put(3, 2);
    entry(254, 4, 0); // NewSubfileType
    entry(256, widthType, width);
    entry(257, heightType, height);
    put(0, 4);
    return out;
}

Bytes makeBigTIFFHeader(uint64_t width, uint64_t height) {
    Bytes out = {'I', 'I', 43, 0, 8, 0, 0, 0};
    auto put = [&](uint64_t value, int size) {
        for (int i = 0; i < size; ++i)
            out.push_back(static_cast<uint8_t>(value >> (8 * i)));
    };
    put(16, 8);
    put(2, 8);
    put(256, 2), put(16, 2), put(1, 8), put(width, 8); // LONG8
    put(257, 2), put(4, 2), put(1, 8), put(height, 8); // LONG
    put(0, 8);
    return out;
}

TEST(AlbumArtworkTest, GarbageAndTruncatedBytesHaveNoSize) {
    std::mt19937 random(7);
    Bytes noise(4096);
    for (auto& b : noise)
        b = static_cast<uint8_t>(random());
    noise[0] = 0x42; // not one of the known first bytes

    const Bytes png = makePNG(40, 30);
    const Bytes jpeg = makeJPEG(40, 30);
    Bytes tiffPastEnd = makeTIFFHeader(false, 10, 3, 10, 3);
    tiffPastEnd[4] = 0xF0; // directory offset far beyond the end
    Bytes tiffTooManyEntries = makeTIFFHeader(true, 10, 3, 10, 3);
    tiffTooManyEntries[16] = tiffTooManyEntries[17] = 0xFF;  // 65535 entries claimed
    tiffTooManyEntries.resize(16 + 2 + 12 + 6);              // and the size entries cut off
    Bytes tiffBadType = makeTIFFHeader(false, 10, 5, 10, 3); // RATIONAL width
    Bytes bigTIFFHuge = makeBigTIFFHeader(7, 7);
    bigTIFFHuge[8] = bigTIFFHuge[15] = 0xFF; // 64-bit directory offset near the top

    const std::vector<std::pair<const char*, Bytes>> cases = {
        {"noise", noise},
        {"PNG signature only", Bytes(png.begin(), png.begin() + 20)},
        {"JPEG cut before its frame header", Bytes(jpeg.begin(), jpeg.begin() + 30)},
        {"GIF signature only", Bytes{'G', 'I', 'F', '8', '9', 'a', 1}},
        {"TIFF directory past the end", tiffPastEnd},
        {"TIFF with too many entries", tiffTooManyEntries},
        {"TIFF width of another type", tiffBadType},
        {"BigTIFF offset overflow", bigTIFFHuge},
        {"TIFF byte order only", Bytes{'M', 'M'}},
        {"WebP cut short", Bytes{'R', 'I', 'F', 'F', 0, 0, 0, 0, 'W', 'E', 'B', 'P', 'V', 'P'}},
        {"one byte", Bytes{0xFF}},
    };
    for (const auto& [name, bytes] : cases) {
        SCOPED_TRACE(name);
        AlbumArtwork artwork;
        artwork.setData(bytes);
        EXPECT_EQ(artwork.width(), 0);
        EXPECT_EQ(artwork.height(), 0);
        EXPECT_EQ(artwork.dataSize(), static_cast<int64_t>(bytes.size()));
        EXPECT_EQ(artwork.md5(), md5Hex(bytes));
    }
    AlbumArtwork artwork;
    artwork.setData(noise);
    EXPECT_EQ(artwork.mimeType(), "unknown");
    artwork.setData(Bytes(png.begin(), png.begin() + 20));
    EXPECT_EQ(artwork.mimeType(), "image/png"); // the first byte still decides
}

} // namespace
} // namespace velvox
