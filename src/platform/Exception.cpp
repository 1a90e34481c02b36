#include "platform/Exception.h"

#include <filesystem>

namespace velvox {

Exception::Exception(std::string name, std::string reason, UserInfo userInfo,
                     std::source_location where)
    : name_(std::move(name)), reason_(std::move(reason)), userInfo_(std::move(userInfo)),
      file_(std::filesystem::path(where.file_name()).stem().string()),
      function_(where.function_name()), line_(where.line()) {}

void raiseAssertion(std::string reason, std::source_location where) {
    throw Exception(Exception::kInternalInconsistency, std::move(reason), {}, where);
}

} // namespace velvox
