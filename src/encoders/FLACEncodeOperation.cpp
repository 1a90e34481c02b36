#include "encoders/FLACEncodeOperation.h"

#include <bit>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>
#include <vector>

#include <FLAC/format.h>
#include <FLAC/metadata.h>
#include <taglib/flacfile.h>
#include <taglib/flacpicture.h>
#include <taglib/xiphcomment.h>

#include "Version.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

// libFLAC exports these switches but keeps them out of its public headers
// (its own test tools use them). Uncompressed FLAC needs them: with constant
// and fixed-predictor subframes off and no LPC, every subframe is verbatim.
extern "C" {
FLAC__bool FLAC__stream_encoder_disable_constant_subframes(FLAC__StreamEncoder* encoder,
                                                           FLAC__bool value);
FLAC__bool FLAC__stream_encoder_disable_fixed_subframes(FLAC__StreamEncoder* encoder,
                                                        FLAC__bool value);
FLAC__bool FLAC__stream_encoder_disable_verbatim_subframes(FLAC__StreamEncoder* encoder,
                                                           FLAC__bool value);
}

namespace velvox {

namespace {

// Seek points are placed every this many seconds.
constexpr uint32_t kSeekPointInterval = 10;
// Room left after the tags so they can be edited in place.
constexpr unsigned kPaddingBytes = 8192;

} // namespace

void FLACEncodeOperation::EncoderDeleter::operator()(FLAC__StreamEncoder* encoder) const {
    FLAC__stream_encoder_delete(encoder);
}

void FLACEncodeOperation::MetadataDeleter::operator()(FLAC__StreamMetadata* block) const {
    FLAC__metadata_object_delete(block);
}

FLACEncodeOperation::FLACEncodeOperation() = default;

FLACEncodeOperation::~FLACEncodeOperation() { releaseCodec(); }

const char* FLACEncodeOperation::resolvedState() const {
    return flac ? FLAC__stream_encoder_get_resolved_state_string(flac.get()) : "";
}

void FLACEncodeOperation::setUpCodec(const std::string& tempFilePath) {
    flac.reset(FLAC__stream_encoder_new());
    VLX_ASSERT(flac != nullptr, "FLAC__stream_encoder_new Failed.");
    FLAC__StreamEncoder* encoder = flac.get();

    VLX_ASSERT(FLAC__stream_encoder_set_sample_rate(encoder, uint32_t(sourceSampleRate())),
               "FLAC__stream_encoder_set_sample_rate Failed: %s", resolvedState());
    VLX_ASSERT(FLAC__stream_encoder_set_bits_per_sample(encoder, sourceBitsPerChannel()),
               "FLAC__stream_encoder_set_bits_per_sample Failed: %s", resolvedState());
    VLX_ASSERT(FLAC__stream_encoder_set_channels(encoder, targetChannels()),
               "FLAC__stream_encoder_set_channels Failed: %s", resolvedState());
    if (totalFrames() > 0)
        VLX_ASSERT(
            FLAC__stream_encoder_set_total_samples_estimate(encoder, FLAC__uint64(totalFrames())),
            "FLAC__stream_encoder_set_total_samples_estimate failed: %s", resolvedState());
    else
        FLAC__stream_encoder_set_total_samples_estimate(encoder, 0);

    const uint32_t level = settings() ? settings()->flacCompressionLevel() : 0;
    if (level <= 8) {
        VLX_ASSERT(FLAC__stream_encoder_set_compression_level(encoder, level),
                   "FLAC__stream_encoder_set_compression_level Failed: %s", resolvedState());
    } else {
        FLAC__stream_encoder_set_compression_level(encoder, 0);
        FLAC__stream_encoder_disable_constant_subframes(encoder, true);
        FLAC__stream_encoder_disable_fixed_subframes(encoder, true);
        FLAC__stream_encoder_disable_verbatim_subframes(encoder, false);
        FLAC__stream_encoder_set_max_lpc_order(encoder, 0);
    }
    VLX_ASSERT(FLAC__stream_encoder_set_verify(encoder, false),
               "FLAC__stream_encoder_set_verify Failed: %s", resolvedState());

    addMetadataAndStart(tempFilePath);
}

FLAC__StreamMetadata* FLACEncodeOperation::makePadding() {
    padding_.reset(FLAC__metadata_object_new(FLAC__METADATA_TYPE_PADDING));
    VLX_ASSERT(padding_ != nullptr,
               "FLAC__metadata_object_new(FLAC__METADATA_TYPE_PADDING) Failed.");
    padding_->length = kPaddingBytes;
    return padding_.get();
}

FLAC__StreamMetadata* FLACEncodeOperation::sourceCueSheet() {
    cueSheet_.reset();
    const KDDecoder* source = decoder();
    if (!source || source->decodeFormat().mSampleRate != sourceSampleRate() || totalFrames() <= 0)
        return nullptr;
    FLAC__StreamMetadata* block = nullptr;
    // Only a native FLAC file has one; anything else simply answers no.
    if (!FLAC__metadata_get_cuesheet(inFilePath().c_str(), &block) || !block)
        return nullptr;
    cueSheet_.reset(block);
    const FLAC__StreamMetadata_CueSheet& sheet = block->data.cue_sheet;
    for (uint32_t t = 0; t < sheet.num_tracks; ++t)
        if (sheet.tracks[t].offset > FLAC__uint64(totalFrames())) {
            cueSheet_.reset(); // the output is shorter: the sheet no longer fits
            return nullptr;
        }
    return cueSheet_.get();
}

void FLACEncodeOperation::addMetadataAndStart(const std::string& tempFilePath) {
    FLAC__StreamEncoder* encoder = flac.get();
    seekTable_.reset(FLAC__metadata_object_new(FLAC__METADATA_TYPE_SEEKTABLE));
    VLX_ASSERT(seekTable_ != nullptr, "FLAC__metadata_object_new Failed.");
    // An unknown length (-1) gets what a length of 0 gets: the point at 0.
    const int64_t knownFrames = totalFrames() > 0 ? totalFrames() : 0;
    const float lastPoint =
        (float(knownFrames) / float(sourceSampleRate())) / float(kSeekPointInterval);
    // Appended in one go: a point at a time reallocates the table each time,
    // which a damaged header stating billions of frames turns into minutes.
    std::vector<FLAC__uint64> points;
    for (uint64_t k = 0; float(k) <= lastPoint; ++k)
        points.push_back(FLAC__uint64(double(k) * double(kSeekPointInterval) * sourceSampleRate()));
    VLX_ASSERT(FLAC__metadata_object_seektable_template_append_points(
                   seekTable_.get(), points.data(), uint32_t(points.size())),
               "FLAC__metadata_object_seektable_template_append_points Failed.");
    VLX_ASSERT(FLAC__metadata_object_seektable_template_sort(seekTable_.get(), true),
               "FLAC__metadata_object_seektable_template_sort Failed");

    std::vector<FLAC__StreamMetadata*> blocks = {seekTable_.get()};
    if (FLAC__StreamMetadata* cueSheet = sourceCueSheet())
        blocks.push_back(cueSheet);
    blocks.push_back(makePadding());
    VLX_ASSERT(FLAC__stream_encoder_set_metadata(encoder, blocks.data(), uint32_t(blocks.size())),
               "FLAC__stream_encoder_set_metadata failed: %s", resolvedState());

    const FLAC__StreamEncoderInitStatus status =
        FLAC__stream_encoder_init_file(encoder, tempFilePath.c_str(), nullptr, this);
    VLX_ASSERT(status == FLAC__STREAM_ENCODER_INIT_STATUS_OK,
               "FLAC__stream_encoder_init_file failed: %s", resolvedState());
}

void FLACEncodeOperation::encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) {
    VLX_PARAMETER_ASSERT_TEXT(!bufferList.mBuffers.empty(), "0 < bufferList->mNumberBuffers");
    const AudioBuffer& buffer = bufferList.mBuffers[0];
    const uint32_t channels = buffer.mNumberChannels;
    const uint32_t bits = sourceBitsPerChannel();
    if (bits != 8 && bits != 16 && bits != 24 && bits != 32)
        throw Exception("IllegalInputException",
                        stringWithFormat("FLAC Does Not Support %u Bit Files.", bits));
    const size_t bytesPerSample = bits / 8;
    VLX_PARAMETER_ASSERT_TEXT(buffer.mData != nullptr &&
                                  buffer.mDataByteSize >=
                                      size_t(frameCount) * channels * bytesPerSample,
                              "bufferList->mBuffers[0].mDataByteSize >= byteCount");

    channelBuffers_.resize(channels);
    channelPointers_.resize(channels);
    for (uint32_t c = 0; c < channels; ++c) {
        channelBuffers_[c].resize(frameCount);
        channelPointers_[c] = channelBuffers_[c].data();
    }

    const auto* in = static_cast<const uint8_t*>(buffer.mData);
    bool split = false;
    // 16-bit stereo is most of what people re-encode: whole little-endian
    // samples split in one pass, in a shape the compiler vectorises.
    if constexpr (std::endian::native == std::endian::little) {
        if (bits == 16 && channels == 2) {
            FLAC__int32* left = channelBuffers_[0].data();
            FLAC__int32* right = channelBuffers_[1].data();
            for (uint32_t f = 0; f < frameCount; ++f) {
                int16_t pair[2];
                std::memcpy(pair, in + size_t(f) * 4, sizeof pair);
                left[f] = pair[0];
                right[f] = pair[1];
            }
            split = true;
        }
    }
    // One pass per channel, the sample size decided once per chunk.
    const size_t stride = size_t(channels) * bytesPerSample;
    for (uint32_t c = 0; c < channels && !split; ++c) {
        const uint8_t* p = in + c * bytesPerSample;
        FLAC__int32* out = channelBuffers_[c].data();
        switch (bits) {
        case 8:
            for (uint32_t f = 0; f < frameCount; ++f, p += stride)
                out[f] = int8_t(p[0]);
            break;
        case 16:
            for (uint32_t f = 0; f < frameCount; ++f, p += stride)
                out[f] = int16_t(uint16_t(p[0] | (p[1] << 8)));
            break;
        case 24:
            // The top byte carries the sign; the two below it are magnitude.
            for (uint32_t f = 0; f < frameCount; ++f, p += stride)
                out[f] = FLAC__int32(uint32_t(int32_t(int8_t(p[2]))) << 16) | (p[1] << 8) | p[0];
            break;
        default:
            for (uint32_t f = 0; f < frameCount; ++f, p += stride)
                out[f] = FLAC__int32(uint32_t(p[0]) | (uint32_t(p[1]) << 8) |
                                     (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24));
            break;
        }
    }

    VLX_ASSERT(FLAC__stream_encoder_process(flac.get(), channelPointers_.data(), frameCount),
               "FLAC__stream_encoder_process Failed: %s", resolvedState());
}

