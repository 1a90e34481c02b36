#pragma once
// What the Ogg FLAC, True Audio and Sound Designer II encoder tests share:
// a fixture that runs real operations against a private temporary folder and
// output folder, sources of every sample size and layout, a tagged record
// with a picture, and mutagen as the independent tag reader.

#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "encoders/EncoderTestHarness.h"
#include "metadata/AlbumArtwork.h"
#include "metadata/MetadataFixtures.h"
#include "support/TestSupport.h"

namespace velvox::test {

// Points the temporary folder somewhere empty for one test, so that what an
// operation leaves behind there can be seen.
class PrivateTMPDIR {
public:
    PrivateTMPDIR() {
        if (const char* old = std::getenv("TMPDIR"))
            saved_ = old;
        setenv("TMPDIR", dir_.path().c_str(), 1);
    }
    ~PrivateTMPDIR() {
        if (saved_)
            setenv("TMPDIR", saved_->c_str(), 1);
        else
            unsetenv("TMPDIR");
    }
    std::vector<std::string> leftovers() const {
        std::vector<std::string> names;
        for (const auto& entry : std::filesystem::directory_iterator(dir_.path()))
            names.push_back(entry.path().filename().string());
        return names;
    }

private:
    TempDir dir_;
    std::optional<std::string> saved_;
};


// The shape of one WAVE source.
struct SourceCase {
    const char* name;
    uint32_t channels, bits, rate, mask;
};

class LosslessEncoderTest : public ::testing::Test {
protected:
    void SetUp() override {
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

    template <typename Operation>
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
    template <typename Operation>
    std::unique_ptr<Operation> retag(const std::string& path,
                                     std::shared_ptr<AudioMetadata> metadata) {
        auto update = std::make_shared<EncoderSettings>();
        update->setEncoderType(settings->encoderType());
        update->setExtension(settings->extension());
        update->setEncoderAction(EncoderActionUpdateMetadata);
        return encode<Operation>(path, std::move(metadata), update);
    }

    // A WAVE source of the case's shape, and the samples it holds.
    std::string makeSource(const SourceCase& c, std::vector<int32_t>& samples,
                           uint32_t frames = 0) {
        samples = makeSignal(frames ? frames : c.rate + 777, c.channels, c.bits, c.channels);
        const std::string path = dir.file(std::string(c.name) + ".wav");
        writeWav(path, samples, c.channels, c.rate, c.bits, c.mask);
        return path;
    }

    std::vector<std::string> outputFolder() const {
        std::vector<std::string> names;
        if (std::filesystem::exists(dir.file("out")))
            for (const auto& entry : std::filesystem::directory_iterator(dir.file("out")))
                names.push_back(entry.path().filename().string());
        return names;
    }

    TempDir dir;
    Preferences prefs;
    Batch batch;
    std::shared_ptr<EncoderSettings> settings;
};

// A record with the common fields and a PNG front cover.
inline std::shared_ptr<AudioMetadata> taggedRecord(const std::string& title) {
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

// Runs a mutagen script on a file and returns its "key=value" lines as a map.
inline std::map<std::string, std::string> mutagenFacts(const std::string& script,
                                                       const std::string& path) {
    const CommandResult r =
        runCommand("/usr/bin/python3 -c " + shellQuote(script) + " " + shellQuote(path));
    EXPECT_EQ(r.exitCode, 0) << "mutagen could not read " << path;
    std::map<std::string, std::string> facts;
    std::istringstream lines(r.output);
    for (std::string line; std::getline(lines, line);)
        if (const size_t eq = line.find('='); eq != std::string::npos)
            facts[line.substr(0, eq)] = line.substr(eq + 1);
    return facts;
}

} // namespace velvox::test
