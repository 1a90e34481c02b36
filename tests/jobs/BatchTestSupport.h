#pragma once
// A controllable stand-in encoder and a recording user interface, so that the
// file job and the controller can be driven step by step: each stand-in
// operation holds at a gate until the test lets it through, copies its input
// to its output, and fails when its input's name says so.

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "core/FormatRegistry.h"
#include "core/UtilityFunctions.h"
#include "formats/FormatTable.h"
#include "jobs/ApplicationController.h"
#include "jobs/BatchUserInterface.h"
#include "jobs/EncodeOperation.h"
#include "jobs/EncoderDescriptor.h"
#include "jobs/EncoderSettings.h"
#include "jobs/FileEncodeOperation.h"
#include "platform/MainRunLoop.h"
#include "platform/UserDefaults.h"
#include "support/JobsTestSupport.h"
#include "support/TestSupport.h"

namespace velvox::test {

// Shared by every stand-in operation of a test.
struct Gate {
    std::mutex mutex;
    std::condition_variable changed;
    bool open = true;         // pass straight through
    int passes = 0;           // when closed: operations allowed through
    int running = 0;          // operations inside main() now
    int peak = 0;             // most at once
    int started = 0;          // main() entered
    int64_t holdAtFrame = -1; // report this progress while held

    static Gate& shared() {
        static Gate gate;
        return gate;
    }
    void reset(bool startOpen) {
        std::lock_guard lock(mutex);
        open = startOpen;
        passes = running = peak = started = 0;
        holdAtFrame = -1;
    }
    void letThrough(int n) {
        {
            std::lock_guard lock(mutex);
            passes += n;
        }
        changed.notify_all();
    }
    int runningNow() {
        std::lock_guard lock(mutex);
        return running;
    }
};

// "Encodes" by copying; inputs whose name contains "bad" fail.
class GatedOperation : public EncodeOperation {
public:
    void main() override {
        if (!determineOutputPath())
            return;
        Gate& gate = Gate::shared();
        {
            std::unique_lock lock(gate.mutex);
            ++gate.running;
            ++gate.started;
            gate.peak = std::max(gate.peak, gate.running);
        }
        MainRunLoop::shared().wake();
        setCurrentStatus("Encoding Test");
        {
            // Held like an encoder half way through: it keeps reporting its
            // progress until it may go on.
            std::unique_lock lock(gate.mutex);
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
            while (!(gate.open || gate.passes > 0 || isCancelled()) &&
                   std::chrono::steady_clock::now() < deadline) {
                const int64_t frame = gate.holdAtFrame;
                if (frame >= 0) {
                    lock.unlock();
                    setTotalFrames(100);
                    setCurrentFrame(frame);
                    lock.lock();
                }
                gate.changed.wait_for(lock, std::chrono::milliseconds(10));
            }
            if (!gate.open && gate.passes > 0 && !isCancelled())
                --gate.passes;
            --gate.running;
        }
        const bool fails = inFilePath().find("bad") != std::string::npos;
        if (!isCancelled() && !fails) {
            const std::string temp = getTemporaryFilePath();
            setTempFilePath(temp);
            std::filesystem::copy_file(inFilePath(), temp,
                                       std::filesystem::copy_options::overwrite_existing);
            setSuccess(true);
            setTotalFrames(100);
            setCurrentFrame(100);
            moveEncodedFileToOutputLocation();
        } else if (isCancelled()) {
            setSuccess(true);
        }
        MainRunLoop::shared().wake();
        performOnMainThread([this] { completeOperation(); }, true);
    }
};

// Two stand-in encoders, each one registry row, under types no real encoder
// uses.
constexpr EncoderType kGatedType = EncoderType(100);
constexpr EncoderType kSecondGatedType = EncoderType(101);

inline const EncoderDescriptor kGatedEncoder{.encoderType = kGatedType,
                                             .formatName = "gated",
                                             .className = "GatedOperation",
                                             .make = makeEncoder<GatedOperation>};
inline const EncoderDescriptor kSecondGatedEncoder{.encoderType = kSecondGatedType,
                                                   .formatName = "gated2",
                                                   .className = "GatedOperation",
                                                   .make = makeEncoder<GatedOperation>};
inline const FormatEntry kGatedFormat{
    .name = "gated", .displayName = "Gated", .encoder = &kGatedEncoder};
inline const FormatEntry kSecondGatedFormat{
    .name = "gated2", .displayName = "Gated Two", .encoder = &kSecondGatedEncoder};

class GatedEncoders {
public:
    GatedEncoders() {
        FormatRegistry::addEntry(&kGatedFormat);
        FormatRegistry::addEntry(&kSecondGatedFormat);
    }
    ~GatedEncoders() {
        FormatRegistry::removeEntry(&kGatedFormat);
        FormatRegistry::removeEntry(&kSecondGatedFormat);
    }
};

inline std::shared_ptr<EncoderSettings> gatedFormat(const std::string& extension,
                                                    EncoderType type = kGatedType) {
    auto settings = std::make_shared<EncoderSettings>();
    settings->setEncoderType(type);
    settings->setExtension(extension);
    settings->setEnabled(true);
    return settings;
}

// Records what the controller shows; answers questions through `answer`.
class RecordingInterface : public BatchUserInterface {
public:
    struct Question {
        std::string message, informative, suppression;
        std::vector<std::string> buttons;
    };
    void showAlert(const std::string& message, const std::string& informative,
                   const std::string& button) override {
        alerts.push_back({message, informative, button});
    }
    void askQuestion(const std::string& message, const std::string& informative,
                     const std::vector<std::string>& buttons,
                     const std::string& suppression) override {
        questions.push_back({message, informative, suppression, buttons});
        if (controller && answerCode != 0) {
            // Answered later, as a person would.
            auto* c = controller;
            const int code = answerCode;
            const bool all = applyToAll;
            performOnMainThread([c, code, all] { c->alertDidEnd(code, all); }, false);
        }
    }
    void operationDidStart(const FileEncodeOperation&) override { ++starts; }
    void operationDidFinish(const FileEncodeOperation& job) override {
        finished.push_back({job.inFilePath(), job.success(), job.skipped(), job.isCancelled()});
    }
    void showFailureSheet(const std::string& message,
                          const std::vector<std::string>& buttons) override {
        failureSheets.push_back(message);
        failureButtons = buttons;
    }
    void beep() override { ++beeps; }

