#pragma once

namespace velvox {

// Makes every encoder of this build available to EncodeOperation's registry,
// by encoder type and by the format word of a tags-only update. Call once at
// start-up (repeated calls do nothing).
class EncoderRegistration {
public:
    static void registerAll();
};

} // namespace velvox
