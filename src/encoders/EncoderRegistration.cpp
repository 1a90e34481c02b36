#include "encoders/EncoderRegistration.h"

#include <memory>
#include <mutex>

#include "encoders/CoreAudioEncodeOperation.h"
#include "encoders/FLACEncodeOperation.h"
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
        EncodeOperation::registerEncoderClass(EncoderTypeCoreAudio, make<CoreAudioEncodeOperation>);
        EncodeOperation::registerUpdateMetadataClass("CoreAudio", make<CoreAudioEncodeOperation>);
    });
}

} // namespace velvox
