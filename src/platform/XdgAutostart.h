#pragma once
#include "async/Error.h"

#include <filesystem>
#include <string>

namespace orvel::platform {

// The login item: an XDG autostart entry, $XDG_CONFIG_HOME/autostart/<identifier>.desktop, that
// starts this executable when the user logs in. It keeps only paths; every call reads or writes
// the file afresh, so any thread may use it.
class XdgAutostart {
public:
    // Numbered like the login-item status the application checks: 1 is enabled.
    enum class Status { notRegistered = 0, enabled = 1 };

    // A failure to write or remove the entry; the text names the file and the system's reason.
    class Error final : public async::Error {
    public:
        explicit Error(std::string text) : async::Error(std::move(text)) {}
    };

    struct Configuration {
        std::string identifier;                         // file name without ".desktop"
        std::string name;                               // the entry's Name=
        std::filesystem::path executable;               // absolute path of the program to start
        std::filesystem::path configHome;               // the user's config folder ($XDG_CONFIG_HOME)
    };

    static constexpr const char* applicationIdentifier = "com.tamrix.orvel";
    static constexpr const char* applicationName = "Tamrix Orvel";

    explicit XdgAutostart(Configuration configuration);

    // The application's own login item: this process's executable and the user's config folder
    // (XDG_CONFIG_HOME, else ~/.config).
    static XdgAutostart mainAppService();

    // Enabled when the user's entry exists, parses, is Type=Application and its Exec starts our
    // executable; also when the user turned the entry off (Hidden=true or
    // X-GNOME-Autostart-enabled=false, as desktop settings write it), so that a launch never
    // turns it back on.
    Status status() const;

    // Writes the user's entry atomically (temporary file, then rename), creating missing folders
    // with mode 0700. Throws Error.
    void registerEntry() const;

    std::filesystem::path entryPath() const;
    const Configuration& configuration() const noexcept { return configuration_; }

private:
    Configuration configuration_;
};

}  // namespace orvel::platform
