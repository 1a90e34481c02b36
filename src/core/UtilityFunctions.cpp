#include "core/UtilityFunctions.h"

#include <cerrno>
#include <cstring>
#include <filesystem>

#include <fcntl.h>
#include <ogg/ogg.h>
#include <stdlib.h>
#include <unistd.h>

#include "platform/Exception.h"
#include "platform/TemporaryFiles.h"

namespace velvox {

namespace {

// Owns the libogg states so that every path out of oggStreamType clears them.
struct OggReadState {
    ogg_sync_state sync{};
    ogg_stream_state stream{};
    bool streamInitialised = false;
    OggReadState() { ogg_sync_init(&sync); }
    ~OggReadState() {
        if (streamInitialised)
            ogg_stream_clear(&stream);
        ogg_sync_clear(&sync);
    }
};

struct FileDescriptor {
    int fd = -1;
    ~FileDescriptor() {
        if (fd >= 0)
            ::close(fd);
    }
};

} // namespace

OggStreamType oggStreamType(const std::string& path) {
    FileDescriptor file;
    file.fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    VLX_ASSERT(-1 != file.fd, "Opening Input File Failed: %s.", std::strerror(errno));

    OggReadState ogg;
    constexpr long kReadSize = 4096;
    char* data = ogg_sync_buffer(&ogg.sync, kReadSize);
    VLX_ASSERT(nullptr != data, "Reading Input File Failed: (%s).", "ogg_sync_buffer");
    const ssize_t bytesRead = ::read(file.fd, data, kReadSize);
    VLX_ASSERT(0 <= bytesRead, "Reading Input File Failed: (%s).", std::strerror(errno));
    VLX_ASSERT(0 == ogg_sync_wrote(&ogg.sync, bytesRead), "ogg_sync_wrote Failed.");

    ogg_page page;
    VLX_ASSERT(1 == ogg_sync_pageout(&ogg.sync, &page),
               "Input does not appear to be an Ogg bitstream.");
    ogg_stream_init(&ogg.stream, ogg_page_serialno(&page));
    ogg.streamInitialised = true;
    VLX_ASSERT(0 == ogg_stream_pagein(&ogg.stream, &page),
               "Error reading first page of Ogg bitstream data.");
    ogg_packet packet;
    VLX_ASSERT(1 == ogg_stream_packetout(&ogg.stream, &packet),
               "Error reading initial header packet.");

    const unsigned char* p = packet.packet;
    const long n = packet.bytes;
    OggStreamType type = OggStreamTypeUnknown;
    if (n >= 7 && std::memcmp(p + 1, "vorbis", 6) == 0)
        type = OggStreamTypeVorbis;
    else if (n >= 8 && std::memcmp(p, "Speex   ", 8) == 0)
        type = OggStreamTypeSpeex;
    else if (packet.b_o_s && n >= 8 && std::memcmp(p, "OpusHead", 8) == 0)
        type = OggStreamTypeOpus;
    else if (n >= 9 && std::memcmp(p + 1, "FLAC", 4) == 0)
        type = OggStreamTypeFLAC;

    const int fd = file.fd;
    file.fd = -1;
    VLX_ASSERT(0 == ::close(fd), "Closing Input File Failed: %s.", std::strerror(errno));
    return type;
}

std::string getTemporaryFilePath(const std::string& extension) {
    std::error_code ec;
    const std::filesystem::path directory = std::filesystem::temp_directory_path(ec);
    VLX_PARAMETER_ASSERT_TEXT(!ec && !directory.empty(), "nil != directory");
    const pid_t session = ::getsid(0);
    VLX_ASSERT(session != -1, "SessionGetInfo failed: %@", std::string(std::strerror(errno)));

    std::string pattern =
        stringWithFormat("%@/%@-%.8x-XXXXXXXX", directory.string(), "Velvox", unsigned(session));
    int suffixLength = 0;
    if (!extension.empty()) {
        pattern += "." + extension;
        suffixLength = int(extension.size() + 1);
    }
    std::vector<char> buffer(pattern.begin(), pattern.end());
    buffer.push_back('\0');
    const int fd = ::mkstemps(buffer.data(), suffixLength);
    VLX_ASSERT(-1 != fd, "Unable to create a temporary file: %s", std::strerror(errno));
    // Listed before its descriptor closes: should the program be ended at
    // once in between, the open descriptor or the list names it, so the file
    // never outlives the run unnoticed. Its owner takes it off the list.
    std::string path(buffer.data());
    TemporaryFiles::add(path);
    VLX_ASSERT(-1 != ::close(fd), "Unable to close the temporary file: %s", std::strerror(errno));
    return path;
}

AudioChannelLayoutTag layoutTagForChannelCount(uint32_t channels) {
    switch (channels) {
    case 1:
        return kAudioChannelLayoutTag_Mono;
    case 2:
        return kAudioChannelLayoutTag_Stereo;
    case 3:
        return kAudioChannelLayoutTag_MPEG_3_0_A;
    case 4:
        return kAudioChannelLayoutTag_Quadraphonic;
    case 5:
        return kAudioChannelLayoutTag_MPEG_5_0_A;
    case 6:
        return kAudioChannelLayoutTag_MPEG_5_1_A;
    default:
        return kAudioChannelLayoutTag_Unknown;
    }
}

std::unique_ptr<AudioChannelLayout> createChannelLayoutWithTag(AudioChannelLayoutTag tag) {
    auto layout = std::make_unique<AudioChannelLayout>();
    layout->mChannelLayoutTag = tag;
    return layout;
}

std::unique_ptr<AudioChannelLayout>
createChannelLayoutWithLabels(const std::vector<AudioChannelLabel>& labels) {
    auto layout = std::make_unique<AudioChannelLayout>();
    layout->mChannelLayoutTag = kAudioChannelLayoutTag_UseChannelDescriptions;
    layout->mChannelBitmap = 0;
    layout->mNumberChannelDescriptions = uint32_t(labels.size());
    for (AudioChannelLabel label : labels) {
        AudioChannelDescription d;
        d.mChannelLabel = label;
        layout->mChannelDescriptions.push_back(d);
    }
    return layout;
}

} // namespace velvox
