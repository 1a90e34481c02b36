// The decoder base: the pull contract of readAudio and the factory's choice.

#include <cstring>
#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include "core/FormatRegistry.h"
#include "core/KDDecoder.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "support/TestSupport.h"

using namespace velvox;

namespace {

// A decoder over a counter: delivers `total` frames of 2 × 16-bit, `perFill`
// frames per fillPCMBuffer call, and counts the calls.
class CountingDecoder : public KDDecoder {
public:
    CountingDecoder(uint32_t total, uint32_t perFill) : total_(total), perFill_(perFill) {}
    const char* className() const override { return "CountingDecoder"; }
    bool initWithFilename(const std::string& path) override {
        if (!KDDecoder::initWithFilename(path))
            return false;
        decodeFormat_.mSampleRate = 8000;
        decodeFormat_.mFormatID = kAudioFormatLinearPCM;
        decodeFormat_.mFormatFlags = 0xC;
        decodeFormat_.mBitsPerChannel = 16;
        decodeFormat_.mChannelsPerFrame = 2;
        decodeFormat_.mBytesPerFrame = 4;
        decodeFormat_.mBytesPerPacket = 4;
        decodeFormat_.mFramesPerPacket = 1;
        return true;
    }
    void fillPCMBuffer() override {
        ++fills;
        RingBuffer& rb = pcmBuffer();
        uint8_t* out = rb.exposeBufferForWriting();
        uint32_t frames = std::min({perFill_, total_ - produced_, rb.freeSpaceAvailable() / 4});
        for (uint32_t i = 0; i < frames; ++i) {
            const int16_t v[2] = {int16_t(produced_ + i), int16_t(-int32_t(produced_ + i))};
            std::memcpy(out + i * 4, v, 4);
        }
        rb.wroteBytes(frames * 4);
        produced_ += frames;
        if (produced_ == total_)
            setEndOfFile(true);
    }
    int fills = 0;

private:
    uint32_t total_, perFill_, produced_ = 0;
};

std::unique_ptr<CountingDecoder> counting(uint32_t total, uint32_t perFill) {
    auto d = std::make_unique<CountingDecoder>(total, perFill);
    EXPECT_TRUE(d->initWithFilename("/nowhere/counting.raw"));
    return d;
}

} // namespace

TEST(KDDecoder, LastShortReadThenZero) {
    auto d = counting(4196, 100000);
    std::vector<uint8_t> buf(4096 * 4);
    auto list = AudioBufferList::single(buf.data(), uint32_t(buf.size()), 0);
    EXPECT_EQ(d->readAudio(&list, 4096), 4096u);
    EXPECT_EQ(list.mBuffers[0].mNumberChannels, 2u);
    list.mBuffers[0].mDataByteSize = uint32_t(buf.size());
    EXPECT_EQ(d->readAudio(&list, 4096), 100u);
    EXPECT_EQ(list.mBuffers[0].mDataByteSize, 400u);
    int16_t first[2];
    std::memcpy(first, buf.data(), 4);
    EXPECT_EQ(first[0], 4096);
    EXPECT_EQ(first[1], -4096);
    list.mBuffers[0].mDataByteSize = uint32_t(buf.size());
    EXPECT_EQ(d->readAudio(&list, 4096), 0u);
    EXPECT_EQ(d->currentFrame(), 4196);
    EXPECT_EQ(d->totalFrames(), -1);
}

// A decoder over a test row's files, so that the factory's choice shows.
class RowDecoder : public CountingDecoder {
public:
    RowDecoder() : CountingDecoder(10, 10) {}
    const char* className() const override { return "RowDecoder"; }
};

const DecoderClass kRowDecoder{"RowDecoder", makeDecoder<RowDecoder>};
const FormatEntry kRowFormat{.name = "row", .extensions = {"vlxrow"}, .decoder = &kRowDecoder};
TEST(KDDecoderFactory, ARegistryRowIsAllANewFormatNeeds) {
    test::TempDir dir;
    test::writeFile(dir.file("a.VLXROW"), {1, 2, 3});
    EXPECT_FALSE(FormatRegistry::isAcceptedFile(dir.file("a.VLXROW")));
    FormatRegistry::addEntry(&kRowFormat);
    EXPECT_TRUE(FormatRegistry::isAcceptedFile(dir.file("a.VLXROW")));
    auto decoder = KDDecoder::decoderWithFilename(dir.file("a.VLXROW"));
    ASSERT_NE(decoder, nullptr);
    EXPECT_STREQ(decoder->className(), "RowDecoder");
    FormatRegistry::removeEntry(&kRowFormat);
    EXPECT_FALSE(FormatRegistry::isAcceptedFile(dir.file("a.VLXROW")));
}

TEST(KDDecoderFactory, OggFilesGoToTheRowOfTheirFirstPacket) {
    // The same extension for all four: only the first packet tells them apart.
    test::TempDir dir;
    const std::string wav = dir.file("s.wav");
    ASSERT_EQ(
        test::runCommand("sox -n -r 16000 -c 1 -b 16 " + wav + " synth 0.2 sine 440").exitCode, 0);
    const std::pair<const char*, std::string> cases[] = {
        {"OggVorbisDecoder", "oggenc -Q -o {out} {in}"},
        {"OggSpeexDecoder", "speexenc {in} {out} 2>/dev/null"},
        {"OggOpusDecoder", "opusenc --quiet {in} {out}"},
        {"OggFLACDecoder", "flac -s --ogg -o {out} {in}"},
    };
    for (const auto& [decoderClass, command] : cases) {
        SCOPED_TRACE(decoderClass);
        const std::string out = dir.file(std::string(decoderClass) + ".ogg");
        std::string line = command;
        line.replace(line.find("{out}"), 5, out);
        line.replace(line.find("{in}"), 4, wav);
        ASSERT_EQ(test::runCommand(line).exitCode, 0) << line;
        auto decoder = KDDecoder::decoderWithFilename(out);
        ASSERT_NE(decoder, nullptr);
        EXPECT_STREQ(decoder->className(), decoderClass);
    }
    // Not Ogg at all, under an Ogg name: the factory's assertion.
    test::writeFile(dir.file("bad.ogg"), std::vector<uint8_t>(100, 7));
    EXPECT_THROW(KDDecoder::decoderWithFilename(dir.file("bad.ogg")), Exception);
}
