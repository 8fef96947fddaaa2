#include "app/AudioCapture.h"

#include "app/AudioCaptureTestSupport.h"
#include "app/CaptureHub.h"
#include "async/Spawn.h"
#include "platform/PulseAudioCapture.h"
#include "platform/PulseAudioError.h"
#include "platform/PulseAudioFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>
#include <ranges>

namespace orvel {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

// Bytes a consumer task has received so far, for the test thread to wait on.
struct Received {
    std::mutex mutex;
    std::vector<std::uint8_t> bytes;

    std::size_t samples() {
        std::lock_guard lock(mutex);
        return bytes.size() / 2;
    }
    // Waits until `more` samples beyond those there now have arrived; the guard only stops a hang.
    bool waitForMore(std::size_t more) {
        const std::size_t wanted = samples() + more;
        return test::waitUntil([&] { return samples() >= wanted; }, 30s);
    }
};

async::Task<void> collect(AudioCaptureStream stream, std::shared_ptr<Received> received) {
    while (auto element = co_await stream.next()) {
        std::lock_guard lock(received->mutex);
        received->bytes.insert(received->bytes.end(), element->begin(), element->end());
    }
}

// On PulseAudio and on PipeWire's pulse server, one server per kind for the whole suite.
class AudioCaptureOnSoundServer : public ::testing::TestWithParam<test::SoundServer::Kind> {
public:
    static void TearDownTestSuite() { servers_.clear(); }

    static test::SoundServer& server() {
        auto& server = servers_[GetParam()];
        if (!server) server = std::make_unique<test::SoundServer>(GetParam());
        return *server;
    }
    static AudioCaptureEnvironment environment(const std::shared_ptr<test::RecordingLogger>& logger) {
        return {std::make_shared<platform::PulseAudioCaptureService>(
                    platform::PulseAudioCapture::Options{.server = server().server()}),
                logger};
    }

    static inline std::map<test::SoundServer::Kind, std::unique_ptr<test::SoundServer>> servers_;
};

INSTANTIATE_TEST_SUITE_P(Servers, AudioCaptureOnSoundServer, ::testing::ValuesIn(test::soundServerKinds),
                         test::soundServerName<::testing::TestParamInfo<test::SoundServer::Kind>>);

struct Capture {
    int rate;
    std::shared_ptr<Received> received = std::make_shared<Received>();
    async::TaskHandle<void> consumer;

    // Waits until a quarter second more than now has arrived: what was played before this call
    // has then passed through the server.
    void flush() { ASSERT_TRUE(received->waitForMore(rate / 4)) << rate << " Hz stalled"; }
    void end() {
        consumer.cancel();
        consumer.wait();
    }
    std::vector<float> samples() {
        std::lock_guard lock(received->mutex);
        const auto ints = test::samplesOf(received->bytes);
        auto floats = ints | std::views::transform([](std::int16_t x) { return x / 32768.0f; });
        return {floats.begin(), floats.end()};
    }
};

// Pages at 48000, 48000 and 16000 Hz share one record stream per rate and all hear what is
// played, at the level it was played (a full-scale sine 3 dB hotter would clip); one leaving
// mid-stream disturbs nobody, one joining late hears nothing from before its start, and the last
// page at a rate ends that rate's record stream.
TEST_P(AudioCaptureOnSoundServer, PagesShareOneRecordStreamPerRateEachFromItsOwnStart) {
    test::TestSignals signals;
    const auto sine = signals.sine(440, 1.0, 1.5);
    const auto speech = signals.speech("Hello, this is a loopback capture test.");
    auto logger = std::make_shared<test::RecordingLogger>();
    CaptureHub hub(environment(logger));
    std::vector<Capture> pages(4);
    const int rates[] = {48000, 48000, 16000, 48000};
    auto join = [&](std::size_t i) {
        pages[i].rate = rates[i];
        pages[i].consumer = async::spawn(collect(async::syncWait(hub.start(rates[i])), pages[i].received));
    };
    auto play = [&](const std::filesystem::path& file, std::vector<std::size_t> listening) {
        auto player = server().play(file);
        ASSERT_EQ(player->exitCode(), 0) << player->output();
        for (auto i : listening) pages[i].flush();
    };
    for (std::size_t i = 0; i < 3; ++i) join(i);
    EXPECT_EQ(server().sourceOutputs().size(), 2u);
    play(sine, {0, 1, 2});
    pages[0].end();
    join(3);
    play(speech, {1, 2, 3});
    EXPECT_EQ(server().sourceOutputs().size(), 2u);
    pages[1].end();
    pages[3].end();
    EXPECT_TRUE(test::waitUntil([&] { return server().sourceOutputs().size() == 1; })) << "48000 Hz outlived its pages";
    pages[2].end();
    EXPECT_TRUE(server().waitUntilNoSourceOutputs());

    for (std::size_t i = 0; i < pages.size(); ++i) {
        SCOPED_TRACE("page " + std::to_string(i) + " at " + std::to_string(rates[i]) + " Hz");
        const auto captured = pages[i].samples();
        const auto window = static_cast<std::size_t>(rates[i] / 10);  // 100 ms from the middle
        // Within 1 dB: 20 log10(ratio) in [-1, 1].
        const auto withinOneDecibel = ::testing::AllOf(::testing::Ge(0.891), ::testing::Le(1.122));
        const auto sineMatch = test::findWindow(captured, signals.samples(sine, rates[i]), window);
        EXPECT_EQ(captured.size() % window, 0u) << "whole 100 ms chunks";
        if (i == 3) {
            EXPECT_LT(sineMatch.correlation, 0.8) << "the late page got samples from before its start";
        } else {
            EXPECT_GT(sineMatch.correlation, 0.95);
            EXPECT_THAT(sineMatch.levelRatio, withinOneDecibel);
        }
        if (i == 0) continue;  // it left before the phrase
        const auto speechMatch = test::findWindow(captured, signals.samples(speech, rates[i]), window);
        EXPECT_GT(speechMatch.correlation, 0.9);
        EXPECT_THAT(speechMatch.levelRatio, withinOneDecibel);
    }
    const auto lines = logger->lines();
    for (const char* line : {"info: Starting audio capture.", "info: Stream will close, stopping audio capture.",
                             "info: Stopped audio capture."})
        EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 4) << line;
}

TEST_P(AudioCaptureOnSoundServer, DroppingTheStreamRightAwayLeavesNoRecordStream) {
    auto logger = std::make_shared<test::RecordingLogger>();
    for (int i = 0; i < 5; ++i) {
        auto stream = async::syncWait(startAudioCapture(48000, environment(logger)));
    }
    EXPECT_TRUE(server().waitUntilNoSourceOutputs());
}

}  // namespace
}  // namespace orvel
