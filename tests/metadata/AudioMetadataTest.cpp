#include "metadata/AudioMetadata.h"

#include <cmath>
#include <set>

#include <gtest/gtest.h>
#include <stb_image_write.h>

#include "support/TestSupport.h"

namespace velvox {
namespace {

using Bytes = std::vector<uint8_t>;
using namespace std::chrono_literals;

const char* const kSourceFields[] = {
    "sourceKind",         "sourceFormat",      "sourceLength",    "sourceFileSize",
    "sourceSampleSize",   "sourceSampleRate",  "sourceBitrate",   "sourceBitrateMode",
    "sourceChannels",     "sourceChannelMode", "sourceTagFormat", "sourceEncodedWith",
    "sourceDateModified", "sourceLocation",    "userData",
};

void appendBytes(void* context, void* data, int size) {
    auto* out = static_cast<Bytes*>(context);
    out->insert(out->end(), static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
}

Bytes makePNG(int width, int height) {
    Bytes pixels(static_cast<size_t>(width) * height * 3);
    for (size_t i = 0; i < pixels.size(); ++i)
        pixels[i] = static_cast<uint8_t>(i * 31);
    Bytes out;
    EXPECT_TRUE(
        stbi_write_png_to_func(appendBytes, &out, width, height, 3, pixels.data(), width * 3));
    return out;
}

// Every field set, each to a value no other field has.
AudioMetadata makeFullRecord() {
    AudioMetadata m;
    m.setTrackNumber(3);
    m.setTotalTracks(12);
    m.setTrackTitle("Caf\xC3\xA9 \xE2\x80\x94 \"Live\"\n");
    m.setAlbumTitle("Album");
    m.setTrackArtist("Track Artist");
    m.setAlbumArtist("Album Artist");
    m.setTrackComposer("Composer");
    m.setTrackYear(1999);
    m.setTrackGenre("Genre");
    m.setTrackComment("Comment");
    auto artwork = std::make_shared<AlbumArtwork>();
    artwork->setData(makePNG(7, 3));
    artwork->setMimeType("image/webp"); // as a tag stored it, not as derived
    artwork->setArtworkType(4);
    artwork->setComments("Back");
    artwork->setOriginalFilename("back.png");
    m.setAlbumArtwork(artwork);
    m.setGrouping("Grouping");
    m.setDiscNumber(2);
    m.setDiscTotal(4);
    m.setLyrics("la la\nla");
    m.setBpm(128);
    m.setPartOfACompilation(true);
    m.setTrackCopyright("(C) 1999");
    m.setISRC("USRC17607839");
    m.setKey("C Major");
    m.setSourceKind("FLAC");
    m.setSourceFormat("Free Lossless Audio Codec");
    m.setSourceLength(215.123456789012);
    m.setSourceFileSize(int64_t(5) << 32);
    m.setSourceSampleSize(24);
    m.setSourceSampleRate(96000);
    m.setSourceBitrate(2304000);
    m.setSourceBitrateMode("VBR");
    m.setSourceChannels(6);
    m.setSourceChannelMode("Joint Stereo");
    m.setSourceTagFormat("Vorbis, ID3v2.3.0");
    m.setSourceEncodedWith("reference libFLAC 1.4.2");
    m.setSourceDateModified(AudioMetadata::Date(1700000000123456789ns));
    m.setSourceLocation("/music/caf\xE9/01.flac"); // Latin-1 bytes, not UTF-8
    m.setUserData(AudioMetadata::UserData{
        {"bext", {Bytes{1, 2, 3}, Bytes{}, Bytes(1000, 0xAB)}},
        {"LIST", {Bytes{'I', 'N', 'F', 'O'}}},
    });
    return m;
}

// Field by field, so that a field the archive drops on both sides is caught.
void expectSameRecord(const AudioMetadata& a, const AudioMetadata& b) {
    EXPECT_EQ(a.trackNumber(), b.trackNumber());
    EXPECT_EQ(a.totalTracks(), b.totalTracks());
    EXPECT_EQ(a.trackTitle(), b.trackTitle());
    EXPECT_EQ(a.albumTitle(), b.albumTitle());
    EXPECT_EQ(a.trackArtist(), b.trackArtist());
    EXPECT_EQ(a.albumArtist(), b.albumArtist());
    EXPECT_EQ(a.trackComposer(), b.trackComposer());
    EXPECT_EQ(a.trackYear(), b.trackYear());
    EXPECT_EQ(a.trackGenre(), b.trackGenre());
    EXPECT_EQ(a.trackComment(), b.trackComment());
    EXPECT_EQ(a.grouping(), b.grouping());
    EXPECT_EQ(a.discNumber(), b.discNumber());
    EXPECT_EQ(a.discTotal(), b.discTotal());
    EXPECT_EQ(a.lyrics(), b.lyrics());
    EXPECT_EQ(a.bpm(), b.bpm());
    EXPECT_EQ(a.partOfACompilation(), b.partOfACompilation());
    EXPECT_EQ(a.trackCopyright(), b.trackCopyright());
    EXPECT_EQ(a.ISRC(), b.ISRC());
    EXPECT_EQ(a.key(), b.key());
    EXPECT_EQ(a.sourceKind(), b.sourceKind());
    EXPECT_EQ(a.sourceFormat(), b.sourceFormat());
    EXPECT_EQ(a.sourceLength(), b.sourceLength());
    EXPECT_EQ(a.sourceFileSize(), b.sourceFileSize());
    EXPECT_EQ(a.sourceSampleSize(), b.sourceSampleSize());
    EXPECT_EQ(a.sourceSampleRate(), b.sourceSampleRate());
    EXPECT_EQ(a.sourceBitrate(), b.sourceBitrate());
    EXPECT_EQ(a.sourceBitrateMode(), b.sourceBitrateMode());
    EXPECT_EQ(a.sourceChannels(), b.sourceChannels());
    EXPECT_EQ(a.sourceChannelMode(), b.sourceChannelMode());
    EXPECT_EQ(a.sourceTagFormat(), b.sourceTagFormat());
    EXPECT_EQ(a.sourceEncodedWith(), b.sourceEncodedWith());
    EXPECT_EQ(a.sourceDateModified(), b.sourceDateModified());
    EXPECT_EQ(a.sourceLocation(), b.sourceLocation());
    EXPECT_EQ(a.userData(), b.userData());
    ASSERT_EQ(!a.albumArtwork(), !b.albumArtwork());
    if (a.albumArtwork()) {
        const AlbumArtwork& x = *a.albumArtwork();
        const AlbumArtwork& y = *b.albumArtwork();
        ASSERT_EQ(!x.data(), !y.data());
        if (x.data()) {
            EXPECT_EQ(*x.data(), *y.data());
        }
        EXPECT_EQ(x.mimeType(), y.mimeType());
        EXPECT_EQ(x.artworkType(), y.artworkType());
        EXPECT_EQ(x.comments(), y.comments());
        EXPECT_EQ(x.originalFilename(), y.originalFilename());
        EXPECT_EQ(x.md5(), y.md5());
        EXPECT_EQ(x.dimensions(), y.dimensions());
    }
}

// Through text, the way a copied record travels.
std::unique_ptr<AudioMetadata> roundTrip(const AudioMetadata& m) {
    return AudioMetadata::fromJSON(nlohmann::json::parse(m.toJSON().dump()));
}

TEST(AudioMetadataTest, ArchiveRoundTripsEveryField) {
    const AudioMetadata m = makeFullRecord();
    // Every field reaches the archive: one key per field.
    EXPECT_EQ(m.toJSON().size(), 35u);
    const auto decoded = roundTrip(m);
    ASSERT_TRUE(decoded);
    expectSameRecord(m, *decoded);
    EXPECT_EQ(decoded->albumArtwork()->mimeType(), "image/webp");
    EXPECT_EQ(decoded->albumArtwork()->dimensions(), "7 x 3");
    // A new picture, not the old one: the copy is independent of its source.
    EXPECT_NE(decoded->albumArtwork(), m.albumArtwork());
}

TEST(AudioMetadataTest, ClearAllKeepsExactlyTheSourceFacts) {
    AudioMetadata m = makeFullRecord();
    const AudioMetadata before = m;
    // A copy shares the picture, as records do.
    EXPECT_EQ(before.albumArtwork(), m.albumArtwork());
    m.clearAll();

    std::set<std::string> keys;
    const nlohmann::json archive = m.toJSON();
    for (const auto& [key, value] : archive.items())
        keys.insert(key);
    EXPECT_EQ(keys, std::set<std::string>(std::begin(kSourceFields), std::end(kSourceFields)));

    EXPECT_FALSE(m.albumArtwork());
    EXPECT_FALSE(m.key());
    EXPECT_FALSE(m.ISRC());
    EXPECT_FALSE(m.partOfACompilation());
    EXPECT_EQ(m.sourceLocation(), before.sourceLocation());
    EXPECT_EQ(m.sourceFileSize(), before.sourceFileSize());
    EXPECT_EQ(m.sourceFormat(), before.sourceFormat());
    EXPECT_EQ(m.sourceEncodedWith(), before.sourceEncodedWith());
    EXPECT_EQ(m.sourceDateModified(), before.sourceDateModified());
    EXPECT_EQ(m.userData(), before.userData());
    // The picture itself lives on where it is still referenced.
    ASSERT_TRUE(before.albumArtwork());
    EXPECT_TRUE(before.albumArtwork()->data());
}

} // namespace
} // namespace velvox
