#include "decoders/DSDDecoder.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <mutex>

#include "core/UtilityFunctions.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/StringFormat.h"
#include "platform/UserDefaults.h"

namespace velvox {

namespace {

// Building the filter tables is serialised across decoders opened at once on
// several operation threads.
std::mutex& filterTableMutex() {
    static std::mutex mutex;
    return mutex;
}

float gainFromPreferences() {
    const double dB =
        std::clamp(UserDefaults::standardUserDefaults().doubleForKey("dsd_gain"), 0.0, 6.0);
    return float(std::pow(10.0, dB / 20.0));
}

std::string fourCharString(OSStatus status) {
    std::string s;
    for (int shift = 24; shift >= 0; shift -= 8) {
        const char c = char((uint32_t(status) >> shift) & 0xFF);
        s += (c >= 32 && c < 127) ? c : '?';
    }
    return s;
}

} // namespace

DSDDecoder::DSDDecoder() = default;
DSDDecoder::~DSDDecoder() = default;

bool DSDDecoder::initWithFilename(const std::string& path) {
    if (!KDDecoder::initWithFilename(path))
        return false;
    auto& log = ErrorLog::sharedController();

    // The decimation preference is read but not honoured: the output is
    // always at the DSD rate / 32.
    (void)UserDefaults::standardUserDefaults().integerForKey("dsd_decimation");
    decimation_ = 32;
    gain_ = gainFromPreferences();

    auto file = std::make_unique<VLXDSDFile>();
    VLXDSDFile::Error error;
    if (!file->initWithFilename(path, decimation_, &error)) {
        log.logMessage(error.localizedDescription);
        return false;
    }
    file_ = std::move(file);
    dsdBuffer_.assign(file_->blockSize(), 0);
    dsd2pcmBuffer_.assign(file_->blockSize(), 0.0f);
    residueBuffer_.assign(file_->blockSize(), 0.0f);
    {
        std::lock_guard lock(filterTableMutex());
        for (uint32_t c = 0; c < file_->channels(); ++c)
            dsdProc_.emplace_back(decimation_, file_->dsdFormat() == 1);
    }

    const uint32_t channels = file_->channels();
    const double rate = double(file_->dsdSampleRate() / uint32_t(decimation_));
    decodeFormat_.mSampleRate = rate;
    decodeFormat_.mFormatID = kAudioFormatLinearPCM;
    decodeFormat_.mFormatFlags = kAudioFormatFlagIsSignedInteger | kAudioFormatFlagIsPacked;
    decodeFormat_.mBitsPerChannel = 24;
    decodeFormat_.mChannelsPerFrame = channels;
    decodeFormat_.mBytesPerFrame = 3 * channels;
    decodeFormat_.mBytesPerPacket = 3 * channels;
    decodeFormat_.mFramesPerPacket = 1;

    AudioStreamBasicDescription floatFormat = decodeFormat_;
    floatFormat.mFormatFlags = kAudioFormatFlagIsFloat;
    floatFormat.mBitsPerChannel = 32;
    floatFormat.mBytesPerFrame = 4 * channels;
    floatFormat.mBytesPerPacket = 4 * channels;
    mAudioConverterRef_ = AudioConverter::create(floatFormat, decodeFormat_);
    if (!mAudioConverterRef_) {
        log.logMessage(stringWithFormat("DSDDecoder Unable To Create Audio Converter: %@", path));
        freeDSDProc();
        file_.reset();
        return false;
    }

    setChannelLayout(createChannelLayoutWithTag(layoutTagForChannelCount(channels)));
    residueSampleCount_ = 0;
    currentBlock_ = 0;
    // The blocks add up to the announced length unless a DSF block size is
    // not a whole number of output samples.
    totalFramesIsExact_ = (file_->totalBlocks() - 1) * int64_t(file_->PCMSamplesPerBlock()) +
                              int64_t(file_->lastBlockPCMSampleCount()) ==
                          file_->totalPCMSamples();
    return true;
}

void DSDDecoder::readBlock() {
    const size_t got = file_->read(dsdBuffer_.data(), 1, dsdBuffer_.size());
    // The parser made sure every block lies inside the file; a file cut short
    // since must not pass as decoded.
    if (got < dsdBuffer_.size() && currentBlock_ + 1 < file_->totalBlocks())
        raiseAssertion(stringWithFormat("DSDDecoder Unable To Read File: %@", inFilePath()),
                       std::source_location::current());
    std::fill(dsdBuffer_.begin() + long(got), dsdBuffer_.end(), uint8_t(0x69));
    ++currentBlock_;
}

void DSDDecoder::convertBlock(uint32_t frames) {
    const uint32_t channels = file_->channels();
    const bool dsf = file_->dsdFormat() == 1;
    for (uint32_t c = 0; c < channels; ++c) {
        const uint8_t* in =
            dsf ? dsdBuffer_.data() + size_t(c) * file_->DSDStride() : dsdBuffer_.data() + c;
        dsdProc_[c].translate(frames, in, dsf ? 1 : ptrdiff_t(channels), dsd2pcmBuffer_.data() + c,
                              ptrdiff_t(channels));
    }
}

void DSDDecoder::deliver(float* buffer, uint32_t frames) {
    if (frames == 0)
        return;
    const OSStatus status = convertSamplesInBuffer(buffer, frames, pcmBuffer());
    if (status != noErr)
        raiseAssertion(stringWithFormat("DSDDecoder Failed To Convert Samples With Error: %@",
                                        fourCharString(status)),
                       std::source_location::current());
}

uint32_t DSDDecoder::deliverResidue(uint32_t budget) {
    const uint32_t channels = file_->channels();
    const uint32_t frames = uint32_t(std::min<int64_t>(residueSampleCount_, budget));
    deliver(residueBuffer_.data(), frames);
    const size_t rest = size_t(residueSampleCount_ - frames) * channels;
    std::memmove(residueBuffer_.data(), residueBuffer_.data() + size_t(frames) * channels,
                 rest * sizeof(float));
    residueSampleCount_ -= frames;
    return frames;
}

void DSDDecoder::fillPCMBuffer() {
    const uint32_t bytesPerFrame = decodeFormat_.mBytesPerFrame;
    const uint32_t perBlock = file_->PCMSamplesPerBlock();
    const uint32_t blockBytes = perBlock * bytesPerFrame;
    RingBuffer& ring = pcmBuffer();
    if (ring.size() < blockBytes)
        ring.resize(blockBytes);
    if (ring.freeSpaceAvailable() < blockBytes)
        return;

    uint32_t budget = perBlock;
    if (currentBlock_ >= file_->totalBlocks()) {
        if (residueSampleCount_ == 0)
            setEndOfFile(true);
        else
            deliverResidue(budget);
        return;
    }
    if (residueSampleCount_ > 0)
        budget -= deliverResidue(budget);

    const uint32_t channels = file_->channels();
    while (budget > 0 && currentBlock_ < file_->totalBlocks()) {
        readBlock();
        const uint32_t frames =
            currentBlock_ == file_->totalBlocks() ? file_->lastBlockPCMSampleCount() : perBlock;
        convertBlock(frames);
        if (frames <= budget) {
            deliver(dsd2pcmBuffer_.data(), frames);
            if (frames == perBlock)
                return;
            budget -= frames;
            continue;
        }
        deliver(dsd2pcmBuffer_.data(), budget);
        residueSampleCount_ = frames - budget;
        std::memcpy(residueBuffer_.data(), dsd2pcmBuffer_.data() + size_t(budget) * channels,
                    size_t(residueSampleCount_) * channels * sizeof(float));
        return;
    }
}

OSStatus DSDDecoder::convertSamplesInBuffer(float* buffer, uint32_t count, RingBuffer& ringBuffer) {
    const uint32_t channels = file_->channels();
    const size_t samples = size_t(count) * channels;
    // Only the frames delivered now are scaled, so frames held back for a
    // later call are not scaled twice.
    if (gain_ != 1.0f) {
        for (size_t i = 0; i < samples; ++i)
            buffer[i] = std::clamp(buffer[i] * gain_, -1.0f, 1.0f);
    }
    bool given = false;
    auto input = [&](uint32_t& ioPackets, AudioBufferList& ioData) -> OSStatus {
        if (given) {
            ioPackets = 0;
            return noErr;
        }
        given = true;
        ioData.mBuffers[0] =
            AudioBuffer{channels, uint32_t(samples * sizeof(float)), static_cast<void*>(buffer)};
        ioPackets = count;
        return noErr;
    };
    uint8_t* out = ringBuffer.exposeBufferForWriting();
    const uint32_t room = ringBuffer.freeSpaceAvailable();
    auto output = AudioBufferList::single(out, room, channels);
    uint32_t frames = std::min(count, room / decodeFormat_.mBytesPerFrame);
    const OSStatus status = mAudioConverterRef_->fillComplexBuffer(input, frames, output);
    mAudioConverterRef_->reset();
    if (status != noErr)
        return status;
    ringBuffer.wroteBytes(output.mBuffers[0].mDataByteSize);
    return noErr;
}

} // namespace velvox
