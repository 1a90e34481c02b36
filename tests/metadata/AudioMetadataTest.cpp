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

TEST(AudioMetadataTest, NewRecordHasNothing) {
    AudioMetadata m;
    EXPECT_FALSE(m.trackNumber());
    EXPECT_FALSE(m.trackTitle());
    EXPECT_FALSE(m.albumArtwork());
    EXPECT_FALSE(m.partOfACompilation());
    EXPECT_FALSE(m.sourceDateModified());
    EXPECT_FALSE(m.userData());
    EXPECT_EQ(m.toJSON(), nlohmann::json::object());
    EXPECT_EQ(m.toInfoJSON(), nlohmann::ordered_json::object());
    const auto decoded = roundTrip(m);
    ASSERT_TRUE(decoded);
    expectSameRecord(m, *decoded);
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

TEST(AudioMetadataTest, EmptyAndZeroValuesStayPresent) {
    AudioMetadata m;
    m.setTrackTitle("");
    m.setTrackNumber(0);
    m.setTrackYear(-1);
    m.setPartOfACompilation(false);
    m.setSourceLength(0.0);
    m.setSourceDateModified(AudioMetadata::Date(-1500ms)); // before 1970
    m.setUserData(AudioMetadata::UserData{});
    auto artwork = std::make_shared<AlbumArtwork>();
    artwork->setComments("");
    m.setAlbumArtwork(artwork); // a picture without data
    const auto decoded = roundTrip(m);
    ASSERT_TRUE(decoded);
    expectSameRecord(m, *decoded);
    EXPECT_EQ(decoded->trackTitle(), "");
    EXPECT_EQ(decoded->trackNumber(), 0);
    EXPECT_EQ(decoded->partOfACompilation(), false);
    EXPECT_EQ(decoded->userData(), AudioMetadata::UserData{});
    EXPECT_FALSE(decoded->albumTitle());
    EXPECT_FALSE(decoded->albumArtwork()->data());
}

TEST(AudioMetadataTest, ArchiveKeepsNonNumbersAndAbsentPictureType) {
    AudioMetadata m;
    m.setSourceLength(std::nan(""));
    auto decoded = roundTrip(m);
    ASSERT_TRUE(decoded);
    EXPECT_TRUE(std::isnan(*decoded->sourceLength()));
    m.setSourceLength(-INFINITY);
    decoded = roundTrip(m);
    ASSERT_TRUE(decoded);
    EXPECT_EQ(decoded->sourceLength(), -INFINITY);

    auto artwork = std::make_shared<AlbumArtwork>();
    artwork->setData(makePNG(2, 2));
    artwork->setMimeType(std::nullopt);
    m.setAlbumArtwork(artwork);
    decoded = roundTrip(m);
    ASSERT_TRUE(decoded);
    EXPECT_FALSE(decoded->albumArtwork()->mimeType());
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

TEST(AudioMetadataTest, MalformedArchivesAreRefused) {
    for (const char* text : {
             R"("trackTitle")",
             R"({"trackNumber": "3"})",
             R"({"trackNumber": 3.5})",
             R"({"trackNumber": 18446744073709551615})",
             R"({"trackTitle": 3})",
             R"({"partOfACompilation": 1})",
             R"({"sourceLength": "long"})",
             R"({"sourceDateModified": "2020-01-01"})",
             R"({"albumArtwork": {"data": "%%%%"}})",
             R"({"albumArtwork": {"mimeType": 5}})",
             R"({"userData": {"bext": []}})",
             R"({"userData": [{"identifier": "bext", "chunks": ["A"]}]})",
             R"({"userData": [{"identifier": "bext"}]})",
             R"({"sourceLocation": {"base64": "a"}})",
         }) {
        SCOPED_TRACE(text);
        EXPECT_FALSE(AudioMetadata::fromJSON(nlohmann::json::parse(text)));
    }
    // Unknown keys are ignored and null means absent.
    const auto decoded = AudioMetadata::fromJSON(
        nlohmann::json::parse(R"({"futureField": 1, "trackTitle": null, "bpm": 90})"));
    ASSERT_TRUE(decoded);
    EXPECT_FALSE(decoded->trackTitle());
    EXPECT_EQ(decoded->bpm(), 90);
}

TEST(AudioMetadataTest, InfoJSON) {
    AudioMetadata m = makeFullRecord();
    m.setSourceLength(215.5);
    m.setTrackComposer(std::nullopt);
    const auto info = m.toInfoJSON();
    // Dumping must not fail, even with bytes that are not UTF-8 in a path.
    const std::string text = info.dump();
    EXPECT_NE(text.find("/music/caf\xEF\xBF\xBD/01.flac"), std::string::npos);

    EXPECT_TRUE(info["trackNumber"].is_number_integer());
    EXPECT_EQ(info["trackNumber"], 3);
    EXPECT_EQ(info["sourceFileSize"], int64_t(5) << 32);
    EXPECT_EQ(info["sourceLength"], 215.5);
    EXPECT_TRUE(info["partOfACompilation"].is_boolean());
    EXPECT_EQ(info["partOfACompilation"], true);
    EXPECT_EQ(info["trackTitle"], "Caf\xC3\xA9 \xE2\x80\x94 \"Live\"\n");
    EXPECT_FALSE(info.contains("trackComposer"));
    EXPECT_EQ(info["sourceDateModified"], "2023-11-14T22:13:20.123456789Z");
    EXPECT_EQ(info["userData"]["bext"], nlohmann::ordered_json({3, 0, 1000}));

    const auto& artwork = info["albumArtwork"];
    EXPECT_EQ(artwork["mimeType"], "image/webp");
    EXPECT_EQ(artwork["width"], 7);
    EXPECT_EQ(artwork["height"], 3);
    EXPECT_EQ(artwork["dataSize"], m.albumArtwork()->data()->size());
    EXPECT_EQ(artwork["md5"], test::md5Hex(*m.albumArtwork()->data()));
    EXPECT_EQ(artwork["artworkType"], 4);
    EXPECT_EQ(artwork["comments"], "Back");
    EXPECT_FALSE(artwork.contains("data"));

    // Fields come in their declared order.
    std::vector<std::string> order;
    for (const auto& [key, value] : info.items())
        order.push_back(key);
    ASSERT_GE(order.size(), 3u);
    EXPECT_EQ(order.front(), "trackNumber");
    EXPECT_EQ(order[1], "totalTracks");
    EXPECT_EQ(order.back(), "userData");

    AudioMetadata whole;
    whole.setSourceDateModified(AudioMetadata::Date(0s));
    whole.setSourceLength(NAN);
    EXPECT_EQ(whole.toInfoJSON(),
              nlohmann::ordered_json({{"sourceDateModified", "1970-01-01T00:00:00Z"}}));
}

} // namespace
} // namespace velvox
