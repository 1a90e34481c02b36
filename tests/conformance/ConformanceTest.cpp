// Every encoder of the format registry over every sample size, layout and
// rate the pipeline carries, checked with the row's own independent decoder:
// lossless outputs bit for bit (or within one step of the sample size asked
// for), lossy ones by length and level; tags and the picture reopened by
// mutagen; a cancel half way leaves nothing. A codec joins by its row.

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <sndfile.h>

#include "conformance/ConformanceStandIns.h"
#include "core/FormatRegistry.h"
#include "encoders/EncoderTestHarness.h"
#include "jobs/EncoderDescriptor.h"
#include "jobs/EncoderSettings.h"
#include "metadata/AlbumArtwork.h"
#include "metadata/AudioMetadata.h"
#include "metadata/MetadataFixtures.h"
#include "platform/StringFormat.h"
#include "support/JobsTestSupport.h"
#include "support/TestSupport.h"

using namespace velvox;
namespace fs = std::filesystem;

namespace {

// ---- PCM files through libsndfile (independent of Velvox's readers) ----

struct PCM {
    uint32_t channels = 0;
    uint32_t rate = 0;
    // Left-justified 32-bit samples, interleaved.
    std::vector<int32_t> samples;
    size_t frames() const { return channels ? samples.size() / channels : 0; }
};

struct SndfileCloser {
    void operator()(SNDFILE* f) const { sf_close(f); }
};

PCM readPCM(const std::string& path) {
    PCM pcm;
    SF_INFO info{};
    std::unique_ptr<SNDFILE, SndfileCloser> file(sf_open(path.c_str(), SFM_READ, &info));
    if (!file)
        return pcm;
    pcm.channels = uint32_t(info.channels);
    pcm.rate = uint32_t(info.samplerate);
    const size_t count = size_t(info.frames) * size_t(info.channels);
    const int subtype = info.format & SF_FORMAT_SUBMASK;
    if (subtype == SF_FORMAT_FLOAT || subtype == SF_FORMAT_DOUBLE) {
        // Full scale is 2^31, as the decoders deliver float sources.
        std::vector<double> values(count);
        values.resize(size_t(sf_readf_double(file.get(), values.data(), info.frames)) *
                      size_t(info.channels));
        for (double v : values)
            pcm.samples.push_back(
                int32_t(std::clamp(std::nearbyint(v * 2147483648.0), -2147483648.0, 2147483647.0)));
        return pcm;
    }
    pcm.samples.resize(count);
    pcm.samples.resize(size_t(sf_readf_int(file.get(), pcm.samples.data(), info.frames)) *
                       size_t(info.channels));
    return pcm;
}

struct Source {
    const char* name;
    uint32_t bits; // 32 with isFloat: 32-bit float
    bool isFloat;
    uint32_t channels;
    uint32_t rate;
    uint32_t frames;
};

int sndfileSubtype(const Source& s) {
    if (s.isFloat)
        return SF_FORMAT_FLOAT;
    switch (s.bits) {
    case 8:
        return SF_FORMAT_PCM_U8;
    case 16:
        return SF_FORMAT_PCM_16;
    case 24:
        return SF_FORMAT_PCM_24;
    default:
        return SF_FORMAT_PCM_32;
    }
}

// Per channel a sine of its own frequency at half scale, so that swapped or
// dropped channels show.
std::vector<double> tones(const Source& s) {
    std::vector<double> out(size_t(s.frames) * s.channels);
    for (uint32_t i = 0; i < s.frames; ++i)
        for (uint32_t c = 0; c < s.channels; ++c)
            out[size_t(i) * s.channels + c] =
                0.5 * std::sin(2 * M_PI * 220.0 * (c + 1) * i / s.rate + c);
    return out;
}

void writeSource(const std::string& path, const Source& s) {
    SF_INFO info{};
    info.channels = int(s.channels);
    info.samplerate = int(s.rate);
    info.format = SF_FORMAT_WAV | sndfileSubtype(s);
    std::unique_ptr<SNDFILE, SndfileCloser> file(sf_open(path.c_str(), SFM_WRITE, &info));
    ASSERT_TRUE(file) << sf_strerror(nullptr);
    if (s.channels == 6 || s.channels == 8) {
        std::vector<int> map = {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_CENTER,
                                SF_CHANNEL_MAP_LFE};
        if (s.channels == 8)
            map.insert(map.end(), {SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT,
                                   SF_CHANNEL_MAP_SIDE_LEFT, SF_CHANNEL_MAP_SIDE_RIGHT});
        else
            map.insert(map.end(), {SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT});
        sf_command(file.get(), SFC_SET_CHANNEL_MAP_INFO, map.data(), int(map.size() * sizeof(int)));
    }
    const std::vector<double> samples = tones(s);
    if (!samples.empty())
        ASSERT_EQ(sf_writef_double(file.get(), samples.data(), s.frames), sf_count_t(s.frames));
}

// ---- The suite ----

// One output format: an encoder alone or one of its presets.
struct Target {
    const EncoderDescriptor* encoder;
    const FormatPreset* preset;
    std::string name() const { return preset ? preset->name : encoder->formatName; }
    bool lossless() const { return encoder->reference.lossless && (!preset || preset->lossless); }
    const std::vector<const char*>& tagKinds() const {
        return preset && preset->tagKinds ? *preset->tagKinds : encoder->tagKinds;
    }
    // Whether one of its tag kinds has a place for a picture.
    bool holdsPictures() const {
        for (const char* kind : tagKinds())
            if (std::string(kind) != "CAF info" && std::string(kind) != "RIFF INFO" &&
                std::string(kind) != "ID3v1")
                return true;
        return false;
    }
    uint32_t maximumChannels() const {
        return preset && preset->maximumChannels ? preset->maximumChannels
                                                 : encoder->samples.maximumChannels;
    }
    const std::vector<uint32_t>& bitDepths() const {
        return preset && !preset->bitDepths.empty() ? preset->bitDepths
                                                    : encoder->samples.bitDepths;
    }
};

// Every format the registry writes: each encoder's presets where it has
// them, else the encoder's own FORMAT.
std::vector<Target> targets() {
    std::vector<Target> out;
    for (const EncoderDescriptor* encoder : EncoderDescriptor::all()) {
        if (encoder->presets.empty())
            out.push_back({encoder, nullptr});
        for (const FormatPreset& preset : encoder->presets)
            out.push_back({encoder, &preset});
    }
    return out;
}

class Conformance : public ::testing::Test {
protected:
    void SetUp() override {
        FormatRegistry::addEntry(&test::kStandInFormat);
        FormatRegistry::addEntry(&test::kRawStreamFormat);
        prefs.set("outputSameAsSource", false);
        prefs.set("destinationDirectory", dir.file("out"));
        prefs.set("writeMetadata", true);
        prefs.set("writeEncodedByMetadataTag", false);
        prefs.set("writeFormatStringToComments", false);
        prefs.set("saveAlbumArtworkToFile", false);
        prefs.set("overwriteOutputFiles", false);
        prefs.set("useCustomNamingScheme", false);
        prefs.set("preserveInputFileDirectoryStructure", false);
    }
    void TearDown() override {
        FormatRegistry::removeEntry(&test::kStandInFormat);
        FormatRegistry::removeEntry(&test::kRawStreamFormat);
    }

