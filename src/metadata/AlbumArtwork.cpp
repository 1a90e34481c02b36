#include "metadata/AlbumArtwork.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstring>
#include <initializer_list>
#include <random>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

// Debian's libstb carries the compiled implementations; the headers are
// included for their declarations only.
#include <stb_image.h>
#include <stb_image_write.h>

#include "metadata/ArchiveCoding.h"
#include "platform/MD5.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

// ---------------------------------------------------------------------------
// Recognising images

enum class ImageFormat { Unknown, PNG, JPEG, GIF, BMP, PSD, TIFF, WebP, JPEG2000 };

bool startsWith(const uint8_t* bytes, size_t size, std::initializer_list<uint8_t> prefix) {
    return size >= prefix.size() && std::equal(prefix.begin(), prefix.end(), bytes);
}

// By signature. stb_image would also take TGA, which has none, so arbitrary
// bytes could pass for a picture; only formats that announce themselves count.
ImageFormat imageFormatOf(const uint8_t* p, size_t n) {
    if (startsWith(p, n, {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A}))
        return ImageFormat::PNG;
    if (startsWith(p, n, {0xFF, 0xD8, 0xFF}))
        return ImageFormat::JPEG;
    if (startsWith(p, n, {'G', 'I', 'F', '8', '7', 'a'}) ||
        startsWith(p, n, {'G', 'I', 'F', '8', '9', 'a'}))
        return ImageFormat::GIF;
    if (startsWith(p, n, {'B', 'M'}))
        return ImageFormat::BMP;
    if (startsWith(p, n, {'8', 'B', 'P', 'S'}))
        return ImageFormat::PSD;
    if (startsWith(p, n, {'I', 'I', 42, 0}) || startsWith(p, n, {'M', 'M', 0, 42}) ||
        startsWith(p, n, {'I', 'I', 43, 0}) || startsWith(p, n, {'M', 'M', 0, 43}))
        return ImageFormat::TIFF;
    if (n >= 12 && startsWith(p, n, {'R', 'I', 'F', 'F'}) && std::memcmp(p + 8, "WEBP", 4) == 0)
        return ImageFormat::WebP;
    if (startsWith(p, n, {0, 0, 0, 0x0C, 'j', 'P', ' ', ' ', 0x0D, 0x0A, 0x87, 0x0A}) ||
        startsWith(p, n, {0xFF, 0x4F, 0xFF, 0x51}))
        return ImageFormat::JPEG2000;
    return ImageFormat::Unknown;
}

ImageFormat imageFormatFor(BitmapImageFileType type) {
    switch (type) {
    case BitmapImageFileTypeTIFF:
        return ImageFormat::TIFF;
    case BitmapImageFileTypeBMP:
        return ImageFormat::BMP;
    case BitmapImageFileTypeGIF:
        return ImageFormat::GIF;
    case BitmapImageFileTypeJPEG:
        return ImageFormat::JPEG;
    case BitmapImageFileTypePNG:
        return ImageFormat::PNG;
    case BitmapImageFileTypeJPEG2000:
        return ImageFormat::JPEG2000;
    }
    return ImageFormat::Unknown;
}

bool stbReads(ImageFormat format) {
    return format == ImageFormat::PNG || format == ImageFormat::JPEG ||
           format == ImageFormat::GIF || format == ImageFormat::BMP || format == ImageFormat::PSD;
}

struct PixelSize {
    int64_t width = 0;
    int64_t height = 0;
    int64_t depth = 0; // bits per pixel; 0 when unknown
};

// Reads unsigned integers of 1 to 8 bytes at an offset, never past the end.
class ByteReader {
public:
    ByteReader(const uint8_t* bytes, size_t size, bool bigEndian)
        : bytes_(bytes), size_(size), bigEndian_(bigEndian) {}

