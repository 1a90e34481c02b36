#include "platform/MusicLibrary.h"

#include "platform/MPDMusicLibrary.h"

namespace velvox {

MusicLibrary& MusicLibrary::sharedLibrary() {
    static MPDMusicLibrary library;
    return library;
}

} // namespace velvox
