#include "encoders/EncoderRegistration.h"

#include <memory>
#include <mutex>

#include "encoders/FLACEncodeOperation.h"
#include "encoders/LibsndfileEncodeOperation.h"
#include "encoders/OggFLACEncodeOperation.h"
#include "encoders/TrueAudioEncodeOperation.h"
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
        EncodeOperation::registerEncoderClass(EncoderTypeOggFLAC, make<OggFLACEncodeOperation>);
        EncodeOperation::registerUpdateMetadataClass("OggFLAC", make<OggFLACEncodeOperation>);
        EncodeOperation::registerEncoderClass(EncoderTypeTrueAudio, make<TrueAudioEncodeOperation>);
        EncodeOperation::registerUpdateMetadataClass("TrueAudio", make<TrueAudioEncodeOperation>);
        EncodeOperation::registerEncoderClass(EncoderTypeSndFile, make<LibsndfileEncodeOperation>);
    });
}

} // namespace velvox
