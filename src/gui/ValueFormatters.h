#pragma once
// How the window writes quantities: lengths as h:mm:ss (m:ss under an hour),
// file sizes in KB/MB/GB (decimal, as file managers on the desktop show them),
// bit rates in kbps and sample rates in kHz.

#include <cstdint>

#include <QString>

namespace velvox {

class ValueFormatters {
public:
    static QString duration(double seconds);
    static QString fileSize(int64_t bytes);
    static QString bitrate(int64_t bitsPerSecond);
    static QString sampleRate(int64_t hertz);
};

} // namespace velvox
