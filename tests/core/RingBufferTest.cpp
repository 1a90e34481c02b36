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
