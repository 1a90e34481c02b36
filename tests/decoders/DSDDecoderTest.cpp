// DSF and DSDIFF decoding of 1-bit streams made here: a sigma-delta modulated
// sine must come out as that sine, the idle pattern as silence, both
// containers as the same PCM, and every damaged or refused file as one error
// line naming it.

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <random>
#include <vector>

#include <gtest/gtest.h>

#include "core/KDDecoder.h"
#include "decoders/DSDDecoder.h"
#include "decoders/DSDTestFiles.h"
#include "decoders/VLXDSDFile.h"
#include "platform/ErrorLog.h"
#include "platform/UserDefaults.h"
#include "support/TestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

constexpr uint32_t kDSD64 = 2822400;
constexpr uint32_t kDSD128 = 5644800;
constexpr uint32_t kDSD256 = 11289600;

// Where makeDSF and makeDFF put their fields.
constexpr size_t kDSFHeaderSize = 92;
constexpr size_t kDFFPropSize = 36;
constexpr size_t kDFFChannelCount = 108;
constexpr size_t kDFFDataSize = 122;
constexpr size_t kDFFHeaderSize = 130;

struct Decoded {
    AudioStreamBasicDescription format{};
    int64_t totalFrames = 0;
    std::vector<int32_t> samples; // interleaved, sign-extended 24-bit
    uint64_t frames = 0;
};

Decoded decodeAll(KDDecoder& decoder) {
    Decoded d;
    d.format = decoder.decodeFormat();
    d.totalFrames = decoder.totalFrames();
    const uint32_t channels = d.format.mChannelsPerFrame;
    std::vector<uint8_t> buffer(size_t(4096) * d.format.mBytesPerFrame);
    for (int idle = 0; idle < 100;) {
        auto list = AudioBufferList::single(buffer.data(), uint32_t(buffer.size()), channels);
        const uint32_t n = decoder.readAudio(&list, 4096);
        if (n == 0) {
            if (decoder.isEndOfFile())
                break;
            ++idle;
            continue;
        }
        for (size_t i = 0; i < size_t(n) * channels; ++i) {
            const uint8_t* s = buffer.data() + 3 * i;
            d.samples.push_back(int32_t(uint32_t(s[0] << 8 | s[1] << 16 | s[2] << 24)) >> 8);
        }
        d.frames += n;
    }
    EXPECT_TRUE(decoder.isEndOfFile());
    return d;
}

struct SineFit {
    double amplitude = 0; // full scale 1.0
    double snrDB = 0;     // the sine against everything else
};

// Least-squares fit of the component at `frequency` in one channel over
// whole periods after the filter has settled.
SineFit fitSine(const Decoded& d, uint32_t channel, double frequency) {
    const uint32_t channels = d.format.mChannelsPerFrame;
    const double rate = d.format.mSampleRate;
    const size_t start = 1000;
    const size_t periods = size_t((double(d.frames) - double(start)) * frequency / rate) - 1;
    const size_t count = size_t(double(periods) * rate / frequency);
    auto sample = [&](size_t n) { return d.samples[n * channels + channel] / 8388608.0; };
    double s = 0, c = 0;
    for (size_t n = start; n < start + count; ++n) {
        const double phase = 2 * M_PI * frequency * double(n) / rate;
        s += sample(n) * std::sin(phase);
        c += sample(n) * std::cos(phase);
    }
    s *= 2 / double(count);
    c *= 2 / double(count);
    double residue = 0;
    for (size_t n = start; n < start + count; ++n) {
        const double phase = 2 * M_PI * frequency * double(n) / rate;
        const double e = sample(n) - s * std::sin(phase) - c * std::cos(phase);
        residue += e * e;
    }
    const double amplitude = std::hypot(s, c);
    return {amplitude, 10 * std::log10(amplitude * amplitude / 2 / (residue / double(count)))};
}

double amplitudeAt(const Decoded& d, uint32_t channel, double frequency) {
    return fitSine(d, channel, frequency).amplitude;
}