    struct Outcome {
        bool success = false;
        std::string output; // empty when nothing was left at an output path
    };

    Outcome encode(const Target& target, const std::string& in,
                   const nlohmann::json& overrides = nlohmann::json::object(),
                   std::shared_ptr<AudioMetadata> metadata = std::make_shared<AudioMetadata>()) {
        std::shared_ptr<EncoderSettings> settings =
            target.encoder->makeSettings(target.preset, overrides);
        fs::remove_all(dir.file("out"));
        std::unique_ptr<EncodeOperation> op = target.encoder->make();
        op->initWithFilePath(in, in);
        op->setSettings(settings);
        op->setDelegate(&batch);
        op->setMetadata(std::move(metadata));
        test::runToEnd(*op);
        Outcome outcome{op->success(), ""};
        std::error_code ec;
        for (const auto& entry : fs::recursive_directory_iterator(dir.file("out"), ec))
            if (entry.is_regular_file() && entry.path().filename().string()[0] != '.')
                outcome.output = entry.path().string();
        return outcome;
    }

    // The output as the row's reference tool decodes it.
    PCM referenceDecode(const Target& target, const std::string& path) {
        const EncoderDescriptor& encoder = *target.encoder;
        const std::string wav = dir.file("reference.wav");
        fs::remove(wav);
        std::string command;
        for (std::string arg : encoder.reference.argv) {
            if (arg == "{in}")
                arg = path;
            else if (arg == "{out}")
                arg = wav;
            command += test::shellQuote(arg) + " ";
        }
        const auto result = test::runCommand(command + ">/dev/null");
        EXPECT_EQ(result.exitCode, 0) << command;
        return readPCM(wav);
    }