    std::optional<uint64_t> read(uint64_t offset, unsigned width) const {
        if (offset > size_ || size_ - offset < width)
            return std::nullopt;
        uint64_t value = 0;
        for (unsigned i = 0; i < width; ++i) {
            const uint64_t byte = bytes_[offset + i];
            value |= bigEndian_ ? byte << (8 * (width - 1 - i)) : byte << (8 * i);
        }
        return value;
    }

private:
    const uint8_t* bytes_;
    size_t size_;
    bool bigEndian_;
};

// ImageWidth and ImageLength of the first directory of a TIFF or BigTIFF file.
std::optional<PixelSize> tiffPixelSize(const uint8_t* p, size_t n) {
    if (n < 8 || p[0] != p[1] || (p[0] != 'I' && p[0] != 'M'))
        return std::nullopt;
    const ByteReader in(p, n, p[0] == 'M');
    const auto magic = in.read(2, 2);
    bool big;
    std::optional<uint64_t> directory;
    if (magic == 42u) {
        big = false;
        directory = in.read(4, 4);
    } else if (magic == 43u && in.read(4, 2) == 8u && in.read(6, 2) == 0u) {
        big = true;
        directory = in.read(8, 8);
    } else {
        return std::nullopt;
    }
    if (!directory)
        return std::nullopt;
    const unsigned countWidth = big ? 8 : 2, entrySize = big ? 20 : 12, valueAt = big ? 12 : 8;
    const auto count = in.read(*directory, countWidth);
    if (!count)
        return std::nullopt;

    std::optional<uint64_t> width, height;
    const uint64_t first = *directory + countWidth; // cannot wrap: directory <= n
    for (uint64_t i = 0; i < *count; ++i) {
        const uint64_t entry = first + i * entrySize;
        if (entry > n || n - entry < entrySize)
            break; // a directory that claims more entries than the file holds
        const auto tag = in.read(entry, 2);
        const auto type = in.read(entry + 2, 2);
        const auto values = in.read(entry + 4, big ? 8 : 4);
        if (tag != 256u && tag != 257u)
            continue;
        if (!values || *values == 0)
            continue;
        std::optional<uint64_t> value;
        if (type == 3u) // SHORT
            value = in.read(entry + valueAt, 2);
        else if (type == 4u) // LONG
            value = in.read(entry + valueAt, 4);
        else if (type == 16u && big) // LONG8
            value = in.read(entry + valueAt, 8);
        (tag == 256u ? width : height) = value;
    }
    if (!width || !height || *width == 0 || *height == 0 || *width > uint64_t(INT64_MAX) ||
        *height > uint64_t(INT64_MAX))
        return std::nullopt;
    return PixelSize{static_cast<int64_t>(*width), static_cast<int64_t>(*height)};
}

// Canvas size of a WebP file: lossy ("VP8 "), lossless ("VP8L") or extended ("VP8X").
std::optional<PixelSize> webPPixelSize(const uint8_t* p, size_t n) {
    const ByteReader in(p, n, false);
    if (n < 20)
        return std::nullopt;
    std::optional<uint64_t> width, height;
    if (std::memcmp(p + 12, "VP8 ", 4) == 0) {
        if (n >= 30 && p[23] == 0x9D && p[24] == 0x01 && p[25] == 0x2A) {
            width = *in.read(26, 2) & 0x3FFF;
            height = *in.read(28, 2) & 0x3FFF;
        }
    } else if (std::memcmp(p + 12, "VP8L", 4) == 0) {
        if (n >= 25 && p[20] == 0x2F) {
            const uint64_t bits = *in.read(21, 4);
            width = (bits & 0x3FFF) + 1;
            height = ((bits >> 14) & 0x3FFF) + 1;
        }
    } else if (std::memcmp(p + 12, "VP8X", 4) == 0) {
        if (n >= 30) {
            width = *in.read(24, 3) + 1;
            height = *in.read(27, 3) + 1;
        }
    }
    if (!width || !height || *width == 0 || *height == 0)
        return std::nullopt;
    return PixelSize{static_cast<int64_t>(*width), static_cast<int64_t>(*height)};
}

