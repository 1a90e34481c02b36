#include "encoders/OggVorbisEncodeOperation.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <optional>
#include <system_error>
#include <utility>

#include <taglib/vorbisfile.h>
#include <taglib/xiphcomment.h>
#include <vorbis/vorbisenc.h>

#include "Version.h"
#include "core/ChannelMixMap.h"
#include "core/UtilityFunctions.h"
#include "jobs/FormatSpecifiers.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

// Per-channel bit-rate band (bit/s) for a range of sample rates; channels 0
// stands for any count. Searched in order: the stereo row of a range first.
struct BitrateBand {
    uint32_t channels;
    double rateFrom, rateTo;
    double minimum, maximum;
};

constexpr BitrateBand kBitrateBands[] = {
    {2, 8000, 9000, 6000, 32000},     {0, 8000, 9000, 8000, 42000},
    {2, 9000, 15000, 8000, 44000},    {0, 9000, 15000, 12000, 50000},
    {2, 15000, 19000, 12000, 86000},  {0, 15000, 19000, 16000, 100000},
    {2, 19000, 26000, 15000, 86000},  {0, 19000, 26000, 16000, 90000},
    {2, 26000, 40000, 18000, 190000}, {0, 26000, 40000, 30000, 190000},
    {2, 40000, 50000, 22500, 250001}, {0, 40000, 50000, 32000, 240001},
};

// Vorbis fixes the speaker of every channel by the channel count alone
// (centre second, LFE last), unlike the WAVE order most decoders deliver.
// Each slot lists the labels that may fill it, the likeliest first.
using Slot = std::vector<AudioChannelLabel>;
constexpr AudioChannelLabel L = kAudioChannelLabel_Left, R = kAudioChannelLabel_Right,
                            C = kAudioChannelLabel_Center, LFE = kAudioChannelLabel_LFEScreen,
                            Ls = kAudioChannelLabel_LeftSurround,
                            Rs = kAudioChannelLabel_RightSurround,
                            Lsd = kAudioChannelLabel_LeftSurroundDirect,
                            Rsd = kAudioChannelLabel_RightSurroundDirect,
                            Lr = kAudioChannelLabel_RearSurroundLeft,
                            Rr = kAudioChannelLabel_RearSurroundRight,
                            Cs = kAudioChannelLabel_CenterSurround;

std::vector<Slot> vorbisSpeakerOrder(uint32_t channels) {
    switch (channels) {
    case 3:
        return {{L}, {C}, {R}};
    case 4:
        return {{L}, {R}, {Ls, Lr, Lsd}, {Rs, Rr, Rsd}};
    case 5:
        return {{L}, {C}, {R}, {Ls, Lsd, Lr}, {Rs, Rsd, Rr}};
    case 6:
        return {{L}, {C}, {R}, {Ls, Lsd, Lr}, {Rs, Rsd, Rr}, {LFE}};
    case 7:
        return {{L}, {C}, {R}, {Lsd, Ls}, {Rsd, Rs}, {Cs}, {LFE}};
    case 8:
        return {{L}, {C}, {R}, {Lsd, Ls}, {Rsd, Rs}, {Lr, Ls}, {Rr, Rs}, {LFE}};
    default:
        return {};
    }
}

} // namespace

OggVorbisEncodeOperation::OggVorbisEncodeOperation() = default;

std::vector<uint32_t> OggVorbisEncodeOperation::vorbisChannelOrder(const AudioChannelLayout* layout,
                                                                   uint32_t channels) {
    std::vector<uint32_t> identity(channels);
    for (uint32_t c = 0; c < channels; ++c)
        identity[c] = c;
    const std::vector<Slot> slots = vorbisSpeakerOrder(channels);
    if (slots.empty())
        return identity;
    // A decoder that names no speakers delivers the usual WAVE order.
    std::unique_ptr<AudioChannelLayout> assumed;
    if (!layout || layout->mChannelLayoutTag == kAudioChannelLayoutTag_Unknown) {
        assumed = createChannelLayoutWithTag(layoutTagForChannelCount(channels));
        layout = assumed.get();
    }
    const auto labels = layout ? ChannelMixMap::channelLabels(*layout) : std::nullopt;
    if (!labels || labels->size() != channels)
        return identity;
    // order[source channel] = Vorbis slot; a layout that cannot fill every
    // slot is written as it comes rather than guessed at.
    std::vector<uint32_t> order(channels, channels);
    for (uint32_t slot = 0; slot < channels; ++slot) {
        bool placed = false;
        for (AudioChannelLabel wanted : slots[slot])
            for (uint32_t c = 0; c < channels && !placed; ++c)
                if (order[c] == channels && (*labels)[c] == wanted) {
                    order[c] = slot;
                    placed = true;
                }
        if (!placed)
            return identity;
    }
    return order;
}

