#pragma once
// Incremental MD5 through libavutil, for PCM fingerprints and artwork digests.

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

struct AVMD5;

namespace velvox {

class MD5 {
public:
    MD5();
    ~MD5();
    MD5(const MD5&) = delete;
    MD5& operator=(const MD5&) = delete;

    void update(const void* data, size_t size);
    // Lower-case hexadecimal digest; the object starts over afterwards.
    std::string hexDigest();

    static std::string hexDigestOf(const void* data, size_t size);

private:
    struct Deleter {
        void operator()(AVMD5* md5) const;
    };
    std::unique_ptr<AVMD5, Deleter> context_;
};

} // namespace velvox
