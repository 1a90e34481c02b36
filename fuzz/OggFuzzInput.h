#pragma once
// The Ogg decoders read from a path; fuzz inputs reach them through an
// anonymous in-memory file named by its /proc path.

#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "core/KDDecoder.h"
#include "platform/Exception.h"

namespace velvox::fuzz {

class MemoryFile {
public:
    MemoryFile(const uint8_t* data, size_t size) : fd_(memfd_create("ogg-fuzz", 0)) {
        if (fd_ >= 0 && size > 0 && write(fd_, data, size) != ssize_t(size)) {
            close(fd_);
            fd_ = -1;
        }
    }
    ~MemoryFile() {
        if (fd_ >= 0)
            close(fd_);
    }
    MemoryFile(const MemoryFile&) = delete;
    MemoryFile& operator=(const MemoryFile&) = delete;
    bool ok() const { return fd_ >= 0; }
    std::string path() const { return "/proc/self/fd/" + std::to_string(fd_); }

private:
    int fd_;
};

// Opens and decodes everything, as an encode operation would; assertion
// failures are the decoders' way to reject bad input.
template <typename Decoder>
void decodeEverything(const uint8_t* data, size_t size) {
    MemoryFile file(data, size);
    if (!file.ok())
        return;
    try {
        Decoder decoder;
        if (!decoder.initWithFilename(file.path()))
            return;
        const auto format = decoder.decodeFormat();
        std::vector<uint8_t> buffer(size_t(4096) * format.mBytesPerFrame);
        for (int calls = 0; calls < 100000; ++calls) {
            auto list = AudioBufferList::single(buffer.data(), uint32_t(buffer.size()),
                                                format.mChannelsPerFrame);
            if (decoder.readAudio(&list, 4096) == 0 && decoder.isEndOfFile())
                break;
        }
    } catch (const velvox::Exception&) {
    }
}

} // namespace velvox::fuzz
