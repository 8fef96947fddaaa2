// The orvel executable as a page, a user and the desktop meet it: real sockets on
// 127.0.0.1:8505, a private PulseAudio playing known sounds, a headless Chromium, and a private
// desktop session for the tray.

#include "app/OrvelProcess.h"
#include "e2e/Chromium.h"
#include "e2e/DesktopSession.h"
#include "platform/PulseAudioFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <thread>

namespace orvel {
namespace {

using ::testing::HasSubstr;
using ::testing::Not;
using namespace std::chrono_literals;

// The termination steps' lines, in order; the server's own lines may come between them.
::testing::AssertionResult ranTerminationSteps(const std::string& output) {
    const auto first = output.find("info: Application will terminate, shutting down WebSocket server.\n");
    if (first == std::string::npos || output.find("info: Shut down WebSocket server.\n", first) == std::string::npos)
        return ::testing::AssertionFailure() << "no termination steps in:\n" << output;
    return ::testing::AssertionSuccess();
}

const std::string getVersion = "GET /version HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";

class OrvelEndToEnd : public ::testing::Test {
protected:
    void SetUp() override {
        for (const auto& binary : {test::OrvelProcess::mainBinary(), test::OrvelProcess::variantBinary()})
            if (!test::isExecutable(binary)) GTEST_SKIP() << binary << " is not built";
        lock_.emplace();
        if (!test::bindOrvelPort()) GTEST_SKIP() << "something else listens on 127.0.0.1:8505; these tests need that port";
    }

    // Started with its own config folder, so its login item is its own.
    std::unique_ptr<test::OrvelProcess> start(test::EnvironmentChanges extra = {},
                                              std::string binary = test::OrvelProcess::mainBinary()) {
        extra.try_emplace("XDG_CONFIG_HOME", (config_.path() / "config").string());
        auto orvel = std::make_unique<test::OrvelProcess>(std::move(binary), std::move(extra));
        EXPECT_TRUE(orvel->waitUntilServing()) << orvel->output();
        return orvel;
    }

