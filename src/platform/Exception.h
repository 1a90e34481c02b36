#pragma once
// The one exception type of the program. Its name says what kind of failure it
// is ("NSInternalInconsistencyException" for a failed assertion, or a named
// condition such as "IllegalInputException"); its reason is the message text.

#include <map>
#include <source_location>
#include <stdexcept>
#include <string>

#include "platform/StringFormat.h"

namespace velvox {

class Exception : public std::exception {
public:
    using UserInfo = std::map<std::string, std::string>;

    Exception(std::string name, std::string reason, UserInfo userInfo = {},
              std::source_location where = std::source_location::current());

    const std::string& name() const { return name_; }
    const std::string& reason() const { return reason_; }
    const UserInfo& userInfo() const { return userInfo_; }
    // What log lines show of the exception: its reason.
    const std::string& description() const { return reason_; }
    const std::string& file() const { return file_; }
    const std::string& function() const { return function_; }
    uint32_t line() const { return line_; }

    const char* what() const noexcept override { return reason_.c_str(); }

    static constexpr const char* kInternalInconsistency = "NSInternalInconsistencyException";

private:
    std::string name_;
    std::string reason_;
    UserInfo userInfo_;
    std::string file_;
    std::string function_;
    uint32_t line_ = 0;
};

// Raises the internal-inconsistency exception with a formatted reason.
[[noreturn]] void raiseAssertion(std::string reason, std::source_location where);

} // namespace velvox

// VLX_ASSERT(condition, format, args...): the assertion check. The reason is the
// format with its values filled in; the exception records file and function.
#define VLX_ASSERT(condition, ...)                                                                 \
    do {                                                                                           \
        if (!(condition)) [[unlikely]]                                                             \
            ::velvox::raiseAssertion(::velvox::stringWithFormat(__VA_ARGS__),                      \
                                     std::source_location::current());                             \
    } while (0)

// VLX_PARAMETER_ASSERT(condition): "Invalid parameter not satisfying: <condition>".
#define VLX_PARAMETER_ASSERT(condition)                                                            \
    VLX_ASSERT(condition, "Invalid parameter not satisfying: %@", #condition)

// The same check where the condition is written differently in C++ than in the
// message users and logs have always shown.
#define VLX_PARAMETER_ASSERT_TEXT(condition, text)                                                 \
    VLX_ASSERT(condition, "Invalid parameter not satisfying: %@", text)
