#include "metadata/AudioMetadata.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <ctime>
#include <limits>

#include "metadata/ArchiveCoding.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

template <typename... Handlers>
struct Overloaded : Handlers... {
    using Handlers::operator()...;
};
template <typename... Handlers>
Overloaded(Handlers...) -> Overloaded<Handlers...>;

// JSON has no literal for these; the archive spells them out so that a length
// that is not a number survives the trip too.
nlohmann::json jsonFromReal(double value) {
    if (std::isnan(value))
        return "NaN";
    if (std::isinf(value))
        return value > 0 ? "Infinity" : "-Infinity";
    return value;
}

std::optional<double> realFromJSON(const nlohmann::json& value) {
    if (value.is_number())
        return value.get<double>();
    if (value == "NaN")
        return std::numeric_limits<double>::quiet_NaN();
    if (value == "Infinity")
        return std::numeric_limits<double>::infinity();
    if (value == "-Infinity")
        return -std::numeric_limits<double>::infinity();
    return std::nullopt;
}

std::optional<int64_t> integerFromJSON(const nlohmann::json& value) {
    if (value.is_number_unsigned()) {
        const auto n = value.get<uint64_t>();
        if (n > static_cast<uint64_t>(std::numeric_limits<int64_t>::max()))
            return std::nullopt;
        return static_cast<int64_t>(n);
    }
    if (value.is_number_integer())
        return value.get<int64_t>();
    return std::nullopt;
}

// Dates are archived as nanoseconds since 1970 (UTC), the clock's own resolution.
int64_t nanosecondsFromDate(AudioMetadata::Date date) {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(date.time_since_epoch()).count();
}

AudioMetadata::Date dateFromNanoseconds(int64_t nanoseconds) {
    return AudioMetadata::Date(std::chrono::duration_cast<AudioMetadata::Date::duration>(
        std::chrono::nanoseconds(nanoseconds)));
}

// ISO 8601 in UTC, with the fraction of a second only when there is one.
std::string isoTextFromDate(AudioMetadata::Date date) {
    using namespace std::chrono;
    const auto since = duration_cast<nanoseconds>(date.time_since_epoch());
    const auto whole = floor<seconds>(since);
    const auto fraction = (since - whole).count();
    const std::time_t time = static_cast<std::time_t>(whole.count());
    std::tm parts{};
    if (!gmtime_r(&time, &parts))
        return std::to_string(since.count());
    std::string text =
        stringWithFormat("%04d-%02d-%02dT%02d:%02d:%02d", parts.tm_year + 1900, parts.tm_mon + 1,
                         parts.tm_mday, parts.tm_hour, parts.tm_min, parts.tm_sec);
    if (fraction != 0) {
        std::string digits = stringWithFormat("%09lld", static_cast<long long>(fraction));
        digits.erase(digits.find_last_not_of('0') + 1);
        text += "." + digits;
    }
    return text + "Z";
}

} // namespace

// The fields in declaration order, each with its archive key (the field name).
template <typename Self, typename Visitor>
void AudioMetadata::visitFields(Self& self, Visitor&& visit) {
    visit("trackNumber", self.trackNumber_);
    visit("totalTracks", self.totalTracks_);
    visit("trackTitle", self.trackTitle_);
    visit("albumTitle", self.albumTitle_);
    visit("trackArtist", self.trackArtist_);
    visit("albumArtist", self.albumArtist_);
    visit("trackComposer", self.trackComposer_);
    visit("trackYear", self.trackYear_);
    visit("trackGenre", self.trackGenre_);
    visit("trackComment", self.trackComment_);
    visit("albumArtwork", self.albumArtwork_);
    visit("grouping", self.grouping_);
    visit("discNumber", self.discNumber_);
    visit("discTotal", self.discTotal_);
    visit("lyrics", self.lyrics_);
    visit("bpm", self.bpm_);
    visit("partOfACompilation", self.partOfACompilation_);
    visit("trackCopyright", self.trackCopyright_);
    visit("ISRC", self.ISRC_);
    visit("key", self.key_);
    visit("sourceKind", self.sourceKind_);
    visit("sourceFormat", self.sourceFormat_);
    visit("sourceLength", self.sourceLength_);
    visit("sourceFileSize", self.sourceFileSize_);
    visit("sourceSampleSize", self.sourceSampleSize_);
    visit("sourceSampleRate", self.sourceSampleRate_);
    visit("sourceBitrate", self.sourceBitrate_);
    visit("sourceBitrateMode", self.sourceBitrateMode_);
    visit("sourceChannels", self.sourceChannels_);
    visit("sourceChannelMode", self.sourceChannelMode_);
    visit("sourceTagFormat", self.sourceTagFormat_);
    visit("sourceEncodedWith", self.sourceEncodedWith_);
    visit("sourceDateModified", self.sourceDateModified_);
    visit("sourceLocation", self.sourceLocation_);
    visit("userData", self.userData_);
}

