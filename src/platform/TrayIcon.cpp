#include "platform/TrayIcon.h"

#include <glib-unix.h>
#include <gtk/gtk.h>
#include <libayatana-appindicator/app-indicator.h>

#include <csignal>
#include <deque>
#include <filesystem>
#include <string>
#include <mutex>
#include <system_error>
#include <utility>

namespace orvel::platform {

struct TrayIcon::State {
    Configuration configuration;
    net::Logger logger;
    GMainLoop* loop = nullptr;
    bool headless = true;
    GtkWidget* menu = nullptr;
    GtkWidget* streamingItem = nullptr;  // "Streaming to N pages", shown only while pages stream
    AppIndicator* indicator = nullptr;
    guint interruptSource = 0;
    guint terminateSource = 0;

    std::function<void()> quitHandler;  // main thread only
    bool quitting = false;              // main thread only

    std::mutex postedLock;
    std::deque<std::function<void()>> posted;  // guarded by postedLock
    guint postedSource = 0;                    // guarded by postedLock

    void quitPath() {
        if (quitting) return;
        quitting = true;
        if (quitHandler) quitHandler();
        g_main_loop_quit(loop);
    }

    static gboolean onSignal(gpointer data) {
        static_cast<State*>(data)->quitPath();
        return G_SOURCE_CONTINUE;  // a second signal while quitting changes nothing
    }

    static void onQuitActivated(GtkMenuItem*, gpointer data) { static_cast<State*>(data)->quitPath(); }

    static gboolean runPosted(gpointer data) {
        auto* state = static_cast<State*>(data);
        std::deque<std::function<void()>> batch;
        {
            std::lock_guard lock(state->postedLock);
            batch.swap(state->posted);
            state->postedSource = 0;
        }
        for (auto& work : batch) {
            if (state->quitting) break;  // the loop is ending: what is left is dropped
            work();
        }
        return G_SOURCE_REMOVE;
    }

    void makeIndicator() {
        menu = gtk_menu_new();
        g_object_ref_sink(menu);
        GtkWidget* title = gtk_menu_item_new_with_label(configuration.title.c_str());
        gtk_widget_set_sensitive(title, FALSE);
        streamingItem = gtk_menu_item_new_with_label("");
        gtk_widget_set_sensitive(streamingItem, FALSE);
        GtkWidget* quit = gtk_menu_item_new_with_label("Quit");
        g_signal_connect(quit, "activate", G_CALLBACK(onQuitActivated), this);
        gtk_menu_shell_append(GTK_MENU_SHELL(menu), title);
        gtk_menu_shell_append(GTK_MENU_SHELL(menu), streamingItem);
        gtk_menu_shell_append(GTK_MENU_SHELL(menu), gtk_separator_menu_item_new());
        gtk_menu_shell_append(GTK_MENU_SHELL(menu), quit);
        gtk_widget_show_all(menu);
        gtk_widget_hide(streamingItem);

        indicator = app_indicator_new(configuration.identifier.c_str(), configuration.iconName.c_str(),
                                      APP_INDICATOR_CATEGORY_APPLICATION_STATUS);
        // The installed theme first; else the first folder that has the icon (an install elsewhere
        // than /usr, or the source tree).
        if (!gtk_icon_theme_has_icon(gtk_icon_theme_get_default(), configuration.iconName.c_str()))
            for (const auto& folder : configuration.iconDirectories) {
                std::error_code error;
                if (std::filesystem::is_regular_file(std::filesystem::path(folder) / (configuration.iconName + ".svg"), error)) {
                    app_indicator_set_icon_theme_path(indicator, folder.c_str());
                    break;
                }
            }
        app_indicator_set_title(indicator, configuration.name.c_str());
        app_indicator_set_menu(indicator, GTK_MENU(menu));
        app_indicator_set_status(indicator, APP_INDICATOR_STATUS_ACTIVE);
        if (!hasTrayHost())
            logger->logInfo("No tray host on the session bus (org.kde.StatusNotifierWatcher), so the tray icon may not "
                            "show. On GNOME, the \"AppIndicator and KStatusNotifierItem Support\" extension adds one.");
    }

