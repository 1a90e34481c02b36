// One program for the desktop application's Qt Test classes, run offscreen,
// on a session bus of its own: notifications the tests cause never reach the
// desktop, and a test can own a desktop service's name on it.

#include <signal.h>

#include <cstdio>
#include <cstdlib>
#include <string>

#include <QApplication>

#include "formats/FormatTable.h"

int runMainWindowTest(int argc, char** argv);
int runPreferencesWindowTest(int argc, char** argv);
int runDesktopServicesTest(int argc, char** argv);

namespace {

// Starts a private session bus and points DBUS_SESSION_BUS_ADDRESS at it;
// answers the daemon's process id, or 0 when none could be started.
pid_t startSessionBus() {
    FILE* daemon = ::popen("dbus-daemon --session --fork --print-address=1 --print-pid=1", "r");
    if (!daemon)
        return 0;
    char address[512] = {}, pid[32] = {};
    const bool read =
        std::fgets(address, sizeof address, daemon) && std::fgets(pid, sizeof pid, daemon);
    ::pclose(daemon);
    if (!read)
        return 0;
    std::string text(address);
    while (!text.empty() && text.back() == '\n')
        text.pop_back();
    ::setenv("DBUS_SESSION_BUS_ADDRESS", text.c_str(), 1);
    return pid_t(std::atol(pid));
}

} // namespace

int main(int argc, char** argv) {
    qputenv("QT_QPA_PLATFORM", "offscreen");
    const pid_t bus = startSessionBus();
    if (bus <= 0) {
        std::fprintf(stderr, "could not start a private session bus (dbus-daemon)\n");
        return 1;
    }
    int failures = 0;
    {
        QApplication app(argc, argv);
        velvox::FormatTable::installBuiltinFormats();
        failures += runMainWindowTest(argc, argv);
        failures += runPreferencesWindowTest(argc, argv);
        failures += runDesktopServicesTest(argc, argv);
    }
    ::kill(bus, SIGTERM);
    return failures == 0 ? 0 : 1;
}
