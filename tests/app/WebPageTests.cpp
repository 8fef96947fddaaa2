// The page side against the real orvel: the JavaScript client in node and the live demo in a
// headless Chromium, with a private PulseAudio playing known sounds.

#include "app/OrvelProcess.h"
#include "e2e/Chromium.h"
#include "platform/PulseAudioFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <fstream>

namespace orvel {
namespace {

using ::testing::HasSubstr;
using namespace std::chrono_literals;

const std::filesystem::path site = ORVEL_SOURCE_DIR "/web";

class WebPage : public ::testing::Test {
protected:
    void SetUp() override {
        if (!test::isExecutable(test::OrvelProcess::mainBinary())) GTEST_SKIP() << "orvel is not built";
        if (auto missing = test::Chromium::missingTools(); !missing.empty())
            GTEST_SKIP() << "missing: " << missing << "(scripts/setup installs them)";
        lock_.emplace();
        if (!test::bindOrvelPort()) GTEST_SKIP() << "something else listens on 127.0.0.1:8505; these tests need that port";
    }

    std::unique_ptr<test::OrvelProcess> start(test::EnvironmentChanges extra = {}) {
        extra.try_emplace("XDG_CONFIG_HOME", config_.path().string());
        auto orvel = std::make_unique<test::OrvelProcess>(test::OrvelProcess::mainBinary(), std::move(extra));
        EXPECT_TRUE(orvel->waitUntilServing()) << orvel->output();
        return orvel;
    }

    std::optional<test::PortLock> lock_;
    test::TemporaryFolder config_;
};

TEST_F(WebPage, ANodeProgramGetsThePlayedSoundInOrderedHundredMillisecondChunks) {
    test::PulseAudioServer pulse;
    test::TestSignals signals;
    const auto speech = signals.speech("A page gets the computer's sound in three lines.");
    const auto reference = signals.samples(speech, 16000);
    auto orvel = start({{"PULSE_SERVER", pulse.server()}});
    const auto samples = config_.path() / "captured.f32";
    const double seconds = static_cast<double>(reference.size()) / 16000 + 2;  // the whole phrase and slack
    test::ChildProcess client({test::findProgram("node"), ORVEL_SOURCE_DIR "/tests/node/capture-client.mjs", "16000",
                               std::to_string(seconds), samples.string()},
                              {});
    ASSERT_TRUE(client.waitForLineContaining("streaming", 60s)) << client.output() << orvel->output();
    auto player = pulse.play(speech);
    ASSERT_EQ(client.exitCode(120s), 0) << client.output();
    const auto summary = nlohmann::json::parse(client.output().substr(client.output().rfind('{')));
    EXPECT_TRUE(summary["indicesInOrder"].get<bool>()) << summary.dump();
    EXPECT_EQ(summary["sizes"], nlohmann::json::array({1600})) << summary.dump();

    std::ifstream file(samples, std::ios::binary);
    std::vector<float> captured(std::filesystem::file_size(samples) / sizeof(float));
    file.read(reinterpret_cast<char*>(captured.data()), static_cast<std::streamsize>(captured.size() * sizeof(float)));
    const auto match = test::findWindow(captured, reference, 3200);
    EXPECT_GT(match.correlation, 0.95) << "the middle of the phrase is not in what the client got";
    EXPECT_NEAR(match.levelRatio, 1.0, 0.2);
    EXPECT_EQ(orvel->terminate(), 0) << orvel->output();
}

// Connects the demo at 48000 Hz, reads what it shows once two seconds are in, then records two
// seconds of the AudioWorklet node's MediaStream (a 16000 Hz stream in a 48000 Hz context, so
// the node resamples) and finds its strongest frequency.
const char* demoCheck = R"((async () => {
  const $ = (id) => document.getElementById(id);
  const until = async (done) => { while (!done()) await new Promise((r) => setTimeout(r, 50)); };
  await until(() => $('version').dataset.version !== undefined);
  $('rate').value = '48000';
  $('connect').click();
  await until(() => Number($('chunks').dataset.count) >= 20 || $('status').dataset.state === 'error');
  const shown = { version: $('version').dataset.version, status: $('status').textContent, dbfs: Number($('level').dataset.dbfs) };

  const wave = $('waveform');
  const pixels = wave.getContext('2d').getImageData(0, 0, wave.width, wave.height).data;
  const rows = new Set();
  for (let i = 0; i < pixels.length; i += 4) if (pixels[i] + pixels[i + 1] + pixels[i + 2] > 0) rows.add(Math.floor(i / 4 / wave.width));
  shown.waveformRows = rows.size;

  const spectrogram = $('spectrogram');
  const column = spectrogram.getContext('2d').getImageData(spectrogram.width - 1, 0, 1, spectrogram.height).data;
  let brightest = 0;
  for (let y = 0; y < spectrogram.height; y++) {
    if (column[4 * y] + column[4 * y + 1] + column[4 * y + 2] > column[4 * brightest] + column[4 * brightest + 1] + column[4 * brightest + 2]) brightest = y;
  }
  shown.binHz = 48000 / 2 / spectrogram.height;
  shown.peakHz = (spectrogram.height - 1 - brightest) * shown.binHz;

