// Tracker modules written by the test itself (a minimal four-channel
// ProTracker file), rendered through libmodplug: format, length, pitch of the
// notes written, and the same PCM whether modules render one by one or at once.

#include <array>
#include <cmath>
#include <cstring>
#include <thread>

#include <gtest/gtest.h>
#include <libmodplug/modplug.h>

#include "decoders/DecoderTestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

// A ProTracker "M.K." module: one looped 32-byte triangle sample and two
// patterns at speed 3 (0.06 s a row). Pattern 0 plays the sample on channel 0
// (left) at period `period0`, pattern 1 on channel 1 (right) at `period1`.
std::vector<uint8_t> makeModule(uint16_t period0, uint16_t period1) {
    std::vector<uint8_t> m(1084, 0);
    const char title[] = "velvox test";
    std::copy(title, title + sizeof title - 1, m.begin());
    uint8_t* sample = &m[20];        // the first of 31 sample headers
    sample[22] = 0, sample[23] = 16; // length: 16 words
    sample[25] = 64;                 // volume
    sample[28] = 0, sample[29] = 16; // loop: the whole sample
    m[950] = 2;                      // song length
    m[951] = 127;
    m[952] = 0, m[953] = 1; // order: pattern 0, pattern 1
    std::copy_n("M.K.", 4, m.begin() + 1080);

    auto cell = [](uint16_t period, uint8_t instrument, uint8_t effect, uint8_t param) {
        return std::array<uint8_t, 4>{uint8_t((instrument & 0xF0) | (period >> 8)), uint8_t(period),
                                      uint8_t((instrument & 0x0F) << 4 | effect), param};
    };
    for (int pattern = 0; pattern < 2; ++pattern) {
        std::vector<uint8_t> rows(64 * 4 * 4, 0);
        const auto note = cell(pattern ? period1 : period0, 1, 0xF, 3); // F03: speed 3
        std::copy(note.begin(), note.end(), rows.begin() + 4 * pattern);
        if (pattern == 1) { // C00: silence channel 0, whose looped note goes on
            const auto quiet = cell(0, 0, 0xC, 0);
            std::copy(quiet.begin(), quiet.end(), rows.begin());
        }
        m.insert(m.end(), rows.begin(), rows.end());
    }
    for (int i = 0; i < 32; ++i) // one triangle cycle, signed 8-bit
        m.push_back(uint8_t(int8_t(i < 16 ? -120 + 15 * i : 120 - 15 * (i - 16))));
    return m;
}

// Sign changes per second of one channel of 16-bit stereo, over [from, to).
double crossingsPerSecond(const std::vector<uint8_t>& pcm, int channel, size_t from, size_t to) {
    int crossings = 0;
    int16_t previous = 0;
    for (size_t f = from; f < to; ++f) {
        int16_t s;
        std::memcpy(&s, &pcm[4 * f + 2 * channel], 2);
        if ((s < 0) != (previous < 0))
            ++crossings;
        previous = s;
    }
    return crossings * 44100.0 / double(to - from);
}

double rms(const std::vector<uint8_t>& pcm, int channel, size_t from, size_t to) {
    double sum = 0;
    for (size_t f = from; f < to; ++f) {
        int16_t s;
        std::memcpy(&s, &pcm[4 * f + 2 * channel], 2);
        sum += double(s) * s;
    }
    return std::sqrt(sum / double(to - from));
}

Decoded decodeFile(const std::string& path) {
    auto decoder = KDDecoder::decoderWithFilename(path);
    EXPECT_NE(decoder, nullptr);
    return decoder ? decodeAll(*decoder, {4096}) : Decoded{};
}

} // namespace

TEST(ModDecoderTest, RendersTheWrittenNotesAsStereo16Bit) {
    TempDir dir;
    const std::string path = dir.file("tune.mod");
    writeFile(path, makeModule(428, 214));

    auto decoder = KDDecoder::decoderWithFilename(path);
    ASSERT_NE(decoder, nullptr);
    EXPECT_STREQ(decoder->className(), "ModDecoder");
    const auto format = decoder->decodeFormat();
    EXPECT_EQ(format.mSampleRate, 44100.0);
    EXPECT_EQ(format.mChannelsPerFrame, 2u);
    EXPECT_EQ(format.mBitsPerChannel, 16u);
    EXPECT_EQ(format.mBytesPerFrame, 4u);
    ASSERT_NE(decoder->channelLayout(), nullptr);
    EXPECT_EQ(decoder->channelLayout()->mChannelLayoutTag, kAudioChannelLayoutTag_Stereo);

    // The written length: 128 rows of 3 ticks of 20 ms (125 BPM).
    const auto bytes = readFile(path);
    ModPlugFile* module = ModPlug_Load(bytes.data(), int(bytes.size()));
    ASSERT_NE(module, nullptr);
    const int lengthMs = ModPlug_GetLength(module);
    ModPlug_Unload(module);
    EXPECT_EQ(decoder->totalFrames(), int64_t(lengthMs) * 44100 / 1000);

    // libmodplug's own length is an estimate (it counts whole mixing chunks);
    // what it renders is the written length and the last row's fade.
    const Decoded d = decodeAll(*decoder, {4096});
    EXPECT_NEAR(double(d.frames), 7.68 * 44100, 0.15 * 44100);
    EXPECT_NEAR(double(d.frames), double(decoder->totalFrames()), 0.05 * double(d.frames));

    // Period 428 plays the sample at 3546895 / 428 = 8287 Hz, so the
    // 32-sample cycle sounds at 259 Hz: 518 sign changes a second; period
    // 214 doubles it. Each pattern plays on
    // its own side.
    const size_t half = d.frames / 2;
    ASSERT_GT(half, 44100u);
    EXPECT_GT(rms(d.pcm, 0, 4410, half - 4410), 1000.0);
    EXPECT_GT(rms(d.pcm, 0, 4410, half - 4410), 2 * rms(d.pcm, 1, 4410, half - 4410));
    EXPECT_GT(rms(d.pcm, 1, half + 4410, d.frames - 4410),
              2 * rms(d.pcm, 0, half + 4410, d.frames - 4410));
    EXPECT_NEAR(crossingsPerSecond(d.pcm, 0, 4410, half - 4410), 518.0, 12.0);
    EXPECT_NEAR(crossingsPerSecond(d.pcm, 1, half + 4410, d.frames - 4410), 1036.0, 20.0);
}

TEST(ModDecoderTest, ModulesRenderedAtOnceMatchOneAtATime) {
    TempDir dir;
    writeFile(dir.file("a.mod"), makeModule(428, 214));
    writeFile(dir.file("b.mod"), makeModule(320, 160));
    const Decoded a = decodeFile(dir.file("a.mod"));
    const Decoded b = decodeFile(dir.file("b.mod"));
    ASSERT_GT(a.frames, 0u);
    ASSERT_FALSE(a.pcm == b.pcm);

    for (int round = 0; round < 3; ++round) {
        Decoded a2, b2;
        std::thread first([&] { a2 = decodeFile(dir.file("a.mod")); });
        std::thread second([&] { b2 = decodeFile(dir.file("b.mod")); });
        first.join();
        second.join();
        EXPECT_TRUE(a2.pcm == a.pcm) << "round " << round;
        EXPECT_TRUE(b2.pcm == b.pcm) << "round " << round;
    }
}
