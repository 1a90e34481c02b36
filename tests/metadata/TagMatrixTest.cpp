// Tags across every kind Velvox reads and writes. A source is tagged by the
// reference tools (metaflac, mutagen) with some forty keys: several artists,
// composers and genres, ReplayGain, MusicBrainz identifiers, custom keys and
// a described front cover. It is converted by the real program into every
// encoder row and preset of the registry; mutagen (or FFmpeg, for containers
// mutagen does not read) reads what arrived. Every key of the source must
// arrive with all its values or be named in the program's tag report, and
// nothing that arrived may be named there.

#include <filesystem>
#include <map>
#include <set>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "cli/BatchCommandSandbox.h"
#include "jobs/EncoderDescriptor.h"

using namespace velvox;
using namespace velvox::test;
namespace fs = std::filesystem;

namespace {

using Tags = std::map<std::string, std::vector<std::string>>;

const std::string kTagKinds = std::string(VELVOX_SOURCE_DIR) + "/tests/metadata/tagkinds.py";
const std::string kDescription = "Front of the sleeve";

nlohmann::json fixtureTags() {
    return {
        {"TITLE", {"Tag Matrix"}},
        {"ARTIST", {"piman", "jzig"}},
        {"ALBUM", {"Every Kind"}},
        {"ALBUMARTIST", {"Various"}},
        {"COMPOSER", {"Composer One", "Composer Two"}},
        {"DATE", {"2004"}},
        {"GENRE", {"Rock", "Pop"}},
        {"COMMENT", {"a comment"}},
        {"TRACKNUMBER", {"3"}},
        {"TRACKTOTAL", {"12"}},
        {"DISCNUMBER", {"1"}},
        {"DISCTOTAL", {"2"}},
        {"GROUPING", {"a group"}},
        {"LYRICS", {"la la la"}},
        {"BPM", {"120"}},
        {"COMPILATION", {"1"}},
        {"COPYRIGHT", {"2004 Nobody"}},
        {"ISRC", {"USABC0400001"}},
        {"KEY", {"Am"}},
        {"REPLAYGAIN_TRACK_GAIN", {"-6.48 dB"}},
        {"REPLAYGAIN_TRACK_PEAK", {"0.988"}},
        {"REPLAYGAIN_ALBUM_GAIN", {"-7.01 dB"}},
        {"REPLAYGAIN_ALBUM_PEAK", {"0.999"}},
        {"REPLAYGAIN_REFERENCE_LOUDNESS", {"89.0 dB"}},
        {"MUSICBRAINZ_TRACKID", {"6f6e6d3c-1b4f-4f3e-9d3e-0c8f3a1d2e01"}},
        {"MUSICBRAINZ_ALBUMID", {"6f6e6d3c-1b4f-4f3e-9d3e-0c8f3a1d2e02"}},
        {"MUSICBRAINZ_ARTISTID", {"6f6e6d3c-1b4f-4f3e-9d3e-0c8f3a1d2e03"}},
        {"MUSICBRAINZ_ALBUMARTISTID", {"6f6e6d3c-1b4f-4f3e-9d3e-0c8f3a1d2e04"}},
        {"MUSICBRAINZ_RELEASEGROUPID", {"6f6e6d3c-1b4f-4f3e-9d3e-0c8f3a1d2e05"}},
        {"LABEL", {"Our Label"}},
        {"CATALOGNUMBER", {"CAT-001"}},
        {"BARCODE", {"0123456789012"}},
        {"DISCSUBTITLE", {"The First"}},
        {"ARTISTS", {"piman", "jzig"}},
        {"ARTISTSORT", {"piman & jzig"}},
        {"ALBUMARTISTSORT", {"Various"}},
        {"TITLESORT", {"Tag Matrix, The"}},
        {"MOOD", {"Calm"}},
        {"CONDUCTOR", {"A Conductor"}},
        {"REMIXER", {"A Remixer"}},
        {"LYRICIST", {"A Lyricist"}},
        {"CUSTOM_ALPHA", {"first"}},
        {"CUSTOM_BETA", {"one", "two"}},
        {"CUSTOM_GAMMA", {"third"}},
    };
}

Tags readTags(const std::string& path) {
    const CommandResult r =
        runCommand("/usr/bin/python3 " + shellQuote(kTagKinds) + " read " + shellQuote(path));
    EXPECT_EQ(r.exitCode, 0) << r.output;
    Tags tags;
    const nlohmann::json read = nlohmann::json::parse(r.output, nullptr, false);
    if (read.is_object())
        for (const auto& [key, values] : read.items())
            tags[key] = values.get<std::vector<std::string>>();
    return tags;
}

struct SourceKind {
    const char* name;
    const char* extension;
    const char* encode; // {wav} to {out}
};

// Named in test output by its kind rather than as bytes.
void PrintTo(const SourceKind& kind, std::ostream* out) { *out << kind.name; }

const SourceKind kSources[] = {
    {"Xiph_in_FLAC", "flac", "flac -s -f -o {out} {wav}"},
    {"Xiph_in_Vorbis", "ogg", "oggenc -Q -o {out} {wav}"},
    {"ID3v24_in_MP3", "mp3", "lame --quiet {wav} {out}"},
    {"MP4_items", "m4a", "ffmpeg -v error -y -i {wav} -c:a aac {out}"},
    {"APEv2_in_WavPack", "wv", "wavpack -q -y {wav} -o {out}"},
    {"ASF_in_WMA", "wma", "ffmpeg -v error -y -i {wav} -c:a wmav2 {out}"},
};

std::string replaced(std::string text, const std::string& from, const std::string& to) {
    text.replace(text.find(from), from.size(), to);
    return text;
}

// The source: our signal through the kind's reference encoder, then tagged
// by metaflac (FLAC) or mutagen (the rest).
void makeSource(const CommandSandbox& box, const SourceKind& kind, const std::string& path) {
    const std::string wav = box.scratch("signal.wav");
    writeWav(wav, makeSignal(22050, 2, 16, 7), 2, 44100, 16);
    ASSERT_NO_FATAL_FAILURE(mustRun(
        replaced(replaced(kind.encode, "{wav}", shellQuote(wav)), "{out}", shellQuote(path))));
    const std::string cover = box.scratch("cover.png");
    ASSERT_NO_FATAL_FAILURE(writePNG(cover, 24, 16, 5));
    const nlohmann::json tags = fixtureTags();
    if (std::string(kind.extension) == "flac") {
        std::string command = "metaflac --remove-all-tags";
        for (const auto& [key, values] : tags.items())
            for (const auto& value : values)
                command += " " + shellQuote("--set-tag=" + key + "=" + value.get<std::string>());
        command +=
            " " + shellQuote("--import-picture-from=3|image/png|" + kDescription + "||" + cover);
        ASSERT_NO_FATAL_FAILURE(mustRun(command + " " + shellQuote(path)));
        return;
    }
    const std::string json = box.scratch("tags.json");
    const std::string text = tags.dump();
    writeFile(json, std::vector<uint8_t>(text.begin(), text.end()));
    ASSERT_NO_FATAL_FAILURE(mustRun("/usr/bin/python3 " + shellQuote(kTagKinds) + " write " +
                                    shellQuote(path) + " " + shellQuote(json) + " " +
                                    shellQuote(cover) + " " + shellQuote(kDescription)));
}

// One way to write a format: a FORMAT word and the preferences it runs with
// (the MP3 tag kinds are preferences, not settings).
struct Target {
    std::string word;
    std::string preferences;
};

std::vector<Target> targets() {
    std::vector<Target> all;
    for (const EncoderDescriptor* encoder : EncoderDescriptor::all()) {
        all.push_back({encoder->formatName, ""});
        for (const FormatPreset& preset : encoder->presets)
            all.push_back({preset.name, ""});
        if (encoder->encoderType == EncoderTypeMP3) {
            const std::string only = " --set writeMP3ID3v2Tag=false --set writeMP3ID3v1Tag=";
            all.push_back({encoder->formatName, " --set WriteMP3ID3v2TagVersion=6"});
            all.push_back({encoder->formatName, only + "true"});
            all.push_back({encoder->formatName, only + "false --set writeMP3ApeTag=true"});
        }
    }
    return all;
}

// The names the report gives for one conversion (one line per output).
std::set<std::string> reportedNames(const std::string& out) {
    std::set<std::string> names;
    const std::string mark = "Could Not Hold These Tags: ";
    for (size_t at = out.find(mark); at != std::string::npos; at = out.find(mark, at + 1)) {
        const size_t end = out.find('\n', at);
        std::string list = out.substr(at + mark.size(), end - at - mark.size());
        for (size_t comma; (comma = list.find(", ")) != std::string::npos; list.erase(0, comma + 2))
            names.insert(list.substr(0, comma));
        names.insert(list);
    }
    return names;
}

std::string describe(const std::vector<std::string>& values) {
    std::string text;
    for (const std::string& value : values)
        text += (text.empty() ? "[" : ", ") + value.substr(0, 40);
    return text.empty() ? "nothing" : text + "]";
}

class TagMatrix : public ::testing::TestWithParam<SourceKind> {};

TEST_P(TagMatrix, EveryKeyArrivesWholeOrIsReported) {
    const SourceKind& kind = GetParam();
    CommandSandbox box;
    const std::string source = box.src(std::string("matrix.") + kind.extension);
    ASSERT_NO_FATAL_FAILURE(makeSource(box, kind, source));
    Tags expected = readTags(source);
    ASSERT_GE(expected.size(), 40u) << "the tools did not tag the source";
    // The source's own encoder names stay the source's; Velvox's own
    // encoded-by text would take their place, so it is left out here.
    const std::string keepSoftware = " --set writeEncodedByMetadataTag=false";
    const std::string pictureSize = "24x16x24";

    for (const Target& target : targets()) {
        SCOPED_TRACE(target.word + target.preferences);
        const std::string folder = box.out(target.word + std::to_string(target.preferences.size()));
        fs::create_directories(folder);
        const Outcome r =
            box.run("convert --report-tags -f " + target.word + " -o " + shellQuote(folder) +
                    keepSoftware + target.preferences + " " + shellQuote(source));
        ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
        std::vector<fs::path> outputs;
        for (const auto& entry : fs::directory_iterator(folder))
            if (!entry.path().filename().string().starts_with("._"))
                outputs.push_back(entry.path());
        ASSERT_EQ(outputs.size(), 1u);
        const Tags arrived = readTags(outputs.front().string());
        const std::set<std::string> reported = reportedNames(r.out);

        for (const auto& [key, values] : expected) {
            if (key == "PICTURE SIZE")
                continue;
            const auto found = arrived.find(key);
            const bool whole = found != arrived.end() && found->second == values;
            if (reported.contains(key))
                EXPECT_FALSE(whole) << key << " arrived whole but is reported";
            else
                EXPECT_TRUE(whole)
                    << key << " " << describe(values) << " arrived as "
                    << describe(found == arrived.end() ? std::vector<std::string>{} : found->second)
                    << " and is not reported";
        }
        // A picture block says how large its picture is.
        if (const auto size = arrived.find("PICTURE SIZE"); size != arrived.end())
            EXPECT_EQ(size->second.front(), pictureSize);
    }
}

INSTANTIATE_TEST_SUITE_P(SourceKinds, TagMatrix, ::testing::ValuesIn(kSources),
                         [](const auto& info) { return std::string(info.param.name); });

} // namespace
