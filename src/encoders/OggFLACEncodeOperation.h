#pragma once
// FLAC audio in an Ogg container, through libFLAC's Ogg stream encoder. It is
// the native FLAC encoder in everything but the container: the same loop,
// settings and compression levels, with these differences:
//  - no seek table (Ogg readers seek by page granule); one 8 KiB padding block;
//  - the Ogg serial number is the current time in whole seconds, so two
//    files started in the same second share it;
//  - the picture travels inside the Xiph comment (METADATA_BLOCK_PICTURE),
//    where Ogg FLAC readers look for it.

#include <string>

#include "encoders/FLACEncodeOperation.h"

namespace velvox {

class OggFLACEncodeOperation : public FLACEncodeOperation {
public:
    // Tagging thread: tags the temporary file, or the input itself when only
    // the tags are being updated.
    void writeMetadata() override;

protected:
    std::string formatWord() const override { return "OGG FLAC"; }
    std::string encodeFailedText() const override {
        return "Ogg FLAC Encode Operation Failed To Encode File: %@.  Error:%@";
    }
    // Operation thread.
    void addMetadataAndStart(const std::string& tempFilePath) override;
};

} // namespace velvox
