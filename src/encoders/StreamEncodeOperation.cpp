#include "encoders/StreamEncodeOperation.h"

#include <algorithm>
#include <cerrno>
#include <exception>
#include <filesystem>
#include <functional>
#include <new>
#include <system_error>
#include <utility>
#include <vector>

#include "Version.h"
#include "core/KDChannelMixer.h"
#include "core/UtilityFunctions.h"
#include "decoders/DSDDecoder.h"
#include "jobs/FormatSpecifiers.h"
#include "metadata/TagFidelity.h"
#include "platform/AudioConverter.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

// Runs a task when the scope is left, however it is left; run() does it early.
class ScopeExit {
public:
    explicit ScopeExit(std::function<void()> task) : task_(std::move(task)) {}
    ~ScopeExit() { run(); }
    ScopeExit(const ScopeExit&) = delete;
    ScopeExit& operator=(const ScopeExit&) = delete;
    void run() {
        if (auto task = std::exchange(task_, nullptr))
            task();
    }

private:
    std::function<void()> task_;
};

std::vector<uint8_t> allocateBuffer(size_t bytes) {
    try {
        return std::vector<uint8_t>(bytes, 0);
    } catch (const std::bad_alloc&) {
        VLX_ASSERT(false, "Could Not Allocate Buffer.");
    }
    return {};
}

} // namespace

StreamEncodeOperation::StreamEncodeOperation() = default;
StreamEncodeOperation::~StreamEncodeOperation() = default;

// ---- Hooks with a common answer ----

std::string StreamEncodeOperation::decoderFailedText() const {
    return formatWord() + " Encode Operation Aborting.  Could Not Initialize Decoder For: %@";
}

std::string StreamEncodeOperation::decoderExceptionText() const {
    return formatWord() +
           " Encode Operation Aborting.  Could Not Initialize Decoder For: %@ Error: %@";
}

std::string StreamEncodeOperation::encodeFailedText() const {
    return formatWord() + " Encode Operation Failed To Encode File: %@.  Error:%@";
}

std::unique_ptr<KDDecoder> StreamEncodeOperation::makeDecoder() {
    return KDDecoder::decoderWithFilename(inFilePath());
}

uint32_t StreamEncodeOperation::readBufferSize(uint32_t decoderBitsPerChannel) const {
    switch (decoderBitsPerChannel) {
    case 16:
        return 65536;
    case 8:
    case 24:
        return 32768;
    default:
        return 0;
    }
}

uint32_t
StreamEncodeOperation::outputBitsPerChannel(const AudioStreamBasicDescription& decodeFormat) const {
    if (takesDecoderPCM())
        return decodeFormat.mBitsPerChannel;
    const uint32_t bitDepth = settings() ? settings()->bitDepth() : 0;
    return bitDepth != 0 ? bitDepth : decodeFormat.mBitsPerChannel;
}

double
StreamEncodeOperation::outputSampleRate(const AudioStreamBasicDescription& decodeFormat) const {
    if (takesDecoderPCM())
        return decodeFormat.mSampleRate;
    const int64_t sampleRate = settings() ? settings()->sampleRate() : 0;
    return sampleRate != 0 ? double(sampleRate) : decodeFormat.mSampleRate;
}

std::optional<std::string> StreamEncodeOperation::encodedByText(const std::string& codec) {
    if (!UserDefaults::standardUserDefaults().boolForKey("writeEncodedByMetadataTag"))
        return std::nullopt;
    return stringWithFormat("%@ via Velvox %@", codec, std::string(kVelvoxShortVersion));
}

std::optional<std::string> StreamEncodeOperation::commentText() {
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    const std::shared_ptr<AudioMetadata> record = metadata();
    if (defaults.boolForKey("writeFormatStringToComments"))
        return expandFormatSpecifiers(defaults.stringForKey("commentsFormatString"), record.get(),
                                      settings().get(), inFilePath(), false);
    if (record)
        return record->trackComment();
    return std::nullopt;
}

// ---- The loop ----

