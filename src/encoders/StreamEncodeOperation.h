#pragma once
// The encode loop every PCM-fed encoder shares: get a decoder for the input,
// read its PCM in fixed-size chunks, convert sample rate and sample size when
// the output format asks for it, re-mix to the wanted channel layout, hand
// each chunk to the codec, report progress, honour cancellation, then tag the
// temporary file on the tagging thread and move it into place.
//
// A concrete encoder supplies only what is its own: the words in its messages,
// the sample sizes it takes, its codec set-up on the temporary path,
// encodeChunk(), finishing and releasing the codec, and writeMetadata().
// Encoders that leave resampling or down-mixing to their codec say so through
// the output-format and mixing hooks.

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "core/KDDecoder.h"
#include "jobs/EncodeOperation.h"
#include "platform/CoreAudioTypes.h"

namespace velvox {

class StreamEncodeOperation : public EncodeOperation {
public:
    StreamEncodeOperation();
    ~StreamEncodeOperation() override;

    void main() override;

    // The decoder of the running encode (null before and after it).
    KDDecoder* decoder() const { return _decoder.get(); }

    // Sample size and rate of the PCM the codec receives.
    uint32_t sourceBitsPerChannel() const { return sourceBitsPerChannel_; }
    double sourceSampleRate() const { return sourceSampleRate_; }
    // Channels and layout tag the codec receives (after mixing).
    uint32_t targetChannels() const { return targetChannels_; }
    AudioChannelLayoutTag targetLayoutTag() const { return targetLayoutTag_; }

protected:
    // ---- Texts (printf formats with %@ for strings) ----
    // The format's name as it starts its messages ("FLAC").
    virtual std::string formatWord() const = 0;
    // "<word> Encode Operation Aborting.  Could Not Initialize Decoder For: %@"
    virtual std::string decoderFailedText() const;
    // The same with " Error: %@" for the factory's exception.
    virtual std::string decoderExceptionText() const;
    // "<word> Encode Operation Failed To Encode File: %@.  Error:%@"
    virtual std::string encodeFailedText() const;
    // The IllegalInputException text for a decoder sample size the read
    // buffer rule refuses, with %u for the bit count.
    virtual std::string unsupportedSampleSizeText() const = 0;

    // ---- The shape of the loop ----
    // Where the decoder comes from; the factory by the input's name unless a
    // subclass knows better.
    virtual std::unique_ptr<KDDecoder> makeDecoder();
    // Read buffer bytes for the decoder's sample size; 0 refuses the size.
    // 16 bits read 65,536 bytes, 8 and 24 bits 32,768: the 24-bit buffer is
    // the smaller one, so 24-bit chunks hold fewer frames.
    virtual uint32_t readBufferSize(uint32_t decoderBitsPerChannel) const;
    // Sample size and rate sent to the codec: the settings' bitDepth and
    // sampleRate when they are set, else the decoder's. An encoder whose
    // codec resamples itself answers the decoder's values.
    virtual uint32_t outputBitsPerChannel(const AudioStreamBasicDescription& decodeFormat) const;
    virtual double outputSampleRate(const AudioStreamBasicDescription& decodeFormat) const;
    // Last say on the format the codec is fed (a float codec sets the float
    // flag here). Conversion runs whenever it differs from the decoder's.
    virtual void adjustOutputFormat(AudioStreamBasicDescription&) const {}
    // Whether the channel mixer may run. Without it the codec receives the
    // decoder's channels whatever the settings' channel mode says.
    virtual bool mixesChannels() const { return !takesDecoderPCM(); }
    // Whether the codec takes the decoder's sample size, rate and channels as
    // they come (and converts them itself): then the three hooks above
    // answer the decoder's values.
    virtual bool takesDecoderPCM() const { return false; }
    // The most channels the codec takes (0: any). A source with more is
    // folded to stereo (or mono) by the mixer whatever the channel mode.
    virtual uint32_t maximumChannels() const { return 0; }
    // Cancellation and the progress text are looked at every this many chunks.
    virtual uint32_t cancelCheckInterval() const { return 8; }

