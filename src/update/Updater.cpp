#include "update/Updater.h"

#include "net/OwnedDescriptor.h"
#include "update/EdSignature.h"
#include "update/Transfer.h"
#include "update/UserInstall.h"

#include <fcntl.h>
#include <pthread.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <thread>

namespace orvel::update {

namespace {

using Clock = std::chrono::steady_clock;

// Unwinds a cycle when the updater stops; nothing more is reported.
struct Stopped {};

std::chrono::milliseconds toDuration(double seconds) {
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

}  // namespace

// Shared with the replies the user driver may give late, from any thread: they find the state
// still there and an answer to a question no longer asked is dropped.
struct Updater::State {
    Bundle host, application;
    UserDriver* userDriver;
    UpdaterDelegate* delegate;
    Configuration configuration;
    std::optional<UserInstall> install;
    std::thread thread;

    std::mutex lock;
    std::condition_variable changed;
    bool started = false;
    bool stopping = false;
    bool checkRequested = false;
    bool downloadCancelled = false;
    std::uint64_t question = 0;  // which question a reply answers
    bool answered = false;
    UpdateChoice choice = UpdateChoice::dismiss;
    UpdatePermissionResponse permission;

    bool isStopping() {
        std::lock_guard guard(lock);
        return stopping;
    }
    bool transferCancelled() {
        std::lock_guard guard(lock);
        return stopping || downloadCancelled;
    }

    // Asks `ask` with a reply that may come from any thread, later; waits for it. The reply's
    // value is stored by `store` under the lock.
    template <class Value, class Ask, class Store>
    void askAndWait(const std::shared_ptr<State>& self, Ask ask, Store store) {
        std::uint64_t number;
        {
            std::lock_guard guard(lock);
            number = ++question;
            answered = false;
        }
        std::weak_ptr<State> weak = self;
        ask([weak, number, store](Value value) {
            const auto state = weak.lock();
            if (!state) return;
            std::lock_guard guard(state->lock);
            if (state->question != number || state->answered) return;
            store(*state, value);
            state->answered = true;
            state->changed.notify_all();
        });
        std::unique_lock guard(lock);
        changed.wait(guard, [&] { return answered || stopping; });
        ++question;  // a reply that comes after this is dropped: `store` may point into a finished frame
        if (stopping) throw Stopped{};
    }

    UpdateChoice askChoice(const std::shared_ptr<State>& self, const std::function<void(UserDriver::Reply)>& ask) {
        askAndWait<UpdateChoice>(self, ask, [](State& state, UpdateChoice value) { state.choice = value; });
        std::lock_guard guard(lock);
        return choice;
    }

    void finish(UpdateCheck check, const UpdateError* error) {
        delegate->didFinishUpdateCycleForUpdateCheck(check, error);
        userDriver->dismissUpdateInstallation();
    }

