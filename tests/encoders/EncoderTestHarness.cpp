#include "encoders/EncoderTestHarness.h"

#include <cctype>
#include <cmath>
#include <filesystem>
#include <sstream>

#include "metadata/AlbumArtwork.h"
#include "metadata/MetadataFixtures.h"

namespace velvox::test {

void requireTools(std::initializer_list<const char*> tools) {
    for (const char* tool : tools)
        ASSERT_TRUE(haveTool(tool)) << tool << " is not installed (scripts/setup.sh installs it)";
}

::testing::AssertionResult sameBytes(const std::vector<uint8_t>& actual,
                                     const std::vector<uint8_t>& expected) {
    if (actual == expected)
        return ::testing::AssertionSuccess();
    const size_t n = std::min(actual.size(), expected.size());
    size_t i = 0;
    while (i < n && actual[i] == expected[i])
        ++i;
    return ::testing::AssertionFailure() << actual.size() << " bytes against " << expected.size()
                                         << " expected; first difference at byte " << i;
}

std::vector<std::string> LogWatch::lines() const {
    const std::vector<std::string> all = ErrorLog::sharedController().messages();
    return std::vector<std::string>(all.begin() + long(std::min(start_, all.size())), all.end());
}

bool LogWatch::contains(const std::string& line) const {
    const std::vector<std::string> written = lines();
    return std::find(written.begin(), written.end(), line) != written.end();
}

std::vector<int32_t> tones(uint32_t frames, uint32_t channels, uint32_t rate, uint32_t bits,
                           double baseHz) {
    const double scale = double((int64_t(1) << (bits - 1)) - 1) * 0.5;
    std::vector<int32_t> out(size_t(frames) * channels);
    for (uint32_t f = 0; f < frames; ++f)
        for (uint32_t c = 0; c < channels; ++c) {
            const double t = double(f) / rate;
            const double hz = channels == 6 && c == 3 ? 55.0 : baseHz * (c + 1);
            const double v =
                0.8 * std::sin(2 * M_PI * hz * t) + 0.2 * std::sin(2 * M_PI * 97.0 * t + c);
            out[size_t(f) * channels + c] = int32_t(std::lround(v * scale));
        }
    return out;
}

std::vector<double> normalised(const std::vector<int32_t>& samples, uint32_t bits) {
    std::vector<double> out(samples.size());
    const double full = double(int64_t(1) << (bits - 1));
    for (size_t i = 0; i < samples.size(); ++i)
        out[i] = samples[i] / full;
    return out;
}

std::vector<double> rawS16(const std::string& path) {
    return normalised(unpackLittleEndian(readFile(path), 16), 16);
}

std::vector<double> decodeWithFFmpeg(const std::string& path, const std::string& scratch) {
    const CommandResult r = runCommand("ffmpeg -nostdin -v error -y -i " + shellQuote(path) +
                                       " -f s16le -acodec pcm_s16le " + shellQuote(scratch));
    EXPECT_EQ(r.exitCode, 0) << "ffmpeg could not decode " << path;
    return rawS16(scratch);
}

double snrDb(const std::vector<double>& source, const std::vector<double>& decoded,
             uint32_t channels, uint32_t channel, long lag, long skip) {
    double signal = 0, noise = 0;
    const long frames = long(std::min(source.size(), decoded.size()) / channels);
    for (long f = skip; f < frames - skip; ++f) {
        const long g = f + lag;
        if (g < 0 || g >= frames)
            continue;
        const double s = source[size_t(f) * channels + channel];
        const double d = decoded[size_t(g) * channels + channel];
        signal += s * s;
        noise += (s - d) * (s - d);
    }
    return 10 * std::log10(signal / std::max(noise, 1e-20));
}

long bestLag(const std::vector<double>& source, const std::vector<double>& decoded,
             uint32_t channels, long maxLag) {
    long best = 0;
    double bestSnr = -1e9;
    for (long lag = -maxLag; lag <= maxLag; ++lag) {
        const double snr = snrDb(source, decoded, channels, 0, lag);
        if (snr > bestSnr) {
            bestSnr = snr;
            best = lag;
        }
    }
    return best;
}

std::string toolReport(const std::string& command, const std::string& path,
                       const std::string& tolerated) {
    const CommandResult r = runCommand(command + " " + shellQuote(path) + " 2>&1");
    EXPECT_EQ(r.exitCode, 0) << r.output;
    std::string lower = r.output;
    for (char& ch : lower)
        ch = char(std::tolower(static_cast<unsigned char>(ch)));
    if (const size_t at = tolerated.empty() ? std::string::npos : lower.find(tolerated);
        at != std::string::npos)
        lower.erase(at, tolerated.size());
    EXPECT_EQ(lower.find("warning"), std::string::npos) << r.output;
    EXPECT_EQ(lower.find("error"), std::string::npos) << r.output;
    return r.output;
}

std::string mutagen(const std::string& script, const std::string& path) {
    const CommandResult r =
        runCommand("/usr/bin/python3 -c " + shellQuote(script) + " " + shellQuote(path));
    EXPECT_EQ(r.exitCode, 0) << "mutagen could not read " << path;
    return r.output;
}

std::shared_ptr<AudioMetadata> taggedRecord(const std::string& title) {
    auto record = std::make_shared<AudioMetadata>();
    record->setTrackTitle(title);
    record->setTrackArtist("Ünïcode Artist");
    record->setAlbumTitle("Lossless Album");
    record->setTrackComposer("A. Composer");
    record->setTrackGenre("Ambient");
    record->setTrackYear(2024);
    record->setTrackNumber(7);
    record->setBpm(120);
    record->setTrackComment("made by the encoder tests");
    auto art = std::make_shared<AlbumArtwork>();
    art->setData(pngBytes(9, 7));
    art->setArtworkType(3);
    record->setAlbumArtwork(art);
    return record;
}

std::vector<uint8_t> makeTaggedFLAC(const TempDir& dir, const std::string& flacPath, uint32_t rate,
                                    uint32_t channels) {
    const std::string source = dir.file("tagged-source.wav");
    writeWav(source, tones(rate * 2, channels, rate, 16), channels, rate, 16);
    const std::vector<uint8_t> cover = pngBytes(8, 8);
    writeFile(dir.file("cover.png"), cover);
    EXPECT_EQ(runCommand("flac -s -f -o " + shellQuote(flacPath) + " " + shellQuote(source) +
                         " && metaflac --set-tag='TITLE=Grüße' --set-tag='ARTIST=東京 Ensemble' "
                         "--set-tag=ALBUM=Proof --set-tag=TRACKNUMBER=7 --set-tag=DATE=2024 "
                         "--import-picture-from=" +
                         shellQuote("3||front||" + dir.file("cover.png")) + " " +
                         shellQuote(flacPath))
                  .exitCode,
              0);
    return cover;
}

void EncoderTestBase::SetUp() {
    requireTools({"ffmpeg", "ffprobe", "flac", "metaflac", "sox", "/usr/bin/python3"});
    prefs.set("outputSameAsSource", false);
    prefs.set("destinationDirectory", dir.file("out"));
    prefs.set("useCustomNamingScheme", false);
    prefs.set("writeMetadata", true);
    prefs.set("writeEncodedByMetadataTag", true);
    prefs.set("writeFormatStringToComments", false);
    prefs.set("saveAlbumArtworkToFile", false);
    prefs.set("overwriteOutputFiles", false);
    prefs.set("deleteOriginal", false);
    settings = std::make_shared<EncoderSettings>();
}

std::string EncoderTestBase::wav(const std::string& name, const std::vector<int32_t>& samples,
                                 uint32_t channels, uint32_t rate, uint32_t bits,
                                 uint32_t mask) const {
    const std::string path = dir.file(name + ".wav");
    writeWav(path, samples, channels, rate, bits, mask);
    return path;
}

std::string EncoderTestBase::makeSource(const SourceCase& c, std::vector<int32_t>& samples,
                                        uint32_t frames) const {
    samples = makeSignal(frames ? frames : c.rate + 777, c.channels, c.bits, c.channels);
    return wav(c.name, samples, c.channels, c.rate, c.bits, c.mask);
}

bool EncoderTestBase::outputFolderIsEmpty() const {
    return !std::filesystem::exists(dir.file("out")) || std::filesystem::is_empty(dir.file("out"));
}

} // namespace velvox::test