// The pixel size of the first image in the bytes, or null when they are not
// an image we can read.
std::optional<PixelSize> pixelSizeOf(const std::vector<uint8_t>& data) {
    const ImageFormat format = imageFormatOf(data.data(), data.size());
    if (format == ImageFormat::TIFF)
        return tiffPixelSize(data.data(), data.size());
    if (format == ImageFormat::WebP)
        return webPPixelSize(data.data(), data.size());
    if (!stbReads(format) || data.size() > static_cast<size_t>(INT_MAX))
        return std::nullopt;
    int width = 0, height = 0, components = 0;
    if (!stbi_info_from_memory(data.data(), static_cast<int>(data.size()), &width, &height,
                               &components) ||
        width <= 0 || height <= 0)
        return std::nullopt;
    // Bits per pixel, as picture blocks state it: a 16-bit PNG has twice
    // the bits of each component.
    const int componentBits =
        stbi_is_16_bit_from_memory(data.data(), static_cast<int>(data.size())) ? 16 : 8;
    return PixelSize{width, height, int64_t(components) * componentBits};
}

const char* mimeTypeForFirstByte(const std::vector<uint8_t>& data) {
    if (data.empty())
        return "unknown";
    switch (data[0]) {
    case 71:
        return "image/gif";
    case 73:
    case 77:
        return "image/tiff";
    case 137:
        return "image/png";
    case 255:
        return "image/jpeg";
    default:
        return "unknown";
    }
}

// ---------------------------------------------------------------------------
// Decoding and re-encoding

// Pictures larger than this are not decoded: a forged header must not make
// us allocate gigabytes.
constexpr int64_t kMaximumDecodedPixels = int64_t(1) << 26;

struct StbImageFree {
    void operator()(stbi_uc* pixels) const { stbi_image_free(pixels); }
};

struct Bitmap {
    std::unique_ptr<stbi_uc, StbImageFree> pixels;
    int width = 0;
    int height = 0;
    int components = 0; // 1 grey, 2 grey + alpha, 3 RGB, 4 RGBA
};

std::optional<Bitmap> decodeBitmap(const std::vector<uint8_t>& data) {
    if (!stbReads(imageFormatOf(data.data(), data.size())))
        return std::nullopt;
    const auto size = pixelSizeOf(data);
    if (!size || size->width * size->height > kMaximumDecodedPixels)
        return std::nullopt;
    Bitmap bitmap;
    bitmap.pixels.reset(stbi_load_from_memory(data.data(), static_cast<int>(data.size()),
                                              &bitmap.width, &bitmap.height, &bitmap.components,
                                              0));
    if (!bitmap.pixels || bitmap.components < 1 || bitmap.components > 4)
        return std::nullopt;
    return bitmap;
}

void appendToVector(void* context, void* data, int size) {
    auto* out = static_cast<std::vector<uint8_t>*>(context);
    const auto* bytes = static_cast<const uint8_t*>(data);
    out->insert(out->end(), bytes, bytes + size);
}

void put16(std::vector<uint8_t>& out, uint32_t value) {
    out.push_back(static_cast<uint8_t>(value));
    out.push_back(static_cast<uint8_t>(value >> 8));
}

void put32(std::vector<uint8_t>& out, uint32_t value) {
    put16(out, value & 0xFFFF);
    put16(out, value >> 16);
}

