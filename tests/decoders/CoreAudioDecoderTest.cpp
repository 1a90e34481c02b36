// The desktop-format decoder checked sample for sample: uncompressed files
// against the samples they were written from (or sox's reading of them), coded
// files against the source PCM (lossless) or ffmpeg's own 16-bit decoding.

#include <algorithm>
#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "decoders/CoreAudioDecoder.h"
#include "decoders/DecoderTestSupport.h"
#include "platform/ErrorLog.h"
#include "support/TestSupport.h"

using namespace velvox;
using namespace velvox::test;

namespace {

std::unique_ptr<KDDecoder> openCoreAudio(const std::string& path) {
    auto decoder = KDDecoder::decoderWithFilename(path);
    if (decoder) {
        EXPECT_STREQ(decoder->className(), "CoreAudioDecoder") << path;
    }
    return decoder;
}

} // namespace

TEST(CoreAudioDecoderTest, WaveIntegerSamplesComeOutBitExactAtTheirOwnDepth) {
    TempDir dir;
    struct Case {
        uint32_t bits, channels, mask;
    };
    const Case cases[] = {{8, 1, 0},  {8, 2, 0},      {16, 1, 0}, {16, 2, 0},  {16, 6, 0x3F},
                          {24, 2, 0}, {24, 6, 0x60F}, {32, 1, 0}, {32, 2, 0x3}};
    for (const Case& c : cases) {
        SCOPED_TRACE(testing::Message() << c.bits << " bits, " << c.channels << " channels");
        const uint32_t frames = 20000 + c.channels;
        const auto signal = makeSignal(frames, c.channels, c.bits, c.bits + c.channels);
        const std::string path =
            dir.file("in" + std::to_string(c.bits) + "_" + std::to_string(c.channels) + ".wav");
        writeWav(path, signal, c.channels, 48000, c.bits, c.mask);

        auto decoder = openCoreAudio(path);
        ASSERT_TRUE(decoder);
        const auto f = decoder->decodeFormat();
        EXPECT_EQ(f.mFormatID, kAudioFormatLinearPCM);
        EXPECT_EQ(f.mFormatFlags, 0xCu);
        EXPECT_EQ(f.mBitsPerChannel, c.bits);
        EXPECT_EQ(f.mBytesPerFrame, c.bits / 8 * c.channels);
        EXPECT_EQ(f.mBytesPerPacket, f.mBytesPerFrame);
        EXPECT_EQ(f.mFramesPerPacket, 1u);
        EXPECT_EQ(f.mChannelsPerFrame, c.channels);
        EXPECT_EQ(f.mSampleRate, 48000.0);
        EXPECT_EQ(decoder->totalFrames(), int64_t(frames));
        EXPECT_TRUE(decoder->totalFramesIsExact());

        const Decoded d = decodeAll(*decoder, {4096, 1000, 333, 8192});
        EXPECT_EQ(d.frames, frames);
        EXPECT_EQ(md5Hex(d.pcm), md5Hex(packLittleEndian(signal, c.bits)));
        EXPECT_EQ(decoder->currentFrame(), int64_t(frames));
    }
}

