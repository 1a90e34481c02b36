#include "encoders/EncoderRegistration.h"

#include <memory>
#include <mutex>

#include "encoders/FLACEncodeOperation.h"
#include "encoders/OggOpusEncodeOperation.h"
#include "encoders/OggSpeexEncodeOperation.h"
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
        EncodeOperation::registerEncoderClass(EncoderTypeOpus, make<OggOpusEncodeOperation>);
        EncodeOperation::registerUpdateMetadataClass("OggOpus", make<OggOpusEncodeOperation>);
        EncodeOperation::registerEncoderClass(EncoderTypeOggSpeex, make<OggSpeexEncodeOperation>);
        EncodeOperation::registerUpdateMetadataClass("OggSpeex", make<OggSpeexEncodeOperation>);
    });
}

} // namespace velvox
