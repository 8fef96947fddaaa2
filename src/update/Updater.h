#pragma once
#include "update/UpdaterDelegate.h"
#include "update/UserDriver.h"

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>

namespace orvel::update {

// The calls the application makes of its updater, so that tests can script one.
class UpdaterControl {
public:
    virtual ~UpdaterControl() = default;
    // Starts the schedule; throws UpdateError when this install cannot be updated.
    virtual void startUpdater() = 0;
    // Asks for a check without any user interface; returns at once, from any thread.
    virtual void checkForUpdatesInBackground() = 0;
};

// The silent self-updater of a per-user install. Once started, its own thread checks the feed
// shortly after start and then every 24 hours, sleeping in between on one timed wait (no
// wake-ups); it fetches and downloads with libcurl, checks the archive's length and Ed25519
// signature, unpacks it into its own version folder, and only then asks its delegate whether to
// relaunch: on yes it switches `current` by one rename and hands the new executable to
// `relaunch`; on no the release stays staged for the next check. Every step is reported to the
// user driver and the delegate on that thread. Destruction stops the thread, ending a transfer.
class Updater final : public UpdaterControl {
public:
    // What the updater reads of a bundle.
    struct Bundle {
        std::string version;                     // "CFBundleVersion"
        std::optional<std::string> feedURL;      // "SUFeedURL"
        std::optional<std::string> publicEDKey;  // "SUPublicEDKey"
        std::filesystem::path executable;        // the running program, links resolved
    };

    struct Configuration {
        double firstCheckDelay = 5;       // seconds after start
        double checkInterval = 86400;     // seconds between checks
        // Stops the application (freeing its port) and executes the given program in its place.
        // Called on the updater's thread, which ends afterwards.
        std::function<void(const std::filesystem::path&)> relaunch;
    };

    // The host bundle gives the feed and key, the application bundle the version and executable.
    Updater(Bundle hostBundle, Bundle applicationBundle, UserDriver& userDriver, UpdaterDelegate& delegate,
            Configuration configuration);
    ~Updater() override;
    Updater(const Updater&) = delete;
    Updater& operator=(const Updater&) = delete;

    void startUpdater() override;
    void checkForUpdatesInBackground() override;

    struct State;

private:
    void run();

    std::shared_ptr<State> state_;
};

}  // namespace orvel::update
