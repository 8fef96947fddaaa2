#include "app/AudioCapture.h"

#include "app/AudioCaptureTestSupport.h"
#include "async/Spawn.h"
#include "platform/PulseAudioCapture.h"
#include "platform/PulseAudioError.h"
#include "platform/PulseAudioFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

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

// Both rates at once: two independent captures hear the same sine and the same phrase, at the
// level they were played (a full-scale sine 3 dB hotter would clip).
TEST_P(AudioCaptureOnSoundServer, TwoCapturesAt16000And48000HearWhatIsPlayedAtItsLevel) {
    test::TestSignals signals;
    const auto sine = signals.sine(440, 1.0, 1.5);
    const auto speech = signals.speech("Hello, this is a loopback capture test.");

    std::vector<Capture> captures(2);
    captures[0].rate = 16000;
    captures[1].rate = 48000;
    for (auto& capture : captures) {
        auto stream = async::syncWait(startAudioCapture(capture.rate, environment(capture.logger)));
        capture.consumer = async::spawn(collect(std::move(stream), capture.received));
    }
    EXPECT_EQ(server().sourceOutputs().size(), 2u);

    for (const auto& file : {sine, speech}) {
        auto player = server().play(file);
        ASSERT_EQ(player->exitCode(), 0) << player->output();
    }
    for (auto& capture : captures) capture.flush();

    // Ending the first leaves the second running.
    captures[0].end();
    captures[1].flush();
    EXPECT_EQ(server().sourceOutputs().size(), 1u);
    captures[1].end();
    EXPECT_TRUE(server().waitUntilNoSourceOutputs()) << "a record stream outlived its byte stream";

    for (auto& capture : captures) {
        SCOPED_TRACE(std::to_string(capture.rate) + " Hz");
        const auto captured = capture.samples();
        const auto window = static_cast<std::size_t>(capture.rate / 10);  // 100 ms from the middle
        const auto sineMatch = test::findWindow(captured, signals.samples(sine, capture.rate), window);
        // Within 1 dB: 20 log10(ratio) in [-1, 1].
        const auto withinOneDecibel = ::testing::AllOf(::testing::Ge(0.891), ::testing::Le(1.122));
        EXPECT_GT(sineMatch.correlation, 0.95);
        EXPECT_THAT(sineMatch.levelRatio, withinOneDecibel);
        const auto speechMatch = test::findWindow(captured, signals.samples(speech, capture.rate), window);
        EXPECT_GT(speechMatch.correlation, 0.9);
        EXPECT_THAT(speechMatch.levelRatio, withinOneDecibel);
        EXPECT_LT(sineMatch.offset, speechMatch.offset) << "played in that order";
        EXPECT_THAT(capture.logger->lines(),
                    ::testing::ElementsAre("info: Starting audio capture.",
                                           "info: Stream will close, stopping audio capture.",
                                           "info: Stopped audio capture."));
    }
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
