#pragma once
#include "app/Bundle.h"
#include "app/StreamCount.h"
#include "async/Spawn.h"
#include "http/HTTPServer.h"
#include "net/Logging.h"
#include "platform/XdgAutostart.h"
#include "update/Updater.h"

#include <atomic>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string_view>
#include <vector>

namespace orvel {

class OrvelMessageHandler;

// The application's launch and termination steps: the login item, the server on
// 127.0.0.1:8505 with "GET /version" and the streaming route "*", and its stop. Launch and
// termination run on the main thread; the server runs in a task of its own, which asks the
// application to terminate when the server cannot run.
// Raises the soft limit on open descriptors to the hard limit and logs the figure (info): each
// connection costs one, and the usual soft limit of 1024 is far below what the server holds.
void raiseDescriptorLimit(const net::Logger& logger);

// With "SUAutomaticallyUpdate" it is also the updater's user driver, answering every question at
// once in favour of updating, and its delegate, logging each step ("SPUUpdater, …") and refusing
// to relaunch while a page streams; the refusal is remembered and the update resumed when
// the stream count returns to 0. Those calls come from the updater's and the streaming threads.
class AppDelegate final : public update::UserDriver, public update::UpdaterDelegate {
public:
    static constexpr const char* serverAddress = "127.0.0.1";
    static constexpr std::uint16_t serverPort = 8505;
    static constexpr double handlerTimeout = 15.0;  // seconds for one handler call
    static constexpr double closeGrace = 1.0;  // seconds for open connections to close at the end

    struct Environment {
        Bundle bundle;
        platform::XdgAutostart loginItem;
        net::Logger logger;
        // Asks the application to terminate, which ends in applicationWillTerminate on the main
        // thread. Any thread may call it.
        std::function<void()> terminate;
        // False for a run from a build folder: a developer's build must not become the program
        // their session starts at login.
        bool registersLoginItem = true;
        // Makes the updater for this delegate (only with "SUAutomaticallyUpdate").
        std::function<std::unique_ptr<update::UpdaterControl>(AppDelegate&)> makeUpdater;
        // The count the update policy watches, and the plain process log of its lines.
        StreamCount* streamCount = &currentStreamCount();
        std::function<void(std::string_view)> nsLog;

        // The main bundle, this executable's login item (none from a build folder; the stable path
        // of a per-user install), the application's log, and the updater, whose relaunch hands
        // the new executable to `relaunch` (any thread) after the server has been told to stop.
        static Environment standard(std::function<void()> terminate,
                                    std::function<void(const std::filesystem::path&)> relaunch);
    };

    explicit AppDelegate(Environment environment);
    // Stops a server still running and waits for the server task, which points to this delegate.
    ~AppDelegate();
    AppDelegate(const AppDelegate&) = delete;
    AppDelegate& operator=(const AppDelegate&) = delete;

    void applicationDidFinishLaunching();
    void applicationWillTerminate();
    // Launch's last step with automatic updates: make and start the updater, then subscribe to
    // the stream count. Nothing without "SUAutomaticallyUpdate".
    void setUpUpdates();

    // After termination: waits for the server task and the stop to end. True when the server
    // could not run, which the process reports with a non-zero exit status.
    bool waitUntilStopped();
    // True when Orvel already answered on the server's address at launch (a second launch).
    bool anotherInstanceRunning() const noexcept { return anotherInstanceRunning_; }