// A baseline TIFF: little-endian, uncompressed, one strip, 8 bits per sample,
// grey or RGB with an optional unassociated alpha channel.
std::optional<std::vector<uint8_t>> encodeTIFF(const Bitmap& bitmap) {
    const auto width = static_cast<uint32_t>(bitmap.width);
    const auto height = static_cast<uint32_t>(bitmap.height);
    const auto components = static_cast<uint32_t>(bitmap.components);
    const uint64_t stripSize = uint64_t(width) * height * components;
    if (stripSize > UINT32_MAX - 4096)
        return std::nullopt;
    const bool hasAlpha = components == 2 || components == 4;

    struct Entry {
        uint16_t tag;
        uint16_t type; // 3 SHORT, 4 LONG
        uint32_t count;
        uint32_t value; // inline value, or the offset of the values
    };
    const uint32_t pixelsAt = 8;
    uint32_t next = pixelsAt + static_cast<uint32_t>(stripSize);
    next += next & 1; // word alignment
    // Up to two SHORT values fit inline; three or four need room of their own.
    const uint32_t bitsAt = next;
    uint32_t bitsValue = 8 | (components == 2 ? 8u << 16 : 0);
    if (components > 2) {
        bitsValue = bitsAt;
        next += 2 * components;
    }
    std::vector<Entry> entries = {
        {256, 4, 1, width},
        {257, 4, 1, height},
        {258, 3, components, bitsValue},
        {259, 3, 1, 1},                        // no compression
        {262, 3, 1, components < 3 ? 1u : 2u}, // black is zero, or RGB
        {273, 4, 1, pixelsAt},
        {277, 3, 1, components},
        {278, 4, 1, height},
        {279, 4, 1, static_cast<uint32_t>(stripSize)},
        {284, 3, 1, 1}, // chunky
    };
    if (hasAlpha)
        entries.push_back({338, 3, 1, 2}); // unassociated alpha

    std::vector<uint8_t> out;
    out.reserve(next + 2 + entries.size() * 12 + 4);
    out.insert(out.end(), {'I', 'I', 42, 0});
    put32(out, next); // the directory follows everything else
    out.insert(out.end(), bitmap.pixels.get(), bitmap.pixels.get() + stripSize);
    if (out.size() & 1)
        out.push_back(0);
    if (components > 2)
        for (uint32_t i = 0; i < components; ++i)
            put16(out, 8);
    put16(out, static_cast<uint32_t>(entries.size()));
    for (const Entry& e : entries) {
        put16(out, e.tag);
        put16(out, e.type);
        put32(out, e.count);
        if (e.type == 3 && e.count == 1) {
            put16(out, e.value);
            put16(out, 0);
        } else {
            put32(out, e.value);
        }
    }
    put32(out, 0); // no further directory
    return out;
}

std::optional<std::vector<uint8_t>> encodeBitmap(const Bitmap& bitmap, BitmapImageFileType type) {
    std::vector<uint8_t> out;
    int ok = 0;
    switch (type) {
    case BitmapImageFileTypeTIFF:
        return encodeTIFF(bitmap);
    case BitmapImageFileTypePNG:
        ok = stbi_write_png_to_func(appendToVector, &out, bitmap.width, bitmap.height,
                                    bitmap.components, bitmap.pixels.get(),
                                    bitmap.width * bitmap.components);
        break;
    case BitmapImageFileTypeBMP:
        ok = stbi_write_bmp_to_func(appendToVector, &out, bitmap.width, bitmap.height,
                                    bitmap.components, bitmap.pixels.get());
        break;
    case BitmapImageFileTypeJPEG:
        ok = stbi_write_jpg_to_func(appendToVector, &out, bitmap.width, bitmap.height,
                                    bitmap.components, bitmap.pixels.get(), 90);
        break;
    case BitmapImageFileTypeGIF:
    case BitmapImageFileTypeJPEG2000:
        break; // no encoder for these
    }
    if (!ok || out.empty())
        return std::nullopt;
    return out;
}

// ---------------------------------------------------------------------------
// Files

class FileDescriptor {
public:
    explicit FileDescriptor(int fd) : fd_(fd) {}
    ~FileDescriptor() {
        if (fd_ >= 0)
            ::close(fd_);
    }
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    int get() const { return fd_; }
    // Closes now, so that a failing close can be reported.
    bool close() {
        const int fd = fd_;
        fd_ = -1;
        return fd < 0 || ::close(fd) == 0;
    }

private:
    int fd_;
};

