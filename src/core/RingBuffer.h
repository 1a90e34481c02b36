#pragma once
// Byte queue between a decoder and whoever pulls PCM from it. Counts bytes
// only; not thread-safe (one decoder, one thread).
//
// No slot is kept free: a buffer completely filled after a wrap reads as
// empty. Producers therefore never fill a wrapped buffer to the last byte.
// Either pointer may rest exactly at the physical end after an operation
// ended there; it is folded back only when the next operation needs it.

#include <cstdint>

namespace velvox {

class RingBuffer {
public:
    RingBuffer();
    explicit RingBuffer(uint32_t size);
    ~RingBuffer();
    RingBuffer(const RingBuffer&) = delete;
    RingBuffer& operator=(const RingBuffer&) = delete;

    uint32_t size() const { return bufferSize_; }
    uint32_t bytesAvailable() const;
    uint32_t freeSpaceAvailable() const;
    uint32_t contiguousBytesAvailable() const;
    uint32_t contiguousFreeSpaceAvailable() const;

    void reset();
    // Grows only; readable bytes move to the start of the new storage.
    void resize(uint32_t size);

    // Copying read: a short read (fewer bytes available) is not an error.
    uint32_t getData(void* buf, uint32_t byteCount);
    // Copying write: the data must fit.
    uint32_t putData(const void* data, uint32_t byteCount);

    // Zero-copy access. After exposeBufferForReading all readable bytes lie
    // contiguously behind the returned pointer; after exposeBufferForWriting
    // all free space does. Counts passed to readBytes/wroteBytes are not checked.
    const uint8_t* exposeBufferForReading();
    void readBytes(uint32_t byteCount);
    uint8_t* exposeBufferForWriting();
    void wroteBytes(uint32_t byteCount);

    void normalizeBuffer();

private:
    uint8_t* end() const { return buffer_ + bufferSize_; }

    uint8_t* buffer_ = nullptr;
    uint32_t bufferSize_ = 0;
    uint8_t* readPointer_ = nullptr;
    uint8_t* writePointer_ = nullptr;
};

} // namespace velvox
