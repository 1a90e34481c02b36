// Monkey's Audio and True Audio files, made by the reference encoders (jmac,
// ffmpeg), decoded bit for bit: against the samples they were made from, and
// against the reference decoders (jmac, ffmpeg).

#include <filesystem>

#include <gtest/gtest.h>

#include "decoders/DecoderTestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

struct Case {
    uint32_t bits, channels;
    AudioChannelLayoutTag tag;
};

std::string ffmpegFormat(uint32_t bits) {
    return bits == 8 ? "s8" : bits == 16 ? "s16le" : bits == 24 ? "s24le" : "s32le";
}

// Opens through the factory and checks what every case shares.
std::unique_ptr<KDDecoder> openChecked(const std::string& path, const char* className,
                                       const Case& c, uint32_t frames) {
    auto decoder = KDDecoder::decoderWithFilename(path);
    EXPECT_NE(decoder, nullptr) << path;
    if (!decoder)
        return nullptr;
    EXPECT_STREQ(decoder->className(), className);
    const auto format = decoder->decodeFormat();
    EXPECT_EQ(format.mBitsPerChannel, c.bits);
    EXPECT_EQ(format.mChannelsPerFrame, c.channels);
    EXPECT_EQ(format.mBytesPerFrame, c.bits / 8 * c.channels);
    EXPECT_EQ(format.mFormatFlags, 0xCu);
    EXPECT_NE(decoder->channelLayout(), nullptr);
    if (decoder->channelLayout()) {
        EXPECT_EQ(decoder->channelLayout()->mChannelLayoutTag, c.tag);
    }
    EXPECT_EQ(decoder->totalFrames(), int64_t(frames));
    return decoder;
}

} // namespace

TEST(MonkeysAudioDecoderTest, MatchesSourceJmacAndFFmpeg) {
    // jmac takes mono and stereo only.
    const Case cases[] = {
        {8, 1, kAudioChannelLayoutTag_Mono},
        {16, 2, kAudioChannelLayoutTag_Stereo},
        {16, 1, kAudioChannelLayoutTag_Mono},
        {24, 2, kAudioChannelLayoutTag_Stereo},
    };
    TempDir dir;
    const uint32_t frames = 73728 + 1000; // one full APE frame and a short one
    int level = 1;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.bits) + " bit, " + std::to_string(c.channels) + " ch");
        const std::string wav = dir.file("in.wav"), ape = dir.file("out.ape");
        const auto samples = makeSignal(frames, c.channels, c.bits, c.bits * c.channels);
        writeWav(dir.file("any.wav"), samples, c.channels, 44100, c.bits);
        // jmac reads only the plain PCM header, and reports a refusal with
        // success: start clean and look for its output.
        run("sox " + shellQuote(dir.file("any.wav")) + " -t wavpcm " + shellQuote(wav));
        std::filesystem::remove(ape);
        // Every compression level but the slowest, in turn.
        run("jmac c" + std::to_string(level) + " " + shellQuote(wav) + " " + shellQuote(ape) +
            " >/dev/null 2>&1");
        ASSERT_TRUE(std::filesystem::exists(ape));
        level = level % 4 + 1;

        auto decoder = openChecked(ape, "MonkeysAudioDecoder", c, frames);
        ASSERT_NE(decoder, nullptr);
        const Decoded d = decodeAll(*decoder);
        EXPECT_EQ(d.frames, frames);
        const auto expected = packLittleEndian(samples, c.bits);
        EXPECT_TRUE(d.pcm == expected) << "differs from the source";
        EXPECT_TRUE(d.pcm == outputOf("ffmpeg -v error -i " + shellQuote(ape) + " -f " +
                                      ffmpegFormat(c.bits) + " -"))
            << "differs from ffmpeg";
        run("jmac d " + shellQuote(ape) + " " + shellQuote(dir.file("back.wav")) +
            " >/dev/null 2>&1");
        auto jmacPCM = wavData(dir.file("back.wav"));
        EXPECT_TRUE(d.pcm == (c.bits == 8 ? flipSign8(jmacPCM) : jmacPCM)) << "differs from jmac";
    }
}

TEST(TrueAudioDecoderTest, MatchesSourceAndFFmpeg) {
    const Case cases[] = {
        {8, 2, kAudioChannelLayoutTag_Stereo},   {16, 1, kAudioChannelLayoutTag_Mono},
        {16, 2, kAudioChannelLayoutTag_Stereo},  {24, 2, kAudioChannelLayoutTag_Stereo},
        {16, 6, kAudioChannelLayoutTag_Unknown}, {24, 6, kAudioChannelLayoutTag_Unknown},
    };
    TempDir dir;
    const uint32_t frames = 2 * 45158 + 77; // TTA frames are 1.04489 s long
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.bits) + " bit, " + std::to_string(c.channels) + " ch");
        const std::string wav = dir.file("in.wav"), tta = dir.file("out.tta");
        const auto samples = makeSignal(frames, c.channels, c.bits, c.bits + 7 * c.channels);
        writeWav(wav, samples, c.channels, 44100, c.bits, c.channels == 6 ? 0x3F : 0);
        run("ffmpeg -v error -y -i " + shellQuote(wav) + " -c:a tta " + shellQuote(tta));

        auto decoder = openChecked(tta, "TrueAudioDecoder", c, frames);
        ASSERT_NE(decoder, nullptr);
        const Decoded d = decodeAll(*decoder, {777});
        EXPECT_EQ(d.frames, frames);
        EXPECT_TRUE(d.pcm == packLittleEndian(samples, c.bits)) << "differs from the source";
        EXPECT_TRUE(d.pcm == outputOf("ffmpeg -v error -i " + shellQuote(tta) + " -f " +
                                      ffmpegFormat(c.bits) + " -"))
            << "differs from ffmpeg";
    }
}

TEST(TrueAudioDecoderTest, OtherContentUnderTheExtensionIsRefused) {
    TempDir dir;
    // A FLAC file named .tta: FFmpeg would happily decode it, but it is not
    // what the name promises, so the True Audio decoder turns it down.
    run("sox -n -r 44100 -b 16 -c 2 " + shellQuote(dir.file("a.flac")) + " synth 0.5 sine 440");
    std::filesystem::rename(dir.file("a.flac"), dir.file("a.tta"));
    EXPECT_EQ(KDDecoder::decoderWithFilename(dir.file("a.tta")), nullptr);
}