void AudioMetadata::clearAll() {
    setTrackNumber(std::nullopt);
    setTotalTracks(std::nullopt);
    setTrackTitle(std::nullopt);
    setAlbumTitle(std::nullopt);
    setTrackArtist(std::nullopt);
    setAlbumArtist(std::nullopt);
    setTrackComposer(std::nullopt);
    setTrackYear(std::nullopt);
    setTrackGenre(std::nullopt);
    setTrackComment(std::nullopt);
    setAlbumArtwork(nullptr);
    setGrouping(std::nullopt);
    setDiscNumber(std::nullopt);
    setDiscTotal(std::nullopt);
    setLyrics(std::nullopt);
    setBpm(std::nullopt);
    setPartOfACompilation(std::nullopt);
    setTrackCopyright(std::nullopt);
    setKey(std::nullopt);
    setISRC(std::nullopt);
    additionalTags_.clear();
}

namespace {

std::string upperKey(std::string key) {
    for (char& c : key)
        if (c >= 'a' && c <= 'z')
            c = char(c - 'a' + 'A');
    return key;
}

} // namespace

namespace {

// The archive's "additionalTags": a list of {key, values}; false when malformed.
bool additionalTagsFromJSON(const nlohmann::json& archive, AudioMetadata& metadata) {
    const auto found = archive.find("additionalTags");
    if (found == archive.end() || found->is_null())
        return true;
    if (!found->is_array())
        return false;
    for (const auto& entry : *found) {
        if (!entry.is_object() || !entry.contains("key") || !entry.contains("values") ||
            !entry["values"].is_array())
            return false;
        const auto key = ArchiveCoding::textFromJSON(entry["key"]);
        if (!key)
            return false;
        std::vector<std::string> values;
        for (const auto& value : entry["values"]) {
            auto text = ArchiveCoding::textFromJSON(value);
            if (!text)
                return false;
            values.push_back(std::move(*text));
        }
        metadata.setAdditionalTag(*key, std::move(values));
    }
    return true;
}

} // namespace

const std::vector<std::string>* AudioMetadata::additionalTag(const std::string& key) const {
    const std::string wanted = upperKey(key);
    for (const auto& [name, values] : additionalTags_)
        if (name == wanted)
            return &values;
    return nullptr;
}

void AudioMetadata::setAdditionalTag(const std::string& key, std::vector<std::string> values) {
    const std::string wanted = upperKey(key);
    if (values.empty()) {
        removeAdditionalTag(wanted);
        return;
    }
    for (auto& [name, held] : additionalTags_) {
        if (name == wanted) {
            held = std::move(values);
            return;
        }
    }
    additionalTags_.emplace_back(wanted, std::move(values));
}

bool AudioMetadata::removeAdditionalTag(const std::string& key) {
    const std::string wanted = upperKey(key);
    return std::erase_if(additionalTags_,
                         [&](const auto& entry) { return entry.first == wanted; }) > 0;
}

void AudioMetadata::removeReplayGainTags() {
    std::erase_if(additionalTags_,
                  [](const auto& entry) { return entry.first.starts_with("REPLAYGAIN_"); });
}

const std::vector<std::string>& AudioMetadata::editableFieldNames() {
    static const std::vector<std::string> kNames = {
        "trackNumber",        "totalTracks",    "trackTitle", "albumTitle", "trackArtist",
        "albumArtist",        "trackComposer",  "trackYear",  "trackGenre", "trackComment",
        "grouping",           "discNumber",     "discTotal",  "lyrics",     "bpm",
        "partOfACompilation", "trackCopyright", "ISRC",       "key"};
    return kNames;
}

bool AudioMetadata::setFieldFromText(const std::string& name, const std::string& text) {
    const auto& names = editableFieldNames();
    if (std::find(names.begin(), names.end(), name) == names.end())
        return false;
    bool accepted = false;
    visitFields(*this, Overloaded{
                           [&](const char* field, std::optional<int64_t>& v) {
                               if (name != field)
                                   return;
                               errno = 0;
                               char* end = nullptr;
                               const long long number = std::strtoll(text.c_str(), &end, 10);
                               if (!text.empty() && end && *end == '\0' && errno == 0) {
                                   v = number;
                                   accepted = true;
                               }
                           },
                           [&](const char* field, std::optional<std::string>& v) {
                               if (name != field)
                                   return;
                               v = text;
                               accepted = true;
                           },
                           [&](const char* field, std::optional<bool>& v) {
                               if (name != field)
                                   return;
                               const std::string lower = lowercaseASCII(text);
                               if (lower == "yes" || lower == "true" || lower == "1") {
                                   v = true;
                                   accepted = true;
                               } else if (lower == "no" || lower == "false" || lower == "0") {
                                   v = false;
                                   accepted = true;
                               }
                           },
                           [](const char*, auto&) {},
                       });
    return accepted;
}