TEST(CoreAudioDecoderTest, AppleLosslessDecodesToItsSourceSamples) {
    if (!haveTool("ffmpeg"))
        FAIL() << "ffmpeg is needed for the fixtures"
               << " (scripts/setup.sh installs it)";
    TempDir dir;
    for (uint32_t bits : {16u, 24u}) {
        SCOPED_TRACE(testing::Message() << bits << " bits");
        const uint32_t frames = 30011;
        const auto signal = makeSignal(frames, 2, bits, bits);
        const std::string source = dir.file("src" + std::to_string(bits) + ".wav");
        const std::string path = dir.file("alac" + std::to_string(bits) + ".m4a");
        writeWav(source, signal, 2, 44100, bits);
        run("ffmpeg -v error -i " + shellQuote(source) + " -c:a alac " + shellQuote(path));

        auto decoder = openCoreAudio(path);
        ASSERT_TRUE(decoder);
        const auto* coreAudio = dynamic_cast<CoreAudioDecoder*>(decoder.get());
        ASSERT_NE(coreAudio, nullptr);
        EXPECT_EQ(coreAudio->sourceFormat().mFormatID, kAudioFormatAppleLossless);
        EXPECT_EQ(coreAudio->sourceFormat().mFormatFlags, bits == 16 ? 1u : 3u);
        EXPECT_EQ(decoder->decodeFormat().mBitsPerChannel, bits);
        EXPECT_EQ(decoder->decodeFormat().mBytesPerFrame, bits / 8 * 2);
        EXPECT_EQ(decoder->totalFrames(), int64_t(frames));
        EXPECT_FALSE(decoder->totalFramesIsExact());
        EXPECT_EQ(decoder->channelLayout()->mChannelLayoutTag, kAudioChannelLayoutTag_Stereo);

        const Decoded d = decodeAll(*decoder, {4096, 1000, 333, 8192});
        EXPECT_EQ(d.frames, frames);
        EXPECT_EQ(md5Hex(d.pcm), md5Hex(packLittleEndian(signal, bits)));
    }
}

TEST(CoreAudioDecoderTest, LossyFormatsDecodeTo16BitsLikeFfmpeg) {
    if (!haveTool("ffmpeg"))
        FAIL() << "ffmpeg is needed for the fixtures"
               << " (scripts/setup.sh installs it)";
    TempDir dir;
    const uint32_t frames = 44100;
    writeWav(dir.file("src.wav"), makeSignal(frames, 2, 16, 11), 2, 44100, 16);
    const bool lame =
        runCommand("ffmpeg -hide_banner -encoders 2>/dev/null | grep -q libmp3lame").exitCode == 0;
    struct Case {
        std::string name, codec;
        AudioFormatID formatID;
    };
    const Case cases[] = {
        {"x.mp3", lame ? "libmp3lame" : "mp2",
         lame ? kAudioFormatMPEGLayer3 : kAudioFormatMPEGLayer2},
        {"x.mp2", "mp2", kAudioFormatMPEGLayer2},
        {"x.m4a", "aac", kAudioFormatMPEG4AAC}, // planar float out of the decoder
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string path = dir.file(c.name);
        run("ffmpeg -v error -i " + shellQuote(dir.file("src.wav")) + " -c:a " + c.codec +
            " -b:a 192k " + shellQuote(path));
        auto decoder = openCoreAudio(path);
        ASSERT_TRUE(decoder);
        const auto* coreAudio = dynamic_cast<CoreAudioDecoder*>(decoder.get());
        EXPECT_EQ(coreAudio->sourceFormat().mFormatID, c.formatID);
        EXPECT_EQ(coreAudio->sourceFormat().mBitsPerChannel, 0u);
        EXPECT_EQ(decoder->decodeFormat().mBitsPerChannel, 16u);
        EXPECT_EQ(decoder->decodeFormat().mBytesPerFrame, 4u);
        EXPECT_EQ(decoder->channelLayout()->mChannelLayoutTag, kAudioChannelLayoutTag_Stereo);
        EXPECT_NEAR(double(decoder->totalFrames()), double(frames), 2048.0);

        const Decoded d = decodeAll(*decoder, {4096, 1000, 333, 8192});
        std::vector<uint8_t> reference = ffmpegRaw(path, "s16le");
        if (c.formatID == kAudioFormatMPEG4AAC) {
            // The edit list's length, without the encoder's padding that
            // ffmpeg itself still writes out.
            EXPECT_EQ(d.frames, frames);
            ASSERT_GT(reference.size(), d.pcm.size());
            reference.resize(d.pcm.size());
        } else {
            EXPECT_NEAR(double(d.frames), double(frames), 2048.0);
        }
        EXPECT_EQ(md5Hex(d.pcm), md5Hex(reference));
    }
}
