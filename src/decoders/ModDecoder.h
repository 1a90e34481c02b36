#pragma once
// Tracker modules (MOD, S3M, XM, IT and the other formats libmodplug reads),
// rendered as 16-bit stereo at 44.1 kHz, played once without loops.

#include <memory>
#include <mutex>

#include <libmodplug/modplug.h>

#include "core/KDDecoder.h"

namespace velvox {

class ModDecoder : public KDDecoder {
public:
    ModDecoder();
    ~ModDecoder() override;

    // Called on the encode operation's thread, like every member below.
    bool initWithFilename(const std::string& path) override;
    const char* className() const override { return "ModDecoder"; }
    // The playing time libmodplug computes, in frames; an estimate.
    int64_t totalFrames() const override { return totalFrames_; }
    bool decodesInRealTime() const override { return true; }
    void fillPCMBuffer() override;

    // libmodplug keeps its settings in globals that loading and rendering
    // read, so every decoder in the process changes, loads and reads under
    // this one lock.
    static std::mutex& moduleMutex();

private:
    struct Deleter {
        void operator()(ModPlugFile* file) const;
    };

    std::unique_ptr<ModPlugFile, Deleter> module_;
    int64_t totalFrames_ = -1;
};

} // namespace velvox