std::optional<std::vector<uint8_t>> readWholeFile(const std::filesystem::path& path) {
    FileDescriptor fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    if (fd.get() < 0)
        return std::nullopt;
    struct stat info;
    if (::fstat(fd.get(), &info) != 0 || !S_ISREG(info.st_mode))
        return std::nullopt;
    std::vector<uint8_t> bytes;
    uint8_t buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd.get(), buffer, sizeof buffer);
        if (n < 0 && errno == EINTR)
            continue;
        if (n < 0)
            return std::nullopt;
        if (n == 0)
            return bytes;
        bytes.insert(bytes.end(), buffer, buffer + n);
    }
}

bool writeAll(int fd, const std::vector<uint8_t>& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = ::write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno == EINTR)
            continue;
        if (n <= 0)
            return false;
        done += static_cast<size_t>(n);
    }
    return true;
}

// Creates the file (failing when anything is already at the path) and writes
// the bytes; a file left half-written is removed again.
bool writeNewFile(const std::filesystem::path& path, const std::vector<uint8_t>& bytes) {
    FileDescriptor fd(::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
    if (fd.get() < 0)
        return false;
    if (!writeAll(fd.get(), bytes) || !fd.close()) {
        ::unlink(path.c_str());
        return false;
    }
    return true;
}

std::string randomSuffix() {
    thread_local std::mt19937_64 generator{std::random_device{}()};
    return stringWithFormat("%016llx", static_cast<unsigned long long>(generator()));
}

int hexValue(char c) {
    if (c >= '0' && c <= '9')
        return c - '0';
    if (c >= 'a' && c <= 'f')
        return c - 'a' + 10;
    if (c >= 'A' && c <= 'F')
        return c - 'A' + 10;
    return -1;
}

// The path of a "file:" URL ("file:///a/b", "file://localhost/a/b", "file:/a/b"),
// percent-decoded; null for any other URL.
std::optional<std::filesystem::path> pathOfFileURL(const std::string& url) {
    constexpr std::string_view scheme = "file:";
    if (url.size() < scheme.size())
        return std::nullopt;
    for (size_t i = 0; i < scheme.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(url[i])) != scheme[i])
            return std::nullopt;
    std::string_view rest = std::string_view(url).substr(scheme.size());
    if (rest.starts_with("//")) {
        rest.remove_prefix(2);
        const size_t slash = rest.find('/');
        if (slash == std::string_view::npos)
            return std::nullopt;
        const std::string_view host = rest.substr(0, slash);
        if (!host.empty() && host != "localhost")
            return std::nullopt;
        rest.remove_prefix(slash);
    }
    rest = rest.substr(0, rest.find_first_of("?#"));
    if (!rest.starts_with("/"))
        return std::nullopt;
    std::string decoded;
    for (size_t i = 0; i < rest.size(); ++i) {
        if (rest[i] == '%') {
            if (i + 2 >= rest.size() || hexValue(rest[i + 1]) < 0 || hexValue(rest[i + 2]) < 0)
                return std::nullopt;
            decoded += static_cast<char>(hexValue(rest[i + 1]) * 16 + hexValue(rest[i + 2]));
            i += 2;
        } else {
            decoded += rest[i];
        }
    }
    return std::filesystem::path(decoded);
}

std::shared_ptr<AlbumArtwork> artworkFromBytes(std::optional<std::vector<uint8_t>> bytes,
                                               const std::filesystem::path& path) {
    auto artwork = std::make_shared<AlbumArtwork>();
    if (!bytes)
        return artwork; // unreadable: a picture without data
    if (!pixelSizeOf(*bytes))
        return nullptr; // read, but not an image
    artwork->setData(std::move(*bytes));
    artwork->setOriginalFilename(path.filename().string());
    return artwork;
}

} // namespace

