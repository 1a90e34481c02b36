#include "platform/ErrorLog.h"

#include <ctime>
#include <fstream>

namespace velvox {

ErrorLog& ErrorLog::sharedController() {
    static ErrorLog log;
    return log;
}

void ErrorLog::logMessage(const std::string& message, Level level) {
    Entry entry{std::chrono::system_clock::now(), message, level};
    std::function<void(const Entry&)> listener;
    {
        std::lock_guard lock(mutex_);
        entries_.push_back(entry);
        listener = listener_;
    }
    if (listener)
        listener(entry);
}

std::vector<ErrorLog::Entry> ErrorLog::entries() const {
    std::lock_guard lock(mutex_);
    return entries_;
}

std::vector<std::string> ErrorLog::messages() const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> out;
    out.reserve(entries_.size());
    for (const auto& e : entries_)
        out.push_back(e.message);
    return out;
}

size_t ErrorLog::count() const {
    std::lock_guard lock(mutex_);
    return entries_.size();
}

void ErrorLog::clear() {
    std::lock_guard lock(mutex_);
    entries_.clear();
}

void ErrorLog::setListener(std::function<void(const Entry&)> listener) {
    std::lock_guard lock(mutex_);
    listener_ = std::move(listener);
}

std::string ErrorLog::formatEntry(const Entry& entry) {
    const std::time_t t = std::chrono::system_clock::to_time_t(entry.date);
    std::tm tm{};
    localtime_r(&t, &tm);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &tm);
    return std::string(stamp) + ": " + entry.message;
}

bool ErrorLog::saveToFile(const std::filesystem::path& path) const {
    std::ofstream out(path, std::ios::trunc);
    if (!out)
        return false;
    for (const auto& e : entries())
        out << formatEntry(e) << '\n';
    return bool(out.flush());
}

} // namespace velvox
