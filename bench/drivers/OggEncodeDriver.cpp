// Runs one real Opus or Speex encode operation on a file, the way a batch
// does (decoder, shared loop, encoder, move into place), without tagging.
// The benchmark script times this process against the reference encoder.
//
//   velvox_ogg_encode_driver opus|speex INPUT OUTPUT_FOLDER

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <set>
#include <string>
#include <system_error>

#include "decoders/DecoderRegistration.h"
#include "encoders/OggOpusEncodeOperation.h"
#include "encoders/OggSpeexEncodeOperation.h"
#include "jobs/EncodeOperationDelegate.h"
#include "jobs/EncoderSettings.h"
#include "platform/ErrorLog.h"
#include "platform/MainRunLoop.h"
#include "platform/TaggingThread.h"
#include "platform/UserDefaults.h"

namespace {

class Delegate : public velvox::EncodeOperationDelegate {
public:
    bool createdOutputPathsContains(const std::string& path) override {
        return created.count(path) != 0;
    }
    void addCreatedOutputPath(const std::string& path) override { created.insert(path); }
    velvox::TaggingThread& taggingThread() override { return tagging; }
    std::set<std::string> created;
    velvox::TaggingThread tagging;
};

} // namespace

int main(int argc, char** argv) {
    using namespace velvox;
    if (argc != 4) {
        std::fprintf(stderr, "usage: %s opus|speex INPUT OUTPUT_FOLDER\n", argv[0]);
        return 2;
    }
    const std::string kind = argv[1];
    const std::filesystem::path outFolder = std::filesystem::absolute(argv[3]);
    UserDefaults::resetStandardUserDefaults(outFolder / "defaults.json");
    UserDefaults& defaults = UserDefaults::standardUserDefaults();
    defaults.setVolatileObject("outputSameAsSource", false);
    defaults.setVolatileObject("destinationDirectory", outFolder.string());
    defaults.setVolatileObject("writeMetadata", false);
    defaults.setVolatileObject("overwriteOutputFiles", true);
    defaults.setVolatileObject("saveAlbumArtworkToFile", false);
    DecoderRegistration::registerAll();

    auto settings = std::make_shared<EncoderSettings>();
    std::unique_ptr<EncodeOperation> op;
    if (kind == "opus") {
        // What opusenc does by default besides the rate: VBR, complexity 10,
        // 20 ms frames.
        settings->setEncoderType(EncoderTypeOpus);
        settings->setExtension("opus");
        settings->setBitrate(128000);
        settings->setBitrateMethod(BitrateMethodVBR);
        settings->setQuality(10);
        settings->setFramesPerPacket(960);
        op = std::make_unique<OggOpusEncodeOperation>();
    } else if (kind == "speex") {
        // speexenc -w --vbr: wideband, VBR quality 8, complexity 3.
        settings->setEncoderType(EncoderTypeOggSpeex);
        settings->setExtension("spx");
        settings->setBitrateMethod(BitrateMethodVBR);
        settings->setVbrQuality(8);
        settings->setQuality(3);
        settings->setFramesPerPacket(1);
        op = std::make_unique<OggSpeexEncodeOperation>();
    } else {
        std::fprintf(stderr, "unknown kind %s\n", kind.c_str());
        return 2;
    }
    // A file left by the previous run would make the operation ask what to
    // do with it; the benchmark wants a plain encode every time.
    std::error_code ec;
    std::filesystem::remove(outFolder / std::filesystem::path(argv[2]).filename().replace_extension(
                                            *settings->extension()),
                            ec);
    Delegate delegate;
    op->initWithFilePath(argv[2], argv[2]);
    op->setSettings(settings);
    op->setDelegate(&delegate);
    op->setMetadata(std::make_shared<AudioMetadata>());
    // This thread becomes the main thread before the operation needs one.
    MainRunLoop::shared().runUntil([] { return true; });
    op->start();
    MainRunLoop::shared().runUntil([&] { return op->isFinished(); }, std::chrono::hours(1));
    for (const std::string& line : ErrorLog::sharedController().messages())
        std::fprintf(stderr, "%s\n", line.c_str());
    return op->isFinished() && op->success() ? 0 : 1;
}