bool AudioMetadata::clearField(const std::string& name) {
    const auto& names = editableFieldNames();
    if (std::find(names.begin(), names.end(), name) == names.end())
        return false;
    visitFields(*this, Overloaded{
                           [&](const char* field, std::optional<int64_t>& v) {
                               if (name == field)
                                   v.reset();
                           },
                           [&](const char* field, std::optional<std::string>& v) {
                               if (name == field)
                                   v.reset();
                           },
                           [&](const char* field, std::optional<bool>& v) {
                               if (name == field)
                                   v.reset();
                           },
                           [](const char*, auto&) {},
                       });
    return true;
}

nlohmann::json AudioMetadata::toJSON() const {
    nlohmann::json archive = nlohmann::json::object();
    visitFields(*this, Overloaded{
                           [&](const char* name, const std::optional<int64_t>& v) {
                               if (v)
                                   archive[name] = *v;
                           },
                           [&](const char* name, const std::optional<std::string>& v) {
                               if (v)
                                   archive[name] = ArchiveCoding::jsonFromText(*v);
                           },
                           [&](const char* name, const std::optional<bool>& v) {
                               if (v)
                                   archive[name] = *v;
                           },
                           [&](const char* name, const std::optional<double>& v) {
                               if (v)
                                   archive[name] = jsonFromReal(*v);
                           },
                           [&](const char* name, const std::optional<Date>& v) {
                               if (v)
                                   archive[name] = nanosecondsFromDate(*v);
                           },
                           [&](const char* name, const std::shared_ptr<AlbumArtwork>& v) {
                               if (!v)
                                   return;
                               // The picture's own archive re-derives the MIME type from the
                               // bytes; a copied record keeps the one it had (a type read from a
                               // tag may differ), so it travels alongside, null when absent.
                               nlohmann::json artwork = v->toJSON();
                               artwork["mimeType"] =
                                   v->mimeType() ? ArchiveCoding::jsonFromText(*v->mimeType())
                                                 : nlohmann::json(nullptr);
                               archive[name] = std::move(artwork);
                           },
                           [&](const char* name, const std::optional<UserData>& v) {
                               if (!v)
                                   return;
                               nlohmann::json entries = nlohmann::json::array();
                               for (const auto& [identifier, chunks] : *v) {
                                   nlohmann::json encoded = nlohmann::json::array();
                                   for (const auto& chunk : chunks)
                                       encoded.push_back(ArchiveCoding::base64FromBytes(chunk));
                                   entries.push_back(
                                       {{"identifier", ArchiveCoding::jsonFromText(identifier)},
                                        {"chunks", std::move(encoded)}});
                               }
                               archive[name] = std::move(entries);
                           },
                       });
    if (!additionalTags_.empty()) {
        nlohmann::json tags = nlohmann::json::array();
        for (const auto& [key, values] : additionalTags_) {
            nlohmann::json list = nlohmann::json::array();
            for (const std::string& value : values)
                list.push_back(ArchiveCoding::jsonFromText(value));
            tags.push_back({{"key", ArchiveCoding::jsonFromText(key)}, {"values", list}});
        }
        archive["additionalTags"] = std::move(tags);
    }
    return archive;
}

