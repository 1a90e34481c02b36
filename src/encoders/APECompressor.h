#pragma once
// Writes Monkey's Audio files (file version 3990): descriptor, header, seek
// table, then frames of range-coded prediction residuals, each frame with
// the CRC of its PCM, and an MD5 of the file's sections in the descriptor.
//
// Shaped like the compressor interface the format's own library offers:
// fill in a wave format, start on a path with a level and the largest
// expected audio size, add interleaved PCM in the wave layout (8-bit
// unsigned, 16- and 24-bit signed little-endian), finish. Every call
// answers 0 or an error code. Called on the encode operation's thread.

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "encoders/APEPredictor.h"
#include "encoders/APERangeCoder.h"

namespace velvox {

struct APEWaveFormat {
    uint32_t sampleRate = 0;
    uint16_t bitsPerSample = 0;
    uint16_t channels = 0;
    uint16_t blockAlign = 0;
};

class APECompressor {
public:
    enum Error : int {
        kSuccess = 0,
        kErrorIOWrite = 1001,
        kErrorIORead = 1002,
        kErrorInvalidInputFile = 1003,
        kErrorBadParameter = 5000,
        kErrorUnsupportedFormat = 5001,
        kErrorNotStarted = 5002,
    };

    // 8, 16 or 24 bits; one or two channels.
    static int fillWaveFormat(APEWaveFormat& format, uint32_t sampleRate, uint32_t bitsPerSample,
                              uint32_t channels);

    APECompressor();
    ~APECompressor();
    APECompressor(const APECompressor&) = delete;
    APECompressor& operator=(const APECompressor&) = delete;

    // `maxAudioBytes` sizes the seek table; 0 or less when unknown.
    int start(const std::string& path, const APEWaveFormat& format, int64_t maxAudioBytes,
              int level);
    int addData(const uint8_t* data, size_t bytes);
    int finish();

private:
    struct FileCloser {
        void operator()(std::FILE* file) const;
    };

    void encodeFrame();
    void encodeFrameBlocks(const int32_t* samples, uint32_t blocks);
    void writeWords(bool everything);
    int writeHeaders();
    int moveFramesForSeekTable(uint32_t frames);

    std::unique_ptr<std::FILE, FileCloser> file_;
    APEWaveFormat format_;
    int level_ = 0;
    uint32_t blocksPerFrame_ = 0;
    uint32_t seekTableEntries_ = 0;
    bool finished_ = false;

    std::unique_ptr<APEPredictor> predictor_;
    APERangeCoder coder_;
    std::vector<uint8_t> pendingPCM_;    // input of the frame being filled
    std::vector<int32_t> samples_;       // that input as integers
    std::vector<uint8_t> stream_;        // coded bytes not yet written
    uint64_t streamWritten_ = 0;         // coded bytes written so far
    std::vector<uint32_t> frameOffsets_; // from the first frame's start
    uint32_t finalFrameBlocks_ = 0;
    int error_ = kSuccess;
};

} // namespace velvox
