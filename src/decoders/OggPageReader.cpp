#include "decoders/OggPageReader.h"

#include <cerrno>
#include <cstring>

#include "platform/Exception.h"

namespace velvox {

namespace {
constexpr long kReadSize = 4096;
}

OggPageReader::OggPageReader(const std::string& path) {
    file_.reset(std::fopen(path.c_str(), "rb"));
    VLX_ASSERT(file_, "Unable to open the input file (%s).", std::strerror(errno));
    ogg_sync_init(&sync_);
}

OggPageReader::~OggPageReader() {
    if (streamStarted_)
        ogg_stream_clear(&stream_);
    ogg_sync_clear(&sync_);
}

bool OggPageReader::readPage() {
    for (;;) {
        const int r = ogg_sync_pageout(&sync_, &page_);
        if (r == 1)
            return true;
        if (r < 0)
            continue; // skipped bytes that were not a page
        char* buffer = ogg_sync_buffer(&sync_, kReadSize);
        VLX_ASSERT(buffer, "Ogg decoding error (ogg_sync_wrote).");
        const size_t got = std::fread(buffer, 1, kReadSize, file_.get());
        VLX_ASSERT(!std::ferror(file_.get()), "Unable to read from the input file (%s).",
                   std::strerror(errno));
        if (got == 0)
            return false;
        VLX_ASSERT(ogg_sync_wrote(&sync_, long(got)) == 0, "Ogg decoding error (ogg_sync_wrote).");
    }
}

void OggPageReader::startStream(int serial) {
    if (!streamStarted_) {
        ogg_stream_init(&stream_, serial);
        streamStarted_ = true;
    } else {
        ogg_stream_reset_serialno(&stream_, serial);
    }
}

void OggPageReader::pagein() {
    VLX_ASSERT(ogg_stream_pagein(&stream_, &page_) == 0, "Error reading Ogg page.");
}

} // namespace velvox