std::unique_ptr<AudioMetadata> AudioMetadata::fromJSON(const nlohmann::json& archive) {
    if (!archive.is_object())
        return nullptr;
    auto metadata = std::make_unique<AudioMetadata>();
    bool valid = true;
    // The archived value of a field, or null when the field is absent.
    const auto valueFor = [&](const char* name) -> const nlohmann::json* {
        const auto found = archive.find(name);
        if (found == archive.end() || found->is_null())
            return nullptr;
        return &*found;
    };
    visitFields(*metadata,
                Overloaded{
                    [&](const char* name, std::optional<int64_t>& field) {
                        if (const auto* value = valueFor(name)) {
                            field = integerFromJSON(*value);
                            valid = valid && field.has_value();
                        }
                    },
                    [&](const char* name, std::optional<std::string>& field) {
                        if (const auto* value = valueFor(name)) {
                            field = ArchiveCoding::textFromJSON(*value);
                            valid = valid && field.has_value();
                        }
                    },
                    [&](const char* name, std::optional<bool>& field) {
                        if (const auto* value = valueFor(name)) {
                            if (value->is_boolean())
                                field = value->get<bool>();
                            else
                                valid = false;
                        }
                    },
                    [&](const char* name, std::optional<double>& field) {
                        if (const auto* value = valueFor(name)) {
                            field = realFromJSON(*value);
                            valid = valid && field.has_value();
                        }
                    },
                    [&](const char* name, std::optional<Date>& field) {
                        if (const auto* value = valueFor(name)) {
                            const auto nanoseconds = integerFromJSON(*value);
                            if (nanoseconds)
                                field = dateFromNanoseconds(*nanoseconds);
                            else
                                valid = false;
                        }
                    },
                    [&](const char* name, std::shared_ptr<AlbumArtwork>& field) {
                        const auto* value = valueFor(name);
                        if (!value)
                            return;
                        field = AlbumArtwork::fromJSON(*value);
                        if (!field) {
                            valid = false;
                            return;
                        }
                        const auto mimeType = value->find("mimeType");
                        if (mimeType == value->end())
                            return; // the picture's own archive: keep the derived type
                        if (mimeType->is_null()) {
                            field->setMimeType(std::nullopt);
                        } else if (auto text = ArchiveCoding::textFromJSON(*mimeType)) {
                            field->setMimeType(std::move(text));
                        } else {
                            valid = false;
                        }
                    },
                    [&](const char* name, std::optional<UserData>& field) {
                        const auto* value = valueFor(name);
                        if (!value)
                            return;
                        if (!value->is_array()) {
                            valid = false;
                            return;
                        }
                        UserData userData;
                        for (const auto& entry : *value) {
                            if (!entry.is_object() || !entry.contains("identifier") ||
                                !entry.contains("chunks") || !entry["chunks"].is_array()) {
                                valid = false;
                                return;
                            }
                            const auto identifier =
                                ArchiveCoding::textFromJSON(entry["identifier"]);
                            if (!identifier) {
                                valid = false;
                                return;
                            }
                            auto& chunks = userData[*identifier];
                            for (const auto& chunk : entry["chunks"]) {
                                auto bytes = chunk.is_string()
                                                 ? ArchiveCoding::bytesFromBase64(
                                                       chunk.get_ref<const std::string&>())
                                                 : std::nullopt;
                                if (!bytes) {
                                    valid = false;
                                    return;
                                }
                                chunks.push_back(std::move(*bytes));
                            }
                        }
                        field = std::move(userData);
                    },
                });
    if (valid)
        valid = additionalTagsFromJSON(archive, *metadata);
    if (!valid)
        return nullptr;
    return metadata;
}

nlohmann::ordered_json AudioMetadata::toInfoJSON() const {
    nlohmann::ordered_json info = nlohmann::ordered_json::object();
    visitFields(*this, Overloaded{
                           [&](const char* name, const std::optional<int64_t>& v) {
                               if (v)
                                   info[name] = *v;
                           },
                           [&](const char* name, const std::optional<std::string>& v) {
                               if (v)
                                   info[name] = ArchiveCoding::displayText(*v);
                           },
                           [&](const char* name, const std::optional<bool>& v) {
                               if (v)
                                   info[name] = *v;
                           },
                           [&](const char* name, const std::optional<double>& v) {
                               if (v && std::isfinite(*v))
                                   info[name] = *v;
                           },
                           [&](const char* name, const std::optional<Date>& v) {
                               if (v)
                                   info[name] = isoTextFromDate(*v);
                           },
                           [&](const char* name, const std::shared_ptr<AlbumArtwork>& v) {
                               if (v)
                                   info[name] = v->toInfoJSON();
                           },
                           [&](const char* name, const std::optional<UserData>& v) {
                               if (!v)
                                   return;
                               // The chunks' sizes: their bytes are no reading matter.
                               nlohmann::ordered_json chunks = nlohmann::ordered_json::object();
                               for (const auto& [identifier, blocks] : *v) {
                                   nlohmann::ordered_json sizes = nlohmann::ordered_json::array();
                                   for (const auto& block : blocks)
                                       sizes.push_back(block.size());
                                   chunks[ArchiveCoding::displayText(identifier)] =
                                       std::move(sizes);
                               }
                               info[name] = std::move(chunks);
                           },
                       });
    if (!additionalTags_.empty()) {
        nlohmann::ordered_json tags = nlohmann::ordered_json::object();
        for (const auto& [key, values] : additionalTags_) {
            nlohmann::ordered_json list = nlohmann::ordered_json::array();
            for (const std::string& value : values)
                list.push_back(ArchiveCoding::displayText(value));
            tags[ArchiveCoding::displayText(key)] = std::move(list);
        }
        info["additionalTags"] = std::move(tags);
    }
    return info;
}

} // namespace velvox