void FLACEncodeOperation::finishCodec() {
    VLX_ASSERT(FLAC__stream_encoder_finish(flac.get()), "FLAC__stream_encoder_finish failed: %s",
               resolvedState());
}

void FLACEncodeOperation::releaseCodec() noexcept {
    // The encoder first: it still points at the metadata blocks.
    flac.reset();
    seekTable_.reset();
    padding_.reset();
    cueSheet_.reset();
    channelBuffers_.clear();
    channelPointers_.clear();
}

std::string FLACEncodeOperation::flacCodecName() {
    return std::string("FLAC ") + FLAC__VERSION_STRING;
}

void FLACEncodeOperation::writeMetadata() {
    const std::optional<std::string> temp = tempFilePath();
    std::error_code ec;
    if (!temp || !std::filesystem::exists(*temp, ec))
        return;
    TagLib::FLAC::File file(temp->c_str(), false, TagLib::AudioProperties::Average);
    if (!file.isValid())
        return;

    const std::shared_ptr<AudioMetadata> record = metadataForTags();
    const std::optional<std::string> encodedBy = encodedByText(flacCodecName());
    const std::optional<std::string> comment = commentText();

    // Created when missing, so that a file without a comment block (one
    // edited by another tool) still gets its tags.
    if (record)
        record->fillOutXiphComment(file.xiphComment(true), encodedBy, comment, false);

    file.removePictures();
    if (record && record->albumArtwork() && record->albumArtwork()->data())
        file.addPicture(AudioMetadata::flacPicture(*record->albumArtwork()).release());

    // One save: TagLib rewrites the metadata blocks (and, when they outgrow
    // the padding, the whole file) on every save.
    file.save();
}

} // namespace velvox
