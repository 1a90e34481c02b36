// Finished files reaching the music library: `velvox convert` run against a
// real MPD of the test's own (private socket, configuration and database),
// checked with mpc; and, with no MPD to reach, the M3U8 playlist beside the
// music folder.

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "cli/BatchCommandSandbox.h"
#include "platform/FileManager.h"
#include "platform/MPDConfigFile.h"

extern char** environ;

using namespace velvox::test;
namespace fs = std::filesystem;

namespace {

// An MPD that serves `music` on a socket of its own, stopped with the object
// on every path out of a test.
class MPDServer {
public:
    MPDServer(const fs::path& folder, const fs::path& music) : folder_(folder) {
        fs::create_directories(folder / "playlists");
        const fs::path config = folder / "mpd.conf";
        std::ofstream(config) << "music_directory \"" << music.string() << "\"\n"
                              << "db_file \"" << (folder / "db").string() << "\"\n"
                              << "state_file \"" << (folder / "state").string() << "\"\n"
                              << "playlist_directory \"" << (folder / "playlists").string()
                              << "\"\n"
                              << "bind_to_address \"" << socket() << "\"\n"
                              << "auto_update \"no\"\nzeroconf_enabled \"no\"\n"
                              << "audio_output {\n type \"null\"\n name \"null\"\n}\n";
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, "/dev/null", O_WRONLY, 0);
        posix_spawn_file_actions_addopen(&actions, 2, (folder / "mpd.log").c_str(),
                                         O_WRONLY | O_CREAT | O_TRUNC, 0644);
        std::string configPath = config.string();
        char* argv[] = {const_cast<char*>("mpd"), const_cast<char*>("--no-daemon"),
                        const_cast<char*>("--stderr"), configPath.data(), nullptr};
        if (posix_spawnp(&pid_, "mpd", &actions, nullptr, argv, environ) != 0)
            pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~MPDServer() {
        if (pid_ > 0) {
            ::kill(pid_, SIGTERM);
            ::waitpid(pid_, nullptr, 0);
        }
    }

    std::string socket() const { return (folder_ / "socket").string(); }
    std::string log() const {
        std::ifstream in(folder_ / "mpd.log");
        return std::string(std::istreambuf_iterator<char>(in), {});
    }
    // Up and answering; false after ten seconds.
    bool waitUntilReady() const {
        for (int i = 0; i < 200 && pid_ > 0; ++i) {
            if (runCommand(mpc("status") + " >/dev/null 2>&1").exitCode == 0)
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(50));
        }
        return false;
    }
    // The lines `mpc ARGS` prints, sorted.
    std::vector<std::string> lines(const std::string& args) const {
        std::istringstream out(runCommand(mpc(args)).output);
        std::vector<std::string> result;
        for (std::string line; std::getline(out, line);)
            result.push_back(line);
        std::sort(result.begin(), result.end());
        return result;
    }

private:
    std::string mpc(const std::string& args) const {
        return "mpc -q -h " + shellQuote(socket()) + " " + args;
    }
    fs::path folder_;
    pid_t pid_ = -1;
};

constexpr const char* kLibraryOn = "--set addToiTunesLibrary=true --set addToiTunesPlaylist=true "
                                   "--set 'iTunesPlaylistName=Velvox Test' ";

void makeSources(const CommandSandbox& box) {
    for (unsigned seed : {1u, 2u})
        writeWav(box.src("song" + std::to_string(seed) + ".wav"), makeSignal(4410, 2, 16, seed), 2,
                 44100, 16);
}

std::string sources(const CommandSandbox& box) {
    return shellQuote(box.src("song1.wav")) + " " + shellQuote(box.src("song2.wav"));
}

} // namespace

TEST(MPDMusicLibrary, ConvertAddsLibraryFormatsToMPDAndItsPlaylistOnly) {
    CommandSandbox box;
    const fs::path music = box.root() / "music";
    fs::create_directories(music / "New");
    makeSources(box);
    MPDServer mpd(box.root() / "mpd", music);
    ASSERT_TRUE(mpd.waitUntilReady()) << mpd.log();
    box.setEnvironment("MPD_HOST", mpd.socket());

    // FLAC is not a library format here: only the MP3s go in.
    const Outcome inside =
        box.run("convert -f mp3 -f flac -j 2 " + std::string(kLibraryOn) + "-o " +
                shellQuote((music / "New").string()) + " " + sources(box));
    ASSERT_EQ(inside.exitCode, 0) << inside.out << inside.err << mpd.log();
    const std::vector<std::string> added{"New/song1.mp3", "New/song2.mp3"};
    EXPECT_EQ(mpd.lines("listall"), added) << inside.err << mpd.log();
    EXPECT_EQ(mpd.lines("-f %file% playlist 'Velvox Test'"), added);

    // Outside MPD's music folder the file converts, and the log says why it
    // is not in the library.
    const Outcome outside = box.run("convert -f mp3 " + std::string(kLibraryOn) + "-o " +
                                    shellQuote(box.out()) + " " + shellQuote(box.src("song1.wav")));
    EXPECT_EQ(outside.exitCode, 0) << outside.out << outside.err;
    EXPECT_TRUE(fs::exists(box.out("song1.mp3")));
    EXPECT_NE(outside.err.find("Could Not Add " + box.out("song1.mp3") + " To The Music Library"),
              std::string::npos)
        << outside.err;
    EXPECT_EQ(mpd.lines("listall"), added);
}

TEST(MPDMusicLibrary, WithoutMPDThePlaylistIsAnM3U8FileInTheMusicFolder) {
    CommandSandbox box;
    makeSources(box);
    box.setEnvironment("MPD_HOST", (box.root() / "no-such-socket").string());
    box.setEnvironment("XDG_MUSIC_DIR", (box.root() / "music").string());

    const Outcome r = box.run("convert -f mp3 -j 2 " + std::string(kLibraryOn) + "-o " +
                              shellQuote(box.out()) + " " + sources(box));
    ASSERT_EQ(r.exitCode, 0) << r.out << r.err;
    std::istringstream playlist([&] {
        const std::vector<uint8_t> bytes =
            readFile((box.root() / "music/Playlists/Velvox Test.m3u8").string());
        return std::string(bytes.begin(), bytes.end());
    }());
    std::vector<std::string> lines;
    for (std::string line; std::getline(playlist, line);)
        lines.push_back(line);
    ASSERT_EQ(lines.size(), 3u);
    EXPECT_EQ(lines[0], "#EXTM3U");
    std::sort(lines.begin() + 1, lines.end());
    EXPECT_EQ(lines[1], box.out("song1.mp3"));
    EXPECT_EQ(lines[2], box.out("song2.mp3"));
}

TEST(MPDMusicLibrary, MusicFolderIsReadFromMPDsOwnConfigurationFile) {
    TempDir dir;
    const std::string file = dir.file("mpd.conf");
    std::ofstream(file) << "# music_directory \"/commented/out\"\n"
                        << "db_file \"/var/lib/mpd/db\"\n"
                        << "  music_directory   \"~/My \\\"Music\\\"\"  # quoted\n"
                        << "music_directory \"/second/one/is/ignored\"\n";
    EXPECT_EQ(velvox::MPDConfigFile::musicDirectoryInFile(file),
              (velvox::FileManager::homeDirectory() / "My \"Music\"").string());
    std::ofstream(file) << "music_directory \"/srv/music\n";
    EXPECT_EQ(velvox::MPDConfigFile::musicDirectoryInFile(file), std::nullopt);
}
