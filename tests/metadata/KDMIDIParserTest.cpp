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

// The first track's tempo and key for a one-track file with these events.
std::unique_ptr<KDMIDITrack> scan(const Bytes& events) {
    auto t = KDMIDITrack::trackWithData(track(events));
    EXPECT_NE(t, nullptr);
    return t;
}

} // namespace

TEST(KDMIDITrack, KeySignaturesNameTheirKeyOrNone) {
    // Sharps count up, flats are the sign bit plus their count, and any
    // non-zero mode byte means minor.
    EXPECT_EQ(scan(keySignature(2, 0))->key(), "D Major");
    EXPECT_EQ(scan(keySignature(10, 1))->key(), "A# Minor");
    EXPECT_EQ(scan(keySignature(0x82, 0))->key(), "Bb Major");
    EXPECT_EQ(scan(keySignature(0x80 | 10, 7))->key(), "Ebb Minor");
    EXPECT_EQ(scan(keySignature(0, 0))->key(), "C Major");
    // Outside the tables, including the standard two's-complement flats.
    for (uint8_t k : {0x0B, 0x7F, 0x8B, 0xF9, 0xFE, 0xFF})
        EXPECT_FALSE(scan(keySignature(k, 0))->key().has_value()) << int(k);
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
