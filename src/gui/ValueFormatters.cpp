#include "gui/ValueFormatters.h"

#include <cmath>

namespace velvox {

QString ValueFormatters::duration(double seconds) {
    if (!std::isfinite(seconds) || seconds < 0)
        return QString();
    // Rounded to the nearest second, so 59.6 s reads 1:00, not 0:59.
    const auto total = int64_t(std::llround(seconds));
    const int64_t hours = total / 3600;
    const int64_t minutes = (total / 60) % 60;
    const int64_t secs = total % 60;
    if (hours > 0)
        return QString::asprintf("%lld:%02lld:%02lld", (long long)hours, (long long)minutes,
                                 (long long)secs);
    return QString::asprintf("%lld:%02lld", (long long)minutes, (long long)secs);
}

QString ValueFormatters::fileSize(int64_t bytes) {
    if (bytes < 0)
        return QString();
    if (bytes < 1000)
        return QString::asprintf("%lld bytes", (long long)bytes);
    static const char* const units[] = {"KB", "MB", "GB", "TB"};
    double value = double(bytes);
    int unit = -1;
    while (value >= 1000.0 && unit < 3) {
        value /= 1000.0;
        ++unit;
    }
    return QString::asprintf("%.1f %s", value, units[unit]);
}

QString ValueFormatters::bitrate(int64_t bitsPerSecond) {
    if (bitsPerSecond <= 0)
        return QString();
    return QString::asprintf("%lld kbps", (long long)std::llround(double(bitsPerSecond) / 1000.0));
}

QString ValueFormatters::sampleRate(int64_t hertz) {
    if (hertz <= 0)
        return QString();
    // 44100 reads 44.1 kHz, 48000 reads 48 kHz.
    QString text = QString::number(double(hertz) / 1000.0, 'f', 3);
    while (text.endsWith('0'))
        text.chop(1);
    if (text.endsWith('.'))
        text.chop(1);
    return text + " kHz";
}

} // namespace velvox
