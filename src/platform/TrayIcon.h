#pragma once
#include "net/Logging.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace orvel::platform {

// The application's menu-bar item and its main loop: a GTK 3 + Ayatana AppIndicator tray icon
// whose menu is a greyed title, a separator and "Quit". While pages stream, the icon switches to
// its active variant and a greyed line under the title says how many listen. Without a graphical session (no display
// GTK can open) it runs headless on a plain GLib main loop and logs that it does. "Quit",
// SIGINT and SIGTERM all take one quit path: the quit handler runs on the main thread, then
// run() returns. One per process: construct, run and destroy it on the main thread.
class TrayIcon final {
public:
    struct Configuration {
        std::string identifier = "com.tamrix.orvel";  // the item's id on the session bus
        std::string name = "Tamrix Orvel";             // the item's title for tray hosts
        std::string title = "Tamrix Orvel";            // the menu's first, greyed item
        // Symbolic icons: the tray host draws them in the panel's own colour, light or dark.
        std::string iconName = "com.tamrix.orvel-symbolic";
        std::string activeIconName = "com.tamrix.orvel-active-symbolic";  // while pages stream
        // Where to look, in order, when the icon theme has no <iconName>: folders with <iconName>.svg.
        std::vector<std::string> iconDirectories = {};
        net::Logger logger = {};                       // null: the system log, category "ApplicationCode"
    };

    // "Tamrix Orvel (v412)" for version 412; "Tamrix Orvel" when there is no version.
    static std::string menuTitle(const std::optional<std::string>& appVersion);

    // The menu line while `count` pages stream: "Streaming to 1 page", "Streaming to 3 pages".
    static std::string streamingLine(std::int64_t count);

    explicit TrayIcon(Configuration configuration);
    ~TrayIcon();
    TrayIcon(const TrayIcon&) = delete;
    TrayIcon& operator=(const TrayIcon&) = delete;

    // True when no display could be opened and there is no tray icon.
    bool isHeadless() const noexcept;

    // Runs on the main thread when the quit path is taken, before run() returns. Set before run().
    void setQuitHandler(std::function<void()> handler);

    // Runs the main loop until the quit path has run. Work posted but not yet run when the quit
    // path ends the loop is dropped.
    void run();

    // Takes the quit path, as "Quit" and the signals do; from any thread. Only the first of
    // several requests runs the handler.
    void terminate();

    // Runs `work` on the main thread, in the order posted; from any thread. Must not race
    // the destructor.
    void post(std::function<void()> work);

    // Shows how many pages stream (0: none, the idle icon and no line); from any thread.
    void setStreamCount(std::int64_t count);

private:
    struct State;
    std::unique_ptr<State> state_;
};

}  // namespace orvel::platform
