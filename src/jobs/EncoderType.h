#pragma once
// The small integer enumerations that describe an output format. They are
// stored in the user's settings as plain numbers, so the values are fixed.

#include <cstdint>

namespace velvox {

enum EncoderType : int32_t {
    EncoderTypeMP3 = 0,
    EncoderTypeCoreAudio = 1,
    EncoderTypeFLAC = 2,
    EncoderTypeOggFLAC = 3,
    EncoderTypeOggVorbis = 4,
    EncoderTypeSndFile = 5,
    EncoderTypeMonkeysAudio = 6,
    EncoderTypeTrueAudio = 7,
    EncoderTypeOggSpeex = 8,
    EncoderTypeOpus = 9,
};

enum BitrateMethod : int32_t {
    BitrateMethodCBR = 0,
    BitrateMethodABR = 1,
    BitrateMethodVBR = 2,
    BitrateMethodConstrainedVBR = 3,
};

enum EncoderAction : int32_t {
    EncoderActionEncode = 0,
    // Write the metadata into the file in place instead of encoding.
    EncoderActionUpdateMetadata = 1,
};

} // namespace velvox
