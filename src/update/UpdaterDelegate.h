#pragma once
#include "update/Appcast.h"
#include "update/UpdateError.h"

#include <functional>
#include <string>

namespace orvel::update {

// The kind of an update check, numbered as the delegate's log lines print it.
enum class UpdateCheck : int { updates = 0, updatesInBackground = 1, updateInformation = 2 };

// Told every step of the updater and asked its few policy questions; called on the updater's
// thread. The Boolean answers let the update go on (true) or stop it.
class UpdaterDelegate {
public:
    virtual ~UpdaterDelegate() = default;
    virtual void didFinishLoadingAppcast(const Appcast& appcast) = 0;
    virtual void didFindValidUpdate(const AppcastItem& item) = 0;
    virtual void updaterDidNotFindUpdate() = 0;
    virtual void updaterDidNotFindUpdate(const UpdateError& error) = 0;
    virtual bool mayPerformUpdateCheck(UpdateCheck check) = 0;
    virtual void didAbortWithError(const UpdateError& error) = 0;
    virtual void willScheduleUpdateCheckAfterDelay(double seconds) = 0;
    virtual bool shouldDownloadReleaseNotesForUpdate(const AppcastItem& item) = 0;
    virtual void willDownloadUpdate(const AppcastItem& item, const std::string& requestURL) = 0;
    virtual void didDownloadUpdate(const AppcastItem& item) = 0;
    virtual void failedToDownloadUpdate(const AppcastItem& item, const UpdateError& error) = 0;
    virtual void willExtractUpdate(const AppcastItem& item) = 0;
    virtual void didExtractUpdate(const AppcastItem& item) = 0;
    virtual bool shouldProceedWithUpdate(const AppcastItem& item, UpdateCheck check) = 0;
    virtual void willInstallUpdate(const AppcastItem& item) = 0;
    // `immediateInstallation` installs now instead of at quit; true means the delegate handled it.
    virtual bool willInstallUpdateOnQuit(const AppcastItem& item, std::function<void()> immediateInstallation) = 0;
    virtual bool updaterShouldRelaunchApplication() = 0;
    virtual void updaterWillRelaunchApplication() = 0;
    // True postpones the relaunch until `resume` is called.
    virtual bool shouldPostponeRelaunchForUpdate(const AppcastItem& item, std::function<void()> resume) = 0;
    virtual void didFinishUpdateCycleForUpdateCheck(UpdateCheck check, const UpdateError* error) = 0;
};

}  // namespace orvel::update
