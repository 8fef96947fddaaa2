#include "app/AppDelegate.h"

#include "app/AppLogger.h"
#include "app/RunningInstance.h"
#include "app/VersionRoute.h"
#include "app/OrvelMessageHandler.h"
#include "app/WebSocketRoute.h"
#include "async/Error.h"
#include "net/SocketAddress.h"
#include "platform/NSLog.h"
#include "update/UserInstall.h"

#include <sys/resource.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <filesystem>
#include <string>
#include <utility>

namespace orvel {

namespace {

// True when this executable lies in the folder it was built in.
bool runsFromBuildFolder(const std::filesystem::path& executable) {
    std::error_code error;
    const auto folder = std::filesystem::weakly_canonical(ORVEL_BUILD_FOLDER, error);
    if (error || executable.empty()) return false;
    const auto relative = executable.lexically_relative(folder);
    return !relative.empty() && *relative.begin() != "..";
}

}  // namespace

void raiseDescriptorLimit(const net::Logger& logger) {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
        logger->logError([&] { return std::string("Could not read the open file limit: ") + std::strerror(errno); });
        return;
    }
    if (limit.rlim_cur != limit.rlim_max) {
        rlimit raised{limit.rlim_max, limit.rlim_max};
        if (::setrlimit(RLIMIT_NOFILE, &raised) == 0) limit = raised;
    }
    logger->logInfo([&] {
        return limit.rlim_cur == RLIM_INFINITY ? std::string("Open file limit: unlimited.")
                                               : "Open file limit: " + std::to_string(limit.rlim_cur) + ".";
    });
}

AppDelegate::Environment AppDelegate::Environment::standard(
    std::function<void()> terminate, std::function<void(const std::filesystem::path&)> relaunch) {
    auto loginItem = platform::XdgAutostart::mainAppService();
    const auto executable = loginItem.configuration().executable;
    const bool registers = !runsFromBuildFolder(executable);
    // A per-user install starts at login through its stable path, which every update keeps.
    if (const auto install = update::UserInstall::containing(executable)) {
        auto configuration = loginItem.configuration();
        configuration.executable = install->stableExecutable();
        loginItem = platform::XdgAutostart(std::move(configuration));
    }
    auto makeUpdater = [executable, relaunch = std::move(relaunch)](AppDelegate& delegate) {
        const Bundle& main = Bundle::mainBundle();
        update::Updater::Bundle bundle{appVersion(main).value_or(""), main.stringForInfoDictionaryKey(Bundle::feedURLKey),
                                       main.stringForInfoDictionaryKey(Bundle::publicEDKeyKey), executable};
        update::Updater::Configuration configuration{.relaunch = relaunch};
        if (const auto* delay = main.objectForInfoDictionaryKey(Bundle::testFirstCheckDelayKey))
            if (const auto* seconds = std::get_if<double>(delay)) configuration.firstCheckDelay = *seconds;
        return std::make_unique<update::Updater>(bundle, bundle, delegate, delegate, std::move(configuration));
    };
    return {Bundle::mainBundle(), std::move(loginItem), appLogger(), std::move(terminate), registers,
            std::move(makeUpdater), &currentStreamCount(), &platform::NSLog};
}

AppDelegate::AppDelegate(Environment environment) : environment_(std::move(environment)) {
    if (!environment_.nsLog) environment_.nsLog = &platform::NSLog;
}

AppDelegate::~AppDelegate() {
    // The updater's thread calls into this delegate: it ends first.
    currentStreamCountSubscription_.reset();
    updater_.reset();
    {
        std::lock_guard guard(lock_);
        terminating_ = true;
        // Pages are told the server goes away; the stop gives their connections a moment to
        // send that close before it cancels them.
        if (messages_) messages_->goAway();
        if (server_ && !stopTask_) stopTask_ = async::spawn(stopServer(server_));
    }
    waitUntilStopped();
    std::vector<async::TaskHandle<void>> answers;
    {
        std::lock_guard guard(lock_);
        answers.swap(answers_);
    }
    for (const auto& answer : answers) answer.wait();
}