OggVorbisEncodeOperation::~OggVorbisEncodeOperation() { releaseCodec(); }

int64_t OggVorbisEncodeOperation::boundedBitrate(int64_t requested, uint32_t channels,
                                                 double sampleRate) {
    if (channels == 0)
        return requested;
    double perChannel = double(requested) / double(channels);
    for (const BitrateBand& band : kBitrateBands) {
        if ((band.channels == channels || band.channels == 0) && band.rateFrom <= sampleRate &&
            sampleRate <= band.rateTo) {
            perChannel = std::min(std::max(perChannel, band.minimum), band.maximum);
            break;
        }
    }
    return int64_t(perChannel * double(channels));
}

uint32_t OggVorbisEncodeOperation::readBufferSize(uint32_t decoderBitsPerChannel) const {
    return decoderBitsPerChannel == 32
               ? 131072
               : StreamEncodeOperation::readBufferSize(decoderBitsPerChannel);
}

void OggVorbisEncodeOperation::initEncoder(uint32_t channels, long sampleRate) {
    vorbis_info_init(&vi);
    viReady_ = true;
    const EncoderSettings empty;
    const EncoderSettings& s = settings() ? *settings() : empty;
    switch (s.bitrateMethod()) {
    case BitrateMethodVBR: {
        const int result =
            vorbis_encode_init_vbr(&vi, long(channels), sampleRate, float(s.vbrQuality()) * 0.1f);
        VLX_ASSERT(result == 0, "vorbis_encode_init_vbr failed with error: %d.", result);
        break;
    }
    case BitrateMethodCBR:
    case BitrateMethodABR: {
        const long bitrate = long(boundedBitrate(s.bitrate(), channels, double(sampleRate)));
        // Constant: every bound the same; average: only the nominal rate.
        const bool hard = s.bitrateMethod() == BitrateMethodCBR;
        const int result = vorbis_encode_init(&vi, long(channels), sampleRate, hard ? bitrate : -1,
                                              bitrate, hard ? bitrate : -1);
        VLX_ASSERT(result == 0, "vorbis_encode_init failed with error: %d.", result);
        break;
    }
    default:
        VLX_ASSERT(false, "Bitrate Mode Not Supported By Ogg Vorbis");
    }
}

void OggVorbisEncodeOperation::setUpCodec(const std::string& tempFilePath) {
    const AudioStreamBasicDescription format = decoder()->decodeFormat();
    outFile.reset(std::fopen(tempFilePath.c_str(), "w"));
    VLX_ASSERT(outFile != nullptr, "Could Not Open The Output File");
    initEncoder(format.mChannelsPerFrame, long(format.mSampleRate));
    channelOrder_ = vorbisChannelOrder(decoder()->channelLayout(), format.mChannelsPerFrame);

    // The comment header stays empty here: the tags are written afterwards.
    vorbis_comment_init(&vc);
    vcReady_ = true;
    VLX_ASSERT(vorbis_analysis_init(&vd, &vi) == 0, "vorbis_analysis_init failed.");
    vdReady_ = true;
    VLX_ASSERT(vorbis_block_init(&vd, &vb) == 0, "vorbis_block_init failed.");
    vbReady_ = true;

    // Seeded by the clock in whole seconds: two files begun in the same
    // second share a serial number, which is harmless for unchained files.
    std::srand(unsigned(std::time(nullptr)));
    VLX_ASSERT(ogg_stream_init(&os, std::rand()) == 0, "ogg_stream_init failed.");
    osReady_ = true;
    endOfStream_ = false;

    ogg_packet header, headerComment, headerCode;
    VLX_ASSERT(vorbis_analysis_headerout(&vd, &vc, &header, &headerComment, &headerCode) == 0,
               "vorbis_analysis_headerout failed.");
    ogg_stream_packetin(&os, &header);
    ogg_stream_packetin(&os, &headerComment);
    ogg_stream_packetin(&os, &headerCode);
    // The headers end their page, so the audio starts on a page of its own.
    ogg_page page;
    while (ogg_stream_flush(&os, &page) != 0)
        writePage(page);
}

void OggVorbisEncodeOperation::writePage(const ogg_page& page) {
    VLX_ASSERT(std::fwrite(page.header, 1, size_t(page.header_len), outFile.get()) ==
                       size_t(page.header_len) &&
                   std::fwrite(page.body, 1, size_t(page.body_len), outFile.get()) ==
                       size_t(page.body_len),
               "Unable to write to the output file.");
}

