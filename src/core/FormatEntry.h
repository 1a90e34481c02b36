#pragma once
// One row of the format registry: what Velvox knows about one input family
// or output encoder, as data. The rows are defined beside the classes they
// name (src/formats/) and installed into FormatRegistry at start-up; the
// decoder factory, intake, tag dispatch, the command line and the tests all
// read them from there.
//
// Core only interprets what it owns (extensions, Ogg recognition, the decoder
// class). The tag reader and the encoder are held as pointers that the
// metadata and jobs layers interpret.

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "core/UtilityFunctions.h"

namespace velvox {

class KDDecoder;
class AudioMetadata;
struct EncoderDescriptor;

// A decoder class as the factory makes it.
struct DecoderClass {
    const char* name;
    std::unique_ptr<KDDecoder> (*make)();
};

template <typename T>
std::unique_ptr<KDDecoder> makeDecoder() {
    return std::make_unique<T>();
}

// How a file is known to belong to a family.
enum class FormatRecognition : uint8_t {
    // Its extension alone.
    Extension,
    // An Ogg extension, then the first packet's codec (oggStreamType()).
    OggStream,
};

struct FormatEntry {
    // Short lower-case name ("flac", "wavpack").
    const char* name = "";
    const char* displayName = "";
    // Lower-case extensions that intake accepts for the family.
    std::vector<std::string> extensions;
    FormatRecognition recognition = FormatRecognition::Extension;
    // With OggStream recognition: the codec of the first packet.
    OggStreamType oggStreamType = OggStreamTypeUnknown;
    // Null: the file goes to the fallback decoders (the container decoder,
    // then FFmpeg), as any unknown extension does.
    const DecoderClass* decoder = nullptr;
    // Null: the container reader (stream facts and the info dictionary).
    std::unique_ptr<AudioMetadata> (*readMetadata)(const std::string& path) = nullptr;
    // Whether two files of the family with the same extension may still hold
    // different codecs (an .m4a is AAC or ALAC), so that "same type" has to
    // compare the data format.
    bool sameTypeByDataFormat = false;
    // The encoder that writes the family and rewrites its tags; null when
    // Velvox only reads it.
    const EncoderDescriptor* encoder = nullptr;
};

} // namespace velvox
