#pragma once
// The program-wide error log: every component appends a line when something
// went wrong for a file; the command line shows the lines at the end of a run
// and can save them. Safe to use from any thread.

#include <chrono>
#include <filesystem>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace velvox {

class ErrorLog {
public:
    // Info lines tell what a conversion could not keep without it failing
    // (tags an output cannot hold); they are not errors of the batch.
    enum class Level { Error, Info };
    struct Entry {
        std::chrono::system_clock::time_point date;
        std::string message;
        Level level = Level::Error;
    };

    static ErrorLog& sharedController();

    void logMessage(const std::string& message, Level level = Level::Error);
    std::vector<Entry> entries() const;
    std::vector<std::string> messages() const;
    size_t count() const;
    void clear();
    // Writes "date: message" lines; returns false when the file cannot be written.
    bool saveToFile(const std::filesystem::path& path) const;

    // Called (on the logging thread) for every new line; used to echo lines live.
    void setListener(std::function<void(const Entry&)> listener);

    static std::string formatEntry(const Entry& entry);

private:
    ErrorLog() = default;
    mutable std::mutex mutex_;
    std::vector<Entry> entries_;
    std::function<void(const Entry&)> listener_;
};

} // namespace velvox
