#pragma once
// FFmpeg's libraries, opened on first use rather than by the dynamic loader at
// start-up.
//
// libavformat and libavcodec pull in some 120 further libraries (video codecs,
// TLS, X11, rendering); mapping and relocating them costs about 80 ms of CPU
// on every start, which is more than a short Speex or MP3 encode spends in its
// own codec. Most conversions never touch FFmpeg, so the program is not linked
// against it: the FFmpeg functions it calls are defined in
// LibavEntryPoints.cpp, each forwarding to the real one found here. Only a run
// that decodes or muxes through FFmpeg pays for loading it.

#include <array>
#include <memory>
#include <mutex>

namespace velvox {

class LibavRuntime {
public:
    enum class Library { Util, Codec, Format, Resample };

    // The address of `name` in `library`, loading the library (and libavutil,
    // quieted) on the first call. Raises "LibraryLoadException" naming the
    // library and the loader's reason when it cannot be opened or lacks the
    // symbol. Any thread.
    static void* symbol(Library library, const char* name);

    // Typed form for the entry points.
    template <typename Function>
    static Function function(Library library, const char* name) {
        return reinterpret_cast<Function>(symbol(library, name));
    }

private:
    LibavRuntime() = default;
    static LibavRuntime& shared();
    void* handle(Library library);
    void* open(Library library);

    struct HandleCloser {
        void operator()(void* handle) const;
    };
    static constexpr size_t kLibraryCount = 4;
    std::array<std::once_flag, kLibraryCount> opened_;
    std::array<std::unique_ptr<void, HandleCloser>, kLibraryCount> handles_;
};

} // namespace velvox