    // Whether the encoder takes the source's samples without a conversion.
    // Float sources reach the encoders as 32-bit integers.
    static bool takes(const Target& target, const Source& s) {
        const auto& depths = target.bitDepths();
        return std::find(depths.begin(), depths.end(), s.bits) != depths.end();
    }

    void checkLossless(const PCM& source, const PCM& decoded, uint32_t outputBits) {
        ASSERT_EQ(decoded.channels, source.channels);
        ASSERT_EQ(decoded.frames(), source.frames());
        // One step of the output's sample size, in left-justified units.
        const int64_t step = outputBits >= 32 ? 1 : int64_t(1) << (32 - outputBits);
        size_t worst = 0;
        int64_t worstDiff = 0;
        for (size_t i = 0; i < source.samples.size(); ++i) {
            const int64_t diff = std::llabs(int64_t(decoded.samples[i]) - source.samples[i]);
            if (diff > worstDiff) {
                worstDiff = diff;
                worst = i;
            }
        }
        // Float sources pass one rounding to 32 bits on the way.
        EXPECT_LE(worstDiff, outputBits < 32 ? step : 1)
            << "sample " << worst << " of " << source.samples.size();
    }

    void checkLossy(const PCM& source, const PCM& decoded) {
        ASSERT_GT(decoded.channels, 0u);
        const double expected = double(source.frames()) * decoded.rate / source.rate;
        // Within one codec frame (at most 2048 samples in the formats here).
        EXPECT_NEAR(double(decoded.frames()), expected, 2048.0);
        if (decoded.channels != source.channels || source.frames() < 4096)
            return;
        // Close in content: every channel's level within 3 dB, but for the
        // LFE slot of 5.1 and 7.1, which the codecs band-limit.
        for (uint32_t c = 0; c < source.channels; ++c) {
            if (source.channels >= 6 && c == 3)
                continue;
            double a = 0, b = 0;
            for (size_t i = c; i < source.samples.size(); i += source.channels)
                a += std::pow(double(source.samples[i]), 2);
            for (size_t i = c; i < decoded.samples.size(); i += decoded.channels)
                b += std::pow(double(decoded.samples[i]), 2);
            const double ratio = 10 * std::log10((b / decoded.frames()) / (a / source.frames()));
            EXPECT_NEAR(ratio, 0.0, 3.0) << "channel " << c;
        }
    }

    // Encodes one source and checks the result. A source the encoder does
    // not take as it stands is either refused (and then converted when the
    // schema lets the user ask for a size) or converted by the encoder.
    void run(const Target& target, const Source& s) {
        const EncoderDescriptor& encoder = *target.encoder;
        SCOPED_TRACE(target.name() + " <- " + s.name);
        const std::string in = dir.file(std::string(s.name) + ".wav");
        writeSource(in, s);
        const PCM source = readPCM(in);
        test::PrivateTemporaryFolder tmp;

        nlohmann::json overrides = nlohmann::json::object();
        uint32_t outputBits = s.bits;
        if (!takes(target, s) && !target.bitDepths().empty()) {
            outputBits = target.bitDepths().back();
            const Outcome first = encode(target, in);
            if (!first.success) {
                EXPECT_EQ(first.output, "") << "a refused encode left a file behind";
                if (!encoder.settingNamed("bits"))
                    return;
                overrides["bitDepth"] = outputBits;
            }
        }
        const Outcome done = encode(target, in, overrides);
        const bool tooManyChannels = s.channels > target.maximumChannels();
        if (tooManyChannels && !done.success) {
            EXPECT_EQ(done.output, "");
            EXPECT_TRUE(tmp.isEmpty());
            return;
        }
        ASSERT_TRUE(done.success);
        ASSERT_NE(done.output, "");
        EXPECT_TRUE(tmp.isEmpty()) << "temporary files left behind";
        // libsndfile cannot open a Sound Designer II file of one frame,
        // not even one it wrote itself.
        if (target.name() == "sd2" && s.frames == 1)
            return;
        const PCM decoded = referenceDecode(target, done.output);
        if (target.lossless() && !tooManyChannels)
            checkLossless(source, decoded, std::min(outputBits, s.bits));
        else
            checkLossy(source, decoded);
    }