    // The user driver: every question answered in favour of updating, no interface shown.
    void showUpdatePermissionRequest(const update::UpdatePermissionRequest& request,
                                     std::function<void(update::UpdatePermissionResponse)> reply) override;
    void showUserInitiatedUpdateCheck(std::function<void()> cancellation) override;
    void showUpdateFound(const update::AppcastItem& item, const update::UserUpdateState& state, Reply reply) override;
    void showUpdateReleaseNotes(const std::string& downloadData) override;
    void showUpdateReleaseNotesFailedToDownload(const update::UpdateError& error) override;
    void showUpdateNotFound(const update::UpdateError& error, Acknowledgement acknowledgement) override;
    void showUpdaterError(const update::UpdateError& error, Acknowledgement acknowledgement) override;
    void showDownloadInitiated(std::function<void()> cancellation) override;
    void showDownloadDidReceiveExpectedContentLength(std::uint64_t length) override;
    void showDownloadDidReceiveDataOfLength(std::uint64_t length) override;
    void showDownloadDidStartExtractingUpdate() override;
    void showExtractionReceivedProgress(double progress) override;
    void showReadyToInstallAndRelaunch(Reply reply) override;
    void showInstallingUpdate(bool applicationTerminated, std::function<void()> retryTerminatingApplication) override;
    void showUpdateInstalledAndRelaunched(bool relaunched, Acknowledgement acknowledgement) override;
    void showUpdateInFocus() override;
    void dismissUpdateInstallation() override;

    // The updater delegate: one "SPUUpdater, " line each, and the policy's answers.
    void didFinishLoadingAppcast(const update::Appcast& appcast) override;
    void didFindValidUpdate(const update::AppcastItem& item) override;
    void updaterDidNotFindUpdate() override;
    void updaterDidNotFindUpdate(const update::UpdateError& error) override;
    bool mayPerformUpdateCheck(update::UpdateCheck check) override;
    void didAbortWithError(const update::UpdateError& error) override;
    void willScheduleUpdateCheckAfterDelay(double seconds) override;
    bool shouldDownloadReleaseNotesForUpdate(const update::AppcastItem& item) override;
    void willDownloadUpdate(const update::AppcastItem& item, const std::string& requestURL) override;
    void didDownloadUpdate(const update::AppcastItem& item) override;
    void failedToDownloadUpdate(const update::AppcastItem& item, const update::UpdateError& error) override;
    void willExtractUpdate(const update::AppcastItem& item) override;
    void didExtractUpdate(const update::AppcastItem& item) override;
    bool shouldProceedWithUpdate(const update::AppcastItem& item, update::UpdateCheck check) override;
    void willInstallUpdate(const update::AppcastItem& item) override;
    bool willInstallUpdateOnQuit(const update::AppcastItem& item, std::function<void()> immediateInstallation) override;
    // False while a stream runs: remembered, and resumed when the count is next 0.
    bool updaterShouldRelaunchApplication() override;
    void updaterWillRelaunchApplication() override;
    bool shouldPostponeRelaunchForUpdate(const update::AppcastItem& item, std::function<void()> resume) override;
    void didFinishUpdateCycleForUpdateCheck(update::UpdateCheck check, const update::UpdateError* error) override;

private:
    static async::Task<void> runServer(AppDelegate* self, std::optional<std::string> appVersion,
                                       bool hasAutomaticUpdates);
    static async::Task<void> stopServer(std::shared_ptr<http::HTTPServer> server);
    static async::Task<void> answerLater(std::function<void()> answer);
    void answer(std::function<void()> reply);  // from a task of its own, not before returning
    void streamCountChanged(std::int64_t count);
    void log(std::string_view message) const { environment_.nsLog(message); }

    Environment environment_;
    std::mutex lock_;
    std::shared_ptr<http::HTTPServer> server_;
    std::shared_ptr<OrvelMessageHandler> messages_;
    bool terminating_ = false;
    std::optional<async::TaskHandle<void>> serverTask_;
    std::optional<async::TaskHandle<void>> stopTask_;
    std::unique_ptr<update::UpdaterControl> updater_;
    // A relaunch refused because of streams, not yet resumed. Set by the updater's thread,
    // tested and cleared in one exchange by the thread that brings the count to 0.
    std::atomic<bool> pendingUpdateRelaunch_{false};
    std::vector<async::TaskHandle<void>> answers_;  // under lock_
    std::optional<StreamCount::Subscription> currentStreamCountSubscription_;
    std::optional<StreamCount::Subscription> streamCountLogSubscription_;
    std::atomic<bool> serverFailed_{false};
    bool anotherInstanceRunning_ = false;  // main thread
};

}  // namespace orvel
