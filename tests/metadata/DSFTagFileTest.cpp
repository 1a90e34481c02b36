// DSF tag access on files built byte by byte with an ID3v2 block rendered by
// TagLib: the stream facts of the "fmt " chunk, the tag at the metadata
// offset, writing the tag back, and headers that lie.

#include <filesystem>
#include <string>

#include <gtest/gtest.h>

#include <taglib/attachedpictureframe.h>
#include <taglib/id3v2tag.h>
#include <taglib/tbytevectorstream.h>

#include "metadata/AudioMetadata.h"
#include "metadata/DSFTagFile.h"
#include "metadata/MetadataFixtures.h"
#include "support/TestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

Bytes renderedTag(const std::string& title, const std::string& artist, int version = 3) {
    TagLib::ID3v2::Tag tag;
    tag.setTitle(TagLib::String(title, TagLib::String::UTF8));
    tag.setArtist(TagLib::String(artist, TagLib::String::UTF8));
    tag.setYear(1987);
    const TagLib::ByteVector bytes =
        tag.render(version == 3 ? TagLib::ID3v2::v3 : TagLib::ID3v2::v4);
    return Bytes(bytes.begin(), bytes.end());
}

} // namespace

TEST(DSFTagFileTest, LyingHeadersMakeTheFileInvalidOrTagless) {
    TempDir dir;
    const Bytes good = dsfFile(2, 2822400, 65536, renderedTag("T", "A"));
    struct Case {
        const char* name;
        size_t offset;
        uint64_t value;
        bool valid;
        bool tagged;
    };
    const Case cases[] = {
        {"dsd-size-small", 4, 10, false, false},
        {"dsd-size-huge", 4, 1ULL << 62, false, false},
        {"fmt-size-small", 32, 20, false, false},
        {"fmt-size-huge", 32, ~0ULL, false, false},
        {"no-channels", 52, 0, false, false},
        {"no-rate", 56, 0, false, false},
        {"metadata-past-end", 20, 1ULL << 40, true, false},
        {"metadata-at-samples", 20, 100, true, false},
        {"metadata-top-bit", 20, ~0ULL, true, false},
        {"data-size-huge", 84, 1ULL << 50, true, true},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        Bytes bytes = good;
        for (int i = 0; i < 8 && c.offset + size_t(i) < bytes.size(); ++i) {
            // 4-byte fields only take the low half of the value.
            const bool wide = c.offset == 4 || c.offset == 20 || c.offset == 32 || c.offset == 84;
            if (!wide && i >= 4)
                break;
            bytes[c.offset + size_t(i)] = uint8_t(c.value >> (8 * i));
        }
        const std::string path = dir.file(std::string(c.name) + ".dsf");
        writeFile(path, bytes);
        DSFTagFile file(path.c_str());
        EXPECT_EQ(file.isValid(), c.valid);
        EXPECT_EQ(file.hasID3v2Tag(), c.tagged);
        ASSERT_TRUE(file.tag());
        if (c.name == std::string("data-size-huge")) {
            EXPECT_FALSE(file.save()); // no known end of the samples to write after
        }
        const auto m = AudioMetadata::metadataFromFile(path);
        EXPECT_EQ(m->sourceKind(), "DSD");
    }
    for (size_t keep : {size_t(0), size_t(4), size_t(27), size_t(60), size_t(79)}) {
        const std::string path = dir.file("cut" + std::to_string(keep) + ".dsf");
        writeFile(path, Bytes(good.begin(), good.begin() + ptrdiff_t(keep)));
        EXPECT_FALSE(DSFTagFile(path.c_str()).isValid()) << keep;
    }
}