// ---------------------------------------------------------------------------

std::shared_ptr<AlbumArtwork>
AlbumArtwork::albumArtworkFromFile(const std::filesystem::path& path) {
    return artworkFromBytes(readWholeFile(path), path);
}

std::shared_ptr<AlbumArtwork> AlbumArtwork::albumArtworkFromURL(const std::string& url) {
    const auto path = pathOfFileURL(url);
    if (!path)
        return std::make_shared<AlbumArtwork>();
    return artworkFromBytes(readWholeFile(*path), *path);
}

void AlbumArtwork::setData(Data data) {
    if (data.get() == data_.get())
        return;
    data_ = std::move(data);
    if (!data_) {
        dataSize_.reset();
        width_ = height_ = colorDepth_ = 0;
        mimeType_.reset();
        md5_.reset();
        return;
    }
    const auto size = pixelSizeOf(*data_);
    width_ = size ? size->width : 0;
    height_ = size ? size->height : 0;
    colorDepth_ = size ? size->depth : 0;
    dataSize_ = static_cast<int64_t>(data_->size());
    mimeType_ = mimeTypeForFirstByte(*data_);
    md5_ = MD5::hexDigestOf(data_->data(), data_->size());
}

std::string AlbumArtwork::dimensions() const {
    return stringWithFormat("%ld x %ld", static_cast<long>(width_), static_cast<long>(height_));
}

bool AlbumArtwork::writeToFile(const std::filesystem::path& path) const {
    if (!data_)
        return false;
    // Written beside the destination under a name of our own, then renamed
    // over it, so that readers see the old file or the new one, never half.
    const std::filesystem::path directory =
        path.has_parent_path() ? path.parent_path() : std::filesystem::path(".");
    for (int attempt = 0; attempt < 100; ++attempt) {
        const std::filesystem::path temporary =
            directory / ("." + path.filename().string() + "." + randomSuffix());
        FileDescriptor fd(::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666));
        if (fd.get() < 0) {
            if (errno == EEXIST)
                continue;
            return false;
        }
        if (!writeAll(fd.get(), *data_) || !fd.close() ||
            ::rename(temporary.c_str(), path.c_str()) != 0) {
            ::unlink(temporary.c_str());
            return false;
        }
        return true;
    }
    return false;
}

bool AlbumArtwork::saveAsType(BitmapImageFileType type, const std::filesystem::path& path) const {
    std::error_code error;
    if (!data_ || std::filesystem::symlink_status(path, error).type() !=
                      std::filesystem::file_type::not_found)
        return false;
    std::optional<std::vector<uint8_t>> encoded;
    if (auto bitmap = decodeBitmap(*data_))
        encoded = encodeBitmap(*bitmap, type);
    // Where we cannot decode or cannot encode, a picture that already is of
    // the requested type is still saved, as it stands.
    if (!encoded && imageFormatOf(data_->data(), data_->size()) == imageFormatFor(type))
        encoded = *data_;
    if (!encoded)
        return false;
    // O_EXCL: a file that appears meanwhile is not overwritten either.
    return writeNewFile(path, *encoded);
}

std::optional<std::vector<uint8_t>> AlbumArtwork::TIFFRepresentation() const {
    if (!data_)
        return std::nullopt;
    const auto bitmap = decodeBitmap(*data_);
    if (bitmap)
        return encodeTIFF(*bitmap);
    if (imageFormatOf(data_->data(), data_->size()) == ImageFormat::TIFF && pixelSizeOf(*data_))
        return *data_;
    return std::nullopt;
}

nlohmann::json AlbumArtwork::toJSON() const {
    nlohmann::json archive = nlohmann::json::object();
    archive["artworkType"] = type_;
    if (data_)
        archive["data"] = ArchiveCoding::base64FromBytes(*data_);
    if (originalFilename_)
        archive["originalFilename"] = ArchiveCoding::jsonFromText(*originalFilename_);
    if (comments_)
        archive["comments"] = ArchiveCoding::jsonFromText(*comments_);
    return archive;
}