void AppDelegate::applicationDidFinishLaunching() {
    const auto& logger = environment_.logger;
    logger->logInfo("Application launched.");
    const bool automaticUpdates = hasAutomaticUpdates(environment_.bundle);

    if (!environment_.registersLoginItem) {
        logger->logInfo("Running from its build folder, Orvel does not register itself as a login item.");
    } else if (environment_.loginItem.status() != platform::XdgAutostart::Status::enabled) {
        logger->logNotice("Trying to register as login item.");
        try {
            environment_.loginItem.registerEntry();
        } catch (...) {
            const auto reason = async::describe(std::current_exception());
            logger->logNotice([&] { return "Failed to register as login item " + reason + "."; });
        }
    }

    // The count changes on streaming tasks; the log shows every change, not the starting value.
    streamCountLogSubscription_ = currentStreamCount().subscribe([logger, first = true](std::int64_t count) mutable {
        if (std::exchange(first, false)) return;
        logger->logInfo([&] { return "Streaming connections: " + std::to_string(count) + "."; });
    });

    // A second launch: the server will find its port taken, but the user should learn why.
    if (const auto running = runningOrvelVersion(serverAddress, serverPort)) {
        anotherInstanceRunning_ = true;
        logger->logInfo([&] { return "Orvel " + *running + " is already running on 127.0.0.1:8505."; });
    }

    {
        std::lock_guard guard(lock_);
        serverTask_ = async::spawn(runServer(this, appVersion(environment_.bundle), automaticUpdates));
    }
    setUpUpdates();
}

async::Task<void> AppDelegate::runServer(AppDelegate* self, std::optional<std::string> version,
                                         bool automaticUpdates) {
    const auto& logger = self->environment_.logger;
    try {
        const net::AnySocketAddress address(net::inet(serverAddress, serverPort));
        auto server = std::make_shared<http::HTTPServer>(
            address, handlerTimeout, http::HTTPServer::defaultPool(std::make_shared<net::DisabledLogger>()), logger);
        server->appendRoute("GET /version", [version, automaticUpdates](http::HTTPRequest request) {
            return handleVersionRoute(std::move(request), version, automaticUpdates);
        });
        auto messages = std::make_shared<OrvelMessageHandler>();
        server->appendRoute("*", [messages, logger](http::HTTPRequest request) {
            return handleWebSocketRoute(std::move(request), messages, logger);
        });
        {
            std::lock_guard guard(self->lock_);
            // Termination came first: there is nothing to stop, so do not start.
            if (self->terminating_) co_return;
            self->server_ = server;
            self->messages_ = messages;
        }
        co_await server->run();
        co_return;
    } catch (...) {
        // A stop with no time to spare cancels the serving task, and run() then fails with that
        // cancellation. The process is ending on purpose: there is nothing to report.
        {
            std::lock_guard guard(self->lock_);
            if (self->terminating_) co_return;
        }
        const auto reason = async::describe(std::current_exception());
        logger->logError([&] { return "Could not run WebSocket server " + reason + ", terminating application."; });
    }
    self->serverFailed_ = true;
    self->environment_.terminate();
}

async::Task<void> AppDelegate::stopServer(std::shared_ptr<http::HTTPServer> server) { co_await server->stop(closeGrace); }

void AppDelegate::applicationWillTerminate() {
    const auto& logger = environment_.logger;
    logger->logInfo("Application will terminate, shutting down WebSocket server.");
    {
        std::lock_guard guard(lock_);
        terminating_ = true;
        // Pages are told the server goes away; the stop gives their connections a moment to
        // send that close before it cancels them.
        if (messages_) messages_->goAway();
        if (server_ && !stopTask_) stopTask_ = async::spawn(stopServer(server_));
    }
    logger->logInfo("Shut down WebSocket server.");
    currentStreamCountSubscription_.reset();
    streamCountLogSubscription_.reset();
}

bool AppDelegate::waitUntilStopped() {
    std::optional<async::TaskHandle<void>> serverTask, stopTask;
    {
        std::lock_guard guard(lock_);
        serverTask = serverTask_;
        stopTask = stopTask_;
    }
    if (stopTask) stopTask->wait();
    if (serverTask) serverTask->wait();
    return serverFailed_;
}

}  // namespace orvel