    // ---- The codec ----
    // Opens the codec on the temporary file. sourceBitsPerChannel(),
    // sourceSampleRate(), targetChannels() and totalFrames() are known.
    virtual void setUpCodec(const std::string& tempFilePath) = 0;
    // One chunk of interleaved little-endian PCM with the list's
    // mNumberChannels channels at sourceBitsPerChannel().
    virtual void encodeChunk(const AudioBufferList& bufferList, uint32_t frameCount) = 0;
    // The input has ended (or the user cancelled): flush and close the codec.
    virtual void finishCodec() = 0;
    // Lets go of every codec resource. Runs after finishCodec() and on every
    // failure path, so it must cope with a codec that is half set up and must
    // not throw.
    virtual void releaseCodec() noexcept = 0;
    // After moveEncodedFileToOutputLocation() on success.
    virtual void didMoveEncodedFile() {}
    // The comment tag's text for writeMetadata(): the expanded comments
    // format string when the preferences ask for it, else the source's own
    // comment. Tagging thread.
    std::optional<std::string> commentText();
    // The record to write into the output: the job's, less the ReplayGain
    // values when the output's level is not the source's (a down-mix, a DSD
    // gain). Tagging thread.
    std::shared_ptr<AudioMetadata> metadataForTags();
    // "<codec> via Velvox <version>" for the encoded-by tag when the
    // preferences ask for it; nothing otherwise. Any thread.
    static std::optional<std::string> encodedByText(const std::string& codec);
    // writeMetadata() of the Ogg families: the record's tags into the
    // temporary file's Xiph comment, with `codec` named as the encoder.
    // `File` is the family's TagLib class. Tagging thread.
    template <typename File>
    void writeXiphComment(const std::string& codec) {
        const std::optional<std::string> temp = tempFilePath();
        std::error_code ec;
        if (!temp || !std::filesystem::exists(*temp, ec))
            return;
        File file(temp->c_str(), false);
        if (!file.isValid() || !file.tag())
            return;
        const std::shared_ptr<AudioMetadata> record = metadataForTags();
        if (!record)
            return;
        record->fillOutXiphComment(file.tag(), encodedByText(codec), commentText(), true);
        file.save();
    }
    // Whether the codec received the audio at a rate other than the
    // decoder's, so that sample positions of the source no longer hold.
    bool sampleRateChanged() const { return sampleRateChanged_; }
    // The failure line for the last stage (moving into place, saving the
    // artwork); the same as encodeFailedText() unless an encoder differs.
    virtual std::string moveFailedText() const { return encodeFailedText(); }

private:
    // Read buffer bytes when the decoder's sample size is converted to an
    // explicitly chosen one before the codec.
    static constexpr uint32_t kConvertedReadBufferSize = 32768;

    // Throws when the decoder delivered no frames or fewer than it announced
    // as exact.
    void checkInputWasWhole(const KDDecoder& decoder) const;
    // "Encoding <format> - 12.5%", or the time encoded when the length is unknown.
    std::string progressText(const std::string& formatDescription) const;
    // Steps of main(); each throws on failure.
    void encodeFile(const std::string& formatDescription);
    void moveToOutputLocation();
    void chooseDecoder();
    void chooseTargetChannels(const AudioStreamBasicDescription& decodeFormat);
    // The sample-rate/size converter's input: the decoder's next chunk.
    OSStatus converterInput(uint32_t& ioNumberDataPackets, AudioBufferList& ioData);
    void logFailure(const std::string& format, const std::string& description);
    void removeTemporaryFilesAfterFailure();
    // Logs, at the info level, what of the record the output's tags could
    // not hold, read back from the temporary file. Tagging thread.
    void reportTagFidelity();

    std::unique_ptr<KDDecoder> _decoder;
    // The read buffer as the converter's input callback hands it over, and
    // the decoder's format, which turns its byte size into frames.
    AudioBufferList _converter_currentBuffer;
    AudioStreamBasicDescription _converter_currentInputDescription;
    uint32_t converterReadBufferSize_ = 0;
    uint32_t sourceBitsPerChannel_ = 0;
    double sourceSampleRate_ = 0;
    uint32_t targetChannels_ = 0;
    AudioChannelLayoutTag targetLayoutTag_ = kAudioChannelLayoutTag_Unknown;
    bool levelChanged_ = false;
    bool sampleRateChanged_ = false;
};

} // namespace velvox
