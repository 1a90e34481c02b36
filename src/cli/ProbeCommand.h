#pragma once
// velvox probe [--json] FILE...
// Tells which decoder reads each file, the PCM it delivers and the MD5 of
// that PCM, so that a conversion can be checked for being lossless.

#include <cstdint>
#include <iosfwd>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace CLI {
class App;
}

namespace velvox {

class ProbeCommand {
public:
    struct Result {
        std::string path;
        std::optional<std::string> error;
        std::string decoder;
        double mSampleRate = 0;
        uint32_t mBitsPerChannel = 0;
        uint32_t mChannelsPerFrame = 0;
        uint32_t mBytesPerFrame = 0;
        std::optional<uint32_t> layoutTag;
        int64_t totalFrames = -1;
        uint64_t framesDecoded = 0;
        std::string pcmMD5;
    };

    void addTo(CLI::App& app);
    int execute(std::ostream& out, std::ostream& err) const;

    // Decodes one file to its end. Never throws; failures are in `error`.
    static Result probe(const std::string& path);
    static nlohmann::ordered_json toJSON(const Result& result);

private:
    std::vector<std::string> files_;
    bool json_ = false;
};

} // namespace velvox
