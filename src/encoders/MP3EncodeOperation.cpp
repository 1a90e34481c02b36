#include "encoders/MP3EncodeOperation.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <optional>
#include <system_error>

#include <taglib/apetag.h>
#include <taglib/id3v1tag.h>
#include <taglib/id3v2tag.h>
#include <taglib/mpegfile.h>

#include "Version.h"
#include "jobs/FormatSpecifiers.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

// The output rates LAME can write; any other setting leaves the choice to it.
constexpr int kLameOutputRates[] = {8000, 11025, 12000, 16000, 22050, 24000, 32000, 44100, 48000};

// The most bytes lame_encode_flush() may return.
constexpr size_t kFlushBufferBytes = 7200;

struct ID3v2Choice {
    TagLib::ID3v2::Version version;
    TagLib::String::Type encoding;
};

// "WriteMP3ID3v2TagVersion": players differ in what they read, so the user
// picks the version and text encoding; never set means 2.4 in UTF-8.
ID3v2Choice id3v2Choice(int64_t preference) {
    switch (preference) {
    case 2:
        return {TagLib::ID3v2::v3, TagLib::String::UTF16};
    case 3:
        return {TagLib::ID3v2::v3, TagLib::String::Latin1};
    case 4:
        return {TagLib::ID3v2::v4, TagLib::String::UTF16};
    case 5:
        return {TagLib::ID3v2::v4, TagLib::String::Latin1};
    default:
        return {TagLib::ID3v2::v4, TagLib::String::UTF8};
    }
}

} // namespace

MP3EncodeOperation::MP3EncodeOperation() = default;

MP3EncodeOperation::~MP3EncodeOperation() { releaseCodec(); }

uint32_t MP3EncodeOperation::readBufferSize(uint32_t decoderBitsPerChannel) const {
    return decoderBitsPerChannel == 32
               ? 131072
               : StreamEncodeOperation::readBufferSize(decoderBitsPerChannel);
}

void MP3EncodeOperation::applySettings() {
    lame_global_flags* flags = gfp.get();
    const EncoderSettings empty;
    const EncoderSettings& s = settings() ? *settings() : empty;

    lame_set_bWriteVbrTag(flags, 1);
    switch (s.channelMode()) {
    case 1:
        lame_set_mode(flags, STEREO);
        break;
    case 2:
        lame_set_mode(flags, JOINT_STEREO);
        lame_set_force_ms(flags, 1);
        break;
    case 3:
        lame_set_mode(flags, MONO);
        break;
    default:
        lame_set_mode(flags, NOT_SET);
        break;
    }
    for (int rate : kLameOutputRates)
        if (s.sampleRate() == rate)
            lame_set_out_samplerate(flags, rate);
    lame_set_quality(flags, int(10 - s.quality()));
    switch (s.bitrateMethod()) {
    case BitrateMethodABR:
        lame_set_VBR(flags, vbr_abr);
        lame_set_VBR_mean_bitrate_kbps(flags, int(s.bitrate()));
        break;
    case BitrateMethodVBR:
        lame_set_VBR(flags, vbr_mtrh);
        lame_set_VBR_q(flags, int(10 - s.vbrQuality()));
        break;
    default:
        lame_set_brate(flags, int(s.bitrate()));
        lame_set_VBR(flags, vbr_off);
        break;
    }
    lame_set_findReplayGain(flags, 0);
}

void MP3EncodeOperation::setUpCodec(const std::string& tempFilePath) {
    gfp.reset(lame_init());
    VLX_ASSERT(gfp != nullptr, "Failed To Initialize LAME Encoder");
    applySettings();

    const AudioStreamBasicDescription format = decoder()->decodeFormat();
    // LAME takes one or two channels. Its setter refuses more but leaves
    // two in place, which would encode the front pair of a surround source
    // and silently drop the rest; refuse the file instead.
    if (lame_set_num_channels(gfp.get(), int(format.mChannelsPerFrame)) != 0)
        throw Exception("IllegalInputException",
                        stringWithFormat("MP3 Supports Only Mono And Stereo. %u Channel Input Not "
                                         "Supported.",
                                         format.mChannelsPerFrame));
    lame_set_in_samplerate(gfp.get(), int(format.mSampleRate));
    VLX_ASSERT(lame_init_params(gfp.get()) != -1, "Unable to initialize the LAME encoder.");

    tempPath_ = tempFilePath;
    outFile.reset(std::fopen(tempFilePath.c_str(), "w"));
    VLX_ASSERT(outFile != nullptr, "Could Not Open The Output File");
}

