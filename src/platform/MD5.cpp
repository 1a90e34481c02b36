#include "platform/MD5.h"

#include <new>

extern "C" {
#include <libavutil/md5.h>
#include <libavutil/mem.h>
}

namespace velvox {

void MD5::Deleter::operator()(AVMD5* md5) const { av_free(md5); }

MD5::MD5() : context_(av_md5_alloc()) {
    if (!context_)
        throw std::bad_alloc();
    av_md5_init(context_.get());
}

MD5::~MD5() = default;

void MD5::update(const void* data, size_t size) {
    const auto* bytes = static_cast<const uint8_t*>(data);
    // av_md5_update takes a size_t length in FFmpeg 5 and later.
    av_md5_update(context_.get(), bytes, size);
}

std::string MD5::hexDigest() {
    uint8_t digest[16];
    av_md5_final(context_.get(), digest);
    av_md5_init(context_.get());
    static const char* hex = "0123456789abcdef";
    std::string out;
    out.reserve(32);
    for (uint8_t b : digest) {
        out += hex[b >> 4];
        out += hex[b & 15];
    }
    return out;
}

std::string MD5::hexDigestOf(const void* data, size_t size) {
    MD5 md5;
    md5.update(data, size);
    return md5.hexDigest();
}

} // namespace velvox