int32_t peak(const Decoded& d, uint32_t channel, size_t skipFrames = 0) {
    int32_t p = 0;
    const uint32_t channels = d.format.mChannelsPerFrame;
    for (size_t n = skipFrames; n < d.frames; ++n)
        p = std::max(p, std::abs(d.samples[n * channels + channel]));
    return p;
}

double dB(double ratio) { return 20 * std::log10(ratio); }

class DSDDecoderTest : public testing::Test {
protected:
    void SetUp() override {
        originalStore_ = UserDefaults::standardUserDefaults().storePath();
        UserDefaults::resetStandardUserDefaults(store_.path() / "defaults.json");
        setGain(0);
        ErrorLog::sharedController().clear();
    }
    void TearDown() override { UserDefaults::resetStandardUserDefaults(originalStore_); }

    static void setGain(double dBGain) {
        UserDefaults::standardUserDefaults().setVolatileObject("dsd_gain", dBGain);
    }

    std::string write(const std::string& name, const std::vector<uint8_t>& bytes) const {
        const std::string path = dir_.file(name);
        writeFile(path, bytes);
        return path;
    }

    static Decoded decodeFile(const std::string& path) {
        auto decoder = KDDecoder::decoderWithFilename(path);
        EXPECT_NE(decoder, nullptr) << path;
        if (!decoder)
            return {};
        EXPECT_STREQ(decoder->className(), "DSDDecoder");
        return decodeAll(*decoder);
    }

    // The file is refused with exactly one log line, `message` with the path.
    static void expectRefused(const std::string& path, const std::string& message) {
        ErrorLog::sharedController().clear();
        EXPECT_EQ(KDDecoder::decoderWithFilename(path), nullptr) << path;
        const auto lines = ErrorLog::sharedController().messages();
        ASSERT_EQ(lines.size(), 1u) << path;
        EXPECT_EQ(lines[0], message + ": " + path);
    }

    TempDir store_;
    TempDir dir_;
    std::filesystem::path originalStore_;
};

} // namespace

TEST_F(DSDDecoderTest, BothContainersAtBothRatesGiveTheSine24BitAtAThirtySecondOfTheRate) {
    for (const uint32_t rate : {kDSD64, kDSD128}) {
        // 0.6 s: neither container's data is a whole number of blocks.
        const size_t bits = size_t(rate) * 6 / 10;
        const std::vector<DSDBits> channels = {sigmaDeltaSine(1000, 0.5, rate, bits),
                                               repeatedPattern(0x69, bits, false)};
        const std::string dsf = write("sine.dsf", makeDSF(channels, rate));
        const std::string dff = write("sine.dff", makeDFF(channels, rate));
        const Decoded a = decodeFile(dsf);
        const Decoded b = decodeFile(dff);
        for (const Decoded* d : {&a, &b}) {
            SCOPED_TRACE(rate);
            EXPECT_EQ(d->format.mSampleRate, rate / 32);
            EXPECT_EQ(d->format.mBitsPerChannel, 24u);
            EXPECT_EQ(d->format.mChannelsPerFrame, 2u);
            EXPECT_EQ(d->format.mBytesPerFrame, 6u);
            EXPECT_EQ(d->format.mFormatFlags,
                      kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked);
            EXPECT_EQ(d->totalFrames, int64_t(bits / 32));
            EXPECT_EQ(d->frames, uint64_t(bits / 32));
            const SineFit fit = fitSine(*d, 0, 1000);
            const double idle = dB(peak(*d, 1, 100) / 8388608.0);
            std::printf("DSD %u Hz: 1 kHz level off by %+.4f dB, SNR %.1f dB, idle channel peak "
                        "%.1f dBFS\n",
                        rate, dB(fit.amplitude / 0.5), fit.snrDB, idle);
            EXPECT_NEAR(dB(fit.amplitude / 0.5), 0.0, 0.1) << fit.amplitude;
            // The modulator's noise stays shaped away from the audio band only
            // when each byte's bits are taken in the container's order.
            EXPECT_GT(fit.snrDB, 35.0);
            // The idle channel stays silent beside a loud one.
            EXPECT_LT(idle, -70.0);
        }
        // The filter runs on across blocks of either size, so the same bits
        // give the same PCM whatever the container and its bit order, once
        // the idle history the filter starts from (read in each container's
        // bit order) has left its window.
        const long settled = 2 * 32;
        ASSERT_EQ(a.samples.size(), b.samples.size());
        EXPECT_TRUE(
            std::equal(a.samples.begin() + settled, a.samples.end(), b.samples.begin() + settled));
    }
}

