#pragma once
// What the encoder tests share: a fixture that runs real operations with
// their settings against a private output folder, sources whose channels can
// be told apart, PCM read back from the reference decoders and compared by
// bytes or by signal-to-noise, a tagged source with a picture, and mutagen
// as the independent tag reader.

#include <algorithm>
#include <chrono>
#include <initializer_list>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "jobs/EncodeOperation.h"
#include "jobs/EncoderSettings.h"
#include "metadata/AudioMetadata.h"
#include "platform/ErrorLog.h"
#include "platform/MainRunLoop.h"
#include "support/JobsTestSupport.h"
#include "support/TestSupport.h"

namespace velvox::test {

// A missing reference tool fails the test: a skipped oracle proves nothing.
void requireTools(std::initializer_list<const char*> tools);

// Byte blocks compared without printing them whole.
::testing::AssertionResult sameBytes(const std::vector<uint8_t>& actual,
                                     const std::vector<uint8_t>& expected);

// Starts the operation and runs the main loop here until it has finished.
inline void runToEnd(EncodeOperation& operation) {
    using namespace std::chrono_literals;
    operation.start();
    ASSERT_TRUE(MainRunLoop::shared().runUntil([&] { return operation.isFinished(); }, 120s))
        << "the operation did not finish";
}

// The error-log lines written since it was made.
class LogWatch {
public:
    LogWatch() : start_(ErrorLog::sharedController().count()) {}
    std::vector<std::string> lines() const;
    bool contains(const std::string& line) const;

private:
    size_t start_;
};

// Half-scale sines, channel c at baseHz * (c + 1) plus a slow second partial,
// so that a swapped channel or a shifted signal shows. The LFE slot of a 5.1
// source gets a bass tone, since codecs band-limit that channel.
std::vector<int32_t> tones(uint32_t frames, uint32_t channels, uint32_t rate, uint32_t bits,
                           double baseHz = 220.0);
// Samples of `bits` bits scaled to [-1, 1).
std::vector<double> normalised(const std::vector<int32_t>& samples, uint32_t bits);
// A raw 16-bit little-endian decoder output, scaled to [-1, 1).
std::vector<double> rawS16(const std::string& path);
// The file decoded by ffmpeg to 16-bit PCM in its own channel count.
std::vector<double> decodeWithFFmpeg(const std::string& path, const std::string& scratch);

// Signal-to-noise ratio in dB of one channel of `decoded` against `source`
// (interleaved), the decoded one shifted by `lag` frames, `skip` frames left
// out at each end.
double snrDb(const std::vector<double>& source, const std::vector<double>& decoded,
             uint32_t channels, uint32_t channel, long lag = 0, long skip = 2048);
// The shift (in frames, within +-maxLag) at which decoded best matches source.
long bestLag(const std::vector<double>& source, const std::vector<double>& decoded,
             uint32_t channels, long maxLag = 64);

// A checking tool's report on a file (ogginfo, opusinfo, "mpg123 -t"): it
// must exit cleanly and say neither "warning" nor "error", but for the one
// phrase `tolerated`.
std::string toolReport(const std::string& command, const std::string& path,
                       const std::string& tolerated = "");

// Python code run with the system interpreter and mutagen; its output.
std::string mutagen(const std::string& script, const std::string& path);

// A record with the common fields and a 9x7 PNG front cover.
std::shared_ptr<AudioMetadata> taggedRecord(const std::string& title);
// A FLAC source tagged by the reference tools (TITLE=Grüße, ARTIST=東京
// Ensemble, ALBUM=Proof, TRACKNUMBER=7, DATE=2024) with a PNG front cover;
// returns the cover's bytes.
std::vector<uint8_t> makeTaggedFLAC(const TempDir& dir, const std::string& flacPath,
                                    uint32_t rate = 44100, uint32_t channels = 2);

// The shape of one WAVE source.
struct SourceCase {
    const char* name;
    uint32_t channels, bits, rate, mask;
};

// Real operations against a private output folder, writing tags.
class EncoderTestBase : public ::testing::Test {
protected:
    void SetUp() override;

    // A WAVE file in the test's folder.
    std::string wav(const std::string& name, const std::vector<int32_t>& samples, uint32_t channels,
                    uint32_t rate, uint32_t bits, uint32_t mask = 0) const;
    // A WAVE source of the case's shape (makeSignal noise), and its samples.
    std::string makeSource(const SourceCase& c, std::vector<int32_t>& samples,
                           uint32_t frames = 0) const;
    bool outputFolderIsEmpty() const;

    TempDir dir;
    Preferences prefs;
    Batch batch;
    std::shared_ptr<EncoderSettings> settings;
};

template <typename Operation>
class EncoderTest : public EncoderTestBase {
protected:
    // Encodes `in` (tags from `metadata`, or from the source when it is
    // null) and returns the operation once it has finished.
    std::unique_ptr<Operation>
    encode(const std::string& in,
           std::shared_ptr<AudioMetadata> metadata = std::make_shared<AudioMetadata>(),
           std::shared_ptr<EncoderSettings> with = nullptr) {
        auto op = std::make_unique<Operation>();
        op->initWithFilePath(in, in);
        op->setSettings(with ? with : settings);
        op->setDelegate(&batch);
        if (metadata)
            op->setMetadata(std::move(metadata));
        runToEnd(*op);
        return op;
    }

    // Rewrites the tags of `path` in place, as a tags-only batch does.
    std::unique_ptr<Operation> retag(const std::string& path,
                                     std::shared_ptr<AudioMetadata> metadata) {
        std::shared_ptr<EncoderSettings> update = settings->copy();
        update->setEncoderAction(EncoderActionUpdateMetadata);
        return encode(path, std::move(metadata), update);
    }
};

} // namespace velvox::test
