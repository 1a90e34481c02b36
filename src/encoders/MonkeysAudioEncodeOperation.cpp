#include "encoders/MonkeysAudioEncodeOperation.h"

#include <filesystem>
#include <optional>
#include <system_error>

#include <taglib/apefile.h>
#include <taglib/apetag.h>

#include "Version.h"
#include "jobs/FormatSpecifiers.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

namespace velvox {

MonkeysAudioEncodeOperation::MonkeysAudioEncodeOperation() = default;

MonkeysAudioEncodeOperation::~MonkeysAudioEncodeOperation() { releaseCodec(); }

void MonkeysAudioEncodeOperation::setUpCodec(const std::string& tempFilePath) {
    compressor_ = std::make_unique<APECompressor>();
    VLX_ASSERT(compressor_ != nullptr, "Unable to create the Monkey's Audio compressor.");

    APEWaveFormat format;
    const int fillResult = APECompressor::fillWaveFormat(format, uint32_t(sourceSampleRate()),
                                                         sourceBitsPerChannel(), targetChannels());
    VLX_ASSERT(fillResult == 0, "FillWaveFormatEx Failed with error: %d.", fillResult);

    const int64_t maxAudioBytes = totalFrames() > 0 ? totalFrames() * format.blockAlign : 0;
    const int level = settings() ? settings()->macCompressionLevel() : 2000;
    const int startResult = compressor_->start(tempFilePath, format, maxAudioBytes, level);
    VLX_ASSERT(startResult == 0, "Unable to start the Monkey's Audio compressor. Error %d",
               startResult);
}

void MonkeysAudioEncodeOperation::encodeChunk(const AudioBufferList& bufferList,
                                              uint32_t frameCount) {
    VLX_PARAMETER_ASSERT_TEXT(!bufferList.mBuffers.empty(), "0 < bufferList->mNumberBuffers");
    const AudioBuffer& buffer = bufferList.mBuffers[0];
    const size_t bytes = size_t(frameCount) * buffer.mNumberChannels * (sourceBitsPerChannel() / 8);
    VLX_PARAMETER_ASSERT_TEXT(buffer.mData != nullptr && buffer.mDataByteSize >= bytes,
                              "bufferList->mBuffers[0].mDataByteSize >= byteCount");
    const auto* data = static_cast<const uint8_t*>(buffer.mData);
    if (sourceBitsPerChannel() == 8) {
        // Our 8-bit PCM is signed; the wave layout the format stores is not.
        waveBytes_.resize(bytes);
        for (size_t i = 0; i < bytes; ++i)
            waveBytes_[i] = uint8_t(data[i] ^ 0x80);
        data = waveBytes_.data();
    }
    const int result = compressor_->addData(data, bytes);
    VLX_ASSERT(result == 0, "Monkey's Audio AddData Failed With Error: %d.", result);
}

void MonkeysAudioEncodeOperation::finishCodec() {
    const int result = compressor_->finish();
    VLX_ASSERT(result == 0, "Monkey's Audio Finish Failed With Error: %d.", result);
}

void MonkeysAudioEncodeOperation::releaseCodec() noexcept {
    compressor_.reset();
    waveBytes_.clear();
    waveBytes_.shrink_to_fit();
}

void MonkeysAudioEncodeOperation::writeMetadata() {
    const std::optional<std::string> temp = tempFilePath();
    std::error_code ec;
    if (!temp || !std::filesystem::exists(*temp, ec))
        return;
    TagLib::APE::File file(temp->c_str(), false);
    if (!file.isValid())
        return;

    const std::optional<std::string> encodedBy =
        encodedByText(std::string("MAC ") + compressorVersion());

    const std::shared_ptr<AudioMetadata> record = metadataForTags();
    const std::optional<std::string> comment = commentText();

    if (record)
        record->fillOutAPETag(file.APETag(true), encodedBy, comment);
    file.save();
}

} // namespace velvox
