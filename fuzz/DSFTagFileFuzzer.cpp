// DSF files as the tag reader and writer meet them: header and format chunks
// with any sizes and offsets, a metadata offset pointing anywhere, any ID3v2
// bytes. A file that reads as valid has its tag changed and saved (in
// memory), then read again, the way `velvox tag` rewrites one.
#include <cstddef>
#include <cstdint>

#include <taglib/tbytevector.h>
#include <taglib/tbytevectorstream.h>
#include <taglib/tpropertymap.h>

#include "metadata/DSFTagFile.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    TagLib::ByteVectorStream stream(
        TagLib::ByteVector(reinterpret_cast<const char*>(data), static_cast<unsigned>(size)));
    {
        velvox::DSFTagFile file(&stream);
        if (!file.isValid())
            return 0;
        (void)file.tag()->properties();
        file.tag()->setTitle("Fuzz");
        file.save();
    }
    velvox::DSFTagFile reread(&stream);
    if (reread.isValid())
        (void)reread.tag()->title();
    return 0;
}
