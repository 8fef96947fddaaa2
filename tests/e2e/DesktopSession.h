#pragma once
// A private desktop for tray tests: Xvfb on a display it picks itself, a session dbus-daemon,
// and sni_watcher.py owning org.kde.StatusNotifierWatcher, so a tray item registers with no
// visual host. dbusmenu.py then reads the item's menu and clicks entries as a tray host would.

#include "e2e/Process.h"

#include <ranges>
#include <sstream>

namespace orvel::test {

class DesktopSession {
public:
    struct Item {
        std::string busName;
        std::string objectPath;
    };
    struct MenuEntry {
        std::string type;  // "standard" or "separator"
        bool enabled = true;
        std::string label;
    };
    struct ItemView {
        std::map<std::string, std::string> properties;
        std::vector<MenuEntry> entries;
    };

    static constexpr const char* python = "/usr/bin/python3";  // Debian's, which has dbus and gi

    static std::string scriptPath(const std::string& name) { return std::string(ORVEL_SOURCE_DIR) + "/tests/e2e/" + name; }

    // What is missing for a session on this machine, or empty when everything is there.
    static std::string missingTools() {
        std::string missing;
        for (const char* tool : {"Xvfb", "dbus-daemon"})
            if (findProgram(tool).empty()) missing += std::string(tool) + " ";
        if (!isExecutable(python) || runProgram({python, "-c", "import dbus, gi.repository.GLib"}).exitCode != 0)
            missing += "/usr/bin/python3 with dbus and gi ";
        return missing;
    }

    DesktopSession() {
        // -displayfd 1 prints the display number it chose as a line of its own.
        xvfb_.emplace(std::vector<std::string>{findProgram("Xvfb"), "-displayfd", "1", "-screen", "0", "800x600x24",
                                               "-nolisten", "tcp"},
                      ChildProcess::Options{});
        auto number = xvfb_->waitForLine(
            [](const std::string& l) { return !l.empty() && l.find_first_not_of("0123456789") == std::string::npos; }, 30s);
        if (!number) throw std::runtime_error("Xvfb did not report a display: " + xvfb_->output());
        display_ = ":" + *number;

        // --nofork keeps the daemon our own child; it prints its address once it listens.
        bus_.emplace(std::vector<std::string>{findProgram("dbus-daemon"), "--session", "--nofork", "--nopidfile",
                                              "--address=unix:path=" + (folder_.path() / "bus").string(),
                                              "--print-address=1"},
                     ChildProcess::Options{});
        auto address = bus_->waitForLineContaining("unix:path=", 30s);
        if (!address) throw std::runtime_error("dbus-daemon did not start: " + bus_->output());
        busAddress_ = *address;

        watcher_.emplace(std::vector<std::string>{python, "-u", scriptPath("sni_watcher.py")},
                         ChildProcess::Options{.environment = environment()});
        if (!watcher_->waitForLineContaining("READY", 30s))
            throw std::runtime_error("the StatusNotifierWatcher did not start: " + watcher_->output());
    }

    // NO_AT_BRIDGE keeps GTK from starting an accessibility bus of its own; under ASan only GTK's
    // process-lifetime allocations are forgiven.
    EnvironmentChanges environmentChanges() const {
        return {{"DISPLAY", display_},
                {"LSAN_OPTIONS", "suppressions=" + scriptPath("lsan-desktop.supp")},
                {"WAYLAND_DISPLAY", std::nullopt},
                {"GDK_BACKEND", "x11"},
                {"DBUS_SESSION_BUS_ADDRESS", busAddress_},
                {"NO_AT_BRIDGE", "1"},
                {"XDG_RUNTIME_DIR", folder_.path().string()}};
    }
    std::vector<std::string> environment() const { return environmentWith(environmentChanges()); }

    // The next tray item that registers with the watcher.
    std::optional<Item> waitForItem(Clock::duration timeout) {
        auto line = watcher_->waitForLine([](const std::string& l) { return l.starts_with("REGISTERED "); }, timeout);
        if (!line) return std::nullopt;
        std::istringstream words(line->substr(std::string("REGISTERED ").size()));
        Item item;
        words >> item.busName >> item.objectPath;
        return item;
    }

    // The item's properties and menu, read over D-Bus.
    ItemView show(const Item& item) const {
        ItemView view;
        std::istringstream lines(dbusmenu({"show", item.busName, item.objectPath}));
        for (std::string line; std::getline(lines, line);) {
            std::vector<std::string> fields;
            for (const auto field : std::views::split(line, '\t')) fields.emplace_back(field.begin(), field.end());
            if (fields.size() == 3 && fields[0] == "property") view.properties[fields[1]] = fields[2];
            if (fields.size() == 4 && fields[0] == "entry") view.entries.push_back({fields[1], fields[2] == "True", fields[3]});
        }
        return view;
    }

    void click(const Item& item, const std::string& label) const { dbusmenu({"click", item.busName, item.objectPath, label}); }

private:
    std::string dbusmenu(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), {python, scriptPath("dbusmenu.py")});
        auto result = runProgram(std::move(arguments), {.environment = environment()}, 30s);
        if (result.exitCode != 0) throw std::runtime_error("dbusmenu.py failed: " + result.output);
        return result.output;
    }

    TemporaryFolder folder_;
    std::string display_;
    std::string busAddress_;
    // Declared in start order, so they end in reverse: watcher, bus, display.
    std::optional<ChildProcess> xvfb_;
    std::optional<ChildProcess> bus_;
    std::optional<ChildProcess> watcher_;
};

}  // namespace orvel::test
