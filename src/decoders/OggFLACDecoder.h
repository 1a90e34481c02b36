#pragma once
// FLAC carried in an Ogg container: the native decoder with libFLAC's Ogg
// front end.

#include "decoders/FLACDecoder.h"

namespace velvox {

class OggFLACDecoder : public FLACDecoder {
public:
    const char* className() const override { return "OggFLACDecoder"; }

protected:
    FLAC__StreamDecoderInitStatus initStream(const std::string& path) override;
};

} // namespace velvox
