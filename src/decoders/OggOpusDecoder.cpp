#include "decoders/OggOpusDecoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "decoders/OggStreamLength.h"
#include "decoders/VorbisChannelLayout.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"

namespace velvox {

namespace {

// The longest Opus packet: 120 ms at 48 kHz.
constexpr uint32_t kMaxPacketFrames = 5760;
constexpr uint32_t kResamplerRound = 1024;
constexpr uint32_t kFlushPiece = 100;
// Enough free space for one packet's float output per channel.
constexpr uint32_t kBytesPerChannelPerPacket = kMaxPacketFrames * sizeof(float);

bool isOpusHead(const ogg_packet& packet) {
    return packet.bytes >= 8 && std::memcmp(packet.packet, "OpusHead", 8) == 0;
}

} // namespace

OggOpusDecoder::OggOpusDecoder() = default;

OggOpusDecoder::~OggOpusDecoder() {
    st_.reset();
    resampler_.reset();
    ogg_.reset();
}

bool OggOpusDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;
    totalSamples_ = OggStreamLength::granuleSpan(path);
    endsWithLastPage_ = OggStreamLength::endsWithLastPage(path);

    ogg_ = std::make_unique<OggPageReader>(path);
    while (!st_) {
        VLX_ASSERT(ogg_->readPage(), "Opus Proces Header Failed.");
        takePage();
        ogg_packet packet;
        while (!st_ && ogg_stream_packetout(&ogg_->stream(), &packet) == 1) {
            if (opus_serialno_ != -1 || !isOpusHead(packet))
                continue;
            opus_serialno_ = ogg_->stream().serialno;
            link_out_ = 0;
            link_decoded_ = 0;
            packet_count_ = 0;
            VLX_ASSERT(processHeader(packet), "Opus Proces Header Failed.");
        }
    }
    incrementPacketCount();

    if (!setIntegerDecodeFormat(rate_, 16, channels_))
        return unknownFrameSize();
    setChannelLayout(VorbisChannelLayout::create(channels_));
    return true;
}

// Pages of other logical streams are ignored once the Opus stream is known,
// except a stream's first page, which may start the next link of a chain.
void OggOpusDecoder::takePage() {
    const ogg_page& page = ogg_->page();
    const int serial = ogg_page_serialno(&page);
    if (ogg_->hasStream() && serial != ogg_->stream().serialno && opus_serialno_ != -1 &&
        !ogg_page_bos(&page))
        return;
    if (!ogg_->hasStream() || serial != ogg_->stream().serialno)
        ogg_->startStream(serial);
    ogg_->pagein();
    page_granule_ = ogg_page_granulepos(&page);
    lastPage_ = ogg_page_eos(&page) != 0;
}

bool OggOpusDecoder::processHeader(const ogg_packet& packet) {
    OpusHeader h;
    if (!opus_header_parse({packet.packet, size_t(packet.bytes)}, h)) {
        std::fprintf(stderr, "Cannot parse header\n");
        return false;
    }
    header_ = h;
    channels_ = uint32_t(h.channels);
    rate_ = h.input_sample_rate == 0 ? 48000 : h.input_sample_rate;
    if (rate_ < 8000 || rate_ > 48000)
        rate_ = 48000;
    preskip_ = h.preskip;

    int err = OPUS_OK;
    st_.reset(opus_multistream_decoder_create(48000, h.channels, h.nb_streams, h.nb_coupled,
                                              h.stream_map.data(), &err));
    if (!st_ || err != OPUS_OK) {
        std::fprintf(stderr, "Cannot create encoder: %s\n", opus_strerror(err));
        st_.reset();
        return false;
    }
    if (h.gain != 0) {
        err = opus_multistream_decoder_ctl(st_.get(), OPUS_SET_GAIN(h.gain));
        if (err != OPUS_OK && err != OPUS_UNIMPLEMENTED) {
            std::fprintf(stderr, "Error setting gain: %s\n", opus_strerror(err));
            st_.reset();
            return false;
        }
    }
    gran_offset_ = int32_t(preskip_);
    shapemem_ = std::make_unique<NoiseShapedDither>(channels_, rate_);
    output_.assign(size_t(kMaxPacketFrames) * channels_, 0.f);
    resampled_.assign(size_t(kResamplerRound) * channels_, 0.f);
    shorts_.assign(size_t(kMaxPacketFrames) * channels_, 0);
    const uint32_t needed = channels_ * kBytesPerChannelPerPacket;
    if (pcmBuffer().size() < needed)
        pcmBuffer().resize(needed);
    if (rate_ != 48000)
        startResampler();
    return true;
}

void OggOpusDecoder::startResampler() {
    int err = RESAMPLER_ERR_SUCCESS;
    resampler_.reset(speex_resampler_init(channels_, 48000, rate_, 5, &err));
    VLX_ASSERT(resampler_ && err == RESAMPLER_ERR_SUCCESS, "Opus speex resampler error: %s.",
               speex_resampler_strerror(err));
    speex_resampler_skip_zeros(resampler_.get());
}

