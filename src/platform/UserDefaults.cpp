#include "platform/UserDefaults.h"

#include <cstdlib>
#include <fstream>
#include <memory>
#include <string_view>
#include <thread>

#include <unistd.h>

#include "platform/ErrorLog.h"

namespace velvox {

extern const std::string_view kVelvoxDefaultsResource;

namespace {

std::filesystem::path xdgDirectory(const char* variable, const char* fallback) {
    const char* value = std::getenv(variable);
    if (value && *value && std::filesystem::path(value).is_absolute())
        return value;
    const char* home = std::getenv("HOME");
    return std::filesystem::path(home ? home : "/tmp") / fallback;
}

std::unique_ptr<UserDefaults>& standardInstance() {
    static std::unique_ptr<UserDefaults> instance;
    return instance;
}

std::mutex& standardMutex() {
    static std::mutex m;
    return m;
}

// Numbers stored as text ("numProcesses" is a decimal string) and booleans
// stored as numbers are read the way the preference is meant.
long long toInteger(const UserDefaults::Value& v) {
    if (v.is_boolean())
        return v.get<bool>() ? 1 : 0;
    if (v.is_number_integer())
        return v.get<long long>();
    if (v.is_number())
        return static_cast<long long>(v.get<double>());
    if (v.is_string()) {
        const std::string s = v.get<std::string>();
        char* end = nullptr;
        const long long n = std::strtoll(s.c_str(), &end, 10);
        return end == s.c_str() ? 0 : n;
    }
    return 0;
}

} // namespace

UserDefaults::UserDefaults(std::filesystem::path storePath) : storePath_(std::move(storePath)) {
    registered_ = registeredDefaultsResource();
    load();
}

UserDefaults& UserDefaults::standardUserDefaults() {
    std::lock_guard lock(standardMutex());
    auto& instance = standardInstance();
    if (!instance)
        instance = std::make_unique<UserDefaults>(defaultStorePath());
    return *instance;
}

void UserDefaults::resetStandardUserDefaults(const std::filesystem::path& storePath) {
    std::lock_guard lock(standardMutex());
    standardInstance() = std::make_unique<UserDefaults>(storePath);
}

std::filesystem::path UserDefaults::defaultStorePath() {
    return xdgDirectory("XDG_CONFIG_HOME", ".config") / "velvox" / "defaults.json";
}

std::filesystem::path UserDefaults::applicationSupportDirectory() {
    return xdgDirectory("XDG_DATA_HOME", ".local/share") / "velvox";
}

UserDefaults::Value UserDefaults::registeredDefaultsResource() {
    Value defaults = Value::parse(kVelvoxDefaultsResource);
    unsigned long processors = std::thread::hardware_concurrency();
    if (processors == 0)
        processors = 1;
    defaults["numProcesses"] = std::to_string(processors);
    return defaults;
}

void UserDefaults::registerDefaults(const Value& defaults) {
    std::lock_guard lock(mutex_);
    for (auto it = defaults.begin(); it != defaults.end(); ++it)
        registered_[it.key()] = it.value();
}

void UserDefaults::load() {
    std::ifstream in(storePath_);
    if (!in)
        return;
    Value parsed = Value::parse(in, nullptr, false);
    if (parsed.is_object()) {
        persistent_ = std::move(parsed);
    } else {
        ErrorLog::sharedController().logMessage("Ignoring unreadable preferences file: " +
                                                storePath_.string());
    }
}

bool UserDefaults::save() const {
    std::error_code ec;
    std::filesystem::create_directories(storePath_.parent_path(), ec);
    const auto temporary = storePath_.string() + ".tmp-" + std::to_string(::getpid());
    {
        std::ofstream out(temporary, std::ios::trunc);
        out << persistent_.dump(2) << '\n';
        if (!out.flush()) {
            std::filesystem::remove(temporary, ec);
            return false;
        }
    }
    std::filesystem::rename(temporary, storePath_, ec);
    if (ec) {
        std::filesystem::remove(temporary, ec);
        return false;
    }
    return true;
}

std::optional<UserDefaults::Value> UserDefaults::lookup(const std::string& key) const {
    for (const Value* layer : {&volatile_, &persistent_, &registered_}) {
        auto it = layer->find(key);
        if (it != layer->end())
            return *it;
    }
    return std::nullopt;
}

std::optional<UserDefaults::Value> UserDefaults::objectForKey(const std::string& key) const {
    std::lock_guard lock(mutex_);
    return lookup(key);
}

bool UserDefaults::boolForKey(const std::string& key) const {
    auto v = objectForKey(key);
    if (!v)
        return false;
    if (v->is_string()) {
        const std::string s = v->get<std::string>();
        return s == "YES" || s == "yes" || s == "true" || s == "TRUE" || toInteger(*v) != 0;
    }
    return toInteger(*v) != 0;
}

long long UserDefaults::integerForKey(const std::string& key) const {
    auto v = objectForKey(key);
    return v ? toInteger(*v) : 0;
}

double UserDefaults::doubleForKey(const std::string& key) const {
    auto v = objectForKey(key);
    if (!v)
        return 0;
    if (v->is_number())
        return v->get<double>();
    if (v->is_string())
        return std::strtod(v->get<std::string>().c_str(), nullptr);
    return double(toInteger(*v));
}

std::optional<std::string> UserDefaults::stringForKey(const std::string& key) const {
    auto v = objectForKey(key);
    if (!v)
        return std::nullopt;
    if (v->is_string())
        return v->get<std::string>();
    if (v->is_number() || v->is_boolean())
        return v->dump();
    return std::nullopt;
}

bool UserDefaults::setObject(const std::string& key, const Value& value) {
    std::lock_guard lock(mutex_);
    persistent_[key] = value;
    if (!save()) {
        ErrorLog::sharedController().logMessage("Could Not Save Preferences To: " +
                                                storePath_.string());
        return false;
    }
    return true;
}

bool UserDefaults::removeObjectForKey(const std::string& key) {
    std::lock_guard lock(mutex_);
    persistent_.erase(key);
    return save();
}

void UserDefaults::setVolatileObject(const std::string& key, const Value& value) {
    std::lock_guard lock(mutex_);
    volatile_[key] = value;
}

UserDefaults::Value UserDefaults::dictionaryRepresentation() const {
    std::lock_guard lock(mutex_);
    Value merged = registered_;
    for (const Value* layer : {&persistent_, &volatile_})
        for (auto it = layer->begin(); it != layer->end(); ++it)
            merged[it.key()] = it.value();
    return merged;
}

} // namespace velvox
