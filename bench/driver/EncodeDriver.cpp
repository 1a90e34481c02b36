// Runs one encode operation on one file, the way a batch would, for the
// benchmark scripts: velvox_encode_driver ENCODER IN OUTDIR [key=value...]
// ENCODER is the registered encoder type number; the key=value pairs are
// settings-record fields (bitrate, quality, vbrQuality, method, mode,
// sampleRate, extension). Preferences stay in memory: a temporary store.

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <iostream>
#include <set>
#include <string>

#include "decoders/DecoderRegistration.h"
#include "encoders/EncoderRegistration.h"
#include "jobs/EncodeOperation.h"
#include "jobs/EncodeOperationDelegate.h"
#include "jobs/EncoderSettings.h"
#include "platform/ErrorLog.h"
#include "platform/MainRunLoop.h"
#include "platform/TaggingThread.h"
#include "platform/UserDefaults.h"

using namespace velvox;

namespace {

class DriverBatch : public EncodeOperationDelegate {
public:
    bool createdOutputPathsContains(const std::string& path) override {
        return created.count(path) != 0;
    }
    void addCreatedOutputPath(const std::string& path) override { created.insert(path); }
    TaggingThread& taggingThread() override { return tagging; }

    std::set<std::string> created;
    TaggingThread tagging;
};

} // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::cerr << "usage: velvox_encode_driver ENCODER-TYPE IN OUTDIR [key=value...]\n";
        return 2;
    }
    const std::filesystem::path store =
        std::filesystem::temp_directory_path() / "velvox-encode-driver-defaults.json";
    UserDefaults::resetStandardUserDefaults(store);
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    defaults.setVolatileObject("outputSameAsSource", false);
    defaults.setVolatileObject("destinationDirectory", std::string(argv[3]));
    defaults.setVolatileObject("overwriteOutputFiles", true);
    defaults.setVolatileObject("promptBeforeOverwriting", false);
    defaults.setVolatileObject("writeMetadata", false);
    DecoderRegistration::registerAll();
    EncoderRegistration::registerAll();

    nlohmann::json fields = {{"enabled", true}, {"encoderType", std::stoi(argv[1])}};
    for (int i = 4; i < argc; ++i) {
        const std::string pair = argv[i];
        const size_t eq = pair.find('=');
        if (eq == std::string::npos)
            continue;
        const std::string key = pair.substr(0, eq), value = pair.substr(eq + 1);
        if (key == "extension")
            fields[key] = value;
        else
            fields[key] = std::stoll(value);
    }
    auto settings = std::make_shared<EncoderSettings>();
    settings->initWithDictionary(fields);
    std::unique_ptr<EncodeOperation> op =
        EncodeOperation::encodeOperationForType(std::stoi(argv[1]));
    if (!op) {
        std::cerr << "no encoder of type " << argv[1] << "\n";
        return 2;
    }
    DriverBatch batch;
    op->initWithFilePath(argv[2], argv[2]);
    op->setSettings(settings);
    op->setDelegate(&batch);
    op->setMetadata(std::make_shared<AudioMetadata>());
    op->start();
    MainRunLoop::shared().runUntil([&] { return op->isFinished(); }, std::chrono::hours(1));
    for (const std::string& line : ErrorLog::sharedController().messages())
        std::cerr << line << "\n";
    std::filesystem::remove(store);
    return op->success() ? 0 : 1;
}
