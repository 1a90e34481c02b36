#include "decoders/OggSpeexDecoder.h"

#include <algorithm>
#include <cstring>

#include <speex/speex_header.h>

#include "core/UtilityFunctions.h"
#include "decoders/OggStreamLength.h"
#include "platform/Exception.h"

namespace velvox {

namespace {

// Far beyond any encoder's setting; keeps a forged header from asking for
// gigabytes per packet.
constexpr int kMaxFramesPerPacket = 64;

struct HeaderDeleter {
    void operator()(SpeexHeader* h) const { speex_header_free(h); }
};

} // namespace

OggSpeexDecoder::OggSpeexDecoder() = default;

OggSpeexDecoder::~OggSpeexDecoder() {
    st_.reset();
    stereo_.reset();
    if (bitsInitialised_)
        speex_bits_destroy(&bits_);
    ogg_.reset();
}

bool OggSpeexDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;
    totalSamples_ = OggStreamLength::granuleSpan(path);
    endsWithLastPage_ = OggStreamLength::endsWithLastPage(path);

    ogg_ = std::make_unique<OggPageReader>(path);
    speex_bits_init(&bits_);
    bitsInitialised_ = true;

    VLX_ASSERT(ogg_->readPage(), "The file does not appear to be an Ogg bitstream.");
    takePage();
    ogg_packet packet;
    VLX_ASSERT(ogg_stream_packetout(&ogg_->stream(), &packet) == 1,
               "Error reading initial Ogg packet header.");
    if (packet.bytes >= 5 && std::memcmp(packet.packet, "Speex", 5) == 0)
        speex_serialno = ogg_->stream().serialno;
    readHeader(packet);

    // readHeader() has set the rate.
    if (!setIntegerDecodeFormat(decodeFormat_.mSampleRate, 16, channels_))
        return unknownFrameSize();
    setLayoutForChannelCount(channels_);
    return true;
}

void OggSpeexDecoder::readHeader(const ogg_packet& packet) {
    std::unique_ptr<SpeexHeader, HeaderDeleter> header(
        speex_packet_to_header(reinterpret_cast<char*>(packet.packet), int(packet.bytes)));
    VLX_ASSERT(header, "Cannot read Speex header.");
    VLX_ASSERT(header->mode < SPEEX_NB_MODES,
               "Mode number %d does not (yet/any longer) exist in this version.", header->mode);
    VLX_ASSERT(header->mode >= 0, "Mode number %d does not (yet/any longer) exist in this version.",
               header->mode);
    const SpeexMode* mode = speex_lib_get_mode(header->mode);
    VLX_ASSERT(header->mode_bitstream_version <= mode->bitstream_version,
               "This file was encoded with Speex bit-stream version %d, which I don't know how to "
               "decode",
               header->mode_bitstream_version);
    VLX_ASSERT(header->mode_bitstream_version >= mode->bitstream_version,
               "The file was encoded with a different version of Speex.");
    // Speex carries one or two channels; anything else is a damaged header.
    VLX_ASSERT(header->nb_channels >= 1 && header->nb_channels <= 2 && header->rate > 0 &&
                   header->rate <= 192000 && header->frames_per_packet <= kMaxFramesPerPacket &&
                   header->frames_per_packet >= 0,
               "Cannot read Speex header.");

    st_.reset(speex_decoder_init(mode));
    VLX_ASSERT(st_, "Speex decoder initialization failed.");
    int enhance = 1;
    speex_decoder_ctl(st_.get(), SPEEX_SET_ENH, &enhance);
    speex_decoder_ctl(st_.get(), SPEEX_GET_FRAME_SIZE, &frame_size);
    int rate = header->rate;
    speex_decoder_ctl(st_.get(), SPEEX_SET_SAMPLING_RATE, &rate);
    speex_decoder_ctl(st_.get(), SPEEX_GET_LOOKAHEAD, &lookahead);
    if (void* encoder = speex_encoder_init(mode)) {
        speex_encoder_ctl(encoder, SPEEX_GET_LOOKAHEAD, &encoderLookahead_);
        speex_encoder_destroy(encoder);
    }
    granule_frame_size = frame_size;
    nframes_ = header->frames_per_packet == 0 ? 1 : header->frames_per_packet;
    extra_headers_ = std::max(header->extra_headers, 0);
    channels_ = uint32_t(header->nb_channels);
    decodeFormat_.mSampleRate = double(header->rate);

    if (channels_ == 2) {
        stereo_.reset(speex_stereo_state_init());
        stereoCallback_.callback_id = SPEEX_INBAND_STEREO;
        stereoCallback_.func = speex_std_stereo_request_handler;
        stereoCallback_.data = stereo_.get();
        speex_decoder_ctl(st_.get(), SPEEX_SET_HANDLER, &stereoCallback_);
    }
    frame_.assign(size_t(frame_size) * channels_, 0);
}