TEST_F(DSDDecoderTest, IdlePatternIsSilenceAndLayoutsFollowTheChannelCount) {
    const size_t bits = kDSD64 / 5;
    const struct {
        uint32_t channels;
        AudioChannelLayoutTag tag;
    } cases[] = {{1, kAudioChannelLayoutTag_Mono},
                 {2, kAudioChannelLayoutTag_Stereo},
                 {6, kAudioChannelLayoutTag_MPEG_5_1_A}};
    for (const auto& c : cases) {
        for (const bool dsf : {true, false}) {
            const std::vector<DSDBits> channels(c.channels, repeatedPattern(0x69, bits, dsf));
            const std::string path = dsf ? write("idle.dsf", makeDSF(channels, kDSD64))
                                         : write("idle.dff", makeDFF(channels, kDSD64));
            auto decoder = KDDecoder::decoderWithFilename(path);
            ASSERT_NE(decoder, nullptr);
            ASSERT_NE(decoder->channelLayout(), nullptr);
            EXPECT_EQ(decoder->channelLayout()->mChannelLayoutTag, c.tag);
            const Decoded d = decodeAll(*decoder);
            EXPECT_EQ(d.frames, bits / 32);
            for (uint32_t ch = 0; ch < c.channels; ++ch)
                EXPECT_LT(dB(std::max(1, peak(d, ch)) / 8388608.0), -70.0) << path << " " << ch;
        }
    }
}

TEST_F(DSDDecoderTest, GainIsClampedToZeroToSixDecibelsAndTheDecimationPreferenceIgnored) {
    const size_t bits = kDSD64 / 2;
    const std::string quiet =
        write("quiet.dsf", makeDSF({sigmaDeltaSine(1000, 0.25, kDSD64, bits)}, kDSD64));
    const std::string loud =
        write("loud.dsf", makeDSF({sigmaDeltaSine(1000, 0.8, kDSD64, bits)}, kDSD64));
    const struct {
        double preference;
        double expectedDB;
    } cases[] = {{9, 6}, {-4, 0}, {3, 3}};
    UserDefaults::standardUserDefaults().setVolatileObject("dsd_decimation", 8);
    const Decoded reference = decodeFile(quiet);
    for (const auto& c : cases) {
        setGain(c.preference);
        auto decoder = KDDecoder::decoderWithFilename(quiet);
        ASSERT_NE(decoder, nullptr);
        auto* dsd = dynamic_cast<DSDDecoder*>(decoder.get());
        ASSERT_NE(dsd, nullptr);
        EXPECT_NEAR(dsd->gain(), std::pow(10.0, c.expectedDB / 20), 1e-6);
        EXPECT_EQ(dsd->decimation(), 32);
        EXPECT_EQ(decoder->decodeFormat().mSampleRate, 88200);
        const Decoded d = decodeAll(*decoder);
        EXPECT_NEAR(dB(amplitudeAt(d, 0, 1000) / amplitudeAt(reference, 0, 1000)), c.expectedDB,
                    0.01);
        if (c.expectedDB == 0) {
            EXPECT_EQ(d.samples, reference.samples);
        }
    }
    // 0.8 raised by 6 dB is clipped at full scale, never wrapped.
    setGain(6);
    const Decoded clipped = decodeFile(loud);
    EXPECT_GE(peak(clipped, 0), 8388607 - 1);
    const auto [lo, hi] = std::minmax_element(clipped.samples.begin(), clipped.samples.end());
    EXPECT_GE(*lo, -8388608);
    EXPECT_LE(*hi, 8388607);
    EXPECT_LT(dB(amplitudeAt(clipped, 0, 1000)), dB(0.8) + 6.0 - 0.5);
}

