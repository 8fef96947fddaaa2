// The orvel executable: the tray (or a headless main loop), the application delegate, and the
// two options a user of a command-line program expects. Address, port and limits are fixed.
#include "app/AppDelegate.h"
#include "app/AppLogger.h"
#include "app/Bundle.h"
#include "app/StreamCount.h"
#include "app/VersionRoute.h"
#include "net/LogWriter.h"
#include "platform/PulseAudioCapture.h"
#include "platform/TrayIcon.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <optional>
#include <string_view>
#include <system_error>

namespace {

constexpr const char* usage =
    "Usage: orvel [--help | --version]\n"
    "\n"
    "Tamrix Orvel makes the sound this computer plays available to web pages. It serves\n"
    "HTTP and WebSocket on 127.0.0.1:8505 and shows a tray icon with \"Quit\" (without a\n"
    "graphical session it runs headless; SIGINT and SIGTERM quit). It registers itself to\n"
    "start at login. Its log goes to the systemd journal, or to standard error.\n"
    "\n"
    "  -h, --help     show this help and exit\n"
    "  -V, --version  show the build version and exit\n";

std::filesystem::path executablePath() {
    std::error_code error;
    auto path = std::filesystem::read_symlink("/proc/self/exe", error);
    return error ? std::filesystem::path() : path;
}

}  // namespace

int main(int argc, char** argv) {
    using namespace orvel;
    const auto version = appVersion(Bundle::mainBundle());
    if (argc > 1) {
        const std::string_view option = argv[1];
        const bool isHelp = option == "-h" || option == "--help";
        const bool isVersion = option == "-V" || option == "--version";
        if (argc == 2 && isHelp) {
            std::fputs(usage, stdout);
            return 0;
        }
        if (argc == 2 && isVersion) {
            std::printf("orvel %s\n", version ? version->c_str() : "(no version)");
            return 0;
        }
        if (isHelp || isVersion)
            std::fprintf(stderr, "orvel: unexpected argument '%s'\n", argv[2]);
        else if (option.size() > 1 && option.front() == '-')
            std::fprintf(stderr, "orvel: unknown option '%s'\n", argv[1]);
        else
            std::fprintf(stderr, "orvel: unexpected argument '%s'\n", argv[1]);
        std::fputs("Try 'orvel --help' for more information.\n", stderr);
        return 2;
    }

    raiseDescriptorLimit(appLogger());
    platform::TrayIcon::Configuration trayConfiguration;
    trayConfiguration.title = platform::TrayIcon::menuTitle(version);
    // Icons not in the installed theme: an install under another prefix, then the source tree.
    trayConfiguration.iconDirectories = {(executablePath().parent_path() / "../share/icons/hicolor/symbolic/apps").lexically_normal(),
                                         ORVEL_SOURCE_ICONS};
    trayConfiguration.logger = appLogger();
    platform::TrayIcon tray(std::move(trayConfiguration));
    // Declared after the tray, so it ends before the tray goes.
    auto streaming = currentStreamCount().subscribe([&tray](std::int64_t count) { tray.setStreamCount(count); });

    // An update's relaunch: the quit path stops the server, then this process becomes the new one.
    std::mutex relaunchLock;
    std::optional<std::filesystem::path> relaunchInto;
    auto relaunch = [&](const std::filesystem::path& executable) {
        {
            std::lock_guard guard(relaunchLock);
            relaunchInto = executable;
        }
        tray.terminate();
    };
    AppDelegate delegate(AppDelegate::Environment::standard([&tray] { tray.terminate(); }, relaunch));
    tray.setQuitHandler([&delegate] { delegate.applicationWillTerminate(); });
    tray.post([&delegate] { delegate.applicationDidFinishLaunching(); });
    tray.run();
    const bool failed = delegate.waitUntilStopped();
    // The server has stopped, so no capture starts any more; those still being freed must be gone
    // before static destruction, for their libpulse threads call back into the application.
    platform::PulseAudioCapture::waitForBackgroundShutdowns();
    std::optional<std::filesystem::path> next;
    {
        std::lock_guard guard(relaunchLock);
        next = relaunchInto;
    }
    if (next && !failed) {
        // Same process id and standard streams; the descriptors we open are close-on-exec.
        const std::string program = next->string();
        char* const arguments[] = {const_cast<char*>(program.c_str()), nullptr};
        // Nothing runs at exit across an exec: the queued log lines go out now or never.
        net::LogWriter::shared().flush(std::chrono::seconds(2));
        ::execv(program.c_str(), arguments);
        const int reason = errno;
        appLogger()->logError([&] { return "Could not relaunch " + program + ": " + std::strerror(reason) + "."; });
        return 1;
    }
    // A second launch found Orvel running: that is success, not a failure to serve.
    return failed && !delegate.anotherInstanceRunning() ? 1 : 0;
}
