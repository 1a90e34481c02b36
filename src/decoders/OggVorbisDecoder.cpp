#include "decoders/OggVorbisDecoder.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <memory>

#include <syslog.h>

#include "decoders/OggStreamLength.h"
#include "decoders/VorbisChannelLayout.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"

namespace velvox {

namespace {
struct FileCloser {
    void operator()(FILE* f) const { std::fclose(f); }
};
} // namespace

OggVorbisDecoder::OggVorbisDecoder() = default;

OggVorbisDecoder::~OggVorbisDecoder() {
    // ov_clear also closes the FILE handed over by ov_test.
    if (open_ && ov_clear(&oggVorbisFile_) != 0)
        syslog(LOG_WARNING, "ov_clear failed");
}

bool OggVorbisDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;

    std::unique_ptr<FILE, FileCloser> file(std::fopen(path.c_str(), "r"));
    VLX_ASSERT(file, "Opening Input File Failed: %s.", std::strerror(errno));
    VLX_ASSERT(ov_test(file.get(), &oggVorbisFile_, nullptr, 0) == 0,
               "Failed ov_test.  Not a vaild Ogg Vorbis file.");
    // From here libvorbisfile owns the FILE and ov_clear releases both.
    file.release();
    open_ = true;
    VLX_ASSERT(ov_test_open(&oggVorbisFile_) == 0,
               "Failed ov_test_open.  Could not open input file.");
    const vorbis_info* info = ov_info(&oggVorbisFile_, -1);
    VLX_ASSERT(info, "Failed ov_info. Unable to get Ogg Vorbis Info.");

    const uint32_t channels = info->channels > 0 ? uint32_t(info->channels) : 0;
    decodeFormat_.mSampleRate = double(info->rate);
    decodeFormat_.mFormatID = kAudioFormatLinearPCM;
    decodeFormat_.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    decodeFormat_.mBitsPerChannel = 16;
    decodeFormat_.mChannelsPerFrame = channels;
    decodeFormat_.mBytesPerFrame = 2 * channels;
    decodeFormat_.mBytesPerPacket = decodeFormat_.mBytesPerFrame;
    decodeFormat_.mFramesPerPacket = 1;
    if (decodeFormat_.mBytesPerFrame == 0) {
        ErrorLog::sharedController().logMessage("Failed To Determine mBytesPerFrame.");
        return false;
    }
    setChannelLayout(VorbisChannelLayout::create(channels));
    endsWithLastPage_ = OggStreamLength::endsWithLastPage(path);
    return true;
}

int64_t OggVorbisDecoder::totalFrames() const {
    return ov_pcm_total(const_cast<OggVorbis_File*>(&oggVorbisFile_), -1);
}

void OggVorbisDecoder::fillPCMBuffer() {
    RingBuffer& ring = pcmBuffer();
    const uint32_t space = ring.freeSpaceAvailable();
    auto* region = reinterpret_cast<char*>(ring.exposeBufferForWriting());
    uint32_t total = 0;
    for (;;) {
        int section = 0;
        const long n =
            ov_read(&oggVorbisFile_, region + total, int(space - total), 0, 2, 1, &section);
        // A hole (a page lost or failing its CRC) is a failure like any
        // other: converting past it would pass lost audio off as whole.
        VLX_ASSERT(n >= 0, "ov_read Failed.");
        if (n == 0) {
            // What a cut file holds decodes cleanly; only its end tells.
            VLX_ASSERT(endsWithLastPage_,
                       "The Ogg Stream Ends Before Its Last Page.  The File Is Truncated.");
            setEndOfFile(true);
            ring.wroteBytes(total);
            return;
        }
        total += uint32_t(n);
        // Stop once the room left is no more than one read delivers.
        if (total >= space - uint32_t(n) || total == space) {
            ring.wroteBytes(total);
            return;
        }
    }
}

} // namespace velvox
