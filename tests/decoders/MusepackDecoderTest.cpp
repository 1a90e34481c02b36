// Musepack files made by mpcenc, checked against mpcdec: the same length to
// the frame, and the same content up to the rounding of float to 16 bits.

#include <gtest/gtest.h>

#include "decoders/DecoderTestSupport.h"

using namespace velvox;
using namespace velvox::test;

TEST(MusepackDecoderTest, LengthAndContentMatchMpcdec) {
    struct Case {
        uint32_t channels, rate;
        const char* seconds;
        AudioChannelLayoutTag tag;
    };
    const Case cases[] = {
        {2, 44100, "3.3", kAudioChannelLayoutTag_Stereo},
        {1, 48000, "1.01", kAudioChannelLayoutTag_Mono},
    };
    TempDir dir;
    for (const Case& c : cases) {
        SCOPED_TRACE(std::to_string(c.channels) + " ch, " + std::to_string(c.rate) + " Hz");
        const std::string wav = dir.file("in.wav"), mpc = dir.file("out.mpc");
        run("sox -n -r " + std::to_string(c.rate) + " -b 16 -c " + std::to_string(c.channels) +
            " " + shellQuote(wav) + " synth " + c.seconds + " sine 220-880 pinknoise gain -8");
        run("mpcenc --silent --overwrite " + shellQuote(wav) + " " + shellQuote(mpc));
        const auto reference =
            outputOf("mpcdec -r " + shellQuote(mpc) + " " + shellQuote(dir.file("ref.raw")) +
                     " >/dev/null 2>&1 && cat " + shellQuote(dir.file("ref.raw")));
        const auto source = wavData(wav);

        auto decoder = KDDecoder::decoderWithFilename(mpc);
        ASSERT_NE(decoder, nullptr);
        EXPECT_STREQ(decoder->className(), "MusepackDecoder");
        const auto format = decoder->decodeFormat();
        EXPECT_EQ(format.mBitsPerChannel, 16u);
        EXPECT_EQ(format.mChannelsPerFrame, c.channels);
        EXPECT_EQ(format.mSampleRate, double(c.rate));
        ASSERT_NE(decoder->channelLayout(), nullptr);
        EXPECT_EQ(decoder->channelLayout()->mChannelLayoutTag, c.tag);

        const Decoded d = decodeAll(*decoder);
        const uint64_t referenceFrames = reference.size() / (2 * c.channels);
        EXPECT_EQ(d.frames, referenceFrames);
        EXPECT_EQ(decoder->totalFrames(), int64_t(referenceFrames));
        EXPECT_EQ(d.frames, source.size() / (2 * c.channels)); // and the source's

        // Both round the same float samples; a one-step difference now and
        // then is all that may separate them.
        const double vsMpcdec = snr16(reference, d.pcm);
        std::cout << "[ SNR      ] against mpcdec " << vsMpcdec << " dB, against the source "
                  << snr16(source, d.pcm) << " dB\n";
        EXPECT_GT(vsMpcdec, 90.0);
        // And it is the music, not noise: a lossy codec at its default profile.
        EXPECT_GT(snr16(source, d.pcm), 10.0);
    }
}
