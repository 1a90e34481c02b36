// The decoder base: the pull contract of readAudio and the factory's choice.

#include <cstring>
#include <functional>
#include <memory>

#include <gtest/gtest.h>

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

TEST(KDDecoderFactory, RowsPickTheirDecoderClassEvenWhenItIsNotBuilt) {
    // Rows whose decoders arrive later must name them and fail cleanly.
    test::TempDir dir;
    const std::pair<const char*, const char*> rows[] = {
        {"a.ape", "MonkeysAudioDecoder"}, {"a.MPC", "MusepackDecoder"}, {"a.wv", "WavPackDecoder"},
        {"a.tta", "TrueAudioDecoder"},    {"a.xm", "ModDecoder"},       {"a.dsf", "DSDDecoder"},
    };
    for (const auto& [name, cls] : rows) {
        test::writeFile(dir.file(name), {1, 2, 3});
        if (KDDecoder::isDecoderClassRegistered(cls))
            continue;
        const size_t mark = ErrorLog::sharedController().count();
        EXPECT_EQ(KDDecoder::decoderWithFilename(dir.file(name)), nullptr);
        const auto lines = ErrorLog::sharedController().messages();
        ASSERT_GT(lines.size(), mark);
        EXPECT_NE(lines[mark].find(cls), std::string::npos) << lines[mark];
    }
}
