#include "cli/ProbeCommand.h"

#include <filesystem>
#include <iostream>
#include <vector>

#include <CLI/CLI.hpp>

#include "core/KDDecoder.h"
#include "platform/ErrorLog.h"
#include "platform/Exception.h"
#include "platform/MD5.h"

namespace velvox {

namespace {

// The lines the error log gained since `mark`, as one message.
std::string logLinesSince(size_t mark) {
    const auto lines = ErrorLog::sharedController().messages();
    std::string joined;
    for (size_t i = mark; i < lines.size(); ++i) {
        if (!joined.empty())
            joined += " ";
        joined += lines[i];
    }
    return joined;
}

} // namespace

void ProbeCommand::addTo(CLI::App& app) {
    CLI::App* sub = app.add_subcommand(
        "probe", "Show which decoder reads each file, its PCM format and the MD5 of its PCM");
    sub->add_flag("--json", json_, "Print one JSON array with an object per file");
    sub->add_option("files", files_, "Audio files")->required();
}

ProbeCommand::Result ProbeCommand::probe(const std::string& path) {
    Result r;
    r.path = path;
    const size_t logMark = ErrorLog::sharedController().count();

    std::error_code ec;
    if (!std::filesystem::exists(path, ec)) {
        r.error = "No such file: " + path;
        return r;
    }
    if (std::filesystem::is_directory(path, ec)) {
        r.error = "Is a folder, not an audio file: " + path;
        return r;
    }
    if (!std::filesystem::is_regular_file(path, ec)) {
        // A FIFO or a device never ends: reading one would hang.
        r.error = "Not a regular file: " + path;
        return r;
    }

    try {
        std::unique_ptr<KDDecoder> decoder = KDDecoder::decoderWithFilename(path);
        if (!decoder) {
            std::string why = logLinesSince(logMark);
            r.error = why.empty() ? "No decoder could open " + path : why;
            return r;
        }
        const AudioStreamBasicDescription format = decoder->decodeFormat();
        r.decoder = decoder->className();
        r.mSampleRate = format.mSampleRate;
        r.mBitsPerChannel = format.mBitsPerChannel;
        r.mChannelsPerFrame = format.mChannelsPerFrame;
        r.mBytesPerFrame = format.mBytesPerFrame;
        if (const AudioChannelLayout* layout = decoder->channelLayout())
            r.layoutTag = layout->mChannelLayoutTag;
        r.totalFrames = decoder->totalFrames();

        // 64 KiB reads, the size the encoders use.
        constexpr uint32_t kReadBytes = 65536;
        const uint32_t framesPerRead = std::max<uint32_t>(1, kReadBytes / format.mBytesPerFrame);
        std::vector<uint8_t> buffer(size_t(framesPerRead) * format.mBytesPerFrame);
        MD5 md5;
        for (;;) {
            AudioBufferList list = AudioBufferList::single(buffer.data(), uint32_t(buffer.size()),
                                                           format.mChannelsPerFrame);
            const uint32_t frames = decoder->readAudio(&list, framesPerRead);
            if (frames == 0) {
                if (decoder->isEndOfFile())
                    break;
                continue; // the decoder is still filling its buffer
            }
            md5.update(buffer.data(), list.mBuffers[0].mDataByteSize);
            r.framesDecoded += frames;
        }
        r.pcmMD5 = md5.hexDigest();

        if (decoder->totalFramesIsExact() && r.totalFrames >= 0 &&
            r.framesDecoded != uint64_t(r.totalFrames)) {
            r.error = stringWithFormat("%@: decoded %llu of %lld frames; the file is truncated "
                                       "or damaged",
                                       path, (unsigned long long)r.framesDecoded,
                                       (long long)r.totalFrames);
        } else if (!decoder->damage().empty()) {
            r.error = path + ": " + decoder->damage();
        }
    } catch (const Exception& e) {
        r.error = path + ": " + e.reason();
    } catch (const std::exception& e) {
        r.error = path + ": " + e.what();
    }
    return r;
}

nlohmann::ordered_json ProbeCommand::toJSON(const Result& r) {
    nlohmann::ordered_json j = nlohmann::ordered_json::object();
    j["path"] = r.path;
    if (r.error) {
        j["error"] = *r.error;
        return j;
    }
    j["decoder"] = r.decoder;
    j["mSampleRate"] = r.mSampleRate;
    j["mBitsPerChannel"] = r.mBitsPerChannel;
    j["mChannelsPerFrame"] = r.mChannelsPerFrame;
    j["mBytesPerFrame"] = r.mBytesPerFrame;
    j["layoutTag"] =
        r.layoutTag ? nlohmann::ordered_json(*r.layoutTag) : nlohmann::ordered_json(nullptr);
    j["totalFrames"] = r.totalFrames;
    j["framesDecoded"] = r.framesDecoded;
    j["pcmMD5"] = r.pcmMD5;
    return j;
}

int ProbeCommand::execute(std::ostream& out, std::ostream& err) const {
    nlohmann::ordered_json all = nlohmann::ordered_json::array();
    int status = 0;
    for (const std::string& path : files_) {
        const Result r = probe(path);
        if (r.error)
            status = 1;
        if (json_) {
            all.push_back(toJSON(r));
            continue;
        }
        if (r.error) {
            err << "error: " << *r.error << '\n';
            continue;
        }
        out << r.path << '\n'
            << "  decoder:           " << r.decoder << '\n'
            << "  mSampleRate:       " << r.mSampleRate << '\n'
            << "  mBitsPerChannel:   " << r.mBitsPerChannel << '\n'
            << "  mChannelsPerFrame: " << r.mChannelsPerFrame << '\n'
            << "  mBytesPerFrame:    " << r.mBytesPerFrame << '\n'
            << "  layoutTag:         "
            << (r.layoutTag ? stringWithFormat("0x%08X", *r.layoutTag) : std::string("none"))
            << '\n'
            << "  totalFrames:       " << r.totalFrames << '\n'
            << "  framesDecoded:     " << r.framesDecoded << '\n'
            << "  pcmMD5:            " << r.pcmMD5 << '\n';
    }
    if (json_)
        out << all.dump(2) << '\n';
    return status;
}

} // namespace velvox