void StreamEncodeOperation::main() {
    std::shared_ptr<EncoderSettings> encoderSettings = settings();
    if (encoderSettings && encoderSettings->encoderAction() == EncoderActionUpdateMetadata) {
        updateMetadataOnly();
        return;
    }
    const std::string formatDescription =
        encoderSettings ? encoderSettings->outputFormatDescription() : std::string();
    setCurrentStatus(stringWithFormat("Preparing To Encode %@", formatDescription));
    if (!determineOutputPath())
        return;
    setCurrentFrame(-1);

    sourceBitsPerChannel_ = 0;
    sourceSampleRate_ = 0;
    try {
        _decoder = makeDecoder();
    } catch (const std::exception& e) {
        ErrorLog::sharedController().logMessage(
            stringWithFormat(decoderExceptionText(), inFilePath(), std::string(e.what())));
        setFailureReason(std::string("Could not decode the input: ") + e.what());
        onMainThread([this] { completeOperation(); });
        return;
    }
    if (!_decoder) {
        ErrorLog::sharedController().logMessage(
            stringWithFormat(decoderFailedText(), inFilePath()));
        setFailureReason("No audio Velvox can decode (damaged, encrypted or unsupported)");
        onMainThread([this] { completeOperation(); });
        return;
    }

    bool encoded = false;
    try {
        encodeFile(formatDescription);
        encoded = true;
    } catch (const std::exception& e) {
        const int errorNumber = errno;
        logFailure(encodeFailedText(), describeFailure(e, errorNumber));
    } catch (...) {
        logFailure(encodeFailedText(), "Unknown Exception");
    }
    // The decoder holds its input open; a finished job has no use for it.
    _decoder.reset();

    if (encoded && success()) {
        try {
            moveToOutputLocation();
        } catch (const std::exception& e) {
            const int errorNumber = errno;
            logFailure(moveFailedText(), describeFailure(e, errorNumber));
        } catch (...) {
            logFailure(moveFailedText(), "Unknown Exception");
        }
    }
    onMainThread([this] { completeOperation(); });
}

void StreamEncodeOperation::logFailure(const std::string& format, const std::string& description) {
    setSuccess(false);
    setFailureReason(description);
    ErrorLog::sharedController().logMessage(
        stringWithFormat(format, inputDisplayName(), description));
    removeTemporaryFilesAfterFailure();
}

// A failed encode leaves nothing behind: the half-written temporary file and
// any decoded copy of the input would otherwise stay in the temporary folder
// for good, since nothing moves or deletes them later.
void StreamEncodeOperation::removeTemporaryFilesAfterFailure() {
    std::error_code ec;
    if (const auto temp = tempFilePath()) {
        std::filesystem::remove(*temp, ec);
        std::filesystem::remove(companionPath(*temp), ec);
    }
    if (const auto decoded = decodeFilePath())
        std::filesystem::remove(*decoded, ec);
}

void StreamEncodeOperation::chooseDecoder() {
    if (_decoder->decodesInRealTime())
        return;
    // A decoder that cannot keep up with the encoder decodes the whole input
    // to a WAVE file first, which is then read instead.
    const std::string path = getTemporaryFilePath("wav");
    setDecodeFilePath(path);
    _decoder->setDelegate(this);
    if (_decoder->decodeToFile(path)) {
        // Should the decoded file not open, the first decoder is still good.
        if (auto decoded = KDDecoder::decoderWithFilename(path))
            _decoder = std::move(decoded);
    }
}

void StreamEncodeOperation::chooseTargetChannels(const AudioStreamBasicDescription& decodeFormat) {
    const int32_t channelMode = settings() ? settings()->channelMode() : 0;
    if (mixesChannels() && channelMode == 1) {
        targetChannels_ = 2;
        targetLayoutTag_ = kAudioChannelLayoutTag_Stereo;
    } else if (mixesChannels() && channelMode == 3) {
        targetChannels_ = 1;
        targetLayoutTag_ = kAudioChannelLayoutTag_Mono;
    } else {
        targetChannels_ = decodeFormat.mChannelsPerFrame;
        targetLayoutTag_ = layoutTagForChannelCount(targetChannels_);
    }
    const uint32_t most = maximumChannels();
    if (mixesChannels() && most != 0 && targetChannels_ > most) {
        targetChannels_ = most >= 2 ? 2 : 1;
        targetLayoutTag_ = layoutTagForChannelCount(targetChannels_);
    }
}

