#include "app/AudioCapture.h"

#include "app/AudioCaptureTestSupport.h"
#include "app/CaptureHub.h"
#include "async/Spawn.h"
#include "platform/PulseAudioCapture.h"
#include "platform/PulseAudioError.h"
#include "platform/PulseAudioFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace orvel {
namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

// Bytes a consumer task has received so far, for the test thread to wait on.
struct Received {
    std::mutex mutex;
    std::condition_variable changed;
    std::vector<std::uint8_t> bytes;

    // Waits until `more` samples beyond those there now have arrived; the guard only stops a hang.
    bool waitForMore(std::size_t more) {
        std::unique_lock lock(mutex);
        const std::size_t wanted = bytes.size() / 2 + more;
        return changed.wait_for(lock, 30s, [&] { return bytes.size() / 2 >= wanted; });
    }
};

async::Task<void> collect(AudioCaptureStream stream, std::shared_ptr<Received> received) {
    while (auto element = co_await stream.next()) {
        std::lock_guard lock(received->mutex);
        received->bytes.insert(received->bytes.end(), element->begin(), element->end());
        received->changed.notify_all();
    }
}

class AudioCaptureWithPulseAudio : public ::testing::Test {
public:
    static void SetUpTestSuite() { server_ = std::make_unique<test::PulseAudioServer>(); }
    static void TearDownTestSuite() { server_.reset(); }

    static AudioCaptureEnvironment environment(const std::shared_ptr<test::RecordingLogger>& logger,
                                               const std::string& server = server_->server()) {
        return {std::make_shared<platform::PulseAudioCaptureService>(platform::PulseAudioCapture::Options{.server = server}),
                logger};
    }

    static inline std::unique_ptr<test::PulseAudioServer> server_;
};

struct Capture {
    int rate;
    std::shared_ptr<test::RecordingLogger> logger = std::make_shared<test::RecordingLogger>();
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
        return test::int16ToFloats(received->bytes);
    }
};

// Pages at 48000, 48000 and 16000 Hz share one record stream per rate and all hear what is
// played; one leaving mid-stream disturbs nobody, one joining late hears nothing from before its
// start, and the last page at a rate ends that rate's record stream.
TEST_F(AudioCaptureWithPulseAudio, PagesShareOneRecordStreamPerRateEachFromItsOwnStart) {
    test::TestSignals signals;
    const auto sine = signals.sine(440, 0.5, 1.5);
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
        auto player = server_->play(file);
        ASSERT_EQ(player->exitCode(), 0) << player->output();
        for (auto i : listening) pages[i].flush();
    };
    for (std::size_t i = 0; i < 3; ++i) join(i);
    EXPECT_EQ(server_->sourceOutputs().size(), 2u);
    play(sine, {0, 1, 2});
    pages[0].end();
    join(3);
    play(speech, {1, 2, 3});
    EXPECT_EQ(server_->sourceOutputs().size(), 2u);
    pages[1].end();
    pages[3].end();
    EXPECT_TRUE(test::waitUntil([&] { return server_->sourceOutputs().size() == 1; })) << "48000 Hz outlived its pages";
    pages[2].end();
    EXPECT_TRUE(server_->waitUntilNoSourceOutputs());

    for (std::size_t i = 0; i < pages.size(); ++i) {
        SCOPED_TRACE("page " + std::to_string(i) + " at " + std::to_string(rates[i]) + " Hz");
        const auto captured = pages[i].samples();
        const auto window = static_cast<std::size_t>(rates[i] / 10);  // 100 ms from the middle
        const auto sineMatch = test::findWindow(captured, signals.samples(sine, rates[i]), window);
        EXPECT_EQ(captured.size() % window, 0u) << "whole 100 ms chunks";
        if (i == 3) {
            EXPECT_LT(sineMatch.correlation, 0.8) << "the late page got samples from before its start";
        } else {
            EXPECT_GT(sineMatch.correlation, 0.95);
            EXPECT_NEAR(sineMatch.levelRatio, 1.0, 0.2);
        }
        if (i == 0) continue;  // it left before the phrase
        const auto speechMatch = test::findWindow(captured, signals.samples(speech, rates[i]), window);
        EXPECT_GT(speechMatch.correlation, 0.9);
        EXPECT_NEAR(speechMatch.levelRatio, 1.0, 0.2);
    }
    const auto lines = logger->lines();
    for (const char* line : {"info: Starting audio capture.", "info: Stream will close, stopping audio capture.",
                             "info: Stopped audio capture."})
        EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 4) << line;
}

TEST_F(AudioCaptureWithPulseAudio, DroppingTheStreamRightAwayLeavesNoRecordStream) {
    auto logger = std::make_shared<test::RecordingLogger>();
    for (int i = 0; i < 5; ++i) {
        auto stream = async::syncWait(startAudioCapture(48000, environment(logger)));
    }
    EXPECT_TRUE(server_->waitUntilNoSourceOutputs());
}

}  // namespace
}  // namespace orvel
