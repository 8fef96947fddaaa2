#pragma once
#include "app/Bundle.h"
#include "app/StreamCount.h"
#include "async/Spawn.h"
#include "http/HTTPServer.h"
#include "net/Logging.h"
#include "platform/XdgAutostart.h"

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>

namespace orvel {

class OrvelMessageHandler;

// The application's launch and termination steps: the login item, the server on
// 127.0.0.1:8505 with "GET /version" and the streaming route "*", and its stop. Launch and
// termination run on the main thread; the server runs in a task of its own, which asks the
// application to terminate when the server cannot run.
// Raises the soft limit on open descriptors to the hard limit and logs the figure (info): each
// connection costs one, and the usual soft limit of 1024 is far below what the server holds.
void raiseDescriptorLimit(const net::Logger& logger);

class AppDelegate {
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

        // The main bundle, this executable's login item (none from a build folder) and the
        // application's log.
        static Environment standard(std::function<void()> terminate);
    };

    explicit AppDelegate(Environment environment);
    // Stops a server still running and waits for the server task, which points to this delegate.
    ~AppDelegate();
    AppDelegate(const AppDelegate&) = delete;
    AppDelegate& operator=(const AppDelegate&) = delete;

    void applicationDidFinishLaunching();
    void applicationWillTerminate();

    // After termination: waits for the server task and the stop to end. True when the server
    // could not run, which the process reports with a non-zero exit status.
    bool waitUntilStopped();
    // True when Orvel already answered on the server's address at launch (a second launch).
    bool anotherInstanceRunning() const noexcept { return anotherInstanceRunning_; }

private:
    static async::Task<void> runServer(AppDelegate* self, std::optional<std::string> appVersion,
                                       bool hasAutomaticUpdates);
    static async::Task<void> stopServer(std::shared_ptr<http::HTTPServer> server);

    Environment environment_;
    std::mutex lock_;
    std::shared_ptr<http::HTTPServer> server_;
    std::shared_ptr<OrvelMessageHandler> messages_;
    bool terminating_ = false;
    std::optional<async::TaskHandle<void>> serverTask_;
    std::optional<async::TaskHandle<void>> stopTask_;
    std::optional<StreamCount::Subscription> currentStreamCountSubscription_;
    std::optional<StreamCount::Subscription> streamCountLogSubscription_;
    std::atomic<bool> serverFailed_{false};
    bool anotherInstanceRunning_ = false;  // main thread
};

}  // namespace orvel
