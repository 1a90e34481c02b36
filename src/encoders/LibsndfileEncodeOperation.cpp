#include "encoders/LibsndfileEncodeOperation.h"

#include <algorithm>
#include <filesystem>
#include <new>
#include <optional>
#include <system_error>

#include "Version.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

std::optional<std::string> decimal(std::optional<int64_t> number) {
    if (!number)
        return std::nullopt;
    return std::to_string(*number);
}

} // namespace

LibsndfileEncodeOperation::LibsndfileEncodeOperation() = default;

LibsndfileEncodeOperation::~LibsndfileEncodeOperation() { releaseCodec(); }

int LibsndfileEncodeOperation::subtypeForBitDepth(uint32_t bitDepth) {
    switch (bitDepth) {
    case 8:
        return SF_FORMAT_PCM_S8;
    case 24:
    case 32: // the container holds at most 24 bits
        return SF_FORMAT_PCM_24;
    default:
        return SF_FORMAT_PCM_16;
    }
}

uint32_t LibsndfileEncodeOperation::readBufferSize(uint32_t decoderBitsPerChannel) const {
    switch (decoderBitsPerChannel) {
    case 8:
    case 24:
        return 32768;
    case 16:
        return 65536;
    case 32:
        return 131072;
    default:
        return 0;
    }
}

void LibsndfileEncodeOperation::setUpCodec(const std::string& tempFilePath) {
    const AudioStreamBasicDescription format = decoder()->decodeFormat();
    SF_INFO info{};
    info.samplerate = int(format.mSampleRate);
    // The count is only declared: no mixing is done for this format.
    const int32_t channelMode = settings() ? settings()->channelMode() : 0;
    info.channels = channelMode == 1 ? 2 : channelMode == 3 ? 1 : int(format.mChannelsPerFrame);
    info.format = SF_FORMAT_SD2 | subtypeForBitDepth(settings() ? settings()->bitDepth() : 0);

    // The widening buffer has the read buffer's frame capacity.
    try {
        widened_.assign(size_t(readBufferSize(format.mBitsPerChannel)) /
                            std::max<uint32_t>(1, format.mBytesPerFrame) * format.mChannelsPerFrame,
                        0);
    } catch (const std::bad_alloc&) {
        VLX_ASSERT(false, "Unable to allocate Buffer memory.");
    }

    file_.reset(sf_open(tempFilePath.c_str(), SFM_WRITE, &info));
    VLX_ASSERT(file_ != nullptr, "sf_open failed: %s", sf_strerror(nullptr));
}

void LibsndfileEncodeOperation::encodeChunk(const AudioBufferList& bufferList,
                                            uint32_t frameCount) {
    VLX_PARAMETER_ASSERT_TEXT(!bufferList.mBuffers.empty(), "0 < bufferList->mNumberBuffers");
    const AudioBuffer& buffer = bufferList.mBuffers[0];
    const uint32_t bits = sourceBitsPerChannel();
    const size_t samples = size_t(frameCount) * buffer.mNumberChannels;
    VLX_PARAMETER_ASSERT_TEXT(buffer.mData != nullptr &&
                                  buffer.mDataByteSize >= samples * (bits / 8),
                              "bufferList->mBuffers[0].mDataByteSize >= byteCount");
    if (widened_.size() < samples)
        widened_.resize(samples);

    // Left-justified, so that libsndfile's reduction to the subtype keeps
    // the top bits whatever the source's size.
    const auto* in = static_cast<const uint8_t*>(buffer.mData);
    int* out = widened_.data();
    switch (bits) {
    case 8:
        for (size_t i = 0; i < samples; ++i)
            out[i] = int(uint32_t(in[i]) << 24);
        break;
    case 16:
        for (size_t i = 0; i < samples; ++i, in += 2)
            out[i] = int((uint32_t(in[0]) << 16) | (uint32_t(in[1]) << 24));
        break;
    case 24:
        for (size_t i = 0; i < samples; ++i, in += 3)
            out[i] =
                int((uint32_t(in[0]) << 8) | (uint32_t(in[1]) << 16) | (uint32_t(in[2]) << 24));
        break;
    default:
        for (size_t i = 0; i < samples; ++i, in += 4)
            out[i] = int(uint32_t(in[0]) | (uint32_t(in[1]) << 8) | (uint32_t(in[2]) << 16) |
                         (uint32_t(in[3]) << 24));
        break;
    }

    // Written by sample count, not frame count: when the declared channel
    // count differs from the decoder's, a frame count would read past the
    // chunk.
    const sf_count_t written = sf_write_int(file_.get(), widened_.data(), sf_count_t(samples));
    VLX_ASSERT(written == sf_count_t(samples), "sf_write_int failed: %s", sf_strerror(file_.get()));
}

void LibsndfileEncodeOperation::finishCodec() {
    const int status = sf_close(file_.release());
    if (status != 0)
        throw Exception(
            "IOException", "Unable to close the output file.",
            {{"errorCode", std::to_string(status)}, {"errorString", sf_error_number(status)}});
}

void LibsndfileEncodeOperation::releaseCodec() noexcept {
    file_.reset();
    widened_.clear();
    widened_.shrink_to_fit();
}

std::vector<LibsndfileEncodeOperation::InfoField> LibsndfileEncodeOperation::infoDictionary() {
    const std::shared_ptr<AudioMetadata> record = metadataForTags();
    std::vector<InfoField> fields;
    if (record) {
        fields = {
            {"title", SF_STR_TITLE, record->trackTitle()},
            {"artist", SF_STR_ARTIST, record->trackArtist()},
            {"album", SF_STR_ALBUM, record->albumTitle()},
            {"composer", 0, record->trackComposer()},
            {"genre", SF_STR_GENRE, record->trackGenre()},
            {"year", SF_STR_DATE, decimal(record->trackYear())},
            {"track number", SF_STR_TRACKNUMBER, decimal(record->trackNumber())},
            {"tempo", 0, decimal(record->bpm())},
        };
    }
    fields.push_back({"comments", SF_STR_COMMENT, commentText()});
    if (UserDefaults::standardUserDefaults().boolForKey("writeEncodedByMetadataTag"))
        fields.push_back({"encoding application", SF_STR_SOFTWARE,
                          stringWithFormat("Velvox %@", std::string(kVelvoxShortVersion))});
    return fields;
}

void LibsndfileEncodeOperation::writeMetadata() {
    const std::optional<std::string> temp = tempFilePath();
    std::error_code ec;
    if (!temp || !std::filesystem::exists(*temp, ec))
        return;

    std::vector<InfoField> fields = infoDictionary();
    std::erase_if(fields, [](const InfoField& f) { return !f.value || f.value->empty(); });
    if (fields.empty())
        return;

    std::string notCarried;
    SF_INFO info{};
    std::unique_ptr<SNDFILE, SndfileDeleter> file(sf_open(temp->c_str(), SFM_RDWR, &info));
    for (const InfoField& field : fields) {
        const bool stored = file && field.stringType != 0 &&
                            sf_set_string(file.get(), field.stringType, field.value->c_str()) == 0;
        if (!stored)
            notCarried += (notCarried.empty() ? "" : ", ") + std::string(field.key);
    }
    file.reset();
    if (!notCarried.empty())
        ErrorLog::sharedController().logMessage(
            stringWithFormat("Libsndfile Encode Operation Could Not Write These Tags To %@: %@",
                             inputDisplayName(), notCarried));
}

} // namespace velvox
