// Picture bytes as tags and pasteboards hand them over: the type sniffing,
// the pixel-size readers (TIFF directories, WebP headers, stb_image's info
// reads), the decode behind TIFFRepresentation, and the pasteboard archive
// of our own type. The first byte picks the path; the rest is the input.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "metadata/AlbumArtwork.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 1)
        return 0;
    std::vector<uint8_t> bytes(data + 1, data + size);
    velvox::AlbumArtwork artwork;
    if (data[0] & 1) {
        artwork.initWithPasteboardPropertyList(bytes,
                                               velvox::AlbumArtwork::kAlbumArtworkPasteboardType);
    } else {
        artwork.setData(std::move(bytes));
        (void)artwork.dimensions();
        (void)artwork.toInfoJSON();
    }
    if (data[0] & 2)
        (void)artwork.TIFFRepresentation();
    return 0;
}
