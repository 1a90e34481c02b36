#include "encoders/EncoderRegistration.h"

#include <memory>
#include <mutex>

#include "encoders/FLACEncodeOperation.h"
#include "encoders/MP3EncodeOperation.h"
#include "encoders/OggVorbisEncodeOperation.h"
#include "jobs/EncodeOperation.h"
#include "jobs/EncoderType.h"

namespace velvox {

namespace {
template <typename T>
std::unique_ptr<EncodeOperation> make() {
    return std::make_unique<T>();
}
} // namespace

void EncoderRegistration::registerAll() {
    static std::once_flag once;
    std::call_once(once, [] {
        EncodeOperation::registerEncoderClass(EncoderTypeFLAC, make<FLACEncodeOperation>);
        EncodeOperation::registerUpdateMetadataClass("FLAC", make<FLACEncodeOperation>);
        EncodeOperation::registerEncoderClass(EncoderTypeMP3, make<MP3EncodeOperation>);
        EncodeOperation::registerUpdateMetadataClass("MP3", make<MP3EncodeOperation>);
        EncodeOperation::registerEncoderClass(EncoderTypeOggVorbis, make<OggVorbisEncodeOperation>);
        EncodeOperation::registerUpdateMetadataClass("OggVorbis", make<OggVorbisEncodeOperation>);
    });
}

} // namespace velvox
