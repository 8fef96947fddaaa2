// The orvel executable as a page, a user and the desktop meet it: real sockets on
// 127.0.0.1:8505, a private PulseAudio playing known sounds, the page library in node and in a
// headless Chromium (the demo page), and a private desktop session for the tray.

#include "app/OrvelProcess.h"
#include "e2e/Chromium.h"
#include "e2e/DesktopSession.h"
#include "platform/PulseAudioFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/resource.h>
#include <cmath>
#include <fstream>
#include <thread>

namespace orvel {
namespace {

using ::testing::AllOf;
using ::testing::EndsWith;
using ::testing::HasSubstr;
using ::testing::Not;
using ::testing::StartsWith;
using namespace std::chrono_literals;

// The termination steps' lines, in order; the server's own lines may come between them.
::testing::AssertionResult ranTerminationSteps(const std::string& output) {
    const auto first = output.find("info: Application will terminate, shutting down WebSocket server.\n");
    if (first == std::string::npos || output.find("info: Shut down WebSocket server.\n", first) == std::string::npos)
        return ::testing::AssertionFailure() << "no termination steps in:\n" << output;
    return ::testing::AssertionSuccess();
}

// Read until the connection ends, the page's last message is a close with this code and reason.
::testing::AssertionResult endsWithClose(test::WebSocketClient& page, int code, const std::string& reason) {
    std::optional<test::WebSocketClient::Message> last;
    while (auto message = page.receive()) last = std::move(message);
    if (last && last->payload == std::string{static_cast<char>(code >> 8), static_cast<char>(code & 0xFF)} + reason)
        return ::testing::AssertionSuccess();
    return ::testing::AssertionFailure() << "last message: " << (last ? last->payload : "none");
}

const std::string getVersion = "GET /version HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n";
// What the main build's version route answers.
const std::string version = ORVEL_BUILD_VERSION + std::string(ORVEL_AUTOMATIC_UPDATES ? "-a" : "");

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
    const auto help = test::runProgram({binary, "--help"}).output;
    EXPECT_THAT(help, HasSubstr("Usage: orvel [--help | --version]\n"));
    const std::tuple<std::vector<std::string>, int, ::testing::Matcher<std::string>> cases[] = {
        {{binary, "--help"}, 0, help},
        {{binary, "-h"}, 0, help},
        {{binary, "--version"}, 0, "orvel " ORVEL_BUILD_VERSION "\n"},
        {{test::OrvelProcess::variantBinary(), "-V"}, 0, "orvel 412\n"},
        {{binary, "--port=9000"}, 2, "orvel: unknown option '--port=9000'\nTry 'orvel --help' for more information.\n"},
        {{binary, "--version", "now"}, 2, HasSubstr("orvel: unexpected argument 'now'\n")},
    };
    for (const auto& [argv, exitCode, output] : cases) {
        const auto run = test::runProgram(argv);
        EXPECT_EQ(run.exitCode, exitCode) << argv.back();
        EXPECT_THAT(run.output, output) << argv.back();
    }
}

// Three pages at once, two at 48000 Hz and one at 16000 Hz, on one record stream per rate: each
// gets 100 ms messages (what they hold is checked by the capture's own test and the browser's) and
// the count follows them, through stops and continues of the process in the second round. Each
// round then quits while pages stream; the first lets the 16000 Hz page vanish and one other
// close first, and the vanished page leaves no capture behind. A few
// rounds keep the suite's time in bounds; run more by hand with --gtest_repeat, under
// AddressSanitizer, where any leak or use after free fails the exit.
TEST_F(OrvelEndToEnd, StreamsToEachPageInHundredMillisecondMessagesThroughStopsAndQuitsCleanlyWhileTheyStream) {
    test::PulseAudioServer pulse;
    const std::pair<int, std::string> pages[] = {{16000, "https://app.tamrix.com"}, {48000, "http://localhost:3000"},
                                                 {48000, "http://localhost"}};
    for (int round = 0; round < 5; ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        auto orvel = start({{"PULSE_SERVER", pulse.server()}});
        std::vector<test::WebSocketClient> clients;
        for (const auto& [rate, origin] : pages) {
            clients.emplace_back(origin);
            ASSERT_EQ(clients.back().statusLine(), "HTTP/1.1 101 Switching Protocols");
            clients.back().sendText(R"({"type": "loopback", "sample_rate": )" + std::to_string(rate) + "}");
            ASSERT_TRUE(orvel->waitForLineContaining("Streaming connections: " + std::to_string(clients.size()) + "."));
        }
        // A stop and continue interrupts every blocked wait with EINTR, even with signals blocked.
        for (int stop = 0; round == 1 && stop < 20; ++stop) {
            for (auto& client : clients) ASSERT_TRUE(client.receive()) << "ended at stop " << stop << "\n" << orvel->output();
            orvel->signal(SIGSTOP);
            std::this_thread::sleep_for(5ms);  // lets the stop land while the loop waits
            orvel->signal(SIGCONT);
        }
        if (round == 1) {
            EXPECT_THAT(test::httpExchange(getVersion), StartsWith("HTTP/1.1 200 OK\r\n")) << "serving after the stops";
        }
        for (int i = 0; i < (round == 0 ? 10 : 1); ++i) {
            for (std::size_t p = 0; p < clients.size(); ++p) {
                auto message = clients[p].receive();
                ASSERT_TRUE(message) << "connection ended after " << i << " messages\n" << orvel->output();
                ASSERT_EQ(message->opcode, 2);
                ASSERT_EQ(message->payload.size(), static_cast<std::size_t>(pages[p].first / 5)) << "message " << i;
            }
        }
        EXPECT_EQ(pulse.sourceOutputs().size(), 2u);
        std::size_t firstStreaming = 0;
        if (round == 0) {
            clients[0].drop();  // no closing handshake: the socket just goes
            ASSERT_TRUE(orvel->waitForLineContaining("Streaming connections: 2."));
            EXPECT_TRUE(test::waitUntil([&] { return pulse.sourceOutputs().size() == 1; })) << "a capture outlived its page";
            clients[1].close();
            ASSERT_TRUE(orvel->waitForLineContaining("Streaming connections: 1."));
            firstStreaming = 2;
        }
        EXPECT_EQ(orvel->terminate(), 0) << orvel->output();
        EXPECT_TRUE(ranTerminationSteps(orvel->output()));
        for (std::size_t p = firstStreaming; p < clients.size(); ++p) EXPECT_TRUE(endsWithClose(clients[p], 1001, "Going away"));
    }
}

// From its build folder and without a sound server: the version route answers, a capture fails
// with its line, a second launch meets the first on the port, and no login item is registered.
TEST_F(OrvelEndToEnd, FromItsBuildFolderItServesFailsACaptureWithItsLineAndASecondLaunchSaysOrvelIsRunning) {
    auto orvel = start();
    EXPECT_THAT(test::httpExchange(getVersion), AllOf(StartsWith("HTTP/1.1 200 OK\r\n"), EndsWith("\r\n\r\n" + version)));
    // Only a GET is the version route: anything else meets the WebSocket route's origin test.
    EXPECT_THAT(test::httpExchange("POST /version HTTP/1.1\r\nHost: 127.0.0.1\r\nContent-Length: 0\r\nConnection: close\r\n\r\n"),
                StartsWith("HTTP/1.1 403 Forbidden\r\n"));
    test::WebSocketClient page("http://localhost");
    page.sendText(R"({"type":"loopback","sample_rate":48000})");
    EXPECT_TRUE(orvel->waitForLineContaining("error: Audio capture failed prematurely ("));
    EXPECT_TRUE(orvel->waitForLineContaining("Streaming connections: 0."));

    test::TemporaryFolder otherConfig;
    test::OrvelProcess second(test::OrvelProcess::mainBinary(), {{"XDG_CONFIG_HOME", otherConfig.path().string()}});
    EXPECT_EQ(second.exitCode(), 0) << second.output();
    const auto running = second.output().find("info: Orvel " ORVEL_BUILD_VERSION " is already running on 127.0.0.1:8505.\n");
    EXPECT_NE(running, std::string::npos) << second.output();
    EXPECT_LT(running, second.output().find("Address already in use")) << "said before the port-taken lines";
    EXPECT_THAT(test::httpExchange(getVersion), StartsWith("HTTP/1.1 200 OK\r\n")) << "the first one goes on";
    orvel->signal(SIGINT);  // the quit path too
    EXPECT_EQ(orvel->exitCode(), 0);
    EXPECT_TRUE(ranTerminationSteps(orvel->output()));
    EXPECT_THAT(orvel->output(), HasSubstr("info: Running from its build folder, Orvel does not register itself as a login item.\n"));
    EXPECT_FALSE(std::filesystem::exists(config_.path() / "config" / "autostart"));
}

TEST_F(OrvelEndToEnd, ThePortTakenEndsOrvelWithTheErrorLineAndAFailureStatus) {
    test::Fd holder = test::bindOrvelPort();
    ASSERT_TRUE(holder) << std::strerror(errno);
    ASSERT_EQ(::listen(holder.get(), 1), 0);
    test::OrvelProcess orvel(test::OrvelProcess::mainBinary(), {{"XDG_CONFIG_HOME", config_.path().string()}});
    const int status = orvel.exitCode();
    EXPECT_NE(status, 0);
    EXPECT_NE(status, -1) << "orvel did not end";
    EXPECT_THAT(orvel.output(), AllOf(HasSubstr("error: Could not run WebSocket server SocketError. Bind(98): Address "
                                                "already in use, terminating application.\n"),
                                      Not(HasSubstr("already running"))));
    EXPECT_TRUE(ranTerminationSteps(orvel.output()));
}

// Then an unwritable config folder: logged, and launch goes on. A run from the build folder
// registers nothing (FromItsBuildFolder...).
TEST_F(OrvelEndToEnd, AnInstalledOrvelRegistersItsLoginItemOnce) {
    const auto entry = config_.path() / "config" / "autostart" / "com.tamrix.orvel.desktop";
    // The executable copied out of the build folder, as an installed one would be.
    const auto installed = (config_.path() / "bin" / "orvel").string();
    std::filesystem::create_directories(config_.path() / "bin");
    std::filesystem::copy_file(test::OrvelProcess::mainBinary(), installed);
    rlimit inherited{};
    ::getrlimit(RLIMIT_NOFILE, &inherited);
    rlimit low{std::min<rlim_t>(256, inherited.rlim_max), inherited.rlim_max};
    ::setrlimit(RLIMIT_NOFILE, &low);  // the child starts with it and raises it to the hard limit
    auto first = start({}, installed);
    ::setrlimit(RLIMIT_NOFILE, &inherited);
    EXPECT_EQ(first->terminate(), 0);
    EXPECT_THAT(first->output(), HasSubstr("info: No graphical session, running headless without a tray icon.\n"));
    EXPECT_THAT(first->output(), HasSubstr("info: Application launched.\norvel: [ApplicationCode] notice: Trying to register as login item.\n"));
    EXPECT_THAT(first->output(), Not(HasSubstr("Failed to register")));
    EXPECT_THAT(first->output(), HasSubstr("info: Open file limit: " + std::to_string(inherited.rlim_max) + ".\n"));
    EXPECT_TRUE(std::filesystem::exists(entry)) << "its content is the login item's own test";

    auto second = start({{"DISPLAY", ":65000"}}, installed);  // a display no server offers is headless too
    EXPECT_EQ(second->terminate(), 0);
    EXPECT_THAT(second->output(), AllOf(HasSubstr("info: No graphical session, running headless without a tray icon.\n"),
                                        HasSubstr("Application launched."), Not(HasSubstr("login item"))));

    // A file where the config folder should be: even root cannot create folders under it.
    std::ofstream(config_.path() / "file") << "not a folder";
    auto unwritable = start({{"XDG_CONFIG_HOME", (config_.path() / "file" / "config").string()}}, installed);
    EXPECT_THAT(test::httpExchange(getVersion), StartsWith("HTTP/1.1 200 OK\r\n"));
    EXPECT_EQ(unwritable->terminate(), 0);
    EXPECT_THAT(unwritable->output(), HasSubstr("notice: Failed to register as login item "));
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
    EXPECT_THAT(test::httpExchange(getVersion), EndsWith(std::string("\r\n\r\n412") + (ORVEL_AUTOMATIC_UPDATES ? "" : "-a")));
    auto view = session.show(*item);
    EXPECT_EQ(view.properties["Id"], "com.tamrix.orvel");
    EXPECT_EQ(view.properties["Status"], "Active");
    // Not installed here: found in the source tree, wherever the build folder is.
    EXPECT_EQ(view.properties["IconThemePath"], ORVEL_SOURCE_DIR "/resources/icons");
    ASSERT_FALSE(view.entries.empty());
    EXPECT_FALSE(view.entries[0].enabled) << "the title is not a command";

    std::vector<std::unique_ptr<test::WebSocketClient>> pages;
    for (const auto& [count, line] : std::vector<std::pair<std::size_t, std::string>>{
             {0, ""}, {1, "Streaming to 1 page"}, {3, "Streaming to 3 pages"}, {0, ""}}) {
        while (pages.size() < count) {
            pages.push_back(std::make_unique<test::WebSocketClient>("http://localhost"));
            pages.back()->sendText(R"({"type": "loopback", "sample_rate": 16000})");
        }
        pages.resize(count);
        std::vector<std::string> expected{"Tamrix Orvel (v412)", "---", "Quit"};
        if (count > 0) expected.insert(expected.begin() + 1, line);
        test::waitUntil([&] { return labels(view = session.show(*item)) == expected; }, 30s);
        EXPECT_EQ(labels(view), expected) << orvel->output();
        EXPECT_EQ(view.properties["IconName"], count > 0 ? "com.tamrix.orvel-active-symbolic" : "com.tamrix.orvel-symbolic");
    }

    session.click(*item, "Quit");
    EXPECT_EQ(orvel->exitCode(), 0);
    EXPECT_TRUE(ranTerminationSteps(orvel->output()));
    EXPECT_THAT(orvel->output(), AllOf(Not(HasSubstr("running headless")), Not(HasSubstr("No tray host"))));
}

// What the desktop does to the sound server while a page streams, on PulseAudio and PipeWire: the
// default output switched to another sink, the server killed and started again after 2 s, then
// killed for good. That the capture follows and fills the gap is the capture's own test.
class OrvelThroughDesktopChanges : public OrvelEndToEnd, public ::testing::WithParamInterface<test::SoundServer::Kind> {};

INSTANTIATE_TEST_SUITE_P(Servers, OrvelThroughDesktopChanges, ::testing::ValuesIn(test::soundServerKinds),
                         test::soundServerName<::testing::TestParamInfo<test::SoundServer::Kind>>);

TEST_P(OrvelThroughDesktopChanges, StreamsOnThroughASwitchAndARestartAndEndsOnlyWhenTheServerStaysAway) {
    test::SoundServer server(GetParam());
    auto orvel = start({{"PULSE_SERVER", server.server()}});
    test::WebSocketClient page("http://localhost");
    page.sendText(R"({"type":"loopback","sample_rate":16000})");
    ASSERT_TRUE(orvel->waitForLineContaining("Streaming connections: 1."));
    const auto streams = [&](int count) {
        for (int i = 0; i < count; ++i)
            if (auto message = page.receive(); !message || message->opcode != 2) return false;
        return true;
    };
    ASSERT_TRUE(streams(5));
    server.addSink("orvel_second");  // now the default
    EXPECT_TRUE(streams(20)) << "the stream ended at the switch\n" << orvel->output();
    server.stop(SIGKILL);
    std::this_thread::sleep_for(2s);
    server.start();
    EXPECT_TRUE(streams(50)) << "the stream did not go on after the restart\n" << orvel->output();

    server.stop(SIGKILL);
    EXPECT_TRUE(endsWithClose(page, 1011, "Audio capture failed"));
    EXPECT_TRUE(orvel->waitForLineContaining("error: Audio capture failed prematurely ("));
    EXPECT_EQ(orvel->terminate(), 0) << orvel->output();
}

const std::filesystem::path webSite = ORVEL_SOURCE_DIR "/web";

// Connects the demo at 48000 Hz and reads what it shows once 2 s are in; then records 2 s of an
// AudioWorklet node's MediaStream (a 16000 Hz stream in a 48000 Hz context: the node resamples)
// and finds the recording's strongest frequency.
const char* demoCheck = R"((async () => {
  const $ = (id) => document.getElementById(id);
  const until = async (done) => { while (!done()) await new Promise((r) => setTimeout(r, 50)); };
  const brightness = (p, i) => p[i] + p[i + 1] + p[i + 2];
  await until(() => $('version').dataset.version !== undefined);
  $('rate').value = '48000';
  $('connect').click();
  await until(() => Number($('chunks').dataset.count) >= 20 || $('status').dataset.state === 'error');
  const shown = { version: $('version').dataset.version, status: $('status').textContent, dbfs: Number($('level').dataset.dbfs) };
  const wave = $('waveform'), pixels = wave.getContext('2d').getImageData(0, 0, wave.width, wave.height).data;
  const rows = new Set();
  for (let i = 0; i < pixels.length; i += 4) if (brightness(pixels, i) > 0) rows.add(Math.floor(i / 4 / wave.width));
  shown.waveformRows = rows.size;
  const spectrogram = $('spectrogram');
  const column = spectrogram.getContext('2d').getImageData(spectrogram.width - 1, 0, 1, spectrogram.height).data;
  let top = 0;
  for (let y = 0; y < spectrogram.height; y++) if (brightness(column, 4 * y) > brightness(column, 4 * top)) top = y;
  shown.binHz = 48000 / 2 / spectrogram.height;  // one row per bin, the lowest at the bottom
  shown.peakHz = (spectrogram.height - 1 - top) * shown.binHz;

