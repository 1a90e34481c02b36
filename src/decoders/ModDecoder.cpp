#include "decoders/ModDecoder.h"

#include <cerrno>
#include <cstdio>
#include <sys/stat.h>
#include <vector>

#include "core/UtilityFunctions.h"
#include "platform/ErrorLog.h"
#include "platform/StringFormat.h"

namespace velvox {

namespace {

constexpr int kSampleRate = 44100;
constexpr int kChannels = 2;
constexpr int kBits = 16;

struct FileCloser {
    void operator()(std::FILE* file) const { std::fclose(file); }
};

// The whole file, or nothing (after logging) when it cannot be read.
bool readWholeFile(const std::string& path, std::vector<uint8_t>& bytes) {
    auto& log = ErrorLog::sharedController();
    std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rb"));
    if (!file) {
        log.logMessage(stringWithFormat("ModDecoder Unable To Open File: %@", path));
        return false;
    }
    struct stat info {};
    if (fstat(fileno(file.get()), &info) != 0) {
        log.logMessage(stringWithFormat("ModDecoder Unable To Stat File: %@", path));
        return false;
    }
    try {
        bytes.resize(size_t(info.st_size));
    } catch (const std::bad_alloc&) {
        log.logMessage(stringWithFormat("ModDecoder Out Of Memory!  File: %@", path));
        return false;
    }
    if (!bytes.empty() && std::fread(bytes.data(), 1, bytes.size(), file.get()) != bytes.size()) {
        log.logMessage(stringWithFormat("ModDecoder Unable To Read File: %@", path));
        return false;
    }
    return true;
}

} // namespace

void ModDecoder::Deleter::operator()(ModPlugFile* file) const {
    std::lock_guard lock(moduleMutex());
    ModPlug_Unload(file);
}

std::mutex& ModDecoder::moduleMutex() {
    static std::mutex mutex;
    return mutex;
}

ModDecoder::ModDecoder() = default;
ModDecoder::~ModDecoder() = default;

bool ModDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;
    auto& log = ErrorLog::sharedController();

    std::vector<uint8_t> bytes;
    if (!readWholeFile(path, bytes))
        return false;
    {
        std::lock_guard lock(moduleMutex());
        ModPlug_Settings settings;
        ModPlug_GetSettings(&settings);
        settings.mChannels = kChannels;
        settings.mBits = kBits;
        settings.mFrequency = kSampleRate;
        settings.mResamplingMode = MODPLUG_RESAMPLE_FIR;
        settings.mLoopCount = 0;
        // The noise-reduction filter keeps its history in a global, so with it
        // one module's last samples would colour the next read of another.
        settings.mFlags &= ~MODPLUG_ENABLE_NOISE_REDUCTION;
        ModPlug_SetSettings(&settings);
        // libmodplug copies what it needs; the bytes may go afterwards.
        module_.reset(bytes.empty() ? nullptr : ModPlug_Load(bytes.data(), int(bytes.size())));
    }
    if (!module_) {
        log.logMessage(stringWithFormat("ModDecoder ModPlug_Load Failed!  File: %@", path));
        return false;
    }
    totalFrames_ = int64_t(ModPlug_GetLength(module_.get())) * kSampleRate / 1000;

    decodeFormat_.mSampleRate = kSampleRate;
    decodeFormat_.mFormatID = kAudioFormatLinearPCM;
    decodeFormat_.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    decodeFormat_.mBitsPerChannel = kBits;
    decodeFormat_.mChannelsPerFrame = kChannels;
    decodeFormat_.mBytesPerFrame = kChannels * kBits / 8;
    decodeFormat_.mFramesPerPacket = 1;
    decodeFormat_.mBytesPerPacket = decodeFormat_.mBytesPerFrame;
    setChannelLayout(createChannelLayoutWithTag(kAudioChannelLayoutTag_Stereo));
    return true;
}

void ModDecoder::fillPCMBuffer() {
    RingBuffer& ring = pcmBuffer();
    const uint32_t bytesPerFrame = decodeFormat_.mBytesPerFrame;
    const uint32_t bytes = ring.freeSpaceAvailable() / bytesPerFrame * bytesPerFrame;
    if (bytes == 0)
        return;
    int got = 0;
    {
        std::lock_guard lock(moduleMutex());
        got = ModPlug_Read(module_.get(), ring.exposeBufferForWriting(), int(bytes));
    }
    if (got <= 0) {
        setEndOfFile(true);
        return;
    }
    ring.wroteBytes(uint32_t(got) / bytesPerFrame * bytesPerFrame);
}

} // namespace velvox
