#include "core/KDDecoder.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <map>
#include <mutex>
#include <string_view>

#include "core/UtilityFunctions.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

struct Registry {
    std::mutex mutex;
    std::map<std::string, KDDecoder::Constructor> constructors;
};

Registry& registry() {
    static Registry r;
    return r;
}

struct ExtensionRow {
    std::initializer_list<std::string_view> extensions;
    const char* decoder; // null: chosen by Ogg content
};

// Tried in order; the first row that holds the extension wins.
const std::array<ExtensionRow, 10>& extensionRows() {
    static const std::array<ExtensionRow, 10> rows{{
        {{"flac"}, "FLACDecoder"},
        {{"ra", "rm", "rmf", "rmj", "mpg", "mpeg", "avi", "mov"}, "FFMPEGDecoder"},
        {{"wma", "wmv", "asf"}, "FFMPEGDecoder"},
        {{"ape"}, "MonkeysAudioDecoder"},
        {{"mpc"}, "MusepackDecoder"},
        {{"wv"}, "WavPackDecoder"},
        {{"tta"}, "TrueAudioDecoder"},
        {{"mod", "s3m", "xm",  "it",  "669", "amf", "ams", "dbm", "dmf", "dsm", "far",
          "mdl", "med", "mtm", "okt", "ptm", "stm", "ult", "umx", "mt2", "psm", "abc"},
         "ModDecoder"},
        {{"dff", "dsf"}, "DSDDecoder"},
        {{"ogg", "oga", "oggflac", "spx", "opus"}, nullptr},
    }};
    return rows;
}

} // namespace

KDDecoder::~KDDecoder() = default;

void KDDecoder::registerDecoderClass(const std::string& className, Constructor constructor) {
    std::lock_guard lock(registry().mutex);
    registry().constructors[className] = std::move(constructor);
}

bool KDDecoder::isDecoderClassRegistered(const std::string& className) {
    std::lock_guard lock(registry().mutex);
    return registry().constructors.count(className) != 0;
}

std::unique_ptr<KDDecoder> KDDecoder::decoderOfClass(const std::string& className,
                                                     const std::string& path) {
    Constructor constructor;
    {
        std::lock_guard lock(registry().mutex);
        auto it = registry().constructors.find(className);
        if (it != registry().constructors.end())
            constructor = it->second;
    }
    if (!constructor) {
        ErrorLog::sharedController().logMessage(
            stringWithFormat("No Decoder Is Available For File: %@ (%@ is not part of this build)",
                             path, className));
        return nullptr;
    }
    std::unique_ptr<KDDecoder> decoder = constructor();
    if (!decoder || !decoder->initWithFilename(path))
        return nullptr;
    return decoder;
}

std::unique_ptr<KDDecoder> KDDecoder::decoderWithFilename(const std::string& path) {
    const std::string ext = lowercaseExtension(path);
    for (const ExtensionRow& row : extensionRows()) {
        if (std::find(row.extensions.begin(), row.extensions.end(), ext) == row.extensions.end())
            continue;
        if (row.decoder)
            return decoderOfClass(row.decoder, path);
        switch (oggStreamType(path)) {
        case OggStreamTypeVorbis:
            return decoderOfClass("OggVorbisDecoder", path);
        case OggStreamTypeFLAC:
            return decoderOfClass("OggFLACDecoder", path);
        case OggStreamTypeSpeex:
            return decoderOfClass("OggSpeexDecoder", path);
        case OggStreamTypeOpus:
            return decoderOfClass("OggOpusDecoder", path);
        case OggStreamTypeInvalid:
            VLX_ASSERT(false, "This Ogg File Does Not Appear To Be Valid.");
            break;
        case OggStreamTypeUnknown:
            VLX_ASSERT(false, "The Ogg File's Data Format Is Unknown.");
            break;
        }
        return nullptr;
    }

    if (auto decoder = decoderOfClass("CoreAudioDecoder", path))
        return decoder;
    ErrorLog::sharedController().logMessage(
        "Failed To Create Core Audio Decoder.  Attempting To Fall Back To FFMPEG Decoder");
    return decoderOfClass("FFMPEGDecoder", path);
}

bool KDDecoder::initWithFilename(const std::string& path) {
    pcmBuffer_ = std::make_unique<RingBuffer>();
    inFilePath_ = path;
    decodeFormat_ = AudioStreamBasicDescription{};
    mChannelLayout_.reset();
    isEndOfFile_ = false;
    cancelled_ = false;
    return true;
}

uint32_t KDDecoder::readAudio(AudioBufferList* bufferList, uint32_t frameCount) {
    VLX_PARAMETER_ASSERT(NULL != bufferList);
    VLX_PARAMETER_ASSERT(0 < bufferList->mNumberBuffers);
    VLX_PARAMETER_ASSERT(0 < frameCount);
    // The list's count and its storage agree in every list we build; a list
    // that says it has buffers but holds none is a caller error too.
    VLX_PARAMETER_ASSERT_TEXT(!bufferList->mBuffers.empty(), "0 < bufferList->mNumberBuffers");

    uint32_t byteCount = decodeFormat_.mBytesPerFrame * frameCount;
    AudioBuffer& out = bufferList->mBuffers[0];
    VLX_PARAMETER_ASSERT_TEXT(out.mDataByteSize >= byteCount,
                              "bufferList->mBuffers[0].mDataByteSize >= byteCount");

    if (pcmBuffer_->bytesAvailable() < byteCount)
        fillPCMBuffer();
    if (pcmBuffer_->bytesAvailable() < byteCount)
        byteCount = pcmBuffer_->bytesAvailable();

    const uint32_t copied = pcmBuffer_->getData(out.mData, byteCount);
    out.mNumberChannels = decodeFormat_.mChannelsPerFrame;
    out.mDataByteSize = copied;

    const uint32_t frames =
        decodeFormat_.mBytesPerFrame ? copied / decodeFormat_.mBytesPerFrame : 0;
    currentFrame_ += frames;
    return frames;
}

bool KDDecoder::decodeToFile(const std::string&) { return false; }

} // namespace velvox
