#pragma once
// The building blocks of the metadata archives: byte blocks as base64 (through
// libavutil) and text that survives the trip through JSON exactly. JSON text
// must be valid UTF-8, but paths and file names on Linux are arbitrary bytes;
// such text is archived as {"base64": "..."} so that nothing is lost.

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

namespace velvox {

class ArchiveCoding {
public:
    static std::string base64FromBytes(const uint8_t* bytes, size_t size);
    static std::string base64FromBytes(const std::vector<uint8_t>& bytes) {
        return base64FromBytes(bytes.data(), bytes.size());
    }
    // Strict: canonical padding only, no white space; null for anything else.
    static std::optional<std::vector<uint8_t>> bytesFromBase64(std::string_view text);

    static bool isValidUTF8(std::string_view text);
    // A JSON string when the text is valid UTF-8, else {"base64": bytes}.
    static nlohmann::json jsonFromText(const std::string& text);
    // The inverse of jsonFromText; null when the value is neither form.
    static std::optional<std::string> textFromJSON(const nlohmann::json& value);
    // For display only: invalid UTF-8 sequences become U+FFFD.
    static std::string displayText(std::string_view text);
};

} // namespace velvox
