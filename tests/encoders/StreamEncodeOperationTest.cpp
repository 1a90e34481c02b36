// The shared encode loop, watched through an encoder that only records what
// reaches it: chunking, polling of empty reads, conversion, channel handling,
// cancellation, failures and the steps after encoding.

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>

#include <gtest/gtest.h>

#include "core/KDDecoder.h"
#include "core/UtilityFunctions.h"
#include "encoders/EncoderTestHarness.h"
#include "encoders/StreamEncodeOperation.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "support/TestSupport.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

// PCM from memory. Each fill adds up to framesPerFill frames; with gaps every
// other fill adds nothing, the way a decoder that decodes one compressed
// packet per fill sometimes has nothing to show yet.
class ScriptedDecoder : public KDDecoder {
public:
    ScriptedDecoder(std::vector<int32_t> samples, uint32_t channels, uint32_t bits, double rate)
        : samples_(std::move(samples)), channels_(channels), bits_(bits), rate_(rate) {}

    const char* className() const override { return "ScriptedDecoder"; }
    bool initWithFilename(const std::string& path) override {
        KDDecoder::initWithFilename(path);
        decodeFormat_.mSampleRate = rate_;
        decodeFormat_.mFormatID = kAudioFormatLinearPCM;
        decodeFormat_.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
        decodeFormat_.mBitsPerChannel = bits_;
        decodeFormat_.mChannelsPerFrame = channels_;
        decodeFormat_.mBytesPerFrame = decodeFormat_.mBytesPerPacket = bits_ / 8 * channels_;
        decodeFormat_.mFramesPerPacket = 1;
        bytes_ = test::packLittleEndian(samples_, bits_);
        pcmBuffer().resize(4u << 20);
        if (layout_)
            setChannelLayout(std::make_unique<AudioChannelLayout>(*layout_));
        return true;
    }
    int64_t totalFrames() const override { return int64_t(samples_.size() / channels_); }
    bool decodesInRealTime() const override { return realTime; }
    bool decodeToFile(const std::string& path) override {
        if (decodeToFileLog) {
            ++decodeToFileLog->calls;
            decodeToFileLog->withDelegate = delegate() != nullptr;
        }
        if (!canDecodeToFile)
            return false;
        test::writeWav(path, samples_, channels_, uint32_t(rate_), bits_);
        return true;
    }
    void fillPCMBuffer() override {
        ++fills;
        if (gaps && fills % 2 == 1)
            return;
        const uint32_t bpf = decodeFormat_.mBytesPerFrame;
        size_t n = std::min<size_t>(size_t(framesPerFill) * bpf, bytes_.size() - offset_);
        n = std::min<size_t>(n, pcmBuffer().freeSpaceAvailable() / bpf * bpf);
        if (n > 0)
            pcmBuffer().putData(bytes_.data() + offset_, uint32_t(n));
        offset_ += n;
        if (offset_ == bytes_.size())
            setEndOfFile(true);
    }
    // Reported once the decoder has been initialised.
    void setLayout(std::unique_ptr<AudioChannelLayout> layout) { layout_ = std::move(layout); }

    bool gaps = false;
    bool realTime = true;
    bool canDecodeToFile = true;
    uint32_t framesPerFill = 1000;
    int fills = 0;
    // Outlives the decoder, which the operation lets go of when it is done.
    struct DecodeToFileLog {
        int calls = 0;
        bool withDelegate = false;
    }* decodeToFileLog = nullptr;

private:
    std::vector<int32_t> samples_;
    uint32_t channels_, bits_;
    double rate_;
    std::vector<uint8_t> bytes_;
    size_t offset_ = 0;
    std::unique_ptr<AudioChannelLayout> layout_;
};

// Writes every chunk as it comes to the temporary file and keeps a copy.
class CaptureOperation : public StreamEncodeOperation {
public:
    std::function<std::unique_ptr<KDDecoder>()> decoderSource;
    std::function<void(CaptureOperation&, size_t chunk)> onChunk;

    std::vector<uint8_t> pcm;
    std::vector<uint32_t> chunkFrames;
    uint32_t chunkChannels = 0;
    std::vector<std::string> statusAtChunk;
    int setUps = 0, finishes = 0, releases = 0;
    bool taggedOnTaggingThread = false;
    std::string statusWhileTagging;