  const { connect, createSourceNode } = await import('/orvel-client/index.js');
  const context = new AudioContext({ sampleRate: 48000 });
  const stream = connect({ sampleRate: 16000 });
  const node = await createSourceNode(context, stream);
  const recorder = new MediaRecorder(node.mediaStream);
  const parts = [];
  recorder.ondataavailable = (event) => parts.push(event.data);
  const stopped = new Promise((resolve) => { recorder.onstop = resolve; });
  recorder.start();
  await new Promise((resolve) => setTimeout(resolve, 2000));
  recorder.stop();
  await stopped;
  stream.close();
  const audio = await context.decodeAudioData(await new Blob(parts).arrayBuffer());
  const samples = audio.getChannelData(0).slice(-24000);  // the last half second, past the jitter buffer's start
  let best = { hz: 0, power: -1 };
  for (let hz = 50; hz <= 4000; hz += 10) {
    let re = 0, im = 0;
    for (let i = 0; i < samples.length; i++) {
      re += samples[i] * Math.cos((2 * Math.PI * hz * i) / audio.sampleRate);
      im += samples[i] * Math.sin((2 * Math.PI * hz * i) / audio.sampleRate);
    }
    if (re * re + im * im > best.power) best = { hz, power: re * re + im * im };
  }
  shown.recordedSeconds = audio.duration;
  shown.recordedHz = best.hz;
  return shown;
})())";

TEST_F(WebPage, TheDemoShowsAPlayedToneAndTheWorkletStreamCarriesIt) {
    test::PulseAudioServer pulse;
    test::TestSignals signals;
    constexpr double amplitude = 0.5;
    auto orvel = start({{"PULSE_SERVER", pulse.server()}});
    auto player = pulse.play(signals.sine(440, amplitude, 120));
    const auto artefacts = std::filesystem::path(ORVEL_BINARY_DIR) / "test-artefacts";
    std::filesystem::create_directories(artefacts);
    const test::Chromium::Site demo{.folder = site, .path = "/demo/", .screenshot = artefacts / "demo-440hz.png"};
    auto page = test::Chromium::evaluate(demo, demoCheck, 120s);
    ASSERT_TRUE(page.ok) << page.error << "\n" << page.output << "\n" << orvel->output();
    const auto& shown = page.value;
    EXPECT_EQ(shown["version"], ORVEL_BUILD_VERSION) << shown.dump();
    EXPECT_EQ(shown["status"], "Streaming at 48000 Hz.");
    EXPECT_NEAR(shown["dbfs"].get<double>(), 20 * std::log10(amplitude), 2.0) << "a full-scale sine reads 0 dBFS";
    EXPECT_GT(shown["waveformRows"].get<int>(), 40) << "a flat waveform";
    EXPECT_NEAR(shown["peakHz"].get<double>(), 440, shown["binHz"].get<double>());
    EXPECT_GT(shown["recordedSeconds"].get<double>(), 1.5);
    EXPECT_NEAR(shown["recordedHz"].get<double>(), 440, 10) << shown.dump();
    EXPECT_TRUE(std::filesystem::file_size(artefacts / "demo-440hz.png") > 0);
    EXPECT_EQ(orvel->terminate(), 0) << orvel->output();
}

// Without a capture these end at the handshake: the page tells "refused" from "not running".
TEST_F(WebPage, TheDemoSaysWhyItCouldNotConnect) {
    const char* connectAndWait = R"((async () => {
      const status = document.getElementById('status');
      document.getElementById('connect').click();
      while (status.dataset.state !== 'error') await new Promise((r) => setTimeout(r, 50));
      return { code: status.dataset.code, text: status.textContent };
    })())";
    struct Case {
        const char* host;
        bool orvelRunning;
        const char* code;
        const char* text;
    };
    for (const Case& c : {Case{"127.0.0.1", true, "origin-refused", "Origin refused"},
                          Case{"localhost", false, "not-running", "Orvel is not running"}}) {
        auto orvel = c.orvelRunning ? start() : nullptr;
        auto page = test::Chromium::evaluate({.folder = site, .path = "/demo/", .host = c.host}, connectAndWait, 90s);
        ASSERT_TRUE(page.ok) << page.error << "\n" << page.output;
        EXPECT_EQ(page.value["code"], c.code) << page.value.dump();
        EXPECT_THAT(page.value["text"].get<std::string>(), HasSubstr(c.text));
        if (orvel) {
            EXPECT_TRUE(orvel->waitForLine("Origin http://127.0.0.1:"));
            EXPECT_EQ(orvel->terminate(), 0);
        }
    }
}

}  // namespace
}  // namespace orvel