bool AlbumArtwork::decodeFrom(const nlohmann::json& archive) {
    if (!archive.is_object())
        return false;
    AlbumArtwork decoded;
    const auto present = [&](const char* key) {
        return archive.contains(key) && !archive[key].is_null();
    };
    if (present("artworkType")) {
        const auto& value = archive["artworkType"];
        if (!value.is_number_integer())
            return false;
        const int64_t type = value.get<int64_t>();
        if (type < INT32_MIN || type > INT32_MAX || (value.is_number_unsigned() && type < 0))
            return false;
        decoded.setArtworkType(static_cast<int32_t>(type));
    }
    // The data before the names, so that every derived fact is recomputed.
    if (present("data")) {
        if (!archive["data"].is_string())
            return false;
        auto bytes = ArchiveCoding::bytesFromBase64(archive["data"].get_ref<const std::string&>());
        if (!bytes)
            return false;
        decoded.setData(std::move(*bytes));
    }
    if (present("originalFilename")) {
        auto name = ArchiveCoding::textFromJSON(archive["originalFilename"]);
        if (!name)
            return false;
        decoded.setOriginalFilename(std::move(name));
    }
    if (present("comments")) {
        auto comments = ArchiveCoding::textFromJSON(archive["comments"]);
        if (!comments)
            return false;
        decoded.setComments(std::move(comments));
    }
    *this = std::move(decoded);
    return true;
}

std::shared_ptr<AlbumArtwork> AlbumArtwork::fromJSON(const nlohmann::json& archive) {
    auto artwork = std::make_shared<AlbumArtwork>();
    if (!artwork->decodeFrom(archive))
        return nullptr;
    return artwork;
}

nlohmann::ordered_json AlbumArtwork::toInfoJSON() const {
    nlohmann::ordered_json info = nlohmann::ordered_json::object();
    if (mimeType_)
        info["mimeType"] = ArchiveCoding::displayText(*mimeType_);
    if (data_) {
        info["width"] = width_;
        info["height"] = height_;
    }
    if (dataSize_)
        info["dataSize"] = *dataSize_;
    if (md5_)
        info["md5"] = *md5_;
    info["artworkType"] = type_;
    if (comments_)
        info["comments"] = ArchiveCoding::displayText(*comments_);
    return info;
}

const std::vector<std::string>& AlbumArtwork::writableTypesForPasteboard() {
    static const std::vector<std::string> types = {kAlbumArtworkPasteboardType,
                                                   kPasteboardTypeTIFF};
    return types;
}

std::optional<std::vector<uint8_t>>
AlbumArtwork::pasteboardPropertyListForType(const std::string& type) const {
    if (type == kAlbumArtworkPasteboardType) {
        const std::string text = toJSON().dump();
        return std::vector<uint8_t>(text.begin(), text.end());
    }
    if (type == kPasteboardTypeTIFF)
        return TIFFRepresentation();
    return std::nullopt;
}

const std::vector<std::string>& AlbumArtwork::readableTypesForPasteboard() {
    static const std::vector<std::string> types = {kAlbumArtworkPasteboardType};
    return types;
}

uint32_t AlbumArtwork::readingOptionsForType(const std::string& type) {
    return type == kAlbumArtworkPasteboardType ? kPasteboardReadingAsKeyedArchive : 0;
}

bool AlbumArtwork::initWithPasteboardPropertyList(const std::vector<uint8_t>& propertyList,
                                                  const std::string& type) {
    if (type != kAlbumArtworkPasteboardType)
        return false;
    const auto archive = nlohmann::json::parse(propertyList.begin(), propertyList.end(), nullptr,
                                               /*allow_exceptions=*/false);
    return !archive.is_discarded() && decodeFrom(archive);
}

} // namespace velvox