OSStatus StreamEncodeOperation::converterInput(uint32_t& ioNumberDataPackets,
                                               AudioBufferList& ioData) {
    AudioBuffer& buffer = _converter_currentBuffer.mBuffers[0];
    buffer.mNumberChannels = _converter_currentInputDescription.mChannelsPerFrame;
    buffer.mDataByteSize = converterReadBufferSize_;
    const uint32_t frames =
        converterReadBufferSize_ / _converter_currentInputDescription.mBytesPerFrame;
    uint32_t delivered = _decoder->readAudio(&_converter_currentBuffer, frames);
    // To the converter, an empty answer means the input has ended: it drains
    // its resampling filter and stops asking. Some decoders (one compressed
    // packet per fill) return no frames now and then before their end, and
    // if that reached the converter the filter's history would be flushed
    // into the middle of the stream and the samples inside it lost, leaving a
    // click and a short file. So ask again until frames come, the decoder
    // says it has ended, or the user gives up.
    while (delivered == 0 && !_decoder->isEndOfFile() && !isCancelled()) {
        buffer.mDataByteSize = converterReadBufferSize_;
        delivered = _decoder->readAudio(&_converter_currentBuffer, frames);
    }
    ioData.mNumberBuffers = 1;
    ioData.mBuffers.assign(1, buffer);
    ioNumberDataPackets = delivered;
    return noErr;
}

