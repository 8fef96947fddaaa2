// AppDelegate as the updater's user driver and delegate, and the update policy.
#include "app/AppDelegate.h"
#include "app/VersionRoute.h"

#include <algorithm>
#include <cstdio>
#include <string>

namespace orvel {

using update::AppcastItem;
using update::UpdateCheck;
using update::UpdateChoice;
using update::UpdateError;

namespace {

std::string checkNumber(UpdateCheck check) { return std::to_string(static_cast<int>(check)); }

}  // namespace

void AppDelegate::setUpUpdates() {
    if (!hasAutomaticUpdates(environment_.bundle)) return;
    if (environment_.makeUpdater) updater_ = environment_.makeUpdater(*this);
    if (updater_) {
        try {
            updater_->startUpdater();
        } catch (const std::exception& error) {
            log(std::string("Error while starting updater: ") + error.what());
        }
    }
    currentStreamCountSubscription_ =
        environment_.streamCount->subscribe([this](std::int64_t count) { streamCountChanged(count); });
}

void AppDelegate::streamCountChanged(std::int64_t count) {
    if (count != 0) return;
    // One exchange: a refusal on the updater's thread and this clearing never lose the flag or
    // resume twice.
    if (!pendingUpdateRelaunch_.exchange(false)) return;
    log("SPUUpdater, resuming update now that Orvel isn't streaming");
    if (updater_) updater_->checkForUpdatesInBackground();
}

async::Task<void> AppDelegate::answerLater(std::function<void()> answer) {
    answer();
    co_return;
}

void AppDelegate::answer(std::function<void()> reply) {
    std::lock_guard guard(lock_);
    std::erase_if(answers_, [](const async::TaskHandle<void>& handle) { return handle.isFinished(); });
    answers_.push_back(async::spawn(answerLater(std::move(reply))));
}

// The user driver.

void AppDelegate::showUpdatePermissionRequest(const update::UpdatePermissionRequest&,
                                              std::function<void(update::UpdatePermissionResponse)> reply) {
    answer([reply = std::move(reply)] {
        reply(update::UpdatePermissionResponse{.automaticUpdateChecks = true,
                                               .automaticUpdateDownloading = true,
                                               .sendSystemProfile = false});
    });
}

void AppDelegate::showUserInitiatedUpdateCheck(std::function<void()>) {}

void AppDelegate::showUpdateFound(const AppcastItem&, const update::UserUpdateState&, Reply reply) {
    answer([reply = std::move(reply)] { reply(UpdateChoice::install); });
}

void AppDelegate::showUpdateReleaseNotes(const std::string&) {}
void AppDelegate::showUpdateReleaseNotesFailedToDownload(const UpdateError&) {}
void AppDelegate::showUpdateNotFound(const UpdateError&, Acknowledgement acknowledgement) { acknowledgement(); }
void AppDelegate::showUpdaterError(const UpdateError&, Acknowledgement acknowledgement) { acknowledgement(); }
void AppDelegate::showDownloadInitiated(std::function<void()>) {}
void AppDelegate::showDownloadDidReceiveExpectedContentLength(std::uint64_t) {}
void AppDelegate::showDownloadDidReceiveDataOfLength(std::uint64_t) {}
void AppDelegate::showDownloadDidStartExtractingUpdate() {}
void AppDelegate::showExtractionReceivedProgress(double) {}

void AppDelegate::showReadyToInstallAndRelaunch(Reply reply) {
    answer([reply = std::move(reply)] { reply(UpdateChoice::install); });
}

void AppDelegate::showInstallingUpdate(bool, std::function<void()>) {}
void AppDelegate::showUpdateInstalledAndRelaunched(bool, Acknowledgement acknowledgement) { acknowledgement(); }
void AppDelegate::showUpdateInFocus() {}
void AppDelegate::dismissUpdateInstallation() {}

// The updater delegate.

void AppDelegate::didFinishLoadingAppcast(const update::Appcast& appcast) {
    log("SPUUpdater, didFinishLoading: " + appcast.debugDescription());
}

void AppDelegate::didFindValidUpdate(const AppcastItem& item) {
    log("SPUUpdater, didFindValidUpdate: " + item.versionString);
}

void AppDelegate::updaterDidNotFindUpdate() { log("SPUUpdater, updaterDidNotFindUpdate"); }

void AppDelegate::updaterDidNotFindUpdate(const UpdateError& error) {
    log("SPUUpdater, updaterDidNotFindUpdate. Error: " + error.localizedDescription());
}

bool AppDelegate::mayPerformUpdateCheck(UpdateCheck check) {
    log("SPUUpdater, mayPerformUpdateCheck of type: " + checkNumber(check) + ". Responding true");
    return true;
}

void AppDelegate::didAbortWithError(const UpdateError& error) {
    log("SPUUpdater, didAbortWithError: " + error.localizedDescription());
}

void AppDelegate::willScheduleUpdateCheckAfterDelay(double seconds) {
    char delay[64];
    std::snprintf(delay, sizeof delay, "%f", seconds);
    log(std::string("SPUUpdater, willScheduleUpdateCheckAfterDelay: ") + delay + " seconds");
}

bool AppDelegate::shouldDownloadReleaseNotesForUpdate(const AppcastItem& item) {
    log("SPUUpdater, shouldDownloadReleaseNotesForUpdate: " + item.versionString + ". Responding false");
    return false;
}

void AppDelegate::willDownloadUpdate(const AppcastItem& item, const std::string&) {
    log("SPUUpdater, willDownloadUpdate: " + item.versionString);
}

void AppDelegate::didDownloadUpdate(const AppcastItem& item) {
    log("SPUUpdater, didDownloadUpdate: " + item.versionString);
}

void AppDelegate::failedToDownloadUpdate(const AppcastItem&, const UpdateError& error) {
    log("SPUUpdater, failedToDownloadUpdate: " + error.localizedDescription());
}

void AppDelegate::willExtractUpdate(const AppcastItem& item) {
    log("SPUUpdater, willExtractUpdate: " + item.versionString);
}

void AppDelegate::didExtractUpdate(const AppcastItem& item) {
    log("SPUUpdater, didExtractUpdate: " + item.versionString);
}

bool AppDelegate::shouldProceedWithUpdate(const AppcastItem& item, UpdateCheck) {
    log("SPUUpdater, shouldProceedWithUpdate: " + item.versionString + ". Responding true");
    return true;
}

void AppDelegate::willInstallUpdate(const AppcastItem& item) {
    log("SPUUpdater, willInstallUpdate: " + item.versionString);
}

bool AppDelegate::willInstallUpdateOnQuit(const AppcastItem& item, std::function<void()> immediateInstallation) {
    log("SPUUpdater, installing update: " + item.versionString);
    immediateInstallation();
    return true;
}

bool AppDelegate::updaterShouldRelaunchApplication() {
    const std::int64_t streams = environment_.streamCount->value();
    log(std::string("SPUUpdater, updaterShouldRelaunchApplication. Responding ") + (streams < 1 ? "true" : "false"));
    if (streams >= 1) {
        log("SPUUpdater, Awaiting streaming end to apply");
        pendingUpdateRelaunch_.store(true);
        // The last stream may have ended between the read and the store, and its count handler
        // then found nothing to resume: look again, through the same test-and-clear.
        if (environment_.streamCount->value() == 0) streamCountChanged(0);
    }
    return streams < 1;
}

void AppDelegate::updaterWillRelaunchApplication() { log("SPUUpdater, updaterWillRelaunchApplication"); }

bool AppDelegate::shouldPostponeRelaunchForUpdate(const AppcastItem& item, std::function<void()>) {
    log("SPUUpdater, shouldPostponeRelaunchForUpdate: " + item.versionString + ". Responding false");
    return false;
}

void AppDelegate::didFinishUpdateCycleForUpdateCheck(UpdateCheck check, const UpdateError* error) {
    log("SPUUpdater, didFinishUpdateCycle forUpdateCheckType: " + checkNumber(check) +
        ", with error: " + (error ? error->localizedDescription() : std::string("No error")));
}

}  // namespace orvel
