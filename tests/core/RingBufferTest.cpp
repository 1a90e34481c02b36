#include <cstring>
#include <numeric>
#include <vector>

#include <gtest/gtest.h>

#include "core/RingBuffer.h"
#include "platform/Exception.h"

using velvox::Exception;
using velvox::RingBuffer;

namespace {

std::vector<uint8_t> sequence(size_t n, uint8_t start = 0) {
    std::vector<uint8_t> v(n);
    std::iota(v.begin(), v.end(), start);
    return v;
}

std::string assertionReason(const std::function<void()>& f) {
    try {
        f();
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), "NSInternalInconsistencyException");
        EXPECT_EQ(e.file(), "RingBuffer");
        return e.reason();
    }
    return "(no exception)";
}

// Leaves a buffer of `size` whose readable bytes wrap around the physical end:
// `tail` bytes before the end and `head` bytes from the start.
void makeWrapped(RingBuffer& rb, uint32_t tail, uint32_t head, std::vector<uint8_t>& expected) {
    const uint32_t size = rb.size();
    std::vector<uint8_t> filler(size - tail, 0xEE);
    rb.putData(filler.data(), uint32_t(filler.size()));
    std::vector<uint8_t> sink(filler.size());
    rb.getData(sink.data(), uint32_t(sink.size()));
    expected = sequence(tail + head, 7);
    rb.putData(expected.data(), uint32_t(expected.size()));
}

} // namespace

TEST(RingBuffer, DefaultBufferIsEmptyWith32KiB) {
    RingBuffer rb;
    EXPECT_EQ(rb.size(), 32768u);
    EXPECT_EQ(rb.bytesAvailable(), 0u);
    EXPECT_EQ(rb.freeSpaceAvailable(), 32768u);
    EXPECT_EQ(rb.contiguousFreeSpaceAvailable(), 32768u);
}

TEST(RingBuffer, ShortReadReturnsWhatIsThereAndZeroCountChangesNothing) {
    RingBuffer rb(64);
    auto data = sequence(10);
    rb.putData(data.data(), 10);
    std::vector<uint8_t> out(100, 0xAA);
    EXPECT_EQ(rb.getData(out.data(), 0), 0u);
    EXPECT_EQ(rb.bytesAvailable(), 10u);
    EXPECT_EQ(out[0], 0xAA);
    EXPECT_EQ(rb.getData(out.data(), 100), 10u);
    EXPECT_EQ(std::memcmp(out.data(), data.data(), 10), 0);
    EXPECT_EQ(rb.bytesAvailable(), 0u);
}

TEST(RingBuffer, FillingFromStartToEndReadsAsFull) {
    RingBuffer rb(32);
    auto data = sequence(32);
    rb.putData(data.data(), 32);
    EXPECT_EQ(rb.bytesAvailable(), 32u);
    EXPECT_EQ(rb.freeSpaceAvailable(), 0u);
    EXPECT_EQ(rb.contiguousFreeSpaceAvailable(), 0u);
    std::vector<uint8_t> out(32);
    EXPECT_EQ(rb.getData(out.data(), 32), 32u);
    EXPECT_EQ(out, data);
}

TEST(RingBuffer, WrappedWriteThatFillsExactlyReadsAsEmpty) {
    RingBuffer rb(16);
    std::vector<uint8_t> expected;
    makeWrapped(rb, 4, 4, expected); // 8 readable, wrapped, 8 free
    EXPECT_EQ(rb.bytesAvailable(), 8u);
    auto more = sequence(8);
    rb.putData(more.data(), 8);
    // No slot is kept free: a wrapped, completely full buffer is indistinguishable from empty.
    EXPECT_EQ(rb.bytesAvailable(), 0u);
    EXPECT_EQ(rb.freeSpaceAvailable(), 16u);
}

TEST(RingBuffer, CopyingReadAndWriteAcrossTheEndKeepOrder) {
    RingBuffer rb(16);
    std::vector<uint8_t> expected;
    makeWrapped(rb, 5, 6, expected);
    EXPECT_EQ(rb.contiguousBytesAvailable(), 5u);
    EXPECT_EQ(rb.contiguousFreeSpaceAvailable(), 5u);
    std::vector<uint8_t> out(11);
    EXPECT_EQ(rb.getData(out.data(), 11), 11u);
    EXPECT_EQ(out, expected);
}

TEST(RingBuffer, ExposeForReadingOnWrappedBufferNormalises) {
    RingBuffer rb(16);
    std::vector<uint8_t> expected;
    makeWrapped(rb, 3, 9, expected);
    const uint8_t* p = rb.exposeBufferForReading();
    ASSERT_EQ(rb.bytesAvailable(), 12u);
    EXPECT_EQ(rb.contiguousBytesAvailable(), 12u);
    EXPECT_EQ(std::vector<uint8_t>(p, p + 12), expected);
    // After normalising, the free space is contiguous too.
    uint8_t* w = rb.exposeBufferForWriting();
    EXPECT_EQ(w, p + 12);
    EXPECT_EQ(rb.contiguousFreeSpaceAvailable(), 4u);
}

TEST(RingBuffer, ZeroCopyProducerAndConsumer) {
    RingBuffer rb(8);
    uint8_t* w = rb.exposeBufferForWriting();
    for (int i = 0; i < 8; ++i)
        w[i] = uint8_t(100 + i);
    rb.wroteBytes(8);
    EXPECT_EQ(rb.bytesAvailable(), 8u); // write pointer rests exactly at the end
    const uint8_t* r = rb.exposeBufferForReading();
    EXPECT_EQ(r[0], 100);
    EXPECT_EQ(r[7], 107);
    rb.readBytes(8);
    EXPECT_EQ(rb.bytesAvailable(), 0u);
}

