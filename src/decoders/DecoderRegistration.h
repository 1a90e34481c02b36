#pragma once

namespace velvox {

// Makes every decoder of this build available to KDDecoder's factory. Call once
// at start-up (repeated calls do nothing).
class DecoderRegistration {
public:
    static void registerAll();
};

} // namespace velvox
