#pragma once
// One picture: its encoded bytes, the facts derived from them (MIME type, size,
// pixel dimensions, MD5), its role, its description and the name of the file
// it came from. Pictures are shared by reference between metadata records; the
// bytes are an immutable buffer shared the same way.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace velvox {

// The bitmap file types a picture can be re-encoded to (the platform's values).
enum BitmapImageFileType : int32_t {
    BitmapImageFileTypeTIFF = 0,
    BitmapImageFileTypeBMP = 1,
    BitmapImageFileTypeGIF = 2,
    BitmapImageFileTypeJPEG = 3,
    BitmapImageFileTypePNG = 4,
    BitmapImageFileTypeJPEG2000 = 5,
};

// Pasteboard reading option: the property list is a keyed archive.
constexpr uint32_t kPasteboardReadingAsKeyedArchive = 4;

class AlbumArtwork {
public:
    using Data = std::shared_ptr<const std::vector<uint8_t>>;

    // Our own pasteboard type, and the interchange type for bitmaps.
    static constexpr const char* kAlbumArtworkPasteboardType = "com.velvox.album-artwork";
    static constexpr const char* kPasteboardTypeTIFF = "image/tiff";

    // Front cover (ID3v2 picture type 3), everything else absent.
    AlbumArtwork() = default;

    // Reads the whole file. A file that cannot be read gives a picture without
    // data; bytes that are not an image give null. Otherwise `originalFilename`
    // is the file's last path component.
    static std::shared_ptr<AlbumArtwork> albumArtworkFromFile(const std::filesystem::path& path);
    // The same for a "file:" URL (percent-encoded). Other schemes cannot be read.
    static std::shared_ptr<AlbumArtwork> albumArtworkFromURL(const std::string& url);

    int32_t artworkType() const { return type_; }
    void setArtworkType(int32_t type) { type_ = type; }

    const std::optional<std::string>& originalFilename() const { return originalFilename_; }
    void setOriginalFilename(std::optional<std::string> name) {
        originalFilename_ = std::move(name);
    }

    const std::optional<std::string>& comments() const { return comments_; }
    void setComments(std::optional<std::string> comments) { comments_ = std::move(comments); }

    const Data& data() const { return data_; }
    // Assigning a different block recomputes every derived fact; assigning the
    // block already held does nothing.
    void setData(Data data);
    void setData(std::vector<uint8_t> bytes) {
        setData(std::make_shared<const std::vector<uint8_t>>(std::move(bytes)));
    }

    std::optional<int64_t> dataSize() const { return dataSize_; }
    // Pixel size of the first image; 0 when the bytes cannot be decoded.
    int64_t width() const { return width_; }
    int64_t height() const { return height_; }
    // Bits per pixel of the first image (components x bits per component);
    // 0 when the format does not tell it to us.
    int64_t colorDepth() const { return colorDepth_; }

    // Derived from the first byte of the data; a stored type may override it.
    const std::optional<std::string>& mimeType() const { return mimeType_; }
    void setMimeType(std::optional<std::string> mimeType) { mimeType_ = std::move(mimeType); }

    // 32 lower-case hexadecimal digits.
    const std::optional<std::string>& md5() const { return md5_; }

    // "width x height".
    std::string dimensions() const;
    // The MIME type, as the picture is listed.
    std::string description() const { return mimeType_.value_or(std::string()); }
    // The MD5, the picture's identity where it is shown or compared as text.
    std::string stringValue() const { return md5_.value_or(std::string()); }

    // Writes the data unchanged, atomically (a temporary file renamed over the
    // path). False when there is no data or the file cannot be written.
    bool writeToFile(const std::filesystem::path& path) const;
    // Re-encodes the picture as the given type and writes it, but only when
    // nothing is at the path yet: an existing file is never touched. False when
    // nothing was written.
    bool saveAsType(BitmapImageFileType type, const std::filesystem::path& path) const;

    // Keyed archive: "artworkType", "data" (base64), "originalFilename",
    // "comments". The MIME type is not archived: a decoded picture carries the
    // type derived from its data.
    nlohmann::json toJSON() const;
    // Null when the value is not such an archive.
    static std::shared_ptr<AlbumArtwork> fromJSON(const nlohmann::json& archive);
    // For display: mimeType, width, height, dataSize, md5, artworkType, comments.
    nlohmann::ordered_json toInfoJSON() const;

    // Pasteboard: we offer our own type first (the picture archived whole,
    // keeping role, description and file name), then TIFF for other programs.
    static const std::vector<std::string>& writableTypesForPasteboard();
    std::optional<std::vector<uint8_t>>
    pasteboardPropertyListForType(const std::string& type) const;
    static const std::vector<std::string>& readableTypesForPasteboard();
    static uint32_t readingOptionsForType(const std::string& type);
    // Fills this picture from what another copy put on the pasteboard.
    bool initWithPasteboardPropertyList(const std::vector<uint8_t>& propertyList,
                                        const std::string& type);

    // The picture's pixels as an uncompressed TIFF; null when they cannot be decoded.
    std::optional<std::vector<uint8_t>> TIFFRepresentation() const;

private:
    bool decodeFrom(const nlohmann::json& archive);

    int32_t type_ = 3;
    std::optional<std::string> originalFilename_;
    std::optional<std::string> comments_;
    Data data_;
    std::optional<int64_t> dataSize_;
    int64_t width_ = 0;
    int64_t height_ = 0;
    int64_t colorDepth_ = 0;
    std::optional<std::string> mimeType_;
    std::optional<std::string> md5_;
};

} // namespace velvox
