#pragma once
// Everything Velvox knows about one source file besides its audio: the tag
// fields copied into every output, one picture, read-only facts about the
// source stream and file (shown to the user and usable in output names), and
// raw chunks kept for faithful copying.
//
// Every field is optional: absent means "not known", which is not the same as
// an empty string or zero (an empty title written by the user must stay an
// empty title). Text is copied in; the picture is shared by reference.
// Integer fields are 64-bit throughout (a file size needs it, and one type
// spares every reader a conversion); dates are system-clock times.

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "metadata/AlbumArtwork.h"

namespace TagLib {
namespace ID3v1 {
class Tag;
}
namespace ID3v2 {
class Tag;
}
namespace APE {
class Tag;
}
namespace Ogg {
class XiphComment;
}
namespace MP4 {
class Tag;
}
namespace ASF {
class Tag;
}
namespace FLAC {
class Picture;
}
} // namespace TagLib

namespace velvox {

class AudioMetadata {
public:
    using Date = std::chrono::system_clock::time_point;
    // Raw source chunks: chunk identifier (four-character code as text) to the
    // bytes of every chunk with that identifier, in file order.
    using UserData = std::map<std::string, std::vector<std::vector<uint8_t>>>;
    // The source's other text tags, in reading order: a key (TagLib's
    // property names: "MUSICBRAINZ_TRACKID", "REPLAYGAIN_TRACK_GAIN", a
    // custom key in upper case) to one or more values. A key the record's
    // own fields map (ARTIST, GENRE, ...) is only here when the source had
    // several values for it: the field holds the text the reading rules make
    // of them, this list the values themselves.
    using AdditionalTags = std::vector<std::pair<std::string, std::vector<std::string>>>;

    // Every field absent.
    AudioMetadata() = default;

    // Makes every field the user can edit absent, the additional tags
    // included; the facts about the source (the source fields and userData)
    // are kept.
    void clearAll();

    // The fields the user edits (those clearAll() empties, the picture
    // aside), by the names the archive uses for them.
    static const std::vector<std::string>& editableFieldNames();
    // Sets an editable field from text: numbers for the counts, the year and
    // the tempo; yes/no, true/false or 1/0 for partOfACompilation; the text
    // itself for the rest. False, changing nothing, for an unknown name or a
    // value the field cannot hold.
    bool setFieldFromText(const std::string& name, const std::string& text);
    // Makes an editable field absent; false for an unknown name.
    bool clearField(const std::string& name);

    // The archived form, used to copy metadata from one file to another: every
    // field round-trips exactly, absent and empty kept apart, picture included.
    nlohmann::json toJSON() const;
    // Null when the value is not such an archive (unknown keys are ignored).
    static std::unique_ptr<AudioMetadata> fromJSON(const nlohmann::json& archive);
    // For display ("info --json"): the fields that are present, in declaration
    // order, numbers as numbers; the picture as its facts rather than its bytes.
    nlohmann::ordered_json toInfoJSON() const;