// Once the Speex stream is known, pages of other logical streams are ignored.
void OggSpeexDecoder::takePage() {
    const ogg_page& page = ogg_->page();
    const int serial = ogg_page_serialno(&page);
    const bool otherStream = ogg_->hasStream() && serial != ogg_->stream().serialno;
    if (otherStream && speex_serialno != -1)
        return;
    if (!ogg_->hasStream() || otherStream)
        ogg_->startStream(serial);
    ogg_->pagein();
    const int64_t granule = ogg_page_granulepos(&page);
    if (granule >= 0)
        page_granule = granule;
    pageIsLast_ = ogg_page_eos(&page);
    noteFirstAudioPage();
}

// Decoded samples run behind the encoder's input by the decoder's look-ahead
// plus whatever the granule positions hold back: the first page that
// completes audio packets tells that part (the encoder's look-ahead, as the
// reference encoder writes it). A stream that ends on that same page says
// nothing about its start; the encoder's look-ahead for the mode stands in.
void OggSpeexDecoder::noteFirstAudioPage() {
    const ogg_page& page = ogg_->page();
    if (firstAudioPageSeen_ || ogg_page_granulepos(&page) < 0)
        return;
    const int64_t headers = 2 + int64_t(extra_headers_);
    const int64_t before = packetCount_;
    const int64_t after = before + ogg_page_packets(&page);
    const int64_t audioPackets = after - std::max(before, headers);
    if (audioPackets <= 0)
        return;
    firstAudioPageSeen_ = true;
    const int64_t decoded = audioPackets * nframes_ * frame_size;
    if (pageIsLast_)
        skip_samples = encoderLookahead_ + lookahead;
    else
        skip_samples =
            std::clamp<int64_t>(decoded - ogg_page_granulepos(&page), 0, decoded) + lookahead;
    last_granule = ogg_page_granulepos(&page);
}

void OggSpeexDecoder::fillPCMBuffer() {
    RingBuffer& ring = pcmBuffer();
    const uint32_t packetBytes = uint32_t(nframes_ * frame_size) * channels_ * 2;
    if (ring.size() < 2 * packetBytes)
        ring.resize(2 * packetBytes);

    while (!isEndOfFile() && ring.freeSpaceAvailable() >= packetBytes) {
        ogg_packet packet;
        const int r = ogg_stream_packetout(&ogg_->stream(), &packet);
        VLX_ASSERT(r >= 0, "Ogg loss of streaming.");
        if (r == 1) {
            decodePacket(packet);
        } else if (ogg_stream_eos(&ogg_->stream())) {
            completeTail();
            setEndOfFile(true);
        } else if (!ogg_->readPage()) {
            VLX_ASSERT(endsWithLastPage_,
                       "The Ogg Stream Ends Before Its Last Page.  The File Is Truncated.");
            setEndOfFile(true);
        } else {
            takePage();
        }
    }
}

void OggSpeexDecoder::decodePacket(ogg_packet& packet) {
    const bool isHeader = packetCount_ < 2 + int64_t(extra_headers_);
    incrementPacketCount();
    if (isHeader)
        return;
    speex_bits_read_from(&bits_, reinterpret_cast<char*>(packet.packet), int(packet.bytes));
    for (int j = 0; j < nframes_; ++j) {
        const int ret = speex_decode_int(st_.get(), &bits_, frame_.data());
        if (ret == -1)
            break; // the encoder's end-of-stream mark
        VLX_ASSERT(ret != -2, "Speex decoding error: corrupted stream?.");
        VLX_ASSERT(speex_bits_remaining(&bits_) >= 0,
                   "Speex decoding overflow: corrupted stream?.");
        if (channels_ == 2)
            speex_decode_stereo_int(frame_.data(), frame_size, stereo_.get());
        writeFrame(frame_.data());
    }
}

// Encoders pad the last packet for their own look-ahead but not always for
// the decoder's, which then still holds the stream's last samples. Concealment
// frames (decoding without data) push them out, up to the granule position.
void OggSpeexDecoder::completeTail() {
    const int frames = lookahead / std::max(frame_size, 1) + 1;
    for (int i = 0; i < frames && pageIsLast_ && written_ < page_granule; ++i) {
        RingBuffer& ring = pcmBuffer();
        const uint32_t frameBytes = uint32_t(frame_size) * channels_ * 2;
        if (ring.freeSpaceAvailable() < frameBytes)
            ring.resize(ring.size() + frameBytes);
        speex_decode_int(st_.get(), nullptr, frame_.data());
        if (channels_ == 2)
            speex_decode_stereo_int(frame_.data(), frame_size, stereo_.get());
        writeFrame(frame_.data());
    }
}

// Drops what is left of the start trim; on the stream's last page nothing
// goes past its granule position.
void OggSpeexDecoder::writeFrame(const int16_t* frame) {
    int64_t first = std::min<int64_t>(skip_samples, frame_size);
    skip_samples -= first;
    int64_t count = frame_size - first;
    if (pageIsLast_)
        count = std::clamp<int64_t>(page_granule - written_, 0, count);
    if (count <= 0)
        return;
    pcmBuffer().putData(frame + first * channels_, uint32_t(count * channels_ * 2));
    written_ += count;
}

} // namespace velvox