void MP3EncodeOperation::writeBytes(const unsigned char* bytes, int count,
                                    const char* failureText) {
    if (count > 0)
        VLX_ASSERT(std::fwrite(bytes, 1, size_t(count), outFile.get()) == size_t(count), "%s",
                   failureText);
}

void MP3EncodeOperation::encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) {
    VLX_PARAMETER_ASSERT_TEXT(!bufferList.mBuffers.empty(), "0 < bufferList->mNumberBuffers");
    const AudioBuffer& buffer = bufferList.mBuffers[0];
    const uint32_t channels = buffer.mNumberChannels;
    const uint32_t bits = sourceBitsPerChannel();
    if (bits != 8 && bits != 16 && bits != 24 && bits != 32)
        throw Exception("IllegalInputException", "Sample size not supported");
    const size_t bytesPerSample = bits / 8;
    VLX_PARAMETER_ASSERT_TEXT(channels >= 1 && channels <= 2 && buffer.mData != nullptr &&
                                  buffer.mDataByteSize >=
                                      size_t(frameCount) * channels * bytesPerSample,
                              "bufferList->mBuffers[0].mDataByteSize >= byteCount");

    const size_t mp3Bytes = size_t(1.25 * double(channels * frameCount) + 7200.0);
    if (mp3Buffer_.size() < mp3Bytes)
        mp3Buffer_.resize(mp3Bytes);

    const auto* in = static_cast<const uint8_t*>(buffer.mData);
    const size_t stride = channels * bytesPerSample;
    int written = 0;
    if (bits <= 16) {
        shortLeft_.resize(frameCount);
        shortRight_.resize(channels == 2 ? frameCount : 0);
        for (uint32_t c = 0; c < channels; ++c) {
            short* out = (c == 0 ? shortLeft_ : shortRight_).data();
            const uint8_t* p = in + c * bytesPerSample;
            if (bits == 8) // the byte repeated in both halves spans the full 16-bit range
                for (uint32_t f = 0; f < frameCount; ++f, p += stride)
                    out[f] = short(uint16_t((p[0] << 8) | p[0]));
            else
                for (uint32_t f = 0; f < frameCount; ++f, p += stride)
                    out[f] = short(uint16_t(p[0] | (p[1] << 8)));
        }
        written = lame_encode_buffer(gfp.get(), shortLeft_.data(),
                                     channels == 2 ? shortRight_.data() : shortLeft_.data(),
                                     int(frameCount), mp3Buffer_.data(), int(mp3Bytes));
    } else {
        intLeft_.resize(frameCount);
        intRight_.resize(channels == 2 ? frameCount : 0);
        for (uint32_t c = 0; c < channels; ++c) {
            int* out = (c == 0 ? intLeft_ : intRight_).data();
            const uint8_t* p = in + c * bytesPerSample;
            if (bits == 24) // placed at the top of the 32-bit word, where LAME reads full scale
                for (uint32_t f = 0; f < frameCount; ++f, p += stride)
                    out[f] = int((uint32_t(p[0]) << 8) | (uint32_t(p[1]) << 16) |
                                 (uint32_t(p[2]) << 24));
            else
                for (uint32_t f = 0; f < frameCount; ++f, p += stride)
                    out[f] = int(uint32_t(p[0]) | (uint32_t(p[1]) << 8) | (uint32_t(p[2]) << 16) |
                                 (uint32_t(p[3]) << 24));
        }
        written = lame_encode_buffer_int(gfp.get(), intLeft_.data(),
                                         channels == 2 ? intRight_.data() : intLeft_.data(),
                                         int(frameCount), mp3Buffer_.data(), int(mp3Bytes));
    }
    VLX_ASSERT(written >= 0, "LAME encoding error.");
    writeBytes(mp3Buffer_.data(), written, "Unable to write to the output file.");
}

