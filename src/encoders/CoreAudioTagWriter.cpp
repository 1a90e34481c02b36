#include "encoders/CoreAudioTagWriter.h"

#include <taglib/aifffile.h>
#include <taglib/id3v2tag.h>
#include <taglib/infotag.h>
#include <taglib/mp4file.h>
#include <taglib/mp4tag.h>
#include <taglib/wavfile.h>

#include "metadata/AdditionalTagMapping.h"
#include "metadata/CAFInfoChunkWriter.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

TagLib::String text(const std::string& s) { return TagLib::String(s, TagLib::String::UTF8); }

// TagLib keeps chunk writing to the RIFF classes themselves; the broadcast
// chunk needs it.
class BroadcastWaveFile : public TagLib::RIFF::WAV::File {
public:
    using TagLib::RIFF::WAV::File::File;
    void setBroadcastChunk(const std::vector<uint8_t>& bytes) {
        setChunkData("bext", TagLib::ByteVector(reinterpret_cast<const char*>(bytes.data()),
                                                uint(bytes.size())));
    }
};

std::string decimal(const std::optional<int64_t>& value) {
    return value ? std::to_string(*value) : std::string();
}

} // namespace

std::string CoreAudioTagWriter::iTunSMPB(const Gapless& gapless) {
    std::string value =
        stringWithFormat(" 00000000 %08X %08X %016llX", gapless.priming, gapless.padding,
                         static_cast<unsigned long long>(gapless.frames));
    for (int i = 0; i < 8; ++i)
        value += " 00000000";
    return value;
}

bool CoreAudioTagWriter::writeMP4(const std::string& path,
                                  const std::optional<Gapless>& gapless) const {
    TagLib::MP4::File file(path.c_str(), false);
    if (!file.isValid() || !file.tag())
        return false;
    metadata_.fillOutMP4Tag(file.tag(), encodedBy_, comment_);
    if (gapless)
        file.tag()->setItem("----:com.apple.iTunes:iTunSMPB",
                            TagLib::MP4::Item(TagLib::StringList(text(iTunSMPB(*gapless)))));
    return file.save();
}

bool CoreAudioTagWriter::writeWAV(const std::string& path,
                                  const std::vector<uint8_t>* broadcastChunk) const {
    BroadcastWaveFile file(path.c_str(), false);
    if (!file.isValid())
        return false;
    if (broadcastChunk)
        file.setBroadcastChunk(*broadcastChunk);
    metadata_.fillOutID3v2Tag(file.ID3v2Tag(), 4, TagLib::String::UTF8, encodedBy_, comment_);
    // RIFF INFO carries the plain fields for readers that know no ID3.
    TagLib::RIFF::Info::Tag* info = file.InfoTag();
    info->setTitle(text(metadata_.trackTitle().value_or("")));
    info->setArtist(
        text(AdditionalTagMapping::singleValue(metadata_, "ARTIST", metadata_.trackArtist())
                 .value_or("")));
    info->setAlbum(text(metadata_.albumTitle().value_or("")));
    info->setComment(text(comment_.value_or("")));
    info->setGenre(text(metadata_.trackGenre().value_or("")));
    info->setYear(uint(std::max<int64_t>(0, metadata_.trackYear().value_or(0))));
    info->setTrack(uint(std::max<int64_t>(0, metadata_.trackNumber().value_or(0))));
    if (encodedBy_)
        info->setFieldText("ISFT", text(*encodedBy_));
    AdditionalTagMapping::writeInfo(*info, metadata_, encodedBy_.has_value());
    return file.save(TagLib::RIFF::WAV::File::AllTags, TagLib::File::StripOthers,
                     TagLib::ID3v2::v4);
}

bool CoreAudioTagWriter::writeAIFF(const std::string& path) const {
    TagLib::RIFF::AIFF::File file(path.c_str(), false);
    if (!file.isValid() || !file.tag())
        return false;
    metadata_.fillOutID3v2Tag(file.tag(), 4, TagLib::String::UTF8, encodedBy_, comment_);
    return file.save();
}

bool CoreAudioTagWriter::writeCAF(const std::string& path) const {
    // The keys the desktop audio service uses in CAF files.
    CAFInfoChunkWriter::Pairs pairs;
    auto add = [&pairs](const char* key, const std::optional<std::string>& value) {
        if (value && !value->empty())
            pairs.emplace_back(key, *value);
    };
    add("title", metadata_.trackTitle());
    add("artist", AdditionalTagMapping::singleValue(metadata_, "ARTIST", metadata_.trackArtist()));
    add("album", metadata_.albumTitle());
    add("genre", metadata_.trackGenre());
    add("composer", metadata_.trackComposer());
    add("copyright", metadata_.trackCopyright());
    add("comments", comment_);
    add("encoding application", encodedBy_);
    const std::string year = decimal(metadata_.trackYear());
    add("year", year);
    std::string track = decimal(metadata_.trackNumber());
    if (!track.empty() && metadata_.totalTracks())
        track += "/" + decimal(metadata_.totalTracks());
    add("track number", track);
    add("tempo", metadata_.bpm() ? std::optional(decimal(metadata_.bpm())) : std::nullopt);
    add("key signature", metadata_.key());
    return CAFInfoChunkWriter::replaceInfoChunk(path, pairs);
}

std::string CoreAudioTagWriter::fieldsWithoutStore() const {
    std::vector<std::string> lost;
    auto check = [&lost](const char* name, bool present) {
        if (present)
            lost.emplace_back(name);
    };
    check("Title", metadata_.trackTitle().has_value());
    check("Artist", metadata_.trackArtist().has_value());
    check("Album", metadata_.albumTitle().has_value());
    check("Album Artist", metadata_.albumArtist().has_value());
    check("Composer", metadata_.trackComposer().has_value());
    check("Genre", metadata_.trackGenre().has_value());
    check("Year", metadata_.trackYear().has_value());
    check("Track", metadata_.trackNumber().has_value());
    check("Disc", metadata_.discNumber().has_value());
    check("Comment", comment_.has_value());
    check("Album Artwork", metadata_.albumArtwork() != nullptr);
    std::string joined;
    for (const std::string& name : lost)
        joined += (joined.empty() ? "" : ", ") + name;
    return joined;
}

} // namespace velvox
