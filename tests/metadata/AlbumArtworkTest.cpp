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

void put16LE(Bytes& out, uint32_t v) {
    out.push_back(static_cast<uint8_t>(v));
    out.push_back(static_cast<uint8_t>(v >> 8));
}

// A real two-colour GIF. The LZW stream sends a clear code after every two
// pixels, which keeps the code size at 3 bits without any compression logic.
Bytes makeGIF(uint16_t width, uint16_t height) {
    Bytes out = {'G', 'I', 'F', '8', '9', 'a'};
    put16LE(out, width);
    put16LE(out, height);
    out.insert(out.end(), {0x80, 0, 0, 0xFF, 0xFF, 0xFF, 0x00, 0x00, 0x00}); // 2-entry palette
    out.push_back(0x2C);
    put16LE(out, 0);
    put16LE(out, 0);
    put16LE(out, width);
    put16LE(out, height);
    out.push_back(0);
    out.push_back(2); // minimum code size
    std::vector<int> codes;
    for (int i = 0; i < width * height; ++i) {
        if (i % 2 == 0)
            codes.push_back(4); // clear
        codes.push_back((i / 3) % 2);
    }
    codes.push_back(5); // end of information
    Bytes packed;
    uint32_t bits = 0, count = 0;
    for (int code : codes) {
        bits |= static_cast<uint32_t>(code) << count;
        count += 3;
        while (count >= 8) {
            packed.push_back(static_cast<uint8_t>(bits));
            bits >>= 8;
            count -= 8;
        }
    }
    if (count)
        packed.push_back(static_cast<uint8_t>(bits));
    for (size_t i = 0; i < packed.size(); i += 255) {
        const size_t n = std::min<size_t>(255, packed.size() - i);
        out.push_back(static_cast<uint8_t>(n));
        out.insert(out.end(), packed.begin() + i, packed.begin() + i + n);
    }
    out.push_back(0);
    out.push_back(0x3B);
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

// Pixels as ffmpeg decodes the file (an independent reader), as RGBA.
Bytes ffmpegRGBA(const std::string& path) {
    const auto result = test::runCommand("ffmpeg -v error -i " + test::shellQuote(path) +
                                         " -f rawvideo -pix_fmt rgba -");
    EXPECT_EQ(result.exitCode, 0);
    return Bytes(result.output.begin(), result.output.end());
}

Bytes decodedRGBA(const Bytes& encoded, int* width = nullptr, int* height = nullptr) {
    int w = 0, h = 0, n = 0;
    stbi_uc* pixels =
        stbi_load_from_memory(encoded.data(), static_cast<int>(encoded.size()), &w, &h, &n, 4);
    if (!pixels)
        return {};
    Bytes out(pixels, pixels + static_cast<size_t>(w) * h * 4);
    stbi_image_free(pixels);
    if (width)
        *width = w;
    if (height)
        *height = h;
    return out;
}

TEST(AlbumArtworkTest, MD5MatchesAnIndependentTool) {
    if (!test::haveTool("md5sum"))
        GTEST_SKIP() << "md5sum not installed";
    TempDir dir;
    const Bytes jpeg = makeJPEG(16, 16);
    writeFile(dir.file("a.jpg"), jpeg);
    const auto result = test::runCommand("md5sum " + test::shellQuote(dir.file("a.jpg")));
    AlbumArtwork artwork;
    artwork.setData(jpeg);
    EXPECT_EQ(*artwork.md5(), result.output.substr(0, 32));
    artwork.setData(Bytes{});
    EXPECT_EQ(artwork.md5(), "d41d8cd98f00b204e9800998ecf8427e");
    EXPECT_EQ(artwork.dataSize(), 0);
    EXPECT_EQ(artwork.mimeType(), "unknown");
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

TEST(AlbumArtworkTest, SaveAsTypeReencodes) {
    TempDir dir;
    const Bytes png = makePNG(30, 20, 4);
    int w = 0, h = 0;
    const Bytes pixels = decodedRGBA(png, &w, &h);
    AlbumArtwork artwork;
    artwork.setData(png);

    // Lossless types keep every pixel.
    ASSERT_TRUE(artwork.saveAsType(BitmapImageFileTypePNG, dir.file("a.png")));
    EXPECT_EQ(decodedRGBA(readFile(dir.file("a.png"))), pixels);
    ASSERT_TRUE(artwork.saveAsType(BitmapImageFileTypeBMP, dir.file("a.bmp")));
    EXPECT_EQ(decodedRGBA(readFile(dir.file("a.bmp"))), pixels);

    // Our own TIFF writer, read back by ffmpeg and by the size reader.
    ASSERT_TRUE(artwork.saveAsType(BitmapImageFileTypeTIFF, dir.file("a.tiff")));
    if (test::haveTool("ffmpeg")) {
        EXPECT_EQ(ffmpegRGBA(dir.file("a.tiff")), pixels);
    }
    AlbumArtwork tiff;
    tiff.setData(readFile(dir.file("a.tiff")));
    EXPECT_EQ(tiff.dimensions(), "30 x 20");
    EXPECT_EQ(tiff.mimeType(), "image/tiff");

    ASSERT_TRUE(artwork.saveAsType(BitmapImageFileTypeJPEG, dir.file("a.jpg")));
    AlbumArtwork jpeg;
    jpeg.setData(readFile(dir.file("a.jpg")));
    EXPECT_EQ(jpeg.mimeType(), "image/jpeg");
    EXPECT_EQ(jpeg.dimensions(), "30 x 20");

    // No GIF encoder: a PNG cannot become one, but a GIF is saved as it is.
    EXPECT_FALSE(artwork.saveAsType(BitmapImageFileTypeGIF, dir.file("a.gif")));
    EXPECT_FALSE(std::filesystem::exists(dir.file("a.gif")));
    const Bytes gif = makeGIF(4, 4);
    AlbumArtwork gifArtwork;
    gifArtwork.setData(gif);
    ASSERT_TRUE(gifArtwork.saveAsType(BitmapImageFileTypeGIF, dir.file("b.gif")));
    EXPECT_EQ(readFile(dir.file("b.gif")), gif);

    // Undecodable bytes produce no file.
    AlbumArtwork garbage;
    garbage.setData(Bytes{0x89, 'P', 'N', 'G', 1, 2, 3});
    EXPECT_FALSE(garbage.saveAsType(BitmapImageFileTypePNG, dir.file("g.png")));
    EXPECT_FALSE(std::filesystem::exists(dir.file("g.png")));
}

} // namespace
} // namespace velvox