    test::Preferences prefs;
    test::TempDir dir;
    test::Batch batch;
};

// The tags ffprobe reads (it reads every container written here; mutagen
// has no CAF), keys in lower case. Containers keep tags on the file, Ogg on
// its stream.
nlohmann::json probeTags(const std::string& path) {
    const auto r = test::runCommand(
        "ffprobe -v error -show_entries format_tags=title,artist:stream_tags=title,artist:"
        "stream=codec_type:stream_disposition=attached_pic -of json " +
        test::shellQuote(path));
    EXPECT_EQ(r.exitCode, 0);
    const nlohmann::json probe = nlohmann::json::parse(r.output, nullptr, false);
    nlohmann::json tags = nlohmann::json::object();
    if (!probe.is_object())
        return tags;
    std::vector<nlohmann::json> holders = {probe.value("format", nlohmann::json::object())};
    for (const auto& stream : probe.value("streams", nlohmann::json::array()))
        holders.push_back(stream);
    for (const nlohmann::json& holder : holders) {
        const nlohmann::json found = holder.value("tags", nlohmann::json::object());
        for (const auto& [key, value] : found.items())
            tags[lowercaseASCII(key)] = value;
    }
    return tags;
}

// Pictures show to ffprobe as attached-picture streams; Ogg streams keep
// theirs in the comment, where mutagen reads them.
int pictureCount(const std::string& path) {
    int pictures = 0;
    const auto r = test::runCommand("ffprobe -v error -show_entries "
                                    "stream_disposition=attached_pic -of json " +
                                    test::shellQuote(path));
    const nlohmann::json probe = nlohmann::json::parse(r.output, nullptr, false);
    if (probe.is_object())
        for (const auto& stream : probe.value("streams", nlohmann::json::array()))
            pictures +=
                stream.value("disposition", nlohmann::json::object()).value("attached_pic", 0);
    if (pictures > 0)
        return pictures;
    const auto m = test::runCommand(
        "/usr/bin/python3 -c 'import sys, mutagen; f = mutagen.File(sys.argv[1]); "
        "print(len(getattr(f, \"pictures\", [])) + "
        "len((f.tags or {}).get(\"metadata_block_picture\", [])) + "
        "sum(1 for k in (f.tags or {}).keys() if k.lower().startswith(\"cover art\")))' " +
        test::shellQuote(path));
    return std::atoi(m.output.c_str());
}

const std::vector<Source>& sources() {
    static const std::vector<Source> list = {
        {"u8-stereo-44k", 8, false, 2, 44100, 22050},
        {"s16-stereo-44k", 16, false, 2, 44100, 22050},
        {"s24-stereo-48k", 24, false, 2, 48000, 24000},
        {"s32-stereo-48k", 32, false, 2, 48000, 24000},
        {"f32-stereo-44k", 32, true, 2, 44100, 22050},
        {"s16-mono-8k", 16, false, 1, 8000, 8000},
        {"s24-5.1-96k", 24, false, 6, 96000, 48000},
        {"s16-7.1-48k", 16, false, 8, 48000, 24000},
        {"s24-stereo-192k", 24, false, 2, 192000, 96000},
        {"s16-one-frame", 16, false, 2, 44100, 1},
    };
    return list;
}

} // namespace

TEST_F(Conformance, EverySampleSizeLayoutAndRate) {
    const std::vector<Target> all = targets();
    ASSERT_GE(all.size(), 2u); // FLAC and the stand-in at least
    for (const Target& target : all)
        for (const Source& s : sources())
            run(target, s);
}

TEST_F(Conformance, AnEmptyInputFailsAndLeavesNothing) {
    // A file that holds no audio at all is not a conversion.
    const std::string in = dir.file("empty.wav");
    writeSource(in, {"empty", 16, false, 2, 44100, 0});
    for (const Target& target : targets()) {
        SCOPED_TRACE(target.name());
        test::PrivateTemporaryFolder tmp;
        const Outcome outcome = encode(target, in);
        EXPECT_FALSE(outcome.success);
        EXPECT_EQ(outcome.output, "");
        EXPECT_TRUE(tmp.isEmpty());
    }
}

TEST_F(Conformance, AnInputOfUnknownLengthEncodesWhole) {
    const Source s{"stream", 16, false, 2, 44100, 30000};
    const std::string wav = dir.file("stream.wav");
    writeSource(wav, s);
    const PCM source = readPCM(wav);
    std::vector<uint8_t> pcm;
    for (int32_t v : source.samples) {
        pcm.push_back(uint8_t(uint32_t(v) >> 16));
        pcm.push_back(uint8_t(uint32_t(v) >> 24));
    }
    const std::string in = dir.file("stream.vlxraw");
    test::writeRawStream(in, 2, 16, 44100, pcm);
    for (const Target& target : targets()) {
        SCOPED_TRACE(target.name());
        const Outcome done = encode(target, in);
        ASSERT_TRUE(done.success);
        const PCM decoded = referenceDecode(target, done.output);
        if (target.lossless())
            checkLossless(source, decoded, 16);
        else
            checkLossy(source, decoded);
    }
}