TEST(RingBuffer, ReadBytesPastTheEndGoesBackToTheStart) {
    RingBuffer rb(8);
    auto data = sequence(6);
    rb.putData(data.data(), 6);
    std::vector<uint8_t> sink(6);
    rb.getData(sink.data(), 6); // read pointer at offset 6
    rb.readBytes(3);            // 9 is past the end: back to the start, not to offset 1
    EXPECT_EQ(rb.contiguousFreeSpaceAvailable(), 2u); // write at 6, read at 0
    rb.wroteBytes(5);                                 // 11 is past the end: also back to the start
    EXPECT_EQ(rb.bytesAvailable(), 0u);
}

TEST(RingBuffer, ResizeGrowsKeepingReadableBytesAtTheStart) {
    RingBuffer rb(16);
    std::vector<uint8_t> expected;
    makeWrapped(rb, 6, 6, expected);
    rb.resize(8); // smaller: nothing changes
    EXPECT_EQ(rb.size(), 16u);
    EXPECT_EQ(rb.bytesAvailable(), 12u);
    rb.resize(16); // equal: nothing changes
    EXPECT_EQ(rb.contiguousBytesAvailable(), 6u);
    rb.resize(40);
    EXPECT_EQ(rb.size(), 40u);
    EXPECT_EQ(rb.bytesAvailable(), 12u);
    EXPECT_EQ(rb.contiguousBytesAvailable(), 12u);
    EXPECT_EQ(rb.freeSpaceAvailable(), 28u);
    const uint8_t* p = rb.exposeBufferForReading();
    EXPECT_EQ(std::vector<uint8_t>(p, p + 12), expected);
}

TEST(RingBuffer, ResetDropsContentWithoutClearing) {
    RingBuffer rb(8);
    auto data = sequence(5, 1);
    rb.putData(data.data(), 5);
    rb.reset();
    EXPECT_EQ(rb.bytesAvailable(), 0u);
    rb.wroteBytes(5); // the old bytes are still in the storage
    std::vector<uint8_t> out(5);
    rb.getData(out.data(), 5);
    EXPECT_EQ(out, data);
}

TEST(RingBuffer, ParameterChecksRaiseWithTheirConditionTexts) {
    EXPECT_EQ(assertionReason([] { RingBuffer rb(0); }),
              "Invalid parameter not satisfying: 0 < size");
    RingBuffer rb(4);
    uint8_t b[8] = {};
    EXPECT_EQ(assertionReason([&] { rb.getData(nullptr, 1); }),
              "Invalid parameter not satisfying: NULL != buf");
    EXPECT_EQ(assertionReason([&] { rb.putData(nullptr, 1); }),
              "Invalid parameter not satisfying: NULL != data");
    EXPECT_EQ(assertionReason([&] { rb.putData(b, 0); }),
              "Invalid parameter not satisfying: 0 < byteCount");
    EXPECT_EQ(assertionReason([&] { rb.putData(b, 5); }),
              "Invalid parameter not satisfying: [self freeSpaceAvailable] >= byteCount");
}

TEST(RingBuffer, LongRandomisedTrafficMatchesAQueue) {
    // Drive the buffer the way decoders and readers do, mixing every access
    // style, and compare with a plain queue.
    RingBuffer rb(97);
    std::vector<uint8_t> model;
    size_t modelRead = 0;
    uint32_t seed = 12345;
    auto next = [&] { return seed = seed * 1103515245u + 12345u, (seed >> 16) & 0x7FFF; };
    uint8_t counter = 0;
    for (int step = 0; step < 20000; ++step) {
        const uint32_t op = next() % 4;
        const uint32_t avail = rb.bytesAvailable();
        ASSERT_EQ(avail, model.size() - modelRead);
        // Producers never fill a wrapped buffer to the last byte.
        const uint32_t room = rb.freeSpaceAvailable() > 0 ? rb.freeSpaceAvailable() - 1 : 0;
        if (op == 0 && room > 0) {
            std::vector<uint8_t> in(1 + next() % room);
            for (auto& x : in)
                x = counter++;
            rb.putData(in.data(), uint32_t(in.size()));
            model.insert(model.end(), in.begin(), in.end());
        } else if (op == 1 && room > 0) {
            uint8_t* w = rb.exposeBufferForWriting();
            const uint32_t n = 1 + next() % room;
            ASSERT_GE(rb.contiguousFreeSpaceAvailable(), n);
            for (uint32_t i = 0; i < n; ++i)
                model.push_back(w[i] = counter++);
            rb.wroteBytes(n);
        } else if (op == 2) {
            std::vector<uint8_t> out(next() % 120);
            if (out.empty())
                continue;
            const uint32_t got = rb.getData(out.data(), uint32_t(out.size()));
            ASSERT_EQ(got, std::min<uint32_t>(avail, uint32_t(out.size())));
            for (uint32_t i = 0; i < got; ++i)
                ASSERT_EQ(out[i], model[modelRead++]);
        } else if (avail > 0) {
            const uint8_t* r = rb.exposeBufferForReading();
            const uint32_t n = 1 + next() % avail;
            for (uint32_t i = 0; i < n; ++i)
                ASSERT_EQ(r[i], model[modelRead++]);
            rb.readBytes(n);
        }
    }
}
