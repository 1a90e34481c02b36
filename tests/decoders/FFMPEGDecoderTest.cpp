// The FFmpeg decoder checked against ffmpeg's own 16-bit decoding and the
// samples its fixtures were made from; the missing-file retry is counted with
// an injected sleep.

#include <chrono>
#include <filesystem>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "decoders/DecoderTestSupport.h"
#include "decoders/FFMPEGDecoder.h"
#include "platform/ErrorLog.h"
#include "support/TestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

std::unique_ptr<KDDecoder> openFFmpeg(const std::string& path) {
    auto decoder = std::make_unique<FFMPEGDecoder>();
    if (!decoder->initWithFilename(path))
        return nullptr;
    return decoder;
}

} // namespace

TEST(FFMPEGDecoderTest, SampleFormatsBecome16BitOrStayUnsigned8Bit) {
    if (!haveTool("ffmpeg"))
        FAIL() << "ffmpeg is needed for the fixtures"
               << " (scripts/setup.sh installs it)";
    TempDir dir;
    const uint32_t frames = 48000;
    writeWav(dir.file("src.wav"), makeSignal(frames, 2, 16, 6), 2, 48000, 16);
    writeWav(dir.file("src6.wav"), makeSignal(frames, 6, 24, 6), 6, 48000, 24, 0x3F);
    struct Case {
        std::string name, source, codec;
        uint32_t bits, channels;
        AudioChannelLayoutTag tag;
    };
    const Case cases[] = {
        {"aac.mov", "src.wav", "aac", 16, 2, kAudioChannelLayoutTag_Stereo},         // planar float
        {"s24.mov", "src6.wav", "pcm_s24le", 16, 6, kAudioChannelLayoutTag_Unknown}, // s32
        {"flt.mov", "src.wav", "pcm_f32le", 16, 2, kAudioChannelLayoutTag_Stereo},
        {"u8.avi", "src.wav", "pcm_u8", 8, 2, kAudioChannelLayoutTag_Stereo},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = dir.file(c.name);
        run("ffmpeg -v error -i " + shellQuote(dir.file(c.source)) + " -c:a " + c.codec + " " +
            shellQuote(path));
        auto decoder = KDDecoder::decoderWithFilename(path);
        ASSERT_TRUE(decoder);
        EXPECT_STREQ(decoder->className(), "FFMPEGDecoder");
        const auto f = decoder->decodeFormat();
        EXPECT_EQ(f.mBitsPerChannel, c.bits);
        EXPECT_EQ(f.mChannelsPerFrame, c.channels);
        EXPECT_EQ(f.mBytesPerFrame, c.bits / 8 * c.channels);
        EXPECT_EQ(f.mFormatFlags, 0xCu);
        EXPECT_EQ(decoder->channelLayout()->mChannelLayoutTag, c.tag);

        const Decoded d = decodeAll(*decoder, {4096});
        EXPECT_NEAR(double(d.frames), double(frames), 2048.0);
        // 8-bit data stay unsigned, as FFmpeg delivers them.
        EXPECT_EQ(md5Hex(d.pcm), md5Hex(ffmpegRaw(path, c.bits == 8 ? "u8" : "s16le")));
    }
}

TEST(FFMPEGDecoderTest, FilesWithoutUsableAudioFailWithTheirMessage) {
    if (!haveTool("ffmpeg"))
        FAIL() << "ffmpeg is needed for the fixtures"
               << " (scripts/setup.sh installs it)";
    TempDir dir;
    const std::string video = dir.file("silent.mov");
    run("ffmpeg -v error -f lavfi -i testsrc=duration=1:size=64x48:rate=10 -c:v mpeg4 " +
        shellQuote(video));
    ErrorLog::sharedController().clear();
    EXPECT_EQ(openFFmpeg(video), nullptr);
    const auto messages = ErrorLog::sharedController().messages();
    ASSERT_FALSE(messages.empty());
    EXPECT_EQ(messages.back(), "Failed To Determine mBytesPerFrame.");

    // Cut short in the middle of the audio: what is there decodes.
    writeWav(dir.file("full.wav"), makeSignal(20000, 2, 16), 2, 44100, 16);
    run("ffmpeg -v error -i " + shellQuote(dir.file("full.wav")) +
        " -c:a aac -movflags +faststart " + shellQuote(dir.file("full.mov")));
    auto bytes = readFile(dir.file("full.mov"));
    bytes.resize(bytes.size() / 2);
    writeFile(dir.file("cut.mov"), bytes);
    auto decoder = openFFmpeg(dir.file("cut.mov"));
    ASSERT_TRUE(decoder);
    const Decoded d = decodeAll(*decoder, {4096});
    EXPECT_GT(d.frames, 0u);
    EXPECT_LT(d.frames, 20000u);
    EXPECT_TRUE(decoder->isEndOfFile());
}

TEST(FFMPEGDecoderTest, OnlyTheFirstAudioStreamOfAVideoIsDecoded) {
    TempDir dir;
    const uint32_t frames = 30000;
    const auto first = makeSignal(frames, 2, 16, 11);
    writeWav(dir.file("first.wav"), first, 2, 44100, 16);
    writeWav(dir.file("second.wav"), makeSignal(frames, 2, 16, 12), 2, 44100, 16);
    // Video first, then two interleaved audio streams: a commentary track
    // must not leak into the film's sound.
    const std::string movie = dir.file("two-tracks.mov");
    run("ffmpeg -v error -f lavfi -i testsrc=duration=1:size=64x48:rate=10 -i " +
        shellQuote(dir.file("first.wav")) + " -i " + shellQuote(dir.file("second.wav")) +
        " -map 0:v -map 1:a -map 2:a -c:v mpeg4 -c:a pcm_s16le " + shellQuote(movie));
    auto decoder = openFFmpeg(movie);
    ASSERT_TRUE(decoder);
    const Decoded d = decodeAll(*decoder, {4096});
    EXPECT_EQ(d.frames, frames);
    EXPECT_TRUE(d.pcm == packLittleEndian(first, 16));
}
