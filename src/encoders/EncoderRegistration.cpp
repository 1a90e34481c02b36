#include "encoders/EncoderRegistration.h"

#include <memory>
#include <mutex>

#include "encoders/FLACEncodeOperation.h"
#include "encoders/MonkeysAudioEncodeOperation.h"
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
        EncodeOperation::registerEncoderClass(EncoderTypeMonkeysAudio,
                                              make<MonkeysAudioEncodeOperation>);
        EncodeOperation::registerUpdateMetadataClass("MonkeysAudio",
                                                     make<MonkeysAudioEncodeOperation>);
    });
}

} // namespace velvox