void StreamEncodeOperation::encodeFile(const std::string& formatDescription) {
    chooseDecoder();
    KDDecoder& decoder = *_decoder;
    const AudioStreamBasicDescription inputFormat = decoder.decodeFormat();
    const uint32_t decoderChannels = inputFormat.mChannelsPerFrame;

    sourceBitsPerChannel_ = outputBitsPerChannel(inputFormat);
    sourceSampleRate_ = outputSampleRate(inputFormat);
    chooseTargetChannels(inputFormat);

    uint32_t readSize = readBufferSize(inputFormat.mBitsPerChannel);
    // A sample size the codec cannot take as it stands is still converted
    // when the user asked for one the codec does take.
    if (readSize == 0 && readBufferSize(sourceBitsPerChannel_) != 0 && settings() &&
        settings()->bitDepth() == sourceBitsPerChannel_)
        readSize = kConvertedReadBufferSize;
    if (readSize == 0)
        throw Exception("IllegalInputException",
                        stringWithFormat(unsupportedSampleSizeText(), inputFormat.mBitsPerChannel));
    VLX_ASSERT(inputFormat.mBytesPerFrame > 0, "Invalid Audio Input (0 Bytes Per Frame)");
    std::vector<uint8_t> readBuffer = allocateBuffer(readSize);
    AudioBufferList readList =
        AudioBufferList::single(readBuffer.data(), readSize, decoderChannels);

    int64_t framesExpected = decoder.totalFrames();
    if (inputFormat.mSampleRate != 0)
        framesExpected =
            int64_t(double(decoder.totalFrames()) * (sourceSampleRate_ / inputFormat.mSampleRate));
    setTotalFrames(framesExpected);
    int64_t framesLeft = framesExpected;

    const std::string temporaryPath = getTemporaryFilePath();
    setTempFilePath(temporaryPath);
    ScopeExit releaseTheCodec([this] { releaseCodec(); });
    setUpCodec(temporaryPath);

    AudioStreamBasicDescription outputFormat = inputFormat;
    outputFormat.mBitsPerChannel = sourceBitsPerChannel_;
    outputFormat.mSampleRate = sourceSampleRate_;
    outputFormat.mFramesPerPacket = 1;
    outputFormat.mBytesPerFrame = outputFormat.mBytesPerPacket =
        (sourceBitsPerChannel_ / 8) * decoderChannels;
    adjustOutputFormat(outputFormat);
    const uint32_t sampleBytes = outputFormat.mBitsPerChannel / 8;

    std::unique_ptr<AudioConverter> converter;
    if (outputFormat.mBitsPerChannel != inputFormat.mBitsPerChannel ||
        outputFormat.mSampleRate != inputFormat.mSampleRate ||
        outputFormat.mFormatFlags != inputFormat.mFormatFlags) {
        converter = AudioConverter::create(inputFormat, outputFormat);
        VLX_ASSERT(converter != nullptr, "Could Not Create An Audio Converter.");
        // libsoxr's best recipe stands for the mastering-grade converter.
        converter->setSampleRateConverterQuality(kAudioConverterQuality_Max);
        _converter_currentInputDescription = inputFormat;
        _converter_currentBuffer =
            AudioBufferList::single(readBuffer.data(), readSize, decoderChannels);
        converterReadBufferSize_ = readSize;
    }

    std::unique_ptr<KDChannelMixer> mixer;
    if (mixesChannels()) {
        const AudioChannelLayout* sourceLayout = decoder.channelLayout();
        // A decoder that cannot name its channels gets the usual layout of
        // its channel count when the channel count has to change; otherwise
        // its chunks would reach a codec set up for another count.
        std::unique_ptr<AudioChannelLayout> assumedLayout;
        if ((!sourceLayout || sourceLayout->mChannelLayoutTag == kAudioChannelLayoutTag_Unknown) &&
            decoderChannels != targetChannels_) {
            assumedLayout = createChannelLayoutWithTag(layoutTagForChannelCount(decoderChannels));
            sourceLayout = assumedLayout.get();
        }
        if (sourceLayout && sourceLayout->mChannelLayoutTag != kAudioChannelLayoutTag_Unknown &&
            sourceLayout->mChannelLayoutTag != targetLayoutTag_) {
            AudioStreamBasicDescription mixedFormat = outputFormat;
            mixedFormat.mChannelsPerFrame = targetChannels_;
            mixedFormat.mBytesPerFrame = mixedFormat.mBytesPerPacket =
                sampleBytes * targetChannels_;
            mixer = KDChannelMixer::create(outputFormat, mixedFormat, *sourceLayout,
                                           *createChannelLayoutWithTag(targetLayoutTag_));
            // There is no mix map to a layout without speaker names (seven or
            // more channels) nor from some exotic layouts. With the channel
            // count unchanged the channels go to the codec as they are;
            // otherwise there is no right way to fold them.
            VLX_ASSERT(mixer != nullptr || decoderChannels == targetChannels_,
                       "Could Not Create A Channel Mixer From %u To %u Channels.", decoderChannels,
                       targetChannels_);
        }
    }

    // ReplayGain describes the source's level; a fold to fewer channels or
    // a DSD gain makes it wrong for the output.
    const auto* dsd = dynamic_cast<const DSDDecoder*>(&decoder);
    levelChanged_ = (mixer && targetChannels_ < decoderChannels) || (dsd && dsd->gain() != 1.0f);
    sampleRateChanged_ = outputFormat.mSampleRate != inputFormat.mSampleRate;

    setCurrentStatus(stringWithFormat("Encoding %@", formatDescription));

    const uint32_t framesToRead = readSize / inputFormat.mBytesPerFrame;
    const uint32_t checkInterval = std::max<uint32_t>(1, cancelCheckInterval());
    const AudioConverter::InputDataProc input = [this](uint32_t& packets, AudioBufferList& list) {
        return converterInput(packets, list);
    };
    std::vector<uint8_t> convertedBuffer;
    std::vector<uint8_t> mixedBuffer;
    uint64_t chunkCount = 1;
    for (;;) {
        readList.mBuffers[0].mNumberChannels = decoderChannels;
        readList.mBuffers[0].mDataByteSize = readSize;

        uint32_t frames = 0;
        AudioBufferList convertedList;
        const AudioBufferList* chunk = &readList;
        if (!converter) {
            frames = decoder.readAudio(&readList, framesToRead);
        } else {
            const uint32_t bytes = framesToRead * outputFormat.mBytesPerFrame;
            if (convertedBuffer.size() != bytes)
                convertedBuffer = allocateBuffer(bytes);
            convertedList = AudioBufferList::single(convertedBuffer.data(), bytes, decoderChannels);
            uint32_t packets = bytes / outputFormat.mBytesPerFrame;
            const OSStatus status = converter->fillComplexBuffer(input, packets, convertedList);
            VLX_ASSERT(status == noErr, "AudioConverterFillComplexBuffer");
            frames = convertedList.mBuffers[0].mDataByteSize / outputFormat.mBytesPerFrame;
            chunk = &convertedList;
        }

        if (decoder.isEndOfFile() && frames == 0)
            break;
        if (frames == 0) {
            // The decoder is still filling its buffer: ask again, without
            // counting a chunk.
            if (converter)
                converter->reset();
            // A decoder that never delivers again must not hold a job the
            // user has cancelled.
            if (isCancelled())
                break;
            continue;
        }

        if (mixer) {
            const size_t bytes = size_t(frames) * targetChannels_ * sampleBytes;
            if (mixedBuffer.size() < bytes)
                mixedBuffer = allocateBuffer(bytes);
            AudioBufferList mixedList =
                AudioBufferList::single(mixedBuffer.data(), uint32_t(bytes), targetChannels_);
            const OSStatus status = mixer->mixFrom(chunk, &mixedList, frames);
            VLX_ASSERT(status == noErr, "Channel Mixer Failed: %@", fourCharCodeString(status));
            encodeChunk(mixedList, frames);
        } else {
            encodeChunk(*chunk, frames);
        }

        framesLeft -= frames;
        if (chunkCount % checkInterval == 0) {
            if (isCancelled())
                break;
            setCurrentFrame(totalFrames() - framesLeft);
            setCurrentStatus(progressText(formatDescription));
        }
        ++chunkCount;
    }
    if (!isCancelled())
        checkInputWasWhole(decoder);

    finishCodec();
    setSuccess(true);
    releaseTheCodec.run();
    mixer.reset();
    converter.reset();
    _converter_currentBuffer = AudioBufferList();

    deletePartiallyEncodedFileIfCancelled();
    if (UserDefaults::standardUserDefaults().boolForKey("writeMetadata")) {
        setCurrentStatus(stringWithFormat("%@ - Writing Metadata", inputDisplayName()));
        onTaggingThread([this] {
            writeMetadata();
            reportTagFidelity();
        });
    }
}

