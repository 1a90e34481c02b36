#include <cstdint>
#include <random>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "metadata/KDMIDIParser.h"
#include "metadata/KDMIDITrack.h"

using velvox::KDMIDIParser;
using velvox::KDMIDITrack;

namespace {

using Bytes = std::vector<uint8_t>;

Bytes operator+(Bytes a, const Bytes& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

Bytes be16(uint32_t v) { return {uint8_t(v >> 8), uint8_t(v)}; }
Bytes be32(uint32_t v) { return {uint8_t(v >> 24), uint8_t(v >> 16), uint8_t(v >> 8), uint8_t(v)}; }

Bytes header(uint16_t format, uint16_t tracks, uint16_t division, uint32_t declaredSize = 6) {
    return Bytes{'M', 'T', 'h', 'd'} + be32(declaredSize) + be16(format) + be16(tracks) +
           be16(division);
}

Bytes chunk(const char* id, const Bytes& body) {
    return Bytes{uint8_t(id[0]), uint8_t(id[1]), uint8_t(id[2]), uint8_t(id[3])} +
           be32(uint32_t(body.size())) + body;
}

Bytes track(const Bytes& events) { return chunk("MTrk", events); }

// Events, each with a zero delta time unless given.
Bytes tempo(uint32_t microsecondsPerBeat) {
    return {0x00,
            0xFF,
            0x51,
            0x03,
            uint8_t(microsecondsPerBeat >> 16),
            uint8_t(microsecondsPerBeat >> 8),
            uint8_t(microsecondsPerBeat)};
}
Bytes keySignature(uint8_t k, uint8_t mode) { return {0x00, 0xFF, 0x59, 0x02, k, mode}; }
Bytes endOfTrack() { return {0x00, 0xFF, 0x2F, 0x00}; }
Bytes noteOn(uint8_t delta, uint8_t note) { return {delta, 0x90, note, 0x64}; }

std::unique_ptr<KDMIDIParser> parse(const Bytes& data) {
    return KDMIDIParser::parserWithData(data);
}

// The first track's tempo and key for a one-track file with these events.
std::unique_ptr<KDMIDITrack> scan(const Bytes& events) {
    auto t = KDMIDITrack::trackWithData(track(events));
    EXPECT_NE(t, nullptr);
    return t;
}

} // namespace

TEST(KDMIDIParser, HeaderFieldsAndTimeFormats) {
    auto metrical = parse(header(1, 0, 0x01E0, 6));
    ASSERT_NE(metrical, nullptr);
    EXPECT_EQ(metrical->headerChunkSize(), 6u);
    EXPECT_EQ(metrical->format(), 1u);
    EXPECT_EQ(metrical->trackCount(), 0u);
    EXPECT_EQ(metrical->timeFormat(), 0);
    EXPECT_EQ(metrical->ticksPerBeat(), 480);
    EXPECT_EQ(metrical->framesPerSecond(), 0);
    EXPECT_EQ(metrical->ticksPerFrame(), 0);
    EXPECT_TRUE(metrical->tracks().empty());

    auto smpte = parse(header(2, 0, 0xE728, 0x12345678));
    ASSERT_NE(smpte, nullptr);
    EXPECT_EQ(smpte->headerChunkSize(), 0x12345678u);
    EXPECT_EQ(smpte->format(), 2u);
    EXPECT_EQ(smpte->timeFormat(), 1);
    EXPECT_EQ(smpte->ticksPerBeat(), 0);
    EXPECT_EQ(smpte->framesPerSecond(), 0x67);
    EXPECT_EQ(smpte->ticksPerFrame(), 40);
}

TEST(KDMIDIParser, RejectsShortOrForeignDataAndKeepsATruncatedHeader) {
    EXPECT_EQ(parse({}), nullptr);
    EXPECT_EQ(parse({'M', 'T', 'h', 'd', 0}), nullptr);
    EXPECT_EQ(parse(Bytes{'R', 'I', 'F', 'F'} + be32(6) + be16(0) + be16(1) + be16(96)), nullptr);
    EXPECT_EQ(parse(Bytes{'M', 'T', 'r', 'k'} + be32(0)), nullptr);

    auto six = parse({'M', 'T', 'h', 'd', 0, 0});
    ASSERT_NE(six, nullptr);
    EXPECT_EQ(six->headerChunkSize(), 0u);
    EXPECT_TRUE(six->tracks().empty());

    // Cut after the track count: the fields that are there are read, the
    // division is missing and no track can follow.
    Bytes full = header(1, 3, 0x0060) + track(tempo(500000));
    auto twelve = parse(Bytes(full.begin(), full.begin() + 12));
    ASSERT_NE(twelve, nullptr);
    EXPECT_EQ(twelve->headerChunkSize(), 6u);
    EXPECT_EQ(twelve->format(), 1u);
    EXPECT_EQ(twelve->trackCount(), 3u);
    EXPECT_EQ(twelve->ticksPerBeat(), 0);
    EXPECT_TRUE(twelve->tracks().empty());
}

TEST(KDMIDIParser, FormatZeroTempo) {
    for (auto [microseconds, bpm] : std::vector<std::pair<uint32_t, uint32_t>>{
             {500000, 120}, {468750, 128}, {1000000, 60}, {0xFFFFFF, 3}, {1, 60000000}}) {
        auto p = parse(header(0, 1, 96) +
                       track(tempo(microseconds) + noteOn(0, 60) + noteOn(96, 62) + endOfTrack()));
        ASSERT_NE(p, nullptr);
        ASSERT_EQ(p->tracks().size(), 1u);
        EXPECT_EQ(p->tracks()[0].bpm(), bpm) << microseconds;
        EXPECT_FALSE(p->tracks()[0].key().has_value());
    }
}

TEST(KDMIDIParser, FormatOneKeepsEachTrack) {
    const Bytes conductor = tempo(500000) + keySignature(2, 0) + endOfTrack();
    const Bytes melody = Bytes{0x00, 0xC0, 0x05} + noteOn(0, 64) + keySignature(0x83, 1) +
                         noteOn(48, 67) + endOfTrack();
    const Bytes silent = endOfTrack();
    auto p = parse(header(1, 3, 480) + track(conductor) + track(melody) + track(silent));
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(p->tracks().size(), 3u);
    EXPECT_EQ(p->tracks()[0].bpm(), 120u);
    EXPECT_EQ(p->tracks()[0].key(), "D Major");
    EXPECT_EQ(p->tracks()[1].bpm(), 0u);
    EXPECT_EQ(p->tracks()[1].key(), "Eb Minor");
    EXPECT_EQ(p->tracks()[2].bpm(), 0u);
    EXPECT_FALSE(p->tracks()[2].key().has_value());
}

TEST(KDMIDIParser, TrackCountAndForeignChunks) {
    const Bytes one = track(tempo(500000));
    // Two announced, one MTrk and then other data.
    auto p = parse(header(1, 2, 96) + one + Bytes{'j', 'u', 'n', 'k', 0, 0, 0, 2, 1, 2});
    ASSERT_NE(p, nullptr);
    EXPECT_EQ(p->tracks().size(), 1u);
    // Trailing bytes too short for a chunk header.
    EXPECT_EQ(parse(header(1, 2, 96) + one + Bytes{'M', 'T', 'r'})->tracks().size(), 1u);
    // A foreign chunk in between is left out; the next track is still read.
    auto q = parse(header(1, 3, 96) + one + chunk("XFIH", {1, 2, 3}) + track(tempo(468750)));
    ASSERT_EQ(q->tracks().size(), 2u);
    EXPECT_EQ(q->tracks()[1].bpm(), 128u);
    // No tracks announced: the chunks that follow are not read.
    EXPECT_TRUE(parse(header(0, 0, 96) + one)->tracks().empty());
    // More announced than present.
    EXPECT_EQ(parse(header(1, 0xFFFF, 96) + one + one)->tracks().size(), 2u);
}

TEST(KDMIDITrack, KeyTables) {
    const char* sharps[] = {"C", "G", "D", "A", "E", "B", "F#", "C#", "G#", "D#", "A#"};
    const char* flats[] = {"C", "F", "Bb", "Eb", "Ab", "Db", "Gb", "Cb", "Fb", "Bbb", "Ebb"};
    for (uint8_t i = 0; i <= 10; ++i) {
        EXPECT_EQ(scan(keySignature(i, 0))->key(), std::string(sharps[i]) + " Major");
        EXPECT_EQ(scan(keySignature(i, 1))->key(), std::string(sharps[i]) + " Minor");
        EXPECT_EQ(scan(keySignature(0x80 | i, 0))->key(), std::string(flats[i]) + " Major");
        // Any non-zero mode byte means minor.
        EXPECT_EQ(scan(keySignature(0x80 | i, 7))->key(), std::string(flats[i]) + " Minor");
    }
    // Outside the tables, including the standard two's-complement flats.
    for (uint8_t k : {0x0B, 0x7F, 0x8B, 0xF9, 0xFE, 0xFF})
        EXPECT_FALSE(scan(keySignature(k, 0))->key().has_value()) << int(k);
    EXPECT_EQ(scan(keySignature(0x82, 0))->key(), "Bb Major");
    EXPECT_EQ(scan(keySignature(2, 0))->key(), "D Major");
    EXPECT_EQ(scan(keySignature(2, 1))->key(), "D Minor");
}

TEST(KDMIDITrack, LastEventWinsAndZeroTempoSetsNothing) {
    auto t = scan(tempo(500000) + keySignature(1, 0) + noteOn(10, 60) + tempo(468750) +
                  keySignature(0xFE, 0) + keySignature(0x81, 1) + tempo(0) + endOfTrack());
    EXPECT_EQ(t->bpm(), 128u);
    EXPECT_EQ(t->key(), "F Minor");
    // An unusable key event does not erase an earlier one.
    EXPECT_EQ(scan(keySignature(4, 0) + keySignature(0xFD, 0))->key(), "E Major");
}

TEST(KDMIDITrack, SkipsChannelSysexAndMetaDataByTheirLengths) {
    // Running status: after one note-on, further note-ons carry no status
    // byte; data bytes that look like meta bytes must not be taken as such.
    const Bytes running = Bytes{0x00, 0x90, 0x3C, 0x40} + Bytes{0x10, 0x51, 0x59} +
                          Bytes{0x10, 0x3E, 0x00} + tempo(500000);
    EXPECT_EQ(scan(running)->bpm(), 120u);

    // Program change and channel pressure have one data byte; the others two.
    const Bytes channel = Bytes{0x00, 0xC3, 0x10, 0x00, 0xD3, 0x20, 0x00, 0xB0, 0x07,
                                0x64, 0x00, 0xE0, 0x00, 0x40, 0x00, 0xA0, 0x3C, 0x10} +
                          keySignature(3, 0);
    EXPECT_EQ(scan(channel)->key(), "A Major");

    // System exclusive with a two-byte length (250 bytes) holding meta-like
    // bytes, then the real event. (The sizes keep the chunk length's last
    // byte below 0x80; see ChunkHeaderAndDeclaredLength.)
    Bytes sysex = {0x00, 0xF0, 0x81, 0x7A};
    for (int i = 0; i < 250; ++i)
        sysex.push_back(i % 2 ? 0xFF : 0x51);
    EXPECT_EQ(scan(sysex + tempo(468750))->bpm(), 128u);

    // Meta events longer than their known fields: the scan moves by the
    // declared length, here skipping a text event and padded tempo data.
    const Bytes text = {0x00, 0xFF, 0x01, 0x05, 0xFF, 0x51, 0x03, 0x07, 0xA1};
    const Bytes longTempo = {0x00, 0xFF, 0x51, 0x05, 0x07, 0xA1, 0x20, 0xFF, 0x59};
    EXPECT_EQ(scan(text + longTempo + keySignature(5, 1))->key(), "B Minor");
    EXPECT_EQ(scan(text + longTempo + keySignature(5, 1))->bpm(), 120u);

    // Multi-byte delta times.
    EXPECT_EQ(
        scan(Bytes{0x00, 0x90, 0x3C, 0x40, 0x83, 0xFF, 0x7F, 0x3E, 0x40} + tempo(250000))->bpm(),
        240u);
}

TEST(KDMIDITrack, ChunkHeaderAndDeclaredLength) {
    EXPECT_EQ(KDMIDITrack::trackWithData(Bytes{'M', 'T', 'h', 'd'} + be32(0)), nullptr);
    EXPECT_EQ(KDMIDITrack::trackWithData(Bytes{'M', 'T', 'r'}), nullptr);
    auto empty = KDMIDITrack::trackWithData(Bytes{'M', 'T', 'r', 'k'} + be32(0) + tempo(500000));
    ASSERT_NE(empty, nullptr);
    EXPECT_EQ(empty->bpm(), 0u);
    EXPECT_FALSE(empty->key().has_value());
    ASSERT_NE(KDMIDITrack::trackWithData(Bytes{'M', 'T', 'r', 'k', 0}), nullptr);

    // Bytes beyond the chunk's declared end are not part of it.
    auto bounded = KDMIDITrack::trackWithData(track(keySignature(2, 0)) + tempo(500000));
    ASSERT_NE(bounded, nullptr);
    EXPECT_EQ(bounded->key(), "D Major");
    EXPECT_EQ(bounded->bpm(), 0u);

    // A length byte with its top bit set is taken as a status byte while
    // the header is scanned, which throws the scan off the real events.
    Bytes events = tempo(500000);
    events.resize(0x90, 0x00);
    EXPECT_EQ(scan(events)->bpm(), 0u);
    events.resize(0x7F, 0x00);
    EXPECT_EQ(scan(events)->bpm(), 120u);
}

TEST(KDMIDIParser, LengthsPastTheDataEndTheScanKeepingWhatWasFound) {
    // A track chunk claiming more than the file holds: what it does hold is
    // scanned, and no further chunk is looked for.
    Bytes cutShort = Bytes{'M', 'T', 'r', 'k'} + be32(0x70) + tempo(500000) + keySignature(1, 0);
    auto p = parse(header(1, 3, 96) + cutShort);
    ASSERT_NE(p, nullptr);
    ASSERT_EQ(p->tracks().size(), 1u);
    EXPECT_EQ(p->tracks()[0].bpm(), 120u);
    EXPECT_EQ(p->tracks()[0].key(), "G Major");
    // A huge declared length swallows the chunks after it.
    Bytes huge = Bytes{'M', 'T', 'r', 'k'} + be32(0xFFFFFFF0) + tempo(500000);
    auto h = parse(header(1, 3, 96) + huge + track(tempo(250000)) + track(tempo(250000)));
    ASSERT_NE(h, nullptr);
    EXPECT_EQ(h->tracks().size(), 1u);

    // A meta event whose length runs past the end.
    auto hugeMeta = scan(tempo(500000) + Bytes{0x00, 0xFF, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F} +
                         keySignature(3, 0));
    EXPECT_EQ(hugeMeta->bpm(), 120u);
    EXPECT_FALSE(hugeMeta->key().has_value());

    // A system exclusive event with a never-ending length quantity.
    Bytes endless = keySignature(6, 0) + Bytes{0x00, 0xF0};
    endless.resize(endless.size() + 64, 0xFF);
    EXPECT_EQ(scan(endless)->key(), "F# Major");

    // Tempo and key data cut off by the end of the data (the declared
    // length still claims the full event).
    Bytes cut = track(keySignature(1, 0) + tempo(500000) + Bytes(8, 0));
    Bytes cutTempo(cut.begin(), cut.begin() + 8 + 6 + 5);
    auto t = KDMIDITrack::trackWithData(cutTempo);
    ASSERT_NE(t, nullptr);
    EXPECT_EQ(t->key(), "G Major");
    EXPECT_EQ(t->bpm(), 0u);
    Bytes cutKey(cut.begin(), cut.begin() + 8 + 5);
    EXPECT_FALSE(KDMIDITrack::trackWithData(cutKey)->key().has_value());
}

TEST(KDMIDIParser, SurvivesMutatedAndTruncatedFiles) {
    Bytes seeds[] = {
        header(0, 1, 96) + track(tempo(500000) + keySignature(2, 1) + noteOn(0, 60) +
                                 Bytes{0x10, 0x3E, 0x40} + endOfTrack()),
        header(1, 3, 0xE728) + track(tempo(468750) + keySignature(0x82, 0) + endOfTrack()) +
            track(Bytes{0x00, 0xF0, 0x03, 0x7E, 0x7F, 0xF7} + noteOn(5, 64) + endOfTrack()) +
            chunk("XFIH", {0, 1, 2, 3}),
        header(2, 2, 480) +
            track(Bytes{0x00, 0xFF, 0x03, 0x04, 'S', 'o', 'n', 'g'} +
                  Bytes{0x00, 0xC1, 0x05, 0x00, 0xE1, 0x00, 0x40} + endOfTrack()) +
            track(tempo(1))};

    std::set<std::string> validKeys;
    for (const char* n : {"C", "G",  "D",  "A",  "E",  "B",  "F#", "C#", "G#",  "D#", "A#",
                          "F", "Bb", "Eb", "Ab", "Db", "Gb", "Cb", "Fb", "Bbb", "Ebb"}) {
        validKeys.insert(std::string(n) + " Major");
        validKeys.insert(std::string(n) + " Minor");
    }

    std::mt19937 rng(20240611);
    auto pick = [&](size_t n) { return size_t(rng() % std::max<size_t>(n, 1)); };
    size_t parsed = 0;
    for (int round = 0; round < 6000; ++round) {
        Bytes data = seeds[round % 3];
        const int mutations = 1 + int(pick(8));
        for (int m = 0; m < mutations && !data.empty(); ++m) {
            switch (pick(6)) {
            case 0: // flip a byte
                data[pick(data.size())] = uint8_t(rng());
                break;
            case 1: // truncate
                data.resize(pick(data.size() + 1));
                break;
            case 2: // insert random bytes
                data.insert(data.begin() + long(pick(data.size() + 1)), 1 + pick(16),
                            uint8_t(rng()));
                break;
            case 3: { // overwrite a length-like field with a huge value
                const size_t at = pick(data.size());
                for (size_t i = at; i < std::min(data.size(), at + 4); ++i)
                    data[i] = 0xFF;
                break;
            }
            case 4: // continuation bytes that make quantities run on
                data.insert(data.begin() + long(pick(data.size() + 1)), 1 + pick(40), 0x80);
                break;
            default: // duplicate a slice
                if (data.size() > 2) {
                    const size_t from = pick(data.size() - 1);
                    const size_t len = 1 + pick(data.size() - from);
                    Bytes slice(data.begin() + long(from), data.begin() + long(from + len));
                    data.insert(data.begin() + long(pick(data.size())), slice.begin(), slice.end());
                }
                break;
            }
        }
        auto p = KDMIDIParser::parserWithData(data);
        if (!p)
            continue;
        ++parsed;
        EXPECT_LE(p->tracks().size(), p->trackCount());
        for (const KDMIDITrack& t : p->tracks()) {
            EXPECT_LE(t.bpm(), 60000000u);
            if (t.key()) {
                EXPECT_TRUE(validKeys.count(*t.key())) << *t.key();
            }
        }
        // Every chunk on its own as a track, too.
        KDMIDITrack standalone;
        standalone.initWithData(data.size() > 14 ? std::span(data).subspan(14) : std::span(data));
    }
    // Most mutants keep their signature; the loop must have exercised them.
    EXPECT_GT(parsed, 1000u);
}