void OggOpusDecoder::fillPCMBuffer() {
    RingBuffer& ring = pcmBuffer();
    const uint32_t needed = channels_ * kBytesPerChannelPerPacket;
    if (ring.freeSpaceAvailable() < needed)
        ring.resize(ring.size() + needed);

    while (!isEndOfFile()) {
        ogg_packet packet;
        const int r = ogg_stream_packetout(&ogg_->stream(), &packet);
        if (r == 1) {
            if (isOpusHead(packet)) {
                startNewLink(packet);
            } else if (ogg_->stream().serialno != opus_serialno_) {
                continue;
            } else if (packet_count_ == 1) {
                incrementPacketCount(); // OpusTags: read by the metadata code
            } else {
                handleAudioPacket(packet);
                return;
            }
        } else if (r < 0) {
            // Packets were lost (a page missing or failing its CRC): decoding
            // goes on after the hole, but the file is no longer whole.
            if (damage().empty())
                ErrorLog::sharedController().logMessage(stringWithFormat(
                    "Ogg Opus Decoder Skipped Missing Or Damaged Data In File: %@", inFilePath()));
            noteDamage("Ogg loss of streaming.");
        } else if (ogg_->readPage()) {
            takePage();
        } else {
            VLX_ASSERT(endsWithLastPage_,
                       "The Ogg Stream Ends Before Its Last Page.  The File Is Truncated.");
            if (!linkFlushed_)
                flushResampler();
            setEndOfFile(true);
        }
    }
}

// A later link of a chained file: same channel count (the output format is
// fixed), its own pre-skip, mapping and granule positions.
void OggOpusDecoder::startNewLink(const ogg_packet& packet) {
    const uint32_t channels = channels_;
    const uint32_t rate = rate_;
    opus_serialno_ = ogg_->stream().serialno;
    VLX_ASSERT(processHeader(packet), "Opus Proces Header Failed.");
    VLX_ASSERT(channels_ == channels,
               "The Chained Ogg Opus Streams In This File Have Different Channel Counts.");
    rate_ = rate; // the output rate stays the one announced at open
    if (rate_ != 48000)
        startResampler();
    else
        resampler_.reset();
    shapemem_ = std::make_unique<NoiseShapedDither>(channels_, rate_);
    link_out_ = 0;
    link_decoded_ = 0;
    packet_count_ = 1;
    linkFlushed_ = false;
}

int64_t OggOpusDecoder::maxOut() const {
    const int64_t limit = (page_granule_ - gran_offset_) * int64_t(rate_) / 48000 - link_out_;
    return std::max<int64_t>(limit, 0);
}

void OggOpusDecoder::handleAudioPacket(const ogg_packet& packet) {
    const int frames = opus_multistream_decode_float(
        st_.get(), packet.packet, int32_t(packet.bytes), output_.data(), int(kMaxPacketFrames), 0);
    VLX_ASSERT(frames >= 0, "Opus Decoding error: %s", opus_strerror(frames));
    // The last page's granule position trims the end at 48 kHz, before the
    // resampler: its filter must run into silence there, not into the
    // encoder's padding, or the final milliseconds differ from opusdec's.
    int64_t kept = frames;
    if (lastPage_ && page_granule_ >= 0)
        kept = std::clamp<int64_t>(page_granule_ - link_decoded_, 0, frames);
    link_decoded_ += frames;
    link_out_ += writeFrames(output_.data(), uint32_t(kept), maxOut());
    incrementPacketCount();
    if (packet.e_o_s) {
        flushResampler();
        linkFlushed_ = true;
    }
}

// Drops what remains of the pre-skip, resamples in rounds, dithers and copies
// at most `maxout` frames into the ring buffer. Returns the frames written.
uint32_t OggOpusDecoder::writeFrames(const float* pcm, uint32_t frames, int64_t maxout) {
    RingBuffer& ring = pcmBuffer();
    uint32_t written = 0;
    do {
        uint32_t skip = 0;
        if (preskip_ > 0) {
            skip = std::min(preskip_, frames);
            preskip_ -= skip;
        }
        const float* block = pcm + size_t(skip) * channels_;
        uint32_t produced = frames - skip;
        if (resampler_) {
            spx_uint32_t inLength = frames - skip;
            spx_uint32_t outLength = uint32_t(std::min<int64_t>(kResamplerRound, maxout));
            speex_resampler_process_interleaved_float(resampler_.get(), block, &inLength,
                                                      resampled_.data(), &outLength);
            pcm = block + size_t(inLength) * channels_;
            frames -= skip + inLength;
            block = resampled_.data();
            produced = outLength;
        } else {
            frames = 0;
        }
        shapemem_->toShort(shorts_.data(), block, produced);
        const uint32_t take = uint32_t(std::min<int64_t>(produced, maxout));
        if (take > 0)
            ring.putData(shorts_.data(), take * channels_ * 2);
        written += take;
        maxout -= take;
    } while (frames > 0 && maxout > 0);
    return written;
}

// The resampler holds back its input latency; zeros push the tail of the
// stream out (still within the granule limit).
void OggOpusDecoder::flushResampler() {
    if (!resampler_)
        return;
    uint32_t latency = uint32_t(speex_resampler_get_input_latency(resampler_.get()));
    const std::vector<float> zeros(size_t(kFlushPiece) * channels_, 0.f);
    while (latency > 0) {
        const uint32_t piece = std::min(latency, kFlushPiece);
        link_out_ += writeFrames(zeros.data(), piece, maxOut());
        latency -= piece;
    }
}

} // namespace velvox
