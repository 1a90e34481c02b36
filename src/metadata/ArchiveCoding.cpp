#include "metadata/ArchiveCoding.h"

#include <algorithm>

extern "C" {
#include <libavutil/base64.h>
}

namespace velvox {

namespace {

// av_base64_* take int sizes; large blocks go through in pieces. A piece of a
// multiple of 3 bytes encodes to whole quadruples without padding, so the
// pieces simply concatenate (and decode the same way in 4-character pieces).
constexpr size_t kBytesPerPiece = 3 * (1u << 20);
constexpr size_t kCharsPerPiece = 4 * (1u << 20);

bool isBase64Character(char c) {
    return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '+' ||
           c == '/';
}

// Length of the well-formed UTF-8 sequence at text[pos], or 0 when it is not
// one (overlong forms, surrogates and values above U+10FFFF included).
size_t utf8SequenceLength(std::string_view text, size_t pos) {
    const auto byte = [&](size_t i) { return static_cast<uint8_t>(text[i]); };
    const uint8_t lead = byte(pos);
    if (lead < 0x80)
        return 1;
    size_t length;
    uint8_t low = 0x80, high = 0xBF; // allowed range of the second byte
    if (lead >= 0xC2 && lead <= 0xDF) {
        length = 2;
    } else if (lead >= 0xE0 && lead <= 0xEF) {
        length = 3;
        if (lead == 0xE0)
            low = 0xA0;
        else if (lead == 0xED)
            high = 0x9F;
    } else if (lead >= 0xF0 && lead <= 0xF4) {
        length = 4;
        if (lead == 0xF0)
            low = 0x90;
        else if (lead == 0xF4)
            high = 0x8F;
    } else {
        return 0;
    }
    if (text.size() - pos < length)
        return 0;
    if (byte(pos + 1) < low || byte(pos + 1) > high)
        return 0;
    for (size_t i = 2; i < length; ++i)
        if (byte(pos + i) < 0x80 || byte(pos + i) > 0xBF)
            return 0;
    return length;
}

} // namespace

std::string ArchiveCoding::base64FromBytes(const uint8_t* bytes, size_t size) {
    std::string out;
    out.reserve((size + 2) / 3 * 4);
    std::vector<char> piece(AV_BASE64_SIZE(kBytesPerPiece));
    for (size_t offset = 0; offset < size; offset += kBytesPerPiece) {
        const size_t n = std::min(kBytesPerPiece, size - offset);
        const char* encoded = av_base64_encode(piece.data(), static_cast<int>(piece.size()),
                                               bytes + offset, static_cast<int>(n));
        if (encoded)
            out += encoded;
    }
    return out;
}

std::optional<std::vector<uint8_t>> ArchiveCoding::bytesFromBase64(std::string_view text) {
    // av_base64_decode stops quietly at the first '=' it meets, so the shape
    // is checked here first: whole quadruples, padding only at the very end.
    if (text.size() % 4 != 0)
        return std::nullopt;
    size_t padding = 0;
    if (!text.empty() && text.back() == '=')
        padding = text[text.size() - 2] == '=' ? 2 : 1;
    for (size_t i = 0; i < text.size() - padding; ++i)
        if (!isBase64Character(text[i]))
            return std::nullopt;

    const size_t expected = text.size() / 4 * 3 - padding;
    std::vector<uint8_t> out(expected + 3);
    size_t written = 0;
    std::string piece;
    for (size_t offset = 0; offset < text.size(); offset += kCharsPerPiece) {
        piece.assign(text.substr(offset, kCharsPerPiece));
        const int n = av_base64_decode(out.data() + written, piece.c_str(),
                                       static_cast<int>(out.size() - written));
        if (n < 0)
            return std::nullopt;
        written += static_cast<size_t>(n);
    }
    if (written != expected)
        return std::nullopt;
    out.resize(written);
    return out;
}

bool ArchiveCoding::isValidUTF8(std::string_view text) {
    for (size_t pos = 0; pos < text.size();) {
        const size_t n = utf8SequenceLength(text, pos);
        if (n == 0)
            return false;
        pos += n;
    }
    return true;
}

nlohmann::json ArchiveCoding::jsonFromText(const std::string& text) {
    if (isValidUTF8(text))
        return text;
    return nlohmann::json{
        {"base64", base64FromBytes(reinterpret_cast<const uint8_t*>(text.data()), text.size())}};
}

std::optional<std::string> ArchiveCoding::textFromJSON(const nlohmann::json& value) {
    if (value.is_string())
        return value.get<std::string>();
    if (value.is_object() && value.size() == 1 && value.contains("base64") &&
        value["base64"].is_string()) {
        auto bytes = bytesFromBase64(value["base64"].get_ref<const std::string&>());
        if (bytes)
            return std::string(bytes->begin(), bytes->end());
    }
    return std::nullopt;
}

std::string ArchiveCoding::displayText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (size_t pos = 0; pos < text.size();) {
        const size_t n = utf8SequenceLength(text, pos);
        if (n == 0) {
            out += "\xEF\xBF\xBD";
            ++pos;
        } else {
            out.append(text.substr(pos, n));
            pos += n;
        }
    }
    return out;
}

} // namespace velvox