    // Whether a StatusNotifier host listens: without one the icon goes nowhere (stock GNOME).
    static bool hasTrayHost() {
        GDBusConnection* bus = g_bus_get_sync(G_BUS_TYPE_SESSION, nullptr, nullptr);
        if (!bus) return false;
        GVariant* reply = g_dbus_connection_call_sync(
            bus, "org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "NameHasOwner",
            g_variant_new("(s)", "org.kde.StatusNotifierWatcher"), G_VARIANT_TYPE("(b)"), G_DBUS_CALL_FLAGS_NONE, 1000,
            nullptr, nullptr);
        gboolean owned = FALSE;
        if (reply) {
            g_variant_get(reply, "(b)", &owned);
            g_variant_unref(reply);
        }
        g_object_unref(bus);
        return owned;
    }

    void showStreamCount(std::int64_t count) {
        if (!indicator) return;
        const auto& icon = count > 0 ? configuration.activeIconName : configuration.iconName;
        app_indicator_set_icon_full(indicator, icon.c_str(), count > 0 ? "Streaming" : configuration.name.c_str());
        gtk_menu_item_set_label(GTK_MENU_ITEM(streamingItem), streamingLine(count).c_str());
        gtk_widget_set_visible(streamingItem, count > 0);
    }
};

std::string TrayIcon::streamingLine(std::int64_t count) {
    return "Streaming to " + std::to_string(count) + (count == 1 ? " page" : " pages");
}

std::string TrayIcon::menuTitle(const std::optional<std::string>& appVersion) {
    if (!appVersion) return "Tamrix Orvel";
    return "Tamrix Orvel (v" + *appVersion + ")";
}

TrayIcon::TrayIcon(Configuration configuration) : state_(std::make_unique<State>()) {
    State& state = *state_;
    state.configuration = std::move(configuration);
    state.logger = state.configuration.logger ? state.configuration.logger : net::defaultLogger("ApplicationCode");
    state.loop = g_main_loop_new(nullptr, FALSE);
    // Plain gtk_init exits the process when there is no display; the check lets us go on without a tray.
    state.headless = !gtk_init_check(nullptr, nullptr);
    if (state.headless)
        state.logger->logInfo("No graphical session, running headless without a tray icon.");
    else
        state.makeIndicator();
    // GLib's own handlers only wake the loop; the quit path then runs there, never in the handler.
    state.interruptSource = g_unix_signal_add(SIGINT, &State::onSignal, &state);
    state.terminateSource = g_unix_signal_add(SIGTERM, &State::onSignal, &state);
}

TrayIcon::~TrayIcon() {
    State& state = *state_;
    g_source_remove(state.interruptSource);
    g_source_remove(state.terminateSource);
    {
        std::lock_guard lock(state.postedLock);
        if (state.postedSource != 0) g_source_remove(state.postedSource);
        state.postedSource = 0;
        state.posted.clear();
    }
    if (state.indicator) g_object_unref(state.indicator);
    if (state.menu) {
        gtk_widget_destroy(state.menu);
        g_object_unref(state.menu);
    }
    g_main_loop_unref(state.loop);
}

bool TrayIcon::isHeadless() const noexcept { return state_->headless; }

void TrayIcon::setQuitHandler(std::function<void()> handler) { state_->quitHandler = std::move(handler); }

void TrayIcon::run() {
    if (state_->quitting) return;
    g_main_loop_run(state_->loop);
}

void TrayIcon::terminate() {
    State* state = state_.get();
    post([state] { state->quitPath(); });
}

void TrayIcon::setStreamCount(std::int64_t count) {
    State* state = state_.get();
    post([state, count] { state->showStreamCount(count); });
}

void TrayIcon::post(std::function<void()> work) {
    State& state = *state_;
    std::lock_guard lock(state.postedLock);
    state.posted.push_back(std::move(work));
    if (state.postedSource == 0)
        state.postedSource = g_idle_add_full(G_PRIORITY_DEFAULT, &State::runPosted, &state, nullptr);
}

}  // namespace orvel::platform