  const { connect, createSourceNode } = await import('/orvel-client/index.js');
  const context = new AudioContext({ sampleRate: 48000 });
  const stream = connect({ sampleRate: 16000 });
  const recorder = new MediaRecorder((await createSourceNode(context, stream)).mediaStream), parts = [];
  recorder.ondataavailable = (event) => parts.push(event.data);
  recorder.start();
  await new Promise((resolve) => setTimeout(resolve, 2000));
  await new Promise((resolve) => { recorder.onstop = resolve; recorder.stop(); });
  stream.close();
  const audio = await context.decodeAudioData(await new Blob(parts).arrayBuffer());
  const samples = audio.getChannelData(0).slice(-24000);  // the last half second, well past the jitter buffer
  shown.recordedSeconds = audio.duration;
  shown.recordedHz = 0;
  for (let hz = 50, best = -1; hz <= 4000; hz += 10) {
    let re = 0, im = 0;
    samples.forEach((x, i) => { re += x * Math.cos(2 * Math.PI * hz * i / 48000); im += x * Math.sin(2 * Math.PI * hz * i / 48000); });
    if (re * re + im * im > best) [best, shown.recordedHz] = [re * re + im * im, hz];
  }
  return shown;
})())";

TEST_F(OrvelEndToEnd, TheDemoPageShowsAPlayedToneAndTheWorkletMediaStreamCarriesIt) {
    if (auto missing = test::Chromium::missingTools(); !missing.empty())
        GTEST_SKIP() << "missing: " << missing << "(scripts/setup installs them)";
    test::PulseAudioServer pulse;
    test::TestSignals signals;
    constexpr double amplitude = 0.5;
    auto orvel = start({{"PULSE_SERVER", pulse.server()}});
    auto player = pulse.play(signals.sine(440, amplitude, 120));
    const auto artefacts = std::filesystem::path(ORVEL_BINARY_DIR) / "test-artefacts";
    std::filesystem::create_directories(artefacts);
    auto page = test::Chromium::evaluate({.folder = webSite, .path = "/demo/", .screenshot = artefacts / "demo-440hz.png"},
                                         demoCheck, 120s);
    ASSERT_TRUE(page.ok) << page.error << "\n" << page.output << "\n" << orvel->output();
    const auto& shown = page.value;
    EXPECT_EQ(shown["version"], ORVEL_BUILD_VERSION) << shown.dump();
    EXPECT_EQ(shown["status"], "Streaming at 48000 Hz.");
    EXPECT_NEAR(shown["dbfs"].get<double>(), 20 * std::log10(amplitude), 2.0) << "a full-scale sine reads 0 dBFS";
    EXPECT_GT(shown["waveformRows"].get<int>(), 40) << "a flat waveform";
    EXPECT_NEAR(shown["peakHz"].get<double>(), 440, shown["binHz"].get<double>());
    EXPECT_GT(shown["recordedSeconds"].get<double>(), 1.5);
    EXPECT_NEAR(shown["recordedHz"].get<double>(), 440, 10) << shown.dump();
    EXPECT_GT(std::filesystem::file_size(artefacts / "demo-440hz.png"), 0u);
    // The browser has gone: so have its streams and their captures.
    EXPECT_TRUE(orvel->waitForLineContaining("Streaming connections: 0."));
    EXPECT_TRUE(pulse.waitUntilNoSourceOutputs());
    EXPECT_EQ(orvel->terminate(), 0) << orvel->output();
}