    std::optional<test::PortLock> lock_;
    test::TemporaryFolder config_;
};

TEST(OrvelCommandLine, HelpAndVersionAnswerAndEndAnUnknownOptionIsAnErrorWithStatusTwo) {
    const auto binary = test::OrvelProcess::mainBinary();
    if (!test::isExecutable(binary)) GTEST_SKIP() << binary << " is not built";
    auto help = test::runProgram({binary, "--help"});
    EXPECT_EQ(help.exitCode, 0);
    EXPECT_THAT(help.output, HasSubstr("Usage: orvel [--help | --version]\n"));
    EXPECT_EQ(test::runProgram({binary, "-h"}).output, help.output);
    auto version = test::runProgram({binary, "--version"});
    EXPECT_EQ(version.exitCode, 0);
    EXPECT_EQ(version.output, "orvel " ORVEL_BUILD_VERSION "\n");
    EXPECT_EQ(test::runProgram({test::OrvelProcess::variantBinary(), "-V"}).output, "orvel 412\n");

    auto unknown = test::runProgram({binary, "--port=9000"});
    EXPECT_EQ(unknown.exitCode, 2);
    EXPECT_EQ(unknown.output, "orvel: unknown option '--port=9000'\nTry 'orvel --help' for more information.\n");
    auto extra = test::runProgram({binary, "--version", "now"});
    EXPECT_EQ(extra.exitCode, 2);
    EXPECT_THAT(extra.output, HasSubstr("orvel: unexpected argument 'now'\n"));
}

TEST_F(OrvelEndToEnd, VersionRouteAnswersEachBuildsInfoDictionary) {
    const std::pair<std::string, std::string> builds[] = {
        {test::OrvelProcess::mainBinary(), ORVEL_BUILD_VERSION + std::string(ORVEL_AUTOMATIC_UPDATES ? "-a" : "")},
        {test::OrvelProcess::variantBinary(), std::string("412") + (ORVEL_AUTOMATIC_UPDATES ? "" : "-a")}};
    for (const auto& [binary, body] : builds) {
        auto orvel = start({}, binary);
        auto answer = test::httpExchange(getVersion);
        EXPECT_EQ(answer.statusLine, "HTTP/1.1 200 OK") << binary;
        EXPECT_THAT(answer.head, HasSubstr("Access-Control-Allow-Origin: *\r\n"));
        EXPECT_EQ(answer.body, body) << binary;
        EXPECT_EQ(orvel->terminate(), 0);
        EXPECT_TRUE(ranTerminationSteps(orvel->output()));
    }
}

// The route's own cases are unit-tested; here only that the binary wires them in order.
TEST_F(OrvelEndToEnd, OtherRequestsMeetTheOriginTestThenTheHandshakeRules) {
    auto orvel = start();
    auto post = test::httpExchange("POST /version HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\nConnection: close\r\n\r\n");
    EXPECT_EQ(post.statusLine, "HTTP/1.1 403 Forbidden");
    EXPECT_TRUE(orvel->waitForLine("error: Origin header is not present, rejecting WebSocket connection."));
    test::WebSocketClient good("http://localhost");
    EXPECT_EQ(good.statusLine(), "HTTP/1.1 101 Switching Protocols");
    EXPECT_THAT(good.head(), HasSubstr("Sec-WebSocket-Accept: s3pPLMBiTxaQ9kYGzzhZRbK+xOo=\r\n"));
    // Closing before any configuration: the parse line, and no stream counted.
    good.close();
    EXPECT_TRUE(orvel->waitForLine("error: Could not parse configuration, closing WebSocket connection."));
    EXPECT_EQ(orvel->terminate(), 0);
    EXPECT_THAT(orvel->output(), Not(HasSubstr("Streaming connections:")));
}

// Three pages at once, two at 48000 Hz and one at 16000 Hz, on one record stream per rate: each
// gets 100 ms messages holding the phrase played, the count follows them, and neither a vanished
// nor a closed page leaves a capture behind.
TEST_F(OrvelEndToEnd, StreamsWhatIsPlayedToEachPageInHundredMillisecondMessages) {
    test::PulseAudioServer pulse;
    test::TestSignals signals;
    const auto speech = signals.speech("Orvel streams what this machine plays to the page.");
    auto orvel = start({{"PULSE_SERVER", pulse.server()}});
    struct Page {
        int rate;
        test::WebSocketClient client;
        std::vector<float> reference;
        std::vector<std::uint8_t> received = {};
    };
    Page pages[] = {{48000, test::WebSocketClient("http://localhost:3000"), signals.samples(speech, 48000)},
                    {16000, test::WebSocketClient("https://app.tamrix.com"), signals.samples(speech, 16000)},
                    {48000, test::WebSocketClient("http://localhost"), signals.samples(speech, 48000)}};
    for (std::size_t i = 0; i < 3; ++i) {
        ASSERT_EQ(pages[i].client.statusLine(), "HTTP/1.1 101 Switching Protocols");
        pages[i].client.sendText(R"({"type": "loopback", "sample_rate": )" + std::to_string(pages[i].rate) + "}");
        ASSERT_TRUE(orvel->waitForLine("Streaming connections: " + std::to_string(i + 1) + "."));
    }
    std::unique_ptr<test::ChildProcess> player;
    const std::size_t wanted = pages[1].reference.size() / 1600 + 10;  // the whole phrase and a second of slack
    for (std::size_t i = 0; i < wanted; ++i) {
        if (i == 1) player = pulse.play(speech);  // both captures are running: each page got a message
        for (auto& page : pages) {
            auto message = page.client.receive();
            ASSERT_TRUE(message) << "connection ended after " << i << " messages\n" << orvel->output();
            ASSERT_EQ(message->opcode, 2);
            ASSERT_EQ(message->payload.size(), static_cast<std::size_t>(page.rate / 5)) << "message " << i;
            page.received.insert(page.received.end(), message->payload.begin(), message->payload.end());
        }
    }
    EXPECT_EQ(pulse.sourceOutputs().size(), 2u);
    for (const auto& page : pages) {
        const auto match = test::findWindow(test::int16ToFloats(page.received), page.reference, static_cast<std::size_t>(page.rate / 5));
        EXPECT_GT(match.correlation, 0.95) << page.rate << " Hz: the middle of the phrase is not in what the page got";
        EXPECT_NEAR(match.levelRatio, 1.0, 0.2) << page.rate << " Hz";
    }

    pages[0].client.drop();  // no closing handshake: the socket just goes
    ASSERT_TRUE(orvel->waitForLine("Streaming connections: 2."));
    pages[1].client.close();
    pages[2].client.close();
    EXPECT_TRUE(orvel->waitForLine("Stopped audio capture."));
    ASSERT_TRUE(orvel->waitForLine("Streaming connections: 0."));
    EXPECT_TRUE(pulse.waitUntilNoSourceOutputs()) << "a capture outlived its page";
    EXPECT_EQ(orvel->terminate(), 0) << orvel->output();
}

// Each round quits while pages stream. A few rounds keep the suite's time in bounds; run more by
// hand with --gtest_repeat, under AddressSanitizer, where any leak or use after free fails the exit.
constexpr int quitWhileStreamingRounds = 5;

TEST_F(OrvelEndToEnd, QuittingWhileThreePagesStreamEndsCleanlyWithBothTerminationLines) {
    test::PulseAudioServer pulse;
    for (int round = 0; round < quitWhileStreamingRounds; ++round) {
        auto orvel = start({{"PULSE_SERVER", pulse.server()}});
        std::vector<test::WebSocketClient> pages;
        for (const int rate : {48000, 16000, 48000}) {
            pages.emplace_back("http://localhost");
            pages.back().sendText(R"({"type": "loopback", "sample_rate": )" + std::to_string(rate) + "}");
        }
        ASSERT_TRUE(orvel->waitForLine("Streaming connections: 3.")) << orvel->output();
        for (auto& page : pages) ASSERT_TRUE(page.receive()) << "round " << round << "\n" << orvel->output();
        EXPECT_EQ(orvel->terminate(), 0) << "round " << round << "\n" << orvel->output();
        EXPECT_TRUE(ranTerminationSteps(orvel->output())) << "round " << round;
    }
}

// A stop and continue interrupts every blocked wait with EINTR, even with signals blocked.
TEST_F(OrvelEndToEnd, StoppingAndContinuingTheProcessLeavesItServingAndStreaming) {
    test::PulseAudioServer pulse;
    auto orvel = start({{"PULSE_SERVER", pulse.server()}});
    test::WebSocketClient page("http://localhost");
    page.sendText(R"({"type":"loopback","sample_rate":16000})");
    ASSERT_TRUE(orvel->waitForLine("Streaming connections: 1."));
    for (int round = 0; round < 20; ++round) {
        ASSERT_TRUE(page.receive()) << "stream ended before round " << round << "\n" << orvel->output();
        orvel->signal(SIGSTOP);
        std::this_thread::sleep_for(5ms);  // lets the stop land while the loop waits
        orvel->signal(SIGCONT);
    }
    for (int i = 0; i < 3; ++i) {
        const auto message = page.receive();
        ASSERT_TRUE(message && message->opcode == 2) << orvel->output();
    }
    EXPECT_EQ(test::httpExchange(getVersion).statusLine, "HTTP/1.1 200 OK");
    EXPECT_EQ(orvel->terminate(), 0) << orvel->output();
}

TEST_F(OrvelEndToEnd, WithoutASoundServerTheCaptureFailureIsLoggedAndTheServerGoesOn) {
    auto orvel = start();
    test::WebSocketClient page("http://localhost");
    page.sendText(R"({"type":"loopback","sample_rate":48000})");
    EXPECT_TRUE(orvel->waitForLine("error: Audio capture failed prematurely ("));
    EXPECT_TRUE(orvel->waitForLine("Streaming connections: 0."));
    EXPECT_EQ(test::httpExchange(getVersion).statusLine, "HTTP/1.1 200 OK");
    orvel->signal(SIGINT);  // the quit path too
    EXPECT_EQ(orvel->exitCode(), 0);
    EXPECT_TRUE(ranTerminationSteps(orvel->output()));
}

TEST_F(OrvelEndToEnd, ASecondLaunchSaysOrvelIsRunningAndEndsWithSuccess) {
    auto first = start();
    test::TemporaryFolder otherConfig;
    test::OrvelProcess second(test::OrvelProcess::mainBinary(), {{"XDG_CONFIG_HOME", otherConfig.path().string()}});
    EXPECT_EQ(second.exitCode(), 0) << second.output();
    const auto running = second.output().find("info: Orvel " ORVEL_BUILD_VERSION " is already running on 127.0.0.1:8505.\n");
    EXPECT_NE(running, std::string::npos) << second.output();
    EXPECT_LT(running, second.output().find("Address already in use")) << "said before the port-taken lines";
    EXPECT_EQ(test::httpExchange(getVersion).statusLine, "HTTP/1.1 200 OK") << "the first one goes on";
    EXPECT_EQ(first->terminate(), 0);
}

TEST_F(OrvelEndToEnd, ThePortTakenEndsOrvelWithTheErrorLineAndAFailureStatus) {
    test::Fd holder = test::bindOrvelPort();
    ASSERT_TRUE(holder) << std::strerror(errno);
    ASSERT_EQ(::listen(holder.get(), 1), 0);
    test::OrvelProcess orvel(test::OrvelProcess::mainBinary(), {{"XDG_CONFIG_HOME", config_.path().string()}});
    const int status = orvel.exitCode();
    EXPECT_NE(status, 0);
    EXPECT_NE(status, -1) << "orvel did not end";
    EXPECT_THAT(orvel.output(), HasSubstr("error: Could not run WebSocket server SocketError. Bind(98): Address already in use, terminating application.\n"));
    EXPECT_THAT(orvel.output(), Not(HasSubstr("already running")));
    EXPECT_TRUE(ranTerminationSteps(orvel.output()));
}

// The executable copied out of the build folder, as an installed one would be.
std::string installedCopy(const std::filesystem::path& folder) {
    std::filesystem::create_directories(folder / "bin");
    std::filesystem::copy_file(test::OrvelProcess::mainBinary(), folder / "bin" / "orvel");
    return (folder / "bin" / "orvel").string();
}

TEST_F(OrvelEndToEnd, AnInstalledOrvelRegistersItsLoginItemOnceAndABuildFolderRunNever) {
    const auto entry = config_.path() / "config" / "autostart" / "com.tamrix.orvel.desktop";
    auto fromBuild = start();
    EXPECT_EQ(fromBuild->terminate(), 0);
    EXPECT_THAT(fromBuild->output(), HasSubstr("info: Running from its build folder, Orvel does not register itself as a login item.\n"));
    EXPECT_FALSE(std::filesystem::exists(entry));

    const auto installed = installedCopy(config_.path());
    rlimit inherited{};
    ::getrlimit(RLIMIT_NOFILE, &inherited);
    rlimit low{std::min<rlim_t>(256, inherited.rlim_max), inherited.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &low);  // the child starts with it and raises it to the hard limit
    auto first = start({}, installed);
    ::setrlimit(RLIMIT_NOFILE, &inherited);
    EXPECT_EQ(first->terminate(), 0);
    EXPECT_THAT(first->output(), HasSubstr("info: No graphical session, running headless without a tray icon.\n"));
    EXPECT_THAT(first->output(), HasSubstr("info: Application launched.\norvel: [ApplicationCode] info: Trying to register as login item.\n"));
    EXPECT_THAT(first->output(), Not(HasSubstr("Failed to register")));
    EXPECT_THAT(first->output(), HasSubstr("info: Open file limit: " + std::to_string(inherited.rlim_max) + ".\n"));
    EXPECT_TRUE(std::filesystem::exists(entry)) << "its content is the login item's own test";

    auto second = start({{"DISPLAY", ":65000"}}, installed);  // a display no server offers is headless too
    EXPECT_EQ(second->terminate(), 0);
    EXPECT_THAT(second->output(), HasSubstr("info: No graphical session, running headless without a tray icon.\n"));
    EXPECT_THAT(second->output(), HasSubstr("Application launched."));
    EXPECT_THAT(second->output(), Not(HasSubstr("login item")));
}

TEST_F(OrvelEndToEnd, AnUnwritableConfigFolderIsLoggedAndLaunchGoesOn) {
    // A file where the config folder should be: even root cannot create folders under it.
    std::ofstream(config_.path() / "file") << "not a folder";
    auto orvel = start({{"XDG_CONFIG_HOME", (config_.path() / "file" / "config").string()}}, installedCopy(config_.path()));
    EXPECT_EQ(test::httpExchange(getVersion).statusLine, "HTTP/1.1 200 OK");
    EXPECT_EQ(orvel->terminate(), 0);
    EXPECT_THAT(orvel->output(), HasSubstr("info: Trying to register as login item.\n"));
    EXPECT_THAT(orvel->output(), HasSubstr("info: Failed to register as login item "));
}

// The tray's menu as labels, and its icon, once they satisfy `done` (or as they are after the guard).
template <class Done>
test::DesktopSession::ItemView trayWhen(const test::DesktopSession& session, const test::DesktopSession::Item& item, Done done) {
    auto view = session.show(item);
    for (int i = 0; i < 300 && !done(view); ++i) {
        std::this_thread::sleep_for(100ms);
        view = session.show(item);
    }
    return view;
}

std::vector<std::string> labels(const test::DesktopSession::ItemView& view) {
    std::vector<std::string> out;
    for (const auto& entry : view.entries) out.push_back(entry.type == "separator" ? "---" : entry.label);
    return out;
}

TEST_F(OrvelEndToEnd, TheTrayShowsNameVersionAndStreamingPagesAndQuitTerminates) {
    if (auto missing = test::DesktopSession::missingTools(); !missing.empty())
        GTEST_SKIP() << "missing: " << missing << "(scripts/setup installs them)";
    test::DesktopSession session;
    test::PulseAudioServer pulse;
    auto changes = session.environmentChanges();
    changes["PULSE_SERVER"] = pulse.server();
    auto orvel = start(changes, test::OrvelProcess::variantBinary());
    auto item = session.waitForItem(60s);
    ASSERT_TRUE(item) << orvel->output();
    auto view = session.show(*item);
    EXPECT_EQ(view.properties["Id"], "com.tamrix.orvel");
    EXPECT_EQ(view.properties["Status"], "Active");
    EXPECT_EQ(view.properties["IconName"], "com.tamrix.orvel-symbolic");
    // Not installed here: found in the source tree, wherever the build folder is.
    EXPECT_EQ(view.properties["IconThemePath"], ORVEL_SOURCE_DIR "/resources/icons");
    using ::testing::ElementsAre;
    EXPECT_THAT(labels(view), ElementsAre("Tamrix Orvel (v412)", "---", "Quit"));
    ASSERT_FALSE(view.entries.empty());
    EXPECT_FALSE(view.entries[0].enabled) << "the title is not a command";

    std::vector<std::unique_ptr<test::WebSocketClient>> pages;
    auto streamWith = [&](std::size_t count) {
        while (pages.size() < count) {
            pages.push_back(std::make_unique<test::WebSocketClient>("http://localhost"));
            pages.back()->sendText(R"({"type": "loopback", "sample_rate": 16000})");
        }
        while (pages.size() > count) pages.pop_back();
    };
    for (const auto& [count, line] : std::vector<std::pair<std::size_t, std::string>>{
             {1, "Streaming to 1 page"}, {3, "Streaming to 3 pages"}}) {
        streamWith(count);
        view = trayWhen(session, *item, [&](const auto& v) { return labels(v).size() == 4 && labels(v)[1] == line; });
        EXPECT_THAT(labels(view), ElementsAre("Tamrix Orvel (v412)", line, "---", "Quit")) << orvel->output();
        EXPECT_EQ(view.properties["IconName"], "com.tamrix.orvel-active-symbolic");
    }
    streamWith(0);
    view = trayWhen(session, *item, [](const auto& v) { return labels(v).size() == 3; });
    EXPECT_THAT(labels(view), ElementsAre("Tamrix Orvel (v412)", "---", "Quit")) << orvel->output();
    EXPECT_EQ(view.properties["IconName"], "com.tamrix.orvel-symbolic");

    session.click(*item, "Quit");
    EXPECT_EQ(orvel->exitCode(), 0);
    EXPECT_TRUE(ranTerminationSteps(orvel->output()));
    EXPECT_THAT(orvel->output(), Not(HasSubstr("running headless")));
    EXPECT_THAT(orvel->output(), Not(HasSubstr("No tray host")));
}

// Counts what arrives until 2.5 s of audio are in, then closes.
const char* streamingPage = R"(<script>
window.result = new Promise((resolve) => {
  const report = { messages: 0, sizes: {}, nonZero: 0 };
  const socket = new WebSocket("ws://127.0.0.1:8505");
  socket.binaryType = "arraybuffer";
  socket.onopen = () => socket.send(JSON.stringify({ type: "loopback", sample_rate: 48000 }));
  socket.onmessage = (event) => {
    report.messages += 1;
    report.sizes[event.data.byteLength] = (report.sizes[event.data.byteLength] || 0) + 1;
    if (new Int16Array(event.data).some((s) => s !== 0)) report.nonZero += 1;
    if (report.messages === 25) socket.close(1000, "done");
  };
  socket.onclose = (event) => { report.close = event.code; resolve(report); };
});
</script>)";

TEST_F(OrvelEndToEnd, AHeadlessBrowserPageReceivesSecondsOfAudio) {
    if (auto missing = test::Chromium::missingTools(); !missing.empty())
        GTEST_SKIP() << "missing: " << missing << "(scripts/setup installs them)";
    test::PulseAudioServer pulse;
    test::TestSignals signals;
    auto orvel = start({{"PULSE_SERVER", pulse.server()}});
    auto player = pulse.play(signals.sine(440, 0.5, 10));
    auto page = test::Chromium::evaluate(streamingPage, "window.result", 90s);
    ASSERT_TRUE(page.ok) << page.error << "\n" << page.output << "\n" << orvel->output();
    EXPECT_EQ(page.value["sizes"], nlohmann::json({{"9600", 25}})) << page.value.dump();
    EXPECT_GT(page.value["nonZero"].get<int>(), 10) << "the page got only silence";
    // Our reply to a page's close always carries status 1002; the page sees that.
    EXPECT_EQ(page.value["close"], 1002);
    EXPECT_TRUE(orvel->waitForLine("Streaming connections: 0."));
    EXPECT_TRUE(pulse.waitUntilNoSourceOutputs());
    EXPECT_EQ(orvel->terminate(), 0) << orvel->output();
}

}  // namespace
}  // namespace orvel