void MP3EncodeOperation::finishCodec() {
    // A cancelled file is deleted right after: no flush, no information frame.
    if (!isCancelled()) {
        std::vector<unsigned char> tail(kFlushBufferBytes, 0);
        const int flushed = lame_encode_flush(gfp.get(), tail.data(), int(tail.size()));
        VLX_ASSERT(flushed >= 0, "lame_encode_flush Failed.");
        writeBytes(tail.data(), flushed, "Could Not Write Frames To Output File.");

        VLX_ASSERT(std::fclose(outFile.release()) == 0, "Could Not Close The Output File.");
        // LAME wrote a placeholder frame first; now that the frame count,
        // byte count, seek table and delay/padding are known it fills it in.
        outFile.reset(std::fopen(tempPath_.c_str(), "r+"));
        VLX_ASSERT(outFile != nullptr, "Could Not Open The Output File");
        lame_mp3_tags_fid(gfp.get(), outFile.get());
    }
    closeOutputFile();
}

void MP3EncodeOperation::closeOutputFile() {
    if (!outFile)
        return;
    if (std::fclose(outFile.release()) == EOF) {
        const int error = errno;
        throw Exception(
            "IOException", "Unable to close the output file.",
            {{"errorCode", std::to_string(error)}, {"errorString", std::strerror(error)}});
    }
}

void MP3EncodeOperation::releaseCodec() noexcept {
    outFile.reset();
    gfp.reset();
    shortLeft_ = {};
    shortRight_ = {};
    intLeft_ = {};
    intRight_ = {};
    mp3Buffer_ = {};
}

void MP3EncodeOperation::writeMetadata() {
    const std::shared_ptr<EncoderSettings> encoderSettings = settings();
    if (encoderSettings && encoderSettings->encoderAction() == 2)
        return;
    const std::optional<std::string> temp = tempFilePath();
    std::error_code ec;
    if (!temp || !std::filesystem::exists(*temp, ec))
        return;
    TagLib::MPEG::File file(temp->c_str(), false, TagLib::AudioProperties::Average);
    if (!file.isValid())
        return;
    // Whatever the file carried before goes, so that a re-tag leaves only
    // the kinds the user has asked for.
    file.strip(TagLib::MPEG::File::AllTags);

    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    const std::optional<std::string> encodedBy =
        encodedByText(std::string("LAME ") + get_lame_short_version());
    const std::shared_ptr<AudioMetadata> record = metadataForTags();
    std::optional<std::string> comment;
    if (defaults.boolForKey("writeFormatStringToComments"))
        comment = expandFormatSpecifiers(defaults.stringForKey("commentsFormatString"),
                                         record.get(), encoderSettings.get(), inFilePath(), false);
    else if (record)
        comment = record->trackComment();
    if (!record)
        return;

    // Each kind is saved on its own and never copied into the others.
    if (defaults.boolForKey("writeMP3ID3v2Tag")) {
        const ID3v2Choice choice = id3v2Choice(defaults.integerForKey("WriteMP3ID3v2TagVersion"));
        record->fillOutID3v2Tag(file.ID3v2Tag(true), choice.version == TagLib::ID3v2::v4 ? 4 : 3,
                                int(choice.encoding), encodedBy, comment);
        file.save(TagLib::MPEG::File::ID3v2, TagLib::File::StripNone, choice.version,
                  TagLib::File::DoNotDuplicate);
    }
    if (defaults.boolForKey("writeMP3ID3v1Tag")) {
        record->fillOutID3v1Tag(file.ID3v1Tag(true), comment);
        file.save(TagLib::MPEG::File::ID3v1, TagLib::File::StripNone, TagLib::ID3v2::v4,
                  TagLib::File::DoNotDuplicate);
    }
    if (defaults.boolForKey("writeMP3ApeTag")) {
        record->fillOutAPETag(file.APETag(true), encodedBy, comment);
        file.save(TagLib::MPEG::File::APE, TagLib::File::StripNone, TagLib::ID3v2::v4,
                  TagLib::File::DoNotDuplicate);
    }
}

} // namespace velvox
