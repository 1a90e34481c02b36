#include "decoders/DecoderRegistration.h"

#include <mutex>

#include "core/KDDecoder.h"
#include "decoders/CoreAudioDecoder.h"
#include "decoders/FFMPEGDecoder.h"
#include "decoders/FLACDecoder.h"
#include "decoders/ModDecoder.h"
#include "decoders/MonkeysAudioDecoder.h"
#include "decoders/MusepackDecoder.h"
#include "decoders/OggFLACDecoder.h"
#include "decoders/TrueAudioDecoder.h"
#include "decoders/WavPackDecoder.h"

namespace velvox {

namespace {
template <typename T>
void add(const char* name) {
    KDDecoder::registerDecoderClass(name, [] { return std::make_unique<T>(); });
}
} // namespace

void DecoderRegistration::registerAll() {
    static std::once_flag once;
    std::call_once(once, [] {
        add<FLACDecoder>("FLACDecoder");
        add<OggFLACDecoder>("OggFLACDecoder");
        add<CoreAudioDecoder>("CoreAudioDecoder");
        add<FFMPEGDecoder>("FFMPEGDecoder");
        add<WavPackDecoder>("WavPackDecoder");
        add<MusepackDecoder>("MusepackDecoder");
        add<MonkeysAudioDecoder>("MonkeysAudioDecoder");
        add<TrueAudioDecoder>("TrueAudioDecoder");
        add<ModDecoder>("ModDecoder");
    });
}

} // namespace velvox
