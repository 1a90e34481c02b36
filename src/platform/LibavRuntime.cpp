#include "platform/LibavRuntime.h"

#include <dlfcn.h>

#include <string>

extern "C" {
#include <libavcodec/version.h>
#include <libavformat/version.h>
#include <libavutil/log.h>
#include <libavutil/macros.h>
#include <libavutil/version.h>
#include <libswresample/version.h>
}

#include "platform/Exception.h"

namespace velvox {

namespace {

// The major versions the program was compiled against: another major version
// has another ABI, so nothing else may be opened in their place.
constexpr const char* kSonames[] = {
    "libavutil.so." AV_STRINGIFY(LIBAVUTIL_VERSION_MAJOR),
    "libavcodec.so." AV_STRINGIFY(LIBAVCODEC_VERSION_MAJOR),
    "libavformat.so." AV_STRINGIFY(LIBAVFORMAT_VERSION_MAJOR),
    "libswresample.so." AV_STRINGIFY(LIBSWRESAMPLE_VERSION_MAJOR),
};

[[noreturn]] void raiseLoadFailure(const char* soname, const char* reason) {
    throw Exception("LibraryLoadException",
                    stringWithFormat("FFmpeg could not be loaded: %s (%s).", soname,
                                     reason ? reason : "unknown reason"));
}

} // namespace

void LibavRuntime::HandleCloser::operator()(void* handle) const { dlclose(handle); }

LibavRuntime& LibavRuntime::shared() {
    static LibavRuntime runtime;
    return runtime;
}

void* LibavRuntime::symbol(Library library, const char* name) {
    void* handle = shared().handle(library);
    dlerror();
    void* address = dlsym(handle, name);
    if (!address)
        raiseLoadFailure(kSonames[static_cast<size_t>(library)], dlerror());
    return address;
}

void* LibavRuntime::handle(Library library) {
    const auto index = static_cast<size_t>(library);
    // A failed open leaves the flag unset, so a later call tries again and
    // raises again rather than handing out a null handle.
    std::call_once(opened_[index], [&] { handles_[index].reset(open(library)); });
    return handles_[index].get();
}

void* LibavRuntime::open(Library library) {
    // Every FFmpeg library rests on libavutil, which is opened and quieted
    // first so that nothing of FFmpeg runs loud.
    if (library != Library::Util)
        handle(Library::Util);
    const char* soname = kSonames[static_cast<size_t>(library)];
    // RTLD_NODELETE: an encode thread may still be inside FFmpeg while the
    // process exits and the handles are closed, so the code stays mapped.
    void* handle = dlopen(soname, RTLD_NOW | RTLD_LOCAL | RTLD_NODELETE);
    if (!handle)
        raiseLoadFailure(soname, dlerror());
    if (library == Library::Util) {
        // FFmpeg prints its own diagnostics to the terminal (a damaged frame, a
        // guessed format). Velvox reports through its error log instead,
        // naming the file; FFmpeg's lines say nothing a user can act on.
        auto setLevel = reinterpret_cast<void (*)(int)>(dlsym(handle, "av_log_set_level"));
        if (setLevel)
            setLevel(AV_LOG_QUIET);
    }
    return handle;
}

} // namespace velvox
