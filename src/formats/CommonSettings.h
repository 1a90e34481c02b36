#pragma once
// Setting keys that many encoders share, written once: the rows below pick
// the ones that mean something for their encoder.

#include <vector>

#include "jobs/SettingSpec.h"

namespace velvox::settings {

// enabled, extension (ext) with the default extension, encoderAction (action).
std::vector<SettingSpec> common(const char* defaultExtension);
// sampleRate (rate): a rate in Hz, or 0 for the source's own.
SettingSpec sampleRate();
// sampleRate (rate) and mode plus its channel-count spelling (channels).
std::vector<SettingSpec> rateAndChannels();
// bitDepth (bits) from the sample sizes the encoder writes.
SettingSpec bitDepth(std::vector<int64_t> sizes);
// method (cbr/abr/vbr/cvbr), restricted to the ones the encoder takes; the
// stored numbers are accepted too.
SettingSpec method(std::vector<SettingChoice> methods, int64_t defaultMethod);

// Concatenates lists of keys.
std::vector<SettingSpec> join(std::initializer_list<std::vector<SettingSpec>> parts);

} // namespace velvox::settings
