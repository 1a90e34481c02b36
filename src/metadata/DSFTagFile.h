#pragma once
// Tag access for DSF (DSD Stream File) files, which the installed TagLib does
// not know. A DSF file is a "DSD " header chunk (total size and the offset of
// the metadata), a "fmt " chunk with the stream facts and a "data" chunk; the
// metadata, when there is any, is a plain ID3v2 tag at the end of the file,
// so everything tag-related is TagLib's own ID3v2 code.
//
// The header bytes are untrusted: every read is checked against the file's
// real length, and a declared size or offset that points outside the file
// makes the file invalid (or, for the metadata offset, tagless) rather than
// being followed.

#include <cstdint>
#include <memory>

#include <taglib/audioproperties.h>
#include <taglib/id3v2tag.h>
#include <taglib/tfile.h>

namespace velvox {

class DSFTagFile : public TagLib::File {
public:
    // The stream facts of the "fmt " chunk, in TagLib's shape.
    class Properties : public TagLib::AudioProperties {
    public:
        Properties(uint32_t channels, uint32_t sampleRate, uint32_t bitsPerSample,
                   uint64_t sampleCount, uint32_t blockSizePerChannel);

        // TagLib's base class answers lengthInSeconds() through length().
        int length() const override { return lengthInSeconds(); }
        int lengthInSeconds() const { return lengthInMilliseconds_ / 1000; }
        int lengthInMilliseconds() const { return lengthInMilliseconds_; }
        // Kilobits per second, like every TagLib reader.
        int bitrate() const override { return bitrate_; }
        int sampleRate() const override { return int(sampleRate_); }
        int channels() const override { return int(channels_); }

        int bitsPerSample() const { return int(bitsPerSample_); }
        uint64_t sampleCount() const { return sampleCount_; }
        uint32_t blockSizePerChannel() const { return blockSizePerChannel_; }

    private:
        uint32_t channels_;
        uint32_t sampleRate_;
        uint32_t bitsPerSample_;
        uint64_t sampleCount_;
        uint32_t blockSizePerChannel_;
        int lengthInMilliseconds_;
        int bitrate_;
    };

    explicit DSFTagFile(TagLib::FileName path, bool readProperties = true);
    // Reads from a stream the caller keeps alive for the life of this object.
    explicit DSFTagFile(TagLib::IOStream* stream, bool readProperties = true);
    ~DSFTagFile() override;

    DSFTagFile(const DSFTagFile&) = delete;
    DSFTagFile& operator=(const DSFTagFile&) = delete;

    // Never null for a valid file: an empty tag when the file carries none.
    TagLib::ID3v2::Tag* tag() const override { return tag_.get(); }
    TagLib::ID3v2::Tag* ID3v2Tag() const { return tag_.get(); }
    // Whether the file carried an ID3v2 tag at its metadata offset.
    bool hasID3v2Tag() const { return hasID3v2Tag_; }
    // Null when the file is invalid or properties were not asked for.
    Properties* audioProperties() const override { return properties_.get(); }

    // Where the tag starts (0: the file has none), as the header says.
    uint64_t metadataOffset() const { return metadataOffset_; }

    // Writes the tag as the last thing in the file, right after the sample
    // data (anything that followed the data is replaced), and updates the
    // header's file size and metadata offset; an empty tag removes it.
    bool save() override;

private:
    void read(bool readProperties);

    std::unique_ptr<TagLib::ID3v2::Tag> tag_;
    std::unique_ptr<Properties> properties_;
    bool hasID3v2Tag_ = false;
    uint64_t metadataOffset_ = 0;
    // End of the "data" chunk; 0 when it could not be located.
    uint64_t dataEnd_ = 0;
};

} // namespace velvox
