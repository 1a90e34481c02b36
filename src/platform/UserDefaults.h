#pragma once
// The per-user preferences store: a JSON object on disk, layered as
//   values set for this run only (command-line --set) >
//   values the user saved > registered defaults.
// Registered defaults come from the "Velvox-Defaults" resource compiled into
// the program. Reads and writes are thread-safe; every write is saved at once,
// atomically (write to a temporary file, then rename).

#include <filesystem>
#include <mutex>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace velvox {

class UserDefaults {
public:
    using Value = nlohmann::json;

    // A store kept in the given file (it need not exist yet), with the
    // program's registered defaults.
    explicit UserDefaults(std::filesystem::path storePath);

    // The store at $XDG_CONFIG_HOME/velvox/defaults.json (~/.config/velvox).
    static UserDefaults& standardUserDefaults();
    // Points the standard store somewhere else (tests, --config).
    static void resetStandardUserDefaults(const std::filesystem::path& storePath);
    static std::filesystem::path defaultStorePath();
    // $XDG_DATA_HOME/velvox (~/.local/share/velvox).
    static std::filesystem::path applicationSupportDirectory();

    // The registered defaults: the resource with "numProcesses" set to the
    // processor count as a decimal string.
    static Value registeredDefaultsResource();

    const std::filesystem::path& storePath() const { return storePath_; }

    void registerDefaults(const Value& defaults);
    std::optional<Value> objectForKey(const std::string& key) const;
    bool boolForKey(const std::string& key) const;
    long long integerForKey(const std::string& key) const;
    double doubleForKey(const std::string& key) const;
    std::optional<std::string> stringForKey(const std::string& key) const;

    // Saved for good. Returns false (and logs) when the file cannot be written.
    bool setObject(const std::string& key, const Value& value);
    bool removeObjectForKey(const std::string& key);
    // For this run only; never saved.
    void setVolatileObject(const std::string& key, const Value& value);

    // Every key visible through the layers, with its effective value.
    Value dictionaryRepresentation() const;

private:
    void load();
    bool save() const;
    std::optional<Value> lookup(const std::string& key) const;

    std::filesystem::path storePath_;
    mutable std::mutex mutex_;
    Value registered_ = Value::object();
    Value persistent_ = Value::object();
    Value volatile_ = Value::object();
};

} // namespace velvox