// Both end at the handshake: the page tells a refused origin from no Orvel at all.
TEST_F(OrvelEndToEnd, TheDemoPageSaysWhyItCouldNotConnect) {
    if (auto missing = test::Chromium::missingTools(); !missing.empty())
        GTEST_SKIP() << "missing: " << missing << "(scripts/setup installs them)";
    const char* connectAndWait = R"((async () => {
      const status = document.getElementById('status');
      document.getElementById('connect').click();
      while (status.dataset.state !== 'error') await new Promise((r) => setTimeout(r, 50));
      return { code: status.dataset.code, text: status.textContent };
    })())";
    for (const auto& [host, running, code, text] :
         {std::tuple{"127.0.0.1", true, "origin-refused", "Origin refused"}, {"localhost", false, "not-running", "Orvel is not running"}}) {
        auto orvel = running ? start() : nullptr;
        auto page = test::Chromium::evaluate({.folder = webSite, .path = "/demo/", .host = host}, connectAndWait, 90s);
        ASSERT_TRUE(page.ok) << page.error << "\n" << page.output;
        EXPECT_EQ(page.value["code"], code) << page.value.dump();
        EXPECT_THAT(page.value["text"].get<std::string>(), HasSubstr(text));
        if (orvel) {
            EXPECT_TRUE(orvel->waitForLineContaining("Origin http://127.0.0.1:"));
        }
    }
}

}  // namespace
}  // namespace orvel