    void writeMetadata() override {
        taggedOnTaggingThread = delegate() && delegate()->taggingThread().isCurrentThread();
        statusWhileTagging = currentStatus();
    }

protected:
    std::string formatWord() const override { return "Capture"; }
    std::string unsupportedSampleSizeText() const override {
        return "Capture does not take %u bit input.";
    }
    std::unique_ptr<KDDecoder> makeDecoder() override {
        return decoderSource ? decoderSource() : StreamEncodeOperation::makeDecoder();
    }
    void setUpCodec(const std::string& path) override {
        ++setUps;
        out_.open(path, std::ios::binary | std::ios::trunc);
    }
    void encodeChunk(const AudioBufferList& list, uint32_t frames) override {
        const AudioBuffer& b = list.mBuffers.at(0);
        const size_t bytes = size_t(frames) * b.mNumberChannels * (sourceBitsPerChannel() / 8);
        EXPECT_GE(b.mDataByteSize, bytes);
        const auto* p = static_cast<const uint8_t*>(b.mData);
        pcm.insert(pcm.end(), p, p + bytes);
        out_.write(reinterpret_cast<const char*>(p), std::streamsize(bytes));
        chunkFrames.push_back(frames);
        chunkChannels = b.mNumberChannels;
        statusAtChunk.push_back(currentStatus());
        if (onChunk)
            onChunk(*this, chunkFrames.size());
    }
    void finishCodec() override {
        ++finishes;
        out_.close();
    }
    void releaseCodec() noexcept override {
        ++releases;
        if (out_.is_open())
            out_.close();
    }

private:
    std::ofstream out_;
};

class StreamEncodeOperationTest : public ::testing::Test {
protected:
    void SetUp() override {
        prefs.set("outputSameAsSource", false);
        prefs.set("destinationDirectory", dir.file("out"));
        prefs.set("writeMetadata", true);
        prefs.set("saveAlbumArtworkToFile", false);
        settings = std::make_shared<EncoderSettings>();
        settings->setEncoderType(EncoderTypeFLAC);
        settings->setExtension("raw");
    }

    // An operation whose decoder is made from `make` (each call a new one).
    std::unique_ptr<CaptureOperation>
    operation(std::function<std::unique_ptr<ScriptedDecoder>()> make) {
        auto op = std::make_unique<CaptureOperation>();
        op->initWithFilePath(inPath(), inPath());
        op->setSettings(settings);
        op->setDelegate(&batch);
        op->setMetadata(std::make_shared<AudioMetadata>());
        op->decoderSource = [this, make]() -> std::unique_ptr<KDDecoder> {
            auto decoder = make();
            if (decoder)
                decoder->initWithFilename(inPath());
            return decoder;
        };
        return op;
    }
    std::string inPath() const { return dir.file("in.wav"); }
    std::string outPath() const { return dir.file("out/in.raw"); }

    test::TempDir dir;
    test::Preferences prefs;
    test::Batch batch;
    std::shared_ptr<EncoderSettings> settings;
};

std::vector<uint8_t> bytesOf(const std::vector<int32_t>& samples, uint32_t bits) {
    return test::packLittleEndian(samples, bits);
}

} // namespace

TEST_F(StreamEncodeOperationTest, ChunksReachTheCodecUnchangedAndTheFileIsMovedIntoPlace) {
    const auto signal = test::makeSignal(20000, 2, 16);
    auto op = operation([&] { return std::make_unique<ScriptedDecoder>(signal, 2, 16, 44100); });
    test::LogWatch log;
    test::runToEnd(*op);

    EXPECT_TRUE(op->success()) << testing::PrintToString(log.lines());
    EXPECT_TRUE(test::sameBytes(op->pcm, bytesOf(signal, 16)));
    EXPECT_TRUE(test::sameBytes(test::readFile(outPath()), bytesOf(signal, 16)));
    EXPECT_EQ(batch.created, std::set<std::string>{outPath()});
    EXPECT_FALSE(fs::exists(*op->tempFilePath()));
    EXPECT_EQ(op->chunkChannels, 2u);
    EXPECT_EQ(op->setUps, 1);
    EXPECT_EQ(op->finishes, 1);
    EXPECT_GE(op->releases, 1);
    EXPECT_EQ(op->totalFrames(), 20000);

    // Progress is published every eighth chunk, in single precision.
    ASSERT_EQ(op->chunkFrames.size(), 20u);
    EXPECT_EQ(op->statusAtChunk[0], "Encoding FLAC");
    EXPECT_EQ(op->statusAtChunk[8],
              stringWithFormat("Encoding FLAC - %0.1f%%", double(8000.0f / 20000.0f * 100.0f)));
    EXPECT_EQ(op->statusAtChunk[16], "Encoding FLAC - 80.0%");
    EXPECT_EQ(op->currentFrame(), 16000);

    // Tags are written on the tagging thread, then the file is moved.
    EXPECT_TRUE(op->taggedOnTaggingThread);
    EXPECT_EQ(op->statusWhileTagging, "in.wav - Writing Metadata");
    EXPECT_EQ(op->currentStatus(), "in.wav - Moving To Output Location");
}

TEST_F(StreamEncodeOperationTest, EmptyReadsDoNotEndTheInputOfTheResampler) {
    // The same input with and without empty reads must resample to the same
    // output: an empty read taken as the end of input would flush the
    // resampler in mid-stream.
    settings->setSampleRate(48000);
    const auto signal = test::makeSignal(44100, 2, 16);
    std::vector<uint8_t> outputs[2];
    for (int gaps = 0; gaps < 2; ++gaps) {
        auto op = operation([&] {
            auto d = std::make_unique<ScriptedDecoder>(signal, 2, 16, 44100);
            d->gaps = gaps == 1;
            return d;
        });
        test::runToEnd(*op);
        ASSERT_TRUE(op->success());
        EXPECT_EQ(op->totalFrames(), 48000);
        EXPECT_EQ(op->sourceSampleRate(), 48000.0);
        outputs[gaps] = op->pcm;
        fs::remove(outPath());
    }
    EXPECT_NEAR(double(outputs[0].size()) / 4.0, 48000.0, 2.0);
    EXPECT_TRUE(test::sameBytes(outputs[0], outputs[1]));
}