    void stage(const std::shared_ptr<State>& self, Transfer& transfer, const AppcastItem& item);
    // True when the application is being relaunched: the thread ends.
    bool cycle(const std::shared_ptr<State>& self, Transfer& transfer, UpdateCheck check);
};

void Updater::State::stage(const std::shared_ptr<State>& self, Transfer& transfer, const AppcastItem& item) {
    const auto download = install->downloadPath(item.versionString);
    {
        net::OwnedDescriptor file(::open(download.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
        if (!file) throw UpdateError("Could not create " + download.string() + ".");
        delegate->willDownloadUpdate(item, item.url);
        {
            std::lock_guard guard(lock);
            downloadCancelled = false;
        }
        userDriver->showDownloadInitiated([weak = std::weak_ptr<State>(self)] {
            if (const auto state = weak.lock()) {
                std::lock_guard guard(state->lock);
                state->downloadCancelled = true;
            }
        });
        userDriver->showDownloadDidReceiveExpectedContentLength(item.length);
        try {
            transfer.download(item.url, file.get(), item.length,
                              [this](std::size_t n) { userDriver->showDownloadDidReceiveDataOfLength(n); });
        } catch (const UpdateError& error) {
            ::unlink(download.c_str());
            if (isStopping()) throw Stopped{};
            delegate->failedToDownloadUpdate(item, error);
            throw;
        }
    }
    delegate->didDownloadUpdate(item);
    delegate->willExtractUpdate(item);
    userDriver->showDownloadDidStartExtractingUpdate();
    try {
        verifyEdSignature(download, item.edSignature, *host.publicEDKey);
        install->unpack(download, item.versionString);
    } catch (...) {
        ::unlink(download.c_str());
        throw;
    }
    ::unlink(download.c_str());
    userDriver->showExtractionReceivedProgress(1.0);
    delegate->didExtractUpdate(item);
}

bool Updater::State::cycle(const std::shared_ptr<State>& self, Transfer& transfer, UpdateCheck check) {
    if (!delegate->mayPerformUpdateCheck(check)) {
        const UpdateError refused("The update check was not allowed.");
        finish(check, &refused);
        return false;
    }
    try {
        const Appcast appcast = Appcast::parse(transfer.fetch(*host.feedURL, Appcast::maxFeedBytes));
        delegate->didFinishLoadingAppcast(appcast);
        const auto item = appcast.bestItemNewerThan(application.version);
        if (!item) {
            const UpdateError none("Orvel " + application.version + " is the newest version available.");
            delegate->updaterDidNotFindUpdate(none);
            delegate->updaterDidNotFindUpdate();
            userDriver->showUpdateNotFound(none, [] {});
            finish(check, &none);
            return false;
        }
        delegate->didFindValidUpdate(*item);
        if (!delegate->shouldProceedWithUpdate(*item, check)) {
            finish(check, nullptr);
            return false;
        }
        const bool staged = install->isStaged(item->versionString);
        if (askChoice(self, [&](UserDriver::Reply reply) {
                userDriver->showUpdateFound(*item, UserUpdateState{staged}, std::move(reply));
            }) != UpdateChoice::install) {
            finish(check, nullptr);
            return false;
        }
        if (delegate->shouldDownloadReleaseNotesForUpdate(*item) && item->releaseNotesURL) {
            try {
                userDriver->showUpdateReleaseNotes(transfer.fetch(*item->releaseNotesURL, Appcast::maxFeedBytes));
            } catch (const UpdateError& error) {
                userDriver->showUpdateReleaseNotesFailedToDownload(error);
            }
        }
        // A release staged by an earlier cycle whose relaunch was refused is used as it is.
        if (!staged) stage(self, transfer, *item);

        bool immediate = false;
        askAndWait<bool>(
            self,
            [&](std::function<void(bool)> answer) {
                if (!delegate->willInstallUpdateOnQuit(*item, [answer] { answer(true); }))
                    userDriver->showReadyToInstallAndRelaunch(
                        [answer](UpdateChoice choice) { answer(choice == UpdateChoice::install); });
            },
            [&immediate](State&, bool value) { immediate = value; });
        std::weak_ptr<State> weak = self;
        const auto resume = [weak] {
            if (const auto state = weak.lock()) {
                std::lock_guard guard(state->lock);
                state->checkRequested = true;
                state->changed.notify_all();
            }
        };
        if (!immediate || delegate->shouldPostponeRelaunchForUpdate(*item, resume) ||
            !delegate->updaterShouldRelaunchApplication()) {
            finish(check, nullptr);  // the release stays staged for the next check
            return false;
        }
        userDriver->showInstallingUpdate(false, [] {});
        delegate->willInstallUpdate(*item);
        install->switchTo(item->versionString);
        delegate->updaterWillRelaunchApplication();
        userDriver->showUpdateInstalledAndRelaunched(true, [] {});
        finish(check, nullptr);
        if (configuration.relaunch) configuration.relaunch(install->executable(item->versionString));
        return true;
    } catch (const UpdateError& error) {
        if (isStopping()) throw Stopped{};
        delegate->didAbortWithError(error);
        userDriver->showUpdaterError(error, [] {});
        finish(check, &error);
        return false;
    }
}

Updater::Updater(Bundle hostBundle, Bundle applicationBundle, UserDriver& userDriver, UpdaterDelegate& delegate,
                 Configuration configuration)
    : state_(std::make_shared<State>()) {
    state_->host = std::move(hostBundle);
    state_->application = std::move(applicationBundle);
    state_->userDriver = &userDriver;
    state_->delegate = &delegate;
    state_->configuration = std::move(configuration);
}

Updater::~Updater() {
    {
        std::lock_guard guard(state_->lock);
        state_->stopping = true;
        state_->changed.notify_all();
    }
    if (state_->thread.joinable()) state_->thread.join();
}

void Updater::startUpdater() {
    State& state = *state_;
    {
        std::lock_guard guard(state.lock);
        if (std::exchange(state.started, true)) throw UpdateError("The updater has already started.");
    }
    if (!state.host.feedURL || state.host.feedURL->empty())
        throw UpdateError("The Info dictionary has no SUFeedURL.");
    if (!Transfer::isAllowedURL(*state.host.feedURL))
        throw UpdateError("The update feed " + *state.host.feedURL + " is neither HTTPS nor on 127.0.0.1.");
    if (!state.host.publicEDKey || state.host.publicEDKey->empty())
        throw UpdateError("The Info dictionary has no SUPublicEDKey.");
    // A package or a build folder belongs to whoever made it: the updater never touches it.
    state.install = UserInstall::containing(state.application.executable);
    if (!state.install || !state.install->isWritable())
        throw UpdateError("Orvel at " + state.application.executable.string() +
                          " is not a per-user install it can write; updates come from the package manager.");
    state.install->removeLeftovers();
    state.thread = std::thread([this] { run(); });
}

void Updater::checkForUpdatesInBackground() {
    std::lock_guard guard(state_->lock);
    state_->checkRequested = true;
    state_->changed.notify_all();
}

void Updater::run() {
    ::pthread_setname_np(::pthread_self(), "orvel.update");
    const std::shared_ptr<State> self = state_;
    State& state = *self;
    try {
        Transfer transfer([&state] { return state.transferCancelled(); });
        state.askAndWait<UpdatePermissionResponse>(
            self, [&](auto reply) { state.userDriver->showUpdatePermissionRequest({}, std::move(reply)); },
            [](State& s, UpdatePermissionResponse response) { s.permission = response; });
        // Without automatic checks only asked-for checks run.
        const bool scheduled = state.permission.automaticUpdateChecks;
        double delay = state.configuration.firstCheckDelay;
        while (true) {
            if (scheduled) state.delegate->willScheduleUpdateCheckAfterDelay(delay);
            const auto due = Clock::now() + toDuration(delay);
            {
                std::unique_lock guard(state.lock);
                const auto ready = [&] { return state.stopping || state.checkRequested; };
                if (scheduled)
                    state.changed.wait_until(guard, due, ready);
                else
                    state.changed.wait(guard, ready);
                if (state.stopping) return;
                state.checkRequested = false;
            }
            if (state.cycle(self, transfer, UpdateCheck::updatesInBackground)) return;
            delay = state.configuration.checkInterval;
        }
    } catch (const Stopped&) {
    } catch (const UpdateError& error) {
        state.delegate->didAbortWithError(error);
    }
}

}  // namespace orvel::update