TEST_F(Conformance, TagsAndPictureReachEveryTaggedOutput) {
    const std::string in = dir.file("tagged.wav");
    writeSource(in, {"tagged", 16, false, 2, 44100, 8820});
    auto metadata = std::make_shared<AudioMetadata>();
    metadata->setTrackTitle("Conformance Title");
    metadata->setTrackArtist("Velvox Tester");
    auto picture = std::make_shared<AlbumArtwork>();
    picture->setData(test::pngBytes(16, 12));
    metadata->setAlbumArtwork(picture);
    for (const Target& target : targets()) {
        if (target.tagKinds().empty())
            continue;
        SCOPED_TRACE(target.name());
        const Outcome done = encode(target, in, nlohmann::json::object(), metadata);
        ASSERT_TRUE(done.success);
        const nlohmann::json tags = probeTags(done.output);
        EXPECT_EQ(tags.value("title", ""), "Conformance Title");
        EXPECT_EQ(tags.value("artist", ""), "Velvox Tester");
        if (target.holdsPictures())
            EXPECT_EQ(pictureCount(done.output), 1);
    }
}

TEST_F(Conformance, RetaggingInPlaceChangesTheTagsAndNotTheAudio) {
    // A tags-only batch rewrites the finished file where it stands: the new
    // title and the picture's removal arrive, and the reference decoder
    // finds the very same samples.
    const std::string in = dir.file("retag.wav");
    writeSource(in, {"retag", 16, false, 2, 44100, 8820});
    for (const Target& target : targets()) {
        if (target.tagKinds().empty())
            continue;
        SCOPED_TRACE(target.name());
        const Outcome done =
            encode(target, in, nlohmann::json::object(), test::taggedRecord("Before"));
        ASSERT_TRUE(done.success);
        const PCM before = referenceDecode(target, done.output);
        auto changed = test::taggedRecord("After");
        changed->setAlbumArtwork(nullptr);
        std::shared_ptr<EncoderSettings> update = target.encoder->makeSettings(target.preset);
        update->setEncoderAction(EncoderActionUpdateMetadata);
        std::unique_ptr<EncodeOperation> op = target.encoder->make();
        op->initWithFilePath(done.output, done.output);
        op->setSettings(update);
        op->setDelegate(&batch);
        op->setMetadata(changed);
        test::runToEnd(*op);
        ASSERT_TRUE(op->success());
        const auto tags = probeTags(done.output);
        EXPECT_EQ(tags.value("title", ""), "After");
        if (target.holdsPictures())
            EXPECT_EQ(pictureCount(done.output), 0);
        const PCM after = referenceDecode(target, done.output);
        EXPECT_EQ(after.samples, before.samples);
    }
}

TEST_F(Conformance, CancellingHalfWayLeavesNothing) {
    const std::string in = dir.file("long.wav");
    writeSource(in, {"long", 16, false, 2, 44100, 44100 * 60});
    for (const Target& target : targets()) {
        SCOPED_TRACE(target.name());
        test::PrivateTemporaryFolder tmp;
        fs::remove_all(dir.file("out"));
        std::shared_ptr<EncoderSettings> settings = target.encoder->makeSettings(target.preset);
        std::unique_ptr<EncodeOperation> op = target.encoder->make();
        op->initWithFilePath(in, in);
        op->setSettings(settings);
        op->setDelegate(&batch);
        op->setMetadata(std::make_shared<AudioMetadata>());
        // Cancel as soon as the first progress arrives.
        const uint64_t token = op->addObserver(
            "currentFrame", [&](Observable&, const std::string&, Observable::ChangePhase) {
                if (op->currentFrame() > 0)
                    op->cancel();
            });
        test::runToEnd(*op);
        op->removeObserver(token);
        EXPECT_TRUE(op->isCancelled());
        EXPECT_FALSE(fs::exists(dir.file("out")) && !fs::is_empty(dir.file("out")))
            << "a cancelled encode left a file at the output path";
        EXPECT_TRUE(tmp.isEmpty()) << "a cancelled encode left a temporary file";
    }
}