TEST_F(StreamEncodeOperationTest, CancellingStopsWithinEightChunksAndLeavesNothing) {
    const auto signal = test::makeSignal(100000, 2, 16);
    auto op = operation([&] { return std::make_unique<ScriptedDecoder>(signal, 2, 16, 44100); });
    op->onChunk = [](CaptureOperation& self, size_t chunk) {
        if (chunk == 3)
            self.cancel();
    };
    test::runToEnd(*op);
    EXPECT_EQ(op->chunkFrames.size(), 8u);
    EXPECT_EQ(op->finishes, 1); // the codec is still finished
    EXPECT_TRUE(op->success()); // a cancelled job is not a failed one
    EXPECT_FALSE(fs::exists(outPath()));
    EXPECT_FALSE(fs::exists(*op->tempFilePath()));
    EXPECT_TRUE(batch.created.empty());
}

TEST_F(StreamEncodeOperationTest, AFailingCodecIsReleasedAndItsFileRemoved) {
    const auto signal = test::makeSignal(20000, 2, 16);
    auto op = operation([&] { return std::make_unique<ScriptedDecoder>(signal, 2, 16, 44100); });
    op->onChunk = [](CaptureOperation&, size_t chunk) {
        if (chunk == 2)
            throw Exception("IllegalInputException", "Codec Said No");
    };
    test::LogWatch log;
    test::runToEnd(*op);
    EXPECT_FALSE(op->success());
    EXPECT_TRUE(log.contains(
        "Capture Encode Operation Failed To Encode File: in.wav.  Error:Codec Said No"));
    EXPECT_EQ(op->finishes, 0);
    EXPECT_EQ(op->releases, 1);
    ASSERT_TRUE(op->tempFilePath());
    EXPECT_FALSE(fs::exists(*op->tempFilePath()));
    EXPECT_FALSE(fs::exists(outPath()));
    EXPECT_FALSE(op->taggedOnTaggingThread);
}

TEST_F(StreamEncodeOperationTest, DecoderThatIsNotRealTimeIsDecodedToAFileFirst) {
    const auto signal = test::makeSignal(30000, 2, 16);
    for (bool decodes : {true, false}) {
        SCOPED_TRACE(decodes ? "decoded to a file" : "decoding to a file failed");
        ScriptedDecoder::DecodeToFileLog decodeLog;
        auto op = operation([&] {
            auto d = std::make_unique<ScriptedDecoder>(signal, 2, 16, 44100);
            d->realTime = false;
            d->canDecodeToFile = decodes;
            d->decodeToFileLog = &decodeLog;
            return d;
        });
        test::runToEnd(*op);
        ASSERT_TRUE(op->success());
        EXPECT_EQ(decodeLog.calls, 1);
        EXPECT_TRUE(decodeLog.withDelegate);
        // Either way the same audio arrives: from the WAVE file through the
        // factory, or from the first decoder.
        EXPECT_TRUE(test::sameBytes(op->pcm, bytesOf(signal, 16)));
        ASSERT_TRUE(op->decodeFilePath());
        EXPECT_EQ(fs::path(*op->decodeFilePath()).extension(), ".wav");
        EXPECT_FALSE(fs::exists(*op->decodeFilePath()));
        fs::remove(outPath());
    }
}

TEST_F(StreamEncodeOperationTest, ChannelsWithoutAMixMapFailWhenTheCountMustChange) {
    // The same speaker named three times cannot be mapped to anything.
    const auto three = test::makeSignal(4000, 3, 16);
    auto make = [&] {
        auto d = std::make_unique<ScriptedDecoder>(three, 3, 16, 44100);
        d->setLayout(createChannelLayoutWithLabels(
            {kAudioChannelLabel_Left, kAudioChannelLabel_Left, kAudioChannelLabel_Left}));
        return d;
    };
    {
        auto op = operation(make);
        test::runToEnd(*op);
        ASSERT_TRUE(op->success());
        EXPECT_TRUE(test::sameBytes(op->pcm, bytesOf(three, 16)));
    }
    settings->setChannelMode(1);
    auto op = operation(make);
    test::LogWatch log;
    test::runToEnd(*op);
    EXPECT_FALSE(op->success());
    EXPECT_TRUE(log.contains("Capture Encode Operation Failed To Encode File: in.wav.  "
                             "Error:Could Not Create A Channel Mixer From 3 To 2 Channels."));
    EXPECT_FALSE(fs::exists(*op->tempFilePath()));
}