    struct Result {
        std::string path;
        bool success, skipped, cancelled;
    };
    ApplicationController* controller = nullptr;
    int answerCode = 0;
    bool applyToAll = false;
    std::vector<std::vector<std::string>> alerts;
    std::vector<Question> questions;
    std::vector<Result> finished;
    std::vector<std::string> failureSheets;
    std::vector<std::string> failureButtons;
    int starts = 0;
    int beeps = 0;
};

// Queues paths the way the desktop does: intake on a worker thread while the
// main loop runs.
inline void drop(ApplicationController& controller, const std::vector<std::string>& paths) {
    std::atomic<bool> done = false;
    std::thread intake([&] {
        controller.parseDroppedFiles(paths);
        done = true;
        MainRunLoop::shared().wake();
    });
    MainRunLoop::shared().runUntil([&] { return done.load(); });
    intake.join();
}

inline bool runUntil(const std::function<bool()>& condition,
                     std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        MainRunLoop::shared().runUntil(condition, std::chrono::milliseconds(20));
    }
    return true;
}

inline void writeText(const std::string& path, const std::string& text) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    writeFile(path, std::vector<uint8_t>(text.begin(), text.end()));
}

inline std::string readText(const std::string& path) {
    const auto bytes = readFile(path);
    return std::string(bytes.begin(), bytes.end());
}

// A controller with the stand-in encoders and the recording interface,
// writing into a folder of its own; no job may still run when it goes.
class BatchTest : public ::testing::Test {
protected:
    void SetUp() override {
        Gate::shared().reset(true);
        prefs.set("outputSameAsSource", false);
        prefs.set("destinationDirectory", out.path().string());
        prefs.set("useCustomNamingScheme", false);
        prefs.set("preserveInputFileDirectoryStructure", false);
        prefs.set("overwriteOutputFiles", false);
        prefs.set("numProcesses", "2");
        prefs.set("deleteOriginal", false);
        prefs.set("skipFilesOfSameType", false);
        prefs.set("keepFilesInQueueAfterEncoding", false);
        controller.setPersistsOutputFormats(false);
        ui.controller = &controller;
        controller.setUserInterface(&ui);
    }
    void TearDown() override {
        Gate::shared().reset(true);
        Gate::shared().changed.notify_all();
        EXPECT_TRUE(runUntil([&] { return !controller.encoderRunning(); }));
    }
    void runBatch() {
        controller.encode();
        ASSERT_TRUE(runUntil([&] { return !controller.encoderRunning(); }));
    }

    TempDir in, out;
    Preferences prefs;
    GatedEncoders encoders;
    ApplicationController controller;
    RecordingInterface ui;
};

} // namespace velvox::test
