#include "encoders/OggFLACEncodeOperation.h"

#include <ctime>
#include <filesystem>
#include <optional>
#include <system_error>
#include <vector>

#include <taglib/oggflacfile.h>
#include <taglib/xiphcomment.h>

#include "platform/Exception.h"

namespace velvox {

void OggFLACEncodeOperation::addMetadataAndStart(const std::string& tempFilePath) {
    FLAC__StreamEncoder* encoder = flac.get();
    std::vector<FLAC__StreamMetadata*> blocks;
    if (FLAC__StreamMetadata* cueSheet = sourceCueSheet())
        blocks.push_back(cueSheet);
    blocks.push_back(makePadding());
    VLX_ASSERT(FLAC__stream_encoder_set_metadata(encoder, blocks.data(), uint32_t(blocks.size())),
               "FLAC__stream_encoder_set_metadata failed: %s", resolvedState());
    // Set again, whatever the length: an unknown length (-1) becomes the
    // largest estimate, which libFLAC only uses to size its own headers.
    VLX_ASSERT(
        FLAC__stream_encoder_set_total_samples_estimate(encoder, FLAC__uint64(totalFrames())),
        "FLAC__stream_encoder_set_total_samples_estimate failed: %s", resolvedState());
    VLX_ASSERT(FLAC__stream_encoder_set_ogg_serial_number(encoder, long(std::time(nullptr))),
               "FLAC__stream_encoder_set_ogg_serial_number failed: %s", resolvedState());

    const FLAC__StreamEncoderInitStatus status =
        FLAC__stream_encoder_init_ogg_file(encoder, tempFilePath.c_str(), nullptr, this);
    VLX_ASSERT(status == FLAC__STREAM_ENCODER_INIT_STATUS_OK,
               "FLAC__stream_encoder_init_ogg_file failed: %s", resolvedState());
}

void OggFLACEncodeOperation::writeMetadata() {
    writeXiphComment<TagLib::Ogg::FLAC::File>(flacCodecName());
}

} // namespace velvox