std::shared_ptr<AudioMetadata> StreamEncodeOperation::metadataForTags() {
    std::shared_ptr<AudioMetadata> record = metadata();
    if (!record || !levelChanged_)
        return record;
    auto copy = std::make_shared<AudioMetadata>(*record);
    copy->removeReplayGainTags();
    return copy;
}

void StreamEncodeOperation::reportTagFidelity() {
    const std::optional<std::string> temp = tempFilePath();
    const std::shared_ptr<AudioMetadata> record = metadataForTags();
    std::error_code ec;
    if (!temp || !record || !std::filesystem::exists(*temp, ec))
        return;
    const std::vector<std::string> lost = TagFidelity::lostTagsInFile(
        *record, *temp, settings() ? settings()->extension().value_or("") : "");
    if (!lost.empty())
        ErrorLog::sharedController().logMessage(
            TagFidelity::reportLine(inputDisplayName(), formatWord(), lost), ErrorLog::Level::Info);
}

void StreamEncodeOperation::checkInputWasWhole(const KDDecoder& decoder) const {
    // A file that gives no audio, less than it says it holds, or audio its
    // decoder found damaged is not whole: passing it off as converted would
    // cost the user the difference.
    const int64_t delivered = decoder.currentFrame();
    VLX_ASSERT(delivered > 0, "The input holds no audio.");
    std::string cause;
    std::string warning;
    if (decoder.totalFramesIsExact() && delivered < decoder.totalFrames()) {
        cause = stringWithFormat("The input ended after %lld of %lld frames.", (long long)delivered,
                                 (long long)decoder.totalFrames());
        warning = stringWithFormat("Only %lld of %lld Frames Could Be Decoded",
                                   (long long)delivered, (long long)decoder.totalFrames());
    } else if (!decoder.damage().empty()) {
        cause = decoder.damage();
        warning = decoder.damage();
    } else {
        return;
    }
    // The user may choose to keep what could be read of a damaged file; the
    // log still says what is missing.
    if (UserDefaults::standardUserDefaults().boolForKey("allowIncompleteInput")) {
        ErrorLog::sharedController().logMessage(stringWithFormat(
            "Warning: %@ Is Incomplete.  %@; The Output Keeps What Could Be Decoded.", inFilePath(),
            warning));
        return;
    }
    VLX_ASSERT(false, "%@", cause);
}

std::string StreamEncodeOperation::progressText(const std::string& formatDescription) const {
    if (totalFrames() > 0) {
        const float percent = float(currentFrame()) / float(totalFrames()) * 100.0f;
        return stringWithFormat("Encoding %@ - %0.1f%%", formatDescription, double(percent));
    }
    // A stream that does not say how long it is: the time encoded so far.
    const uint64_t seconds =
        sourceSampleRate_ > 0 ? uint64_t(double(currentFrame()) / sourceSampleRate_) : 0;
    const std::string elapsed =
        seconds >= 3600
            ? stringWithFormat("%u:%02u:%02u", unsigned(seconds / 3600),
                               unsigned(seconds / 60 % 60), unsigned(seconds % 60))
            : stringWithFormat("%u:%02u", unsigned(seconds / 60), unsigned(seconds % 60));
    return stringWithFormat("Encoding %@ - %@", formatDescription, elapsed);
}

void StreamEncodeOperation::moveToOutputLocation() {
    setCurrentStatus(stringWithFormat("%@ - Moving To Output Location", inputDisplayName()));
    moveEncodedFileToOutputLocation();
    didMoveEncodedFile();
    if (UserDefaults::standardUserDefaults().boolForKey("saveAlbumArtworkToFile"))
        saveAlbumArtworkToFile();
    if (UserDefaults::standardUserDefaults().boolForKey("addToiTunesLibrary"))
        addToiTunes();
}

} // namespace velvox
