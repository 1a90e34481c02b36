#include "decoders/OggFLACDecoder.h"

namespace velvox {

FLAC__StreamDecoderInitStatus OggFLACDecoder::initStream(const std::string& path) {
    return FLAC__stream_decoder_init_ogg_file(
        flac(), path.c_str(), &FLACDecoder::writeCallback, &FLACDecoder::metadataCallback,
        &FLACDecoder::errorCallback, static_cast<FLACDecoder*>(this));
}

} // namespace velvox