    // ---- Reading a file (AudioMetadataReading.cpp) ----
    // The record for a file, chosen by its extension; never null: a file that
    // cannot be read yields a record with few or no fields.
    static std::unique_ptr<AudioMetadata> metadataFromFile(const std::string& path);
    // Only what the file's own tags say: no facts of the file, no picture
    // beside it, no title from its name. Never null.
    static std::unique_ptr<AudioMetadata> tagsFromFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromFLACFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromOggFLACFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromOggVorbisFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromOggSpeexFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromOpusFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromWMAFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromFFMPEGFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromMP3File(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromMP4File(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromAIFFFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromWAVEFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromMonkeysAudioFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromTrueAudioFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromDSDFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromWavPackFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromMusepackFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromShortenFile(const std::string& path);
    static std::unique_ptr<AudioMetadata> metadataFromModFile(const std::string& path);
    // Stream facts and raw chunks of the formats the desktop audio file
    // service reads (libsndfile / libav on Linux), added to a record.
    static void getCoreAudioInfoFromFile(const std::string& path, AudioMetadata& metadata);
    // Tag fields of those formats (info strings, Apple Loops, MIDI chunks).
    static void getCoreAudioMetadataFromFile(const std::string& path, AudioMetadata& metadata);
    // A picture file beside the source whose name matches the pattern's last
    // component (shell wildcards, ignoring case and diacritics).
    static void readAlbumArtworkFromFilename(const std::string& patternPath,
                                             AudioMetadata& metadata);

    // The picture-file name preference is a naming template. Its expansion
    // belongs to the output-naming code, which sits above this subsystem and
    // installs itself here; without it the pattern is used as written.
    using FilenamePatternExpander = std::function<std::string(
        const std::string& pattern, const AudioMetadata& metadata, const std::string& path)>;
    static void setFilenamePatternExpander(FilenamePatternExpander expander);

    // ---- Tags into the record (AudioMetadataTagMapping.cpp) ----
    // Every mapping but the Xiph one fills only fields that are still absent,
    // so the order of the calls is the precedence between tags.
    static void addInfoFromVorbisTag(const TagLib::Ogg::XiphComment* tag, AudioMetadata& metadata);
    static void addInfoFromID3v2Tag(const TagLib::ID3v2::Tag* tag, AudioMetadata& metadata);
    static void addInfoFromID3v1Tag(const TagLib::ID3v1::Tag* tag, AudioMetadata& metadata);
    static void addInfoFromAPETag(const TagLib::APE::Tag* tag, AudioMetadata& metadata);
    static void addInfoFromMP4Tag(const TagLib::MP4::Tag* tag, AudioMetadata& metadata);
    static void addInfoFromASFTag(const TagLib::ASF::Tag* tag, AudioMetadata& metadata);

    // ---- The record into tags (AudioMetadataTagWriting.cpp) ----
    // Each removes every entry it owns under every name the reading side
    // accepts, then writes the present fields under one name each.
    void fillOutXiphComment(TagLib::Ogg::XiphComment* tag,
                            const std::optional<std::string>& encodedBy,
                            const std::optional<std::string>& comment, bool writeArtwork) const;
    void fillOutID3v2Tag(TagLib::ID3v2::Tag* tag, int majorVersion, int taglibTextEncoding,
                         const std::optional<std::string>& encodedBy,
                         const std::optional<std::string>& comment) const;
    void fillOutID3v1Tag(TagLib::ID3v1::Tag* tag, const std::optional<std::string>& comment) const;
    void fillOutAPETag(TagLib::APE::Tag* tag, const std::optional<std::string>& encodedBy,
                       const std::optional<std::string>& comment) const;
    void fillOutMP4Tag(TagLib::MP4::Tag* tag, const std::optional<std::string>& encodedBy,
                       const std::optional<std::string>& comment) const;
    void fillOutASFTag(TagLib::ASF::Tag* tag, const std::optional<std::string>& encodedBy,
                       const std::optional<std::string>& comment) const;
    // The picture as a FLAC picture block (FLAC files and Xiph comments),
    // with its role, description, pixel size and depth.
    static std::unique_ptr<TagLib::FLAC::Picture> flacPicture(const AlbumArtwork& artwork);

    // ---- Fields ----
    std::optional<int64_t> trackNumber() const { return trackNumber_; }
    void setTrackNumber(std::optional<int64_t> value) { trackNumber_ = std::move(value); }

    std::optional<int64_t> totalTracks() const { return totalTracks_; }
    void setTotalTracks(std::optional<int64_t> value) { totalTracks_ = std::move(value); }

    const std::optional<std::string>& trackTitle() const { return trackTitle_; }
    void setTrackTitle(std::optional<std::string> value) { trackTitle_ = std::move(value); }

    const std::optional<std::string>& albumTitle() const { return albumTitle_; }
    void setAlbumTitle(std::optional<std::string> value) { albumTitle_ = std::move(value); }

    const std::optional<std::string>& trackArtist() const { return trackArtist_; }
    void setTrackArtist(std::optional<std::string> value) { trackArtist_ = std::move(value); }

    const std::optional<std::string>& albumArtist() const { return albumArtist_; }
    void setAlbumArtist(std::optional<std::string> value) { albumArtist_ = std::move(value); }

    const std::optional<std::string>& trackComposer() const { return trackComposer_; }
    void setTrackComposer(std::optional<std::string> value) { trackComposer_ = std::move(value); }

    std::optional<int64_t> trackYear() const { return trackYear_; }
    void setTrackYear(std::optional<int64_t> value) { trackYear_ = std::move(value); }

    const std::optional<std::string>& trackGenre() const { return trackGenre_; }
    void setTrackGenre(std::optional<std::string> value) { trackGenre_ = std::move(value); }

    const std::optional<std::string>& trackComment() const { return trackComment_; }
    void setTrackComment(std::optional<std::string> value) { trackComment_ = std::move(value); }

    const std::shared_ptr<AlbumArtwork>& albumArtwork() const { return albumArtwork_; }
    void setAlbumArtwork(std::shared_ptr<AlbumArtwork> value) { albumArtwork_ = std::move(value); }

    const std::optional<std::string>& grouping() const { return grouping_; }
    void setGrouping(std::optional<std::string> value) { grouping_ = std::move(value); }

    std::optional<int64_t> discNumber() const { return discNumber_; }
    void setDiscNumber(std::optional<int64_t> value) { discNumber_ = std::move(value); }

    std::optional<int64_t> discTotal() const { return discTotal_; }
    void setDiscTotal(std::optional<int64_t> value) { discTotal_ = std::move(value); }

    const std::optional<std::string>& lyrics() const { return lyrics_; }
    void setLyrics(std::optional<std::string> value) { lyrics_ = std::move(value); }

    std::optional<int64_t> bpm() const { return bpm_; }
    void setBpm(std::optional<int64_t> value) { bpm_ = std::move(value); }

    std::optional<bool> partOfACompilation() const { return partOfACompilation_; }
    void setPartOfACompilation(std::optional<bool> value) {
        partOfACompilation_ = std::move(value);
    }

    const std::optional<std::string>& trackCopyright() const { return trackCopyright_; }
    void setTrackCopyright(std::optional<std::string> value) { trackCopyright_ = std::move(value); }

    const std::optional<std::string>& ISRC() const { return ISRC_; }
    void setISRC(std::optional<std::string> value) { ISRC_ = std::move(value); }

    const std::optional<std::string>& key() const { return key_; }
    void setKey(std::optional<std::string> value) { key_ = std::move(value); }

    const std::optional<std::string>& sourceKind() const { return sourceKind_; }
    void setSourceKind(std::optional<std::string> value) { sourceKind_ = std::move(value); }

    const std::optional<std::string>& sourceFormat() const { return sourceFormat_; }
    void setSourceFormat(std::optional<std::string> value) { sourceFormat_ = std::move(value); }

    std::optional<double> sourceLength() const { return sourceLength_; }
    void setSourceLength(std::optional<double> value) { sourceLength_ = std::move(value); }

    std::optional<int64_t> sourceFileSize() const { return sourceFileSize_; }
    void setSourceFileSize(std::optional<int64_t> value) { sourceFileSize_ = std::move(value); }

    std::optional<int64_t> sourceSampleSize() const { return sourceSampleSize_; }
    void setSourceSampleSize(std::optional<int64_t> value) { sourceSampleSize_ = std::move(value); }

    std::optional<int64_t> sourceSampleRate() const { return sourceSampleRate_; }
    void setSourceSampleRate(std::optional<int64_t> value) { sourceSampleRate_ = std::move(value); }

    std::optional<int64_t> sourceBitrate() const { return sourceBitrate_; }
    void setSourceBitrate(std::optional<int64_t> value) { sourceBitrate_ = std::move(value); }

    const std::optional<std::string>& sourceBitrateMode() const { return sourceBitrateMode_; }
    void setSourceBitrateMode(std::optional<std::string> value) {
        sourceBitrateMode_ = std::move(value);
    }

    std::optional<int64_t> sourceChannels() const { return sourceChannels_; }
    void setSourceChannels(std::optional<int64_t> value) { sourceChannels_ = std::move(value); }

    const std::optional<std::string>& sourceChannelMode() const { return sourceChannelMode_; }
    void setSourceChannelMode(std::optional<std::string> value) {
        sourceChannelMode_ = std::move(value);
    }

    const std::optional<std::string>& sourceTagFormat() const { return sourceTagFormat_; }
    void setSourceTagFormat(std::optional<std::string> value) {
        sourceTagFormat_ = std::move(value);
    }

    const std::optional<std::string>& sourceEncodedWith() const { return sourceEncodedWith_; }
    void setSourceEncodedWith(std::optional<std::string> value) {
        sourceEncodedWith_ = std::move(value);
    }

    std::optional<Date> sourceDateModified() const { return sourceDateModified_; }
    void setSourceDateModified(std::optional<Date> value) {
        sourceDateModified_ = std::move(value);
    }

    const std::optional<std::string>& sourceLocation() const { return sourceLocation_; }
    void setSourceLocation(std::optional<std::string> value) { sourceLocation_ = std::move(value); }

    const std::optional<UserData>& userData() const { return userData_; }
    void setUserData(std::optional<UserData> value) { userData_ = std::move(value); }

    // ---- Additional tags (keys are compared in upper case) ----
    const AdditionalTags& additionalTags() const { return additionalTags_; }
    void setAdditionalTags(AdditionalTags tags) { additionalTags_ = std::move(tags); }
    // The values of a key, or null when the record has none.
    const std::vector<std::string>* additionalTag(const std::string& key) const;
    // Replaces the key's values in place, or appends the key; no values
    // removes it.
    void setAdditionalTag(const std::string& key, std::vector<std::string> values);
    // False when the key was not there.
    bool removeAdditionalTag(const std::string& key);
    // Drops the ReplayGain values, which no longer hold once the audio's
    // level has changed (a down-mix, a gain).
    void removeReplayGainTags();

private:
    template <typename Self, typename Visitor>
    static void visitFields(Self& self, Visitor&& visit);

    std::optional<int64_t> trackNumber_;
    std::optional<int64_t> totalTracks_;
    std::optional<std::string> trackTitle_;
    std::optional<std::string> albumTitle_;
    std::optional<std::string> trackArtist_;
    std::optional<std::string> albumArtist_;
    std::optional<std::string> trackComposer_;
    std::optional<int64_t> trackYear_;
    std::optional<std::string> trackGenre_;
    std::optional<std::string> trackComment_;
    std::shared_ptr<AlbumArtwork> albumArtwork_;
    std::optional<std::string> grouping_;
    std::optional<int64_t> discNumber_;
    std::optional<int64_t> discTotal_;
    std::optional<std::string> lyrics_;
    std::optional<int64_t> bpm_;
    std::optional<bool> partOfACompilation_;
    std::optional<std::string> trackCopyright_;
    std::optional<std::string> ISRC_;
    std::optional<std::string> key_;
    std::optional<std::string> sourceKind_;
    std::optional<std::string> sourceFormat_;
    std::optional<double> sourceLength_;
    std::optional<int64_t> sourceFileSize_;
    std::optional<int64_t> sourceSampleSize_;
    std::optional<int64_t> sourceSampleRate_;
    std::optional<int64_t> sourceBitrate_;
    std::optional<std::string> sourceBitrateMode_;
    std::optional<int64_t> sourceChannels_;
    std::optional<std::string> sourceChannelMode_;
    std::optional<std::string> sourceTagFormat_;
    std::optional<std::string> sourceEncodedWith_;
    std::optional<Date> sourceDateModified_;
    std::optional<std::string> sourceLocation_;
    std::optional<UserData> userData_;
    AdditionalTags additionalTags_;
};

} // namespace velvox
