// The updater with real programs: releases 1.0.0 and 1.0.1 of orvel, a per-user install made by
// scripts/install in a temporary HOME, releases made by scripts/release with this build's test
// key, and the feed served by python3 on 127.0.0.1:8506 (under the port 8505 lock).

#include "app/OrvelProcess.h"
#include "platform/PulseAudioFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

namespace orvel {
namespace {

namespace fs = std::filesystem;
using ::testing::AllOf;
using ::testing::HasSubstr;
using ::testing::Not;
using namespace std::chrono_literals;

const std::string release100 = ORVEL_BINARY_DIR "/orvel_update_1_0_0";
const std::string release101 = ORVEL_BINARY_DIR "/orvel_update_1_0_1";
const std::string testKey = ORVEL_BINARY_DIR "/update-test-key/orvel-update.pem";
constexpr std::uint16_t feedPort = 8506;
constexpr auto cycleGuard = 180s;  // a check, download and unpack on a loaded machine

std::string script(const std::string& name) { return ORVEL_SOURCE_DIR "/scripts/" + name; }

std::string readFile(const fs::path& path) {
    std::ostringstream text;
    text << std::ifstream(path, std::ios::binary).rdbuf();
    return text.str();
}

class UpdateEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        for (const auto& binary : {release100, release101})
            if (!test::isExecutable(binary)) GTEST_SKIP() << binary << " is not built";
        if (test::findProgram("python3").empty()) GTEST_SKIP() << "python3 serves the feed";
        lock_.emplace();
        if (!test::bindOrvelPort()) GTEST_SKIP() << "something else listens on 127.0.0.1:8505";
        fs::create_directories(feed());
        install();
    }

    void TearDown() override {
        std::error_code error;
        if (fs::exists(root(), error)) fs::permissions(root(), fs::perms::owner_all, error);
    }

    test::EnvironmentChanges environment() const {
        return {{"HOME", home_.path().string()}, {"XDG_CONFIG_HOME", (home_.path() / ".config").string()}};
    }
    test::RunResult run(std::vector<std::string> argv) {
        return test::runProgram(std::move(argv), {.environment = test::environmentWith(environment())}, 120s);
    }
    void install() {
        const auto installed = run({script("install"), "--user", "--binary", release100});
        ASSERT_EQ(installed.exitCode, 0) << installed.output;
    }
    fs::path root() const { return home_.path() / ".local/lib/orvel"; }
    fs::path feed() const { return home_.path() / "feed"; }

    void release(const std::string& binary, const std::string& key = testKey) {
        const auto made = run({script("release"), "--key", key, "--url", "http://127.0.0.1:8506", "--binary", binary,
                               "--output", feed().string()});
        ASSERT_EQ(made.exitCode, 0) << made.output;
    }

    // A slow server sends 16 KiB every 50 ms, so that a download lasts long enough to be killed.
    std::unique_ptr<test::ChildProcess> serve(bool slow = false) {
        const std::string port = std::to_string(feedPort);
        std::vector<std::string> argv{test::findProgram("python3"), "-m", "http.server", port, "--bind", "127.0.0.1",
                                      "--directory", feed().string()};
        if (slow)
            argv = {test::findProgram("python3"), "-c",
                    "import http.server, os, sys, time\n"
                    "class Slow(http.server.SimpleHTTPRequestHandler):\n"
                    "    def copyfile(self, source, target):\n"
                    "        while chunk := source.read(16384):\n"
                    "            target.write(chunk); target.flush(); time.sleep(0.05)\n"
                    "os.chdir(sys.argv[1])\n"
                    "http.server.ThreadingHTTPServer(('127.0.0.1', int(sys.argv[2])), Slow).serve_forever()\n",
                    feed().string(), port};
        auto server = std::make_unique<test::ChildProcess>(argv, test::ChildProcess::Options{});
        const bool up = test::waitUntil([&] { return server->waitForExit(0s) || test::connectTo(feedPort); }, 60s);
        EXPECT_TRUE(up && !server->waitForExit(0s)) << "the feed server did not start: " << server->output();
        return server;
    }

    std::unique_ptr<test::OrvelProcess> start(test::EnvironmentChanges extra = {}) {
        auto changes = environment();
        changes.merge(extra);
        auto orvel = std::make_unique<test::OrvelProcess>((home_.path() / ".local/bin/orvel").string(), changes);
        EXPECT_TRUE(orvel->waitUntilServing()) << orvel->output();
        return orvel;
    }

    // Every entry of the install with its link target or size: what an update may change.
    std::string snapshot() const {
        std::string text;
        std::error_code error;
        for (const auto& entry : fs::recursive_directory_iterator(root(), error)) {
            text += entry.path().lexically_relative(root()).string();
            text += entry.is_symlink() ? " -> " + fs::read_symlink(entry.path()).string()
                    : entry.is_regular_file() ? " " + std::to_string(entry.file_size())
                                              : "/";
            text += "\n";
        }
        return text;
    }

