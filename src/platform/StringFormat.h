#pragma once
// printf-style formatting for the program's own message texts. The texts keep
// their original "%@" object placeholders; here "%@" takes any string-like
// argument (std::string, string_view, filesystem path, C string).

#include <cstdio>
#include <filesystem>
#include <string>
#include <string_view>
#include <type_traits>

namespace velvox {

namespace detail {
std::string rewriteObjectPlaceholders(std::string_view format);
std::string vformat(const char* format, ...) __attribute__((format(printf, 1, 2)));

inline const char* formatArgument(const std::string& s) { return s.c_str(); }
inline const char* formatArgument(const char* s) { return s ? s : "(null)"; }
inline const char* formatArgument(char* s) { return s ? s : "(null)"; }
template <typename T>
requires std::is_arithmetic_v<T> || std::is_pointer_v<T> || std::is_enum_v<T>
inline T formatArgument(T value) { return value; }
} // namespace detail

template <typename... Args>
std::string stringWithFormat(std::string_view format, const Args&... args) {
    // Paths and views are turned into owned strings first so that the
    // pointers handed to printf outlive the call.
    auto own = [](const auto& a) -> decltype(auto) {
        using A = std::decay_t<decltype(a)>;
        if constexpr (std::is_same_v<A, std::filesystem::path>)
            return a.string();
        else if constexpr (std::is_same_v<A, std::string_view>)
            return std::string(a);
        else
            return (a);
    };
    const std::string rewritten = detail::rewriteObjectPlaceholders(format);
    return [&](const auto&... owned) {
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-nonliteral"
#pragma GCC diagnostic ignored "-Wformat-security"
        return detail::vformat(rewritten.c_str(), detail::formatArgument(owned)...);
#pragma GCC diagnostic pop
    }(own(args)...);
}

inline std::string stringWithFormat(std::string_view format) {
    return detail::rewriteObjectPlaceholders(format);
}

// A four-character code as text, the way status codes are shown in messages;
// values that are not printable come out as a decimal number.
std::string fourCharCodeString(int32_t code);

// ASCII letters to lower case; other bytes (UTF-8 included) stay as they are.
std::string lowercaseASCII(std::string_view text);
// A path's extension without its dot, in lower case ("" when it has none):
// the form in which file types are compared everywhere.
std::string lowercaseExtension(const std::filesystem::path& path);

} // namespace velvox
