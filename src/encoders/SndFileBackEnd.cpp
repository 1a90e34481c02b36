#include "encoders/SndFileBackEnd.h"

#include "platform/Exception.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

int majorFormat(uint32_t fileType) {
    switch (fileType) {
    case kAudioFileWAVEType:
        return SF_FORMAT_WAV;
    case kAudioFileAIFFType:
    case kAudioFileAIFCType:
        // libsndfile writes the AIFC form itself whenever the samples are
        // not big-endian integers (little-endian, float, companded).
        return SF_FORMAT_AIFF;
    case kAudioFileCAFType:
        return SF_FORMAT_CAF;
    case kAudioFileNextType:
        return SF_FORMAT_AU;
    default:
        return 0;
    }
}

int pcmSubtype(uint32_t fileType, uint32_t bits, bool isFloat) {
    if (isFloat)
        return bits == 32 ? SF_FORMAT_FLOAT : 0;
    switch (bits) {
    case 8:
        // WAV's 8-bit samples are unsigned; the Apple containers' signed.
        return fileType == kAudioFileWAVEType ? SF_FORMAT_PCM_U8 : SF_FORMAT_PCM_S8;
    case 16:
        return SF_FORMAT_PCM_16;
    case 24:
        return SF_FORMAT_PCM_24;
    case 32:
        return SF_FORMAT_PCM_32;
    default:
        return 0;
    }
}

// libsndfile's byte-order word for the file. An explicit big-endian AIFF
// comes out as AIFC 'in24'/'in32', which few readers take, so the file's own
// order (plain AIFF) stands for it. Little-endian AIFC is 'sowt' only for
// 16 bits; wider samples would get libsndfile's private '42n1' and '23ni',
// so they stay big-endian, still exact. Single bytes have no order.
int endianFor(const CoreAudioOutputFormat& format, int major, int subtype, uint32_t bits) {
    const bool pcm =
        subtype != SF_FORMAT_ALAW && subtype != SF_FORMAT_ULAW && subtype != SF_FORMAT_IMA_ADPCM;
    if (pcm && bits == 8)
        return SF_ENDIAN_FILE;
    if (major == SF_FORMAT_AIFF && (format.bigEndian() || (pcm && bits != 16 && !format.isFloat())))
        return SF_ENDIAN_FILE;
    return format.bigEndian() ? SF_ENDIAN_BIG : SF_ENDIAN_LITTLE;
}

} // namespace

int SndFileBackEnd::sndfileFormat(const CoreAudioOutputFormat& format, uint32_t bitsPerChannel) {
    const int major = majorFormat(format.fileType());
    int subtype = 0;
    switch (format.formatID()) {
    case kAudioFormatLinearPCM:
        subtype = pcmSubtype(format.fileType(), bitsPerChannel, format.isFloat());
        break;
    case kAudioFormatALaw:
        subtype = SF_FORMAT_ALAW;
        break;
    case kAudioFormatULaw:
        subtype = SF_FORMAT_ULAW;
        break;
    case kAudioFormatAppleIMA4:
        subtype = SF_FORMAT_IMA_ADPCM;
        break;
    default:
        break;
    }
    if (major == 0 || subtype == 0)
        return 0;
    return major | subtype | endianFor(format, major, subtype, bitsPerChannel);
}

void SndFileBackEnd::open(const std::string& path, const CoreAudioOutputFormat& format,
                          const Stream& stream) {
    stream_ = stream;
    SF_INFO info{};
    info.samplerate = int(stream.sampleRate);
    info.channels = int(stream.channels);
    info.format = sndfileFormat(format, stream.bitsPerChannel);
    if (info.format == 0 || !sf_format_check(&info))
        throw Exception("IllegalInputException",
                        stringWithFormat("Core Audio Can Not Write %u Bit Samples To This File.",
                                         stream.bitsPerChannel));
    file_.reset(sf_open(path.c_str(), SFM_WRITE, &info));
    VLX_ASSERT(file_ != nullptr, "sf_open failed: %s", sf_strerror(nullptr));
    // Integer samples go to integer files unscaled; float files get the
    // usual full scale of 2^31.
    sf_command(file_.get(), SFC_SET_NORM_FLOAT, nullptr, SF_TRUE);
    sf_command(file_.get(), SFC_SET_CLIPPING, nullptr, SF_TRUE);
}

void SndFileBackEnd::write(const uint8_t* samples, uint32_t frames) {
    // libsndfile's int interface scales by the top bits, so every sample
    // size travels left-justified in 32 bits and each output size takes the
    // bits it keeps: exact for every integer size.
    const uint32_t bytes = stream_.bitsPerChannel / 8;
    const size_t count = size_t(frames) * stream_.channels;
    widened_.resize(count);
    const uint8_t* p = samples;
    for (size_t i = 0; i < count; ++i, p += bytes) {
        uint32_t u = 0;
        for (uint32_t b = 0; b < bytes; ++b)
            u |= uint32_t(p[b]) << (8 * (4 - bytes + b));
        widened_[i] = int32_t(u);
    }
    const sf_count_t written = sf_writef_int(file_.get(), widened_.data(), sf_count_t(frames));
    VLX_ASSERT(written == sf_count_t(frames), "sf_writef_int failed: %s", sf_strerror(file_.get()));
    framesWritten_ += frames;
}

void SndFileBackEnd::finish() {
    sf_write_sync(file_.get());
    const int error = sf_close(file_.release());
    if (error != 0)
        throw Exception(
            "IOException", "Unable to close the output file.",
            {{"errorCode", std::to_string(error)}, {"errorString", sf_error_number(error)}});
}

void SndFileBackEnd::close() noexcept { file_.reset(); }

} // namespace velvox