TEST_F(DSDDecoderTest, DSDIFFAt11MHzAndCompressedDSDIFFAreRefused) {
    const size_t bits = 65536;
    const std::vector<DSDBits> channels(2, repeatedPattern(0x69, bits, false));
    const std::string parse = "DSDDecoder Unable To Parse DSD File";
    expectRefused(write("fast.dff", makeDFF(channels, kDSD256)), parse);
    expectRefused(write("dst.dff", makeDFF(channels, kDSD64, {.compression = "DST "})), parse);
    // The same rate in DSF is taken.
    const Decoded d = decodeFile(write("fast.dsf", makeDSF(channels, kDSD256)));
    EXPECT_EQ(d.format.mSampleRate, 352800);
    EXPECT_EQ(d.frames, bits / 32);

    VLXDSDFile file;
    VLXDSDFile::Error error;
    EXPECT_FALSE(file.initWithFilename(dir_.file("dst.dff"), 32, &error));
    EXPECT_EQ(error.domain, "com.velvox.dsdfile");
    EXPECT_EQ(error.code, 100);
}

TEST_F(DSDDecoderTest, EmptyForeignTruncatedAndLyingFilesFailWithOneLineNamingThem) {
    const size_t bits = size_t(4096) * 8 * 2 + 800;
    const std::vector<DSDBits> channels(2, sigmaDeltaSine(1000, 0.5, kDSD64, bits));
    const auto dsf = makeDSF(channels, kDSD64);
    const auto dff = makeDFF(channels, kDSD64);

    expectRefused(write("empty.dsf", {}), "DSDDecoder Unable To Read File");
    expectRefused(write("short.dff", {'F', 'R'}), "DSDDecoder Unable To Read File");
    expectRefused(write("riff.dsf", std::vector<uint8_t>(200, 'R')),
                  "DSDDecoder Not A Vaild DSD File");
    const std::string parse = "DSDDecoder Unable To Parse DSD File";
    for (const size_t cut : {size_t(5), size_t(27), size_t(40), size_t(91), size_t(92),
                             size_t(5000), dsf.size() - 1}) {
        expectRefused(write("cut.dsf", std::vector<uint8_t>(dsf.begin(), dsf.begin() + long(cut))),
                      parse);
    }
    for (const size_t cut : {size_t(9), size_t(30), size_t(70), size_t(100), dff.size() - 1}) {
        expectRefused(write("cut.dff", std::vector<uint8_t>(dff.begin(), dff.begin() + long(cut))),
                      parse);
    }

    // Sizes that lie: each at its offset, little-endian in DSF, big-endian in DSDIFF.
    auto patched = [](std::vector<uint8_t> bytes, size_t offset, uint64_t value, int width,
                      bool littleEndian) {
        for (int i = 0; i < width; ++i)
            bytes[offset + size_t(i)] = uint8_t(value >> (8 * (littleEndian ? i : width - 1 - i)));
        return bytes;
    };
    const struct {
        const char* name;
        std::vector<uint8_t> bytes;
    } lies[] = {
        {"dsd-chunk-short.dsf", patched(dsf, 4, 20, 8, true)},
        {"dsd-chunk-huge.dsf", patched(dsf, 4, ~uint64_t(0), 8, true)},
        {"fmt-size-zero.dsf",
         [&] {
             auto b = patched(dsf, 28, uint32_t(0x20746d66 ^ 1), 4, true); // not "fmt "
             return patched(b, 32, 0, 8, true);
         }()},
        {"sample-count-beyond-data.dsf", patched(dsf, 64, uint64_t(bits) * 4, 8, true)},
        {"no-channels.dsf", patched(dsf, 52, 0, 4, true)},
        {"block-size-zero.dsf", patched(dsf, 72, 0, 4, true)},
        {"block-size-huge.dsf", patched(dsf, 72, 0x7fffffff, 4, true)},
        {"prop-size-huge.dff", patched(dff, kDFFPropSize, uint64_t(1) << 62, 8, false)},
        {"data-beyond-end.dff", patched(dff, kDFFDataSize, dff.size(), 8, false)},
        {"no-channels.dff", patched(dff, kDFFChannelCount, 0, 2, false)},
    };
    for (const auto& lie : lies)
        expectRefused(write(lie.name, lie.bytes), parse);
}