void OggVorbisEncodeOperation::encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) {
    VLX_PARAMETER_ASSERT_TEXT(!bufferList.mBuffers.empty(), "0 < bufferList->mNumberBuffers");
    const AudioBuffer& buffer = bufferList.mBuffers[0];
    const uint32_t channels = buffer.mNumberChannels;
    const uint32_t bits = sourceBitsPerChannel();
    if (bits != 8 && bits != 16 && bits != 24 && bits != 32)
        throw Exception("IllegalInputException",
                        stringWithFormat("Vorbis Does Not Suppord %u Bit Files!", bits));
    const size_t bytesPerSample = bits / 8;
    VLX_PARAMETER_ASSERT_TEXT(channels == channelOrder_.size() && buffer.mData != nullptr &&
                                  buffer.mDataByteSize >=
                                      size_t(frameCount) * channels * bytesPerSample,
                              "bufferList->mBuffers[0].mDataByteSize >= byteCount");

    float** out = vorbis_analysis_buffer(&vd, int(frameCount));
    const auto* in = static_cast<const uint8_t*>(buffer.mData);
    const size_t stride = channels * bytesPerSample;
    for (uint32_t c = 0; c < channels; ++c) {
        float* channel = out[channelOrder_[c]];
        const uint8_t* p = in + c * bytesPerSample;
        switch (bits) {
        case 8:
            for (uint32_t f = 0; f < frameCount; ++f, p += stride)
                channel[f] = float(int8_t(p[0])) * (1.0f / 128.0f);
            break;
        case 16:
            for (uint32_t f = 0; f < frameCount; ++f, p += stride)
                channel[f] = float(int16_t(uint16_t(p[0] | (p[1] << 8)))) * (1.0f / 32768.0f);
            break;
        case 24:
            for (uint32_t f = 0; f < frameCount; ++f, p += stride) {
                const int32_t sample =
                    int32_t(uint32_t(int32_t(int8_t(p[2]))) << 16) | (p[1] << 8) | p[0];
                channel[f] = float(double(sample) * (1.0 / 8388608.0));
            }
            break;
        default:
            for (uint32_t f = 0; f < frameCount; ++f, p += stride) {
                const int32_t sample = int32_t(uint32_t(p[0]) | (uint32_t(p[1]) << 8) |
                                               (uint32_t(p[2]) << 16) | (uint32_t(p[3]) << 24));
                channel[f] = float(double(sample) * (1.0 / 2147483648.0));
            }
            break;
        }
    }
    VLX_ASSERT(vorbis_analysis_wrote(&vd, int(frameCount)) == 0, "vorbis_analysis_wrote failed.");
    drain();
}

void OggVorbisEncodeOperation::drain() {
    ogg_packet packet;
    ogg_page page;
    while (!endOfStream_ && vorbis_analysis_blockout(&vd, &vb) == 1) {
        vorbis_analysis(&vb, nullptr);
        vorbis_bitrate_addblock(&vb);
        while (!endOfStream_ && vorbis_bitrate_flushpacket(&vd, &packet) == 1) {
            ogg_stream_packetin(&os, &packet);
            while (!endOfStream_ && ogg_stream_pageout(&os, &page) != 0) {
                writePage(page);
                endOfStream_ = ogg_page_eos(&page) != 0;
            }
        }
    }
}

void OggVorbisEncodeOperation::finishCodec() {
    // A frame count of 0 ends the stream: libvorbis sends its last blocks
    // and the page that carries the end-of-stream flag and the exact length.
    // A cancelled file is deleted right after, so it is not finished.
    if (!isCancelled()) {
        VLX_ASSERT(vorbis_analysis_wrote(&vd, 0) == 0, "vorbis_analysis_wrote failed.");
        drain();
    }
    if (std::fclose(outFile.release()) == EOF) {
        const int error = errno;
        throw Exception(
            "IOException", "Unable to close the output file.",
            {{"errorCode", std::to_string(error)}, {"errorString", std::strerror(error)}});
    }
}

void OggVorbisEncodeOperation::releaseCodec() noexcept {
    outFile.reset();
    if (std::exchange(osReady_, false))
        ogg_stream_clear(&os);
    if (std::exchange(vbReady_, false))
        vorbis_block_clear(&vb);
    if (std::exchange(vdReady_, false))
        vorbis_dsp_clear(&vd);
    if (std::exchange(vcReady_, false))
        vorbis_comment_clear(&vc);
    if (std::exchange(viReady_, false))
        vorbis_info_clear(&vi);
}

void OggVorbisEncodeOperation::writeMetadata() {
    writeXiphComment<TagLib::Ogg::Vorbis::File>(std::string("Vorbis ") + vorbis_version_string());
}

} // namespace velvox
