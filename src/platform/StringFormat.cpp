#include "platform/StringFormat.h"

#include <algorithm>
#include <cctype>

#include <cstdarg>
#include <vector>

namespace velvox {
namespace detail {

std::string rewriteObjectPlaceholders(std::string_view format) {
    std::string out;
    out.reserve(format.size());
    for (size_t i = 0; i < format.size(); ++i) {
        if (format[i] == '%' && i + 1 < format.size()) {
            if (format[i + 1] == '@') {
                out += "%s";
                ++i;
                continue;
            }
            if (format[i + 1] == '%') {
                out += "%%";
                ++i;
                continue;
            }
        }
        out += format[i];
    }
    return out;
}

std::string vformat(const char* format, ...) {
    va_list args;
    va_start(args, format);
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    std::string out;
    if (needed > 0) {
        std::vector<char> buffer(size_t(needed) + 1);
        std::vsnprintf(buffer.data(), buffer.size(), format, args);
        out.assign(buffer.data(), size_t(needed));
    }
    va_end(args);
    return out;
}

} // namespace detail

std::string fourCharCodeString(int32_t code) {
    const uint32_t u = uint32_t(code);
    char c[4] = {char(u >> 24), char(u >> 16), char(u >> 8), char(u)};
    for (char ch : c)
        if (!std::isprint(static_cast<unsigned char>(ch)))
            return std::to_string(code);
    return std::string(c, 4);
}

std::string lowercaseASCII(std::string_view text) {
    std::string lower(text);
    std::transform(lower.begin(), lower.end(), lower.begin(),
                   [](unsigned char c) { return char(std::tolower(c)); });
    return lower;
}

std::string lowercaseExtension(const std::filesystem::path& path) {
    const std::string ext = path.extension().string();
    return lowercaseASCII(ext.empty() ? ext : std::string_view(ext).substr(1));
}

} // namespace velvox