    static std::string servedVersion() {
        const auto answer = test::httpExchange("GET /version HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
        return answer.substr(std::min(answer.size(), answer.find("\r\n\r\n") + 4));
    }

    // Each line in turn, later than the one before.
    static ::testing::AssertionResult logsInOrder(test::OrvelProcess& orvel, const std::vector<std::string>& lines) {
        for (const auto& line : lines)
            if (!orvel.waitForLineContaining(line, cycleGuard))
                return ::testing::AssertionFailure() << "no \"" << line << "\" in order in:\n" << orvel.output();
        return ::testing::AssertionSuccess();
    }

    std::optional<test::PortLock> lock_;
    test::TemporaryFolder home_;
};


// The update is found, fetched and unpacked while a page streams; the relaunch waits for the
// stream to end, then the check resumes and 1.0.1 takes over.
TEST_F(UpdateEndToEnd, AnInstallUpdatesItselfAndRelaunchesIntoTheNewReleaseOnceNoPageStreams) {
    test::PulseAudioServer pulse;
    release(release101);
    auto server = serve();
    auto orvel = start({{"PULSE_SERVER", pulse.server()}});
    EXPECT_EQ(servedVersion(), "1.0.0-a");
    test::WebSocketClient page("http://localhost");
    page.sendText(R"({"type": "loopback", "sample_rate": 16000})");
    ASSERT_TRUE(page.receive()) << orvel->output();
    const std::vector<std::string> install{"SPUUpdater, installing update: 1.0.1",
                                           "SPUUpdater, shouldPostponeRelaunchForUpdate: 1.0.1. Responding false"};
    ASSERT_TRUE(logsInOrder(*orvel, {"SPUUpdater, willScheduleUpdateCheckAfterDelay: 2.000000 seconds",  // the test builds' delay,
                                     "SPUUpdater, mayPerformUpdateCheck of type: 1. Responding true",
                                     "SPUUpdater, didFinishLoading: Appcast with 1 item: 1.0.1",
                                     "SPUUpdater, didFindValidUpdate: 1.0.1",
                                     "SPUUpdater, shouldProceedWithUpdate: 1.0.1. Responding true",
                                     "SPUUpdater, shouldDownloadReleaseNotesForUpdate: 1.0.1. Responding false",
                                     "SPUUpdater, willDownloadUpdate: 1.0.1",
                                     "SPUUpdater, didDownloadUpdate: 1.0.1",
                                     "SPUUpdater, willExtractUpdate: 1.0.1",
                                     "SPUUpdater, didExtractUpdate: 1.0.1", install[0], install[1]}));
    auto answer = orvel->waitForLineContaining("SPUUpdater, updaterShouldRelaunchApplication. Responding", cycleGuard);
    ASSERT_TRUE(answer) << orvel->output();
    // A loaded machine may have dropped the page as too slow before the update was ready.
    const bool held = answer->ends_with("false");
    if (held) {
        ASSERT_TRUE(logsInOrder(*orvel, {"SPUUpdater, Awaiting streaming end to apply",
                                         "SPUUpdater, didFinishUpdateCycle forUpdateCheckType: 1, with error: No error"}));
        for (int message = 0; message < 5; ++message) ASSERT_TRUE(page.receive()) << "the stream was cut\n" << orvel->output();
        EXPECT_EQ(fs::read_symlink(root() / "current"), "1.0.0");
        EXPECT_EQ(orvel->output().find("resuming update"), std::string::npos) << "resumed while the page streams";
        page.close();
        ASSERT_TRUE(logsInOrder(*orvel, {"SPUUpdater, resuming update now that Orvel isn't streaming",
                                         "SPUUpdater, didFindValidUpdate: 1.0.1", install[0], install[1]}));
        answer = orvel->waitForLineContaining("SPUUpdater, updaterShouldRelaunchApplication. Responding", cycleGuard);
    }
    ASSERT_THAT(answer, ::testing::Optional(::testing::EndsWith("Responding true"))) << orvel->output();
    ASSERT_TRUE(logsInOrder(*orvel, {"SPUUpdater, willInstallUpdate: 1.0.1", "SPUUpdater, updaterWillRelaunchApplication",
                                     "SPUUpdater, didFinishUpdateCycle forUpdateCheckType: 1, with error: No error",
                                     "Application will terminate, shutting down WebSocket server.", "Application launched."}));
    ASSERT_TRUE(orvel->waitUntilServing()) << orvel->output();
    EXPECT_EQ(servedVersion(), "1.0.1-a");
    EXPECT_EQ(fs::read_symlink(root() / "current"), "1.0.1");
    // The login item starts the stable path, which now leads to 1.0.1.
    EXPECT_THAT(readFile(home_.path() / ".config/autostart/com.tamrix.orvel.desktop"),
                HasSubstr((home_.path() / ".local/bin/orvel").string()));
    if (!held) GTEST_SKIP() << "the page was gone before the update was ready: the relaunch was not held back";
}

TEST_F(UpdateEndToEnd, AFailedUpdateChangesNothingOnDiskAndIsLogged) {
    const auto archive = [&] { return feed() / "orvel-1.0.1.tar.gz"; };
    const struct {
        std::string name;
        std::function<void()> prepare;
        bool served;
        std::string line;
    } cases[] = {
        {"tampered archive",
         [&] {
             release(release101);
             std::fstream file(archive(), std::ios::in | std::ios::out | std::ios::binary);
             file.seekp(static_cast<std::streamoff>(fs::file_size(archive()) / 2));
             file.put('\x5a');
         },
         true, "SPUUpdater, didAbortWithError: The update's signature does not match its archive."},
        {"wrong length",
         [&] {
             release(release101);
             const auto size = std::to_string(fs::file_size(archive()));
             std::string appcast = readFile(feed() / "appcast.xml");
             appcast.replace(appcast.find("length=\"" + size), 8 + size.size(), "length=\"" + size + "1");
             std::ofstream(feed() / "appcast.xml", std::ios::trunc) << appcast;
         },
         true, "SPUUpdater, failedToDownloadUpdate: The update archive has"},
        {"signed by another key",
         [&] {
             const auto keys = home_.path() / "other-key";
             ASSERT_EQ(run({script("release"), "--new-key", keys.string()}).exitCode, 0);
             release(release101, (keys / "orvel-update.pem").string());
         },
         true, "SPUUpdater, didAbortWithError: The update's signature does not match its archive."},
        {"the same version", [&] { release(release100); }, true,
         "SPUUpdater, updaterDidNotFindUpdate. Error: Orvel 1.0.0 is the newest version available."},
        {"a feed that is not XML", [&] { std::ofstream(feed() / "appcast.xml") << "{\"version\": \"9\"}"; }, true,
         "SPUUpdater, didAbortWithError: The update feed is not XML"},
        {"an unreachable feed", [] {}, false,
         "SPUUpdater, didAbortWithError: Could not load http://127.0.0.1:8506/appcast.xml"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        fs::remove_all(feed());
        fs::create_directories(feed());
        c.prepare();
        const std::string before = snapshot();
        auto server = c.served ? serve() : nullptr;
        auto orvel = start();
        ASSERT_TRUE(logsInOrder(*orvel, {c.line, "SPUUpdater, didFinishUpdateCycle forUpdateCheckType: 1, with error: "}));
        EXPECT_THAT(orvel->output(), Not(HasSubstr("updaterWillRelaunchApplication")));
        EXPECT_EQ(snapshot(), before);
        EXPECT_EQ(servedVersion(), "1.0.0-a");
    }
}

TEST_F(UpdateEndToEnd, AKilledUpdateNeverLeavesAHalfWrittenRelease) {
    release(release101);
    for (const std::string step : {"SPUUpdater, willDownloadUpdate: 1.0.1", "SPUUpdater, willExtractUpdate: 1.0.1"}) {
        SCOPED_TRACE(step);
        {
            auto server = serve(true);
            auto orvel = start();
            ASSERT_TRUE(orvel->waitForLineContaining(step, cycleGuard)) << orvel->output();
            orvel->signal(SIGKILL);
            ASSERT_TRUE(orvel->waitForExit(30s));
        }
        if (step.find("Download") != std::string::npos) {
            EXPECT_LT(fs::file_size(root() / ".1.0.1.download"), fs::file_size(feed() / "orvel-1.0.1.tar.gz"))
                << "killed in the middle of the download";
        }
        const auto current = fs::read_symlink(root() / "current").string();
        ASSERT_TRUE(current == "1.0.0" || current == "1.0.1") << current;
        // A release folder is there only whole.
        if (fs::exists(root() / "1.0.1")) {
            EXPECT_TRUE(test::isExecutable((root() / "1.0.1/bin/orvel").string()));
        }
        auto orvel = start();  // no feed now
        ASSERT_TRUE(orvel->waitForLineContaining("willScheduleUpdateCheckAfterDelay", 60s)) << orvel->output();
        EXPECT_EQ(servedVersion(), current + "-a");
        EXPECT_THAT(snapshot(), AllOf(Not(HasSubstr(".partial")), Not(HasSubstr(".download")))) << "leftovers are removed at start";
        fs::remove_all(root() / "1.0.1");
        install();
    }
}

TEST_F(UpdateEndToEnd, AnInstallTheUserCannotWriteKeepsTheUpdaterOff) {
    fs::permissions(root(), fs::perms::owner_read | fs::perms::owner_exec);
    auto orvel = start();
    ASSERT_TRUE(orvel->waitForLineContaining("Error while starting updater: Orvel at ", 60s)) << orvel->output();
    EXPECT_THAT(orvel->output(), HasSubstr("is not a per-user install it can write; updates come from the package manager."));
    EXPECT_THAT(orvel->output(), Not(HasSubstr("willScheduleUpdateCheckAfterDelay")));
    EXPECT_EQ(servedVersion(), "1.0.0-a");
}

}  // namespace
}  // namespace orvel
