#include "platform/PulseAudioCapture.h"

#include "async/Async.h"
#include "net/FdLeakCheck.h"
#include "platform/PulseAudioFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
#include <map>
#include <thread>
#include <mutex>

namespace orvel::platform {
namespace {

using namespace std::chrono_literals;

// Counts what a capture delivers on the libpulse thread, for the test thread to wait on.
class Recorder final : public StreamOutput, public StreamDelegate {
public:
    void didOutputSampleBuffer(const SampleBuffer& buffer, StreamOutputType) override {
        std::lock_guard lock(mutex_);
        samples_ += buffer.audioBufferList.size() / sizeof(float);
        bufferFrames_.push_back(buffer.audioBufferList.size() / sizeof(float));
        changed_.notify_all();
        if (onBuffer) onBuffer();
    }
    void didStopWithError(std::exception_ptr error) override {
        std::lock_guard lock(mutex_);
        error_ = error;
        changed_.notify_all();
    }

    // The guard only stops a hang: a busy null sink delivers every few milliseconds.
    bool waitForSamples(std::size_t count) {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 20s, [&] { return samples_ >= count; });
    }
    std::exception_ptr waitForError(std::chrono::seconds guard = 20s) {
        std::unique_lock lock(mutex_);
        changed_.wait_for(lock, guard, [&] { return error_ != nullptr; });
        return error_;
    }

    std::size_t samples() {
        std::lock_guard lock(mutex_);
        return samples_;
    }
    std::vector<std::size_t> bufferFrames() {
        std::lock_guard lock(mutex_);
        return bufferFrames_;
    }

    std::function<void()> onBuffer;  // runs on the libpulse thread, under the recorder's lock

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t samples_ = 0;
    std::vector<std::size_t> bufferFrames_;
    std::exception_ptr error_;
};

std::string describe(std::exception_ptr error) {
    try {
        if (error) std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    }
    return "no error";
}

// Starts a capture and returns the start's outcome, whichever thread reports it.
std::string start(CaptureStream& capture) {
    auto outcome = std::make_shared<std::promise<std::exception_ptr>>();
    auto future = outcome->get_future();
    capture.startCapture([outcome](std::exception_ptr error) { outcome->set_value(error); });
    if (future.wait_for(20s) != std::future_status::ready) return "start did not complete";
    return describe(future.get());
}

std::unique_ptr<PulseAudioCapture> makeCapture(const std::string& server, std::int64_t rate,
                                               const std::shared_ptr<Recorder>& recorder) {
    StreamConfiguration configuration{.capturesAudio = true, .channelCount = 1, .sampleRate = rate, .queueDepth = 5};
    auto capture = std::make_unique<PulseAudioCapture>(PulseAudioCapture::Options{.server = server}, configuration,
                                                       recorder);
    capture->addStreamOutput(recorder, StreamOutputType::audio);
    return capture;
}

TEST(PulseAudioCaptureStart, FailsAtOnceWithoutAServerAndRefusesImpossibleRatesBeforeConnecting) {
    test::FdSnapshot descriptors;
    test::TemporaryFolder folder;
    auto recorder = std::make_shared<Recorder>();
    auto capture = makeCapture("unix:" + (folder.path() / "native").string(), 48000, recorder);
    std::optional<std::string> outcome;
    capture->startCapture([&](std::exception_ptr error) { outcome = describe(error); });
    EXPECT_EQ(outcome, "PulseAudioError. Connect(6): Connection refused") << "known before startCapture returns";
    capture.reset();

    for (std::int64_t rate : {std::int64_t{0}, std::int64_t{-48000}, std::int64_t{384001}, std::int64_t{1} << 40})
        EXPECT_EQ(start(*makeCapture("unix:/nonexistent/native", rate, recorder)),
                  "PulseAudioError. Start(3): Invalid argument")
            << rate;
}

// Each test runs on both servers; a server is started once per kind and shared by the tests
// that leave it as they found it.
class CaptureOnSoundServer : public ::testing::TestWithParam<test::SoundServer::Kind> {
protected:
    static void TearDownTestSuite() { servers_.clear(); }
    void TearDown() override { EXPECT_TRUE(server().waitUntilNoSourceOutputs()) << "a record stream was left behind"; }

    static test::SoundServer& server() {
        auto& server = servers_[GetParam()];
        if (!server) server = std::make_unique<test::SoundServer>(GetParam());
        return *server;
    }

    static inline std::map<test::SoundServer::Kind, std::unique_ptr<test::SoundServer>> servers_;
};

INSTANTIATE_TEST_SUITE_P(Servers, CaptureOnSoundServer, ::testing::ValuesIn(test::soundServerKinds),
                         test::soundServerName<::testing::TestParamInfo<test::SoundServer::Kind>>);

// Captures of one service share one client connection, each with its own record stream, and
// hand on whole 100 ms batches (one wake-up of the runtime per message); stopping one ends only its
// record stream.
TEST_P(CaptureOnSoundServer, CapturesOfOneServiceShareOneConnectionHandOnWholeBatchesAndStopAlone) {
    PulseAudioCaptureService service(PulseAudioCapture::Options{.server = server().server(), .applicationName = "OrvelShared"});
    std::vector<std::shared_ptr<Recorder>> recorders;
    std::vector<std::unique_ptr<CaptureStream>> captures;
    for (std::int64_t rate : {16000, 48000, 48000}) {
        recorders.push_back(std::make_shared<Recorder>());
        captures.push_back(service.makeStream({.capturesAudio = true, .channelCount = 1, .sampleRate = rate}, recorders.back()));
        captures.back()->addStreamOutput(recorders.back(), StreamOutputType::audio);
        ASSERT_EQ(start(*captures.back()), "no error") << rate;
    }
    for (auto& recorder : recorders) ASSERT_TRUE(recorder->waitForSamples(48000));
    const auto clients = server().pactl({"list", "clients"});
    std::size_t ours = 0;
    for (std::size_t at = 0; (at = clients.find("\"OrvelShared\"", at)) != std::string::npos; ++at) ++ours;
    EXPECT_EQ(ours, 1u) << clients;
    EXPECT_EQ(server().sourceOutputs().size(), 3u);
    EXPECT_THAT(recorders[0]->bufferFrames(), ::testing::Each(::testing::AllOf(::testing::Gt(0u), ::testing::ResultOf([](std::size_t n) { return n % 1600; }, 0u))));
    EXPECT_THAT(recorders[1]->bufferFrames(), ::testing::Each(::testing::AllOf(::testing::Gt(0u), ::testing::ResultOf([](std::size_t n) { return n % 4800; }, 0u))));
    captures[1]->stopCapture();
    captures[1]->stopCapture();  // a second request changes nothing
    EXPECT_TRUE(test::waitUntil([&] { return server().sourceOutputs().size() == 2u; }, 20s)) << "one capture's stop leaves the others";
    EXPECT_EQ(recorders[1]->waitForError(0s), nullptr) << "a stop is no error";
    EXPECT_TRUE(recorders[2]->waitForSamples(recorders[2]->samples() + 4800));
}

TEST_P(CaptureOnSoundServer, CanBeReleasedFromItsOwnCallback) {
    auto recorder = std::make_shared<Recorder>();
    std::unique_ptr<CaptureStream> capture = makeCapture(server().server(), 48000, recorder);
    std::promise<void> released;
    recorder->onBuffer = [&] {
        if (!capture) return;
        capture->stopCapture();
        capture.reset();  // the libpulse thread cannot join itself
        released.set_value();
    };
    ASSERT_EQ(start(*capture), "no error");
    ASSERT_EQ(released.get_future().wait_for(20s), std::future_status::ready);
}

async::Task<void> release(std::unique_ptr<PulseAudioCapture>* capture) {
    capture->reset();
    co_return;
}

TEST_P(CaptureOnSoundServer, ReleasedOnAPoolWorkerItNeverWaitsForTheLibpulseThread) {
    auto recorder = std::make_shared<Recorder>();
    auto capture = makeCapture(server().server(), 48000, recorder);
    std::promise<void> entered, open;
    auto gate = open.get_future().share();
    std::atomic<bool> held{false};
    recorder->onBuffer = [&entered, gate, &held] {
        if (held.exchange(true)) return;
        entered.set_value();
        gate.wait();  // the libpulse thread is busy in a callback, holding its loop's lock
    };
    ASSERT_EQ(start(*capture), "no error");
    entered.get_future().wait();
    auto releasing = async::spawn(release(&capture));
    const bool returned = test::waitUntil([&] { return releasing.isFinished(); }, 20s);
    open.set_value();
    releasing.wait();
    EXPECT_TRUE(returned) << "the pool worker waited for the libpulse thread";
    PulseAudioCapture::waitForBackgroundShutdowns();
}

// What the desktop does to a running capture, each on a server of its own.
class CaptureThroughDesktopChanges : public ::testing::TestWithParam<test::SoundServer::Kind> {};

INSTANTIATE_TEST_SUITE_P(Servers, CaptureThroughDesktopChanges, ::testing::ValuesIn(test::soundServerKinds),
                         test::soundServerName<::testing::TestParamInfo<test::SoundServer::Kind>>);

// The name of the source the capture's one record stream records from; empty unless there is one.
std::string recordedSourceName(const test::SoundServer& server) {
    const auto outputs = server.sourceOutputs();
    std::string index, source, name;
    if (outputs.size() != 1 || !(std::istringstream(outputs.front()) >> index >> source)) return "";
    std::istringstream lines(server.pactl({"list", "short", "sources"}));
    for (std::string rest; lines >> index >> name && std::getline(lines, rest);)
        if (index == source) return name;
    return "";
}

// A new default output is followed. A server that comes back within the window is ridden out:
// the capture reconnects, and the samples it hands on cover the whole time, the gap as silence.
// One that does not come back ends the capture.
TEST_P(CaptureThroughDesktopChanges, FollowsANewDefaultOutputAndRidesOutAServerRestartButNotItsEnd) {
    test::SoundServer server(GetParam());
    auto recorder = std::make_shared<Recorder>();
    StreamConfiguration configuration{.capturesAudio = true, .channelCount = 1, .sampleRate = 16000};
    PulseAudioCapture capture(PulseAudioCapture::Options{.server = server.server(), .reconnectWindow = 6s},
                              configuration, recorder);
    capture.addStreamOutput(recorder, StreamOutputType::audio);
    ASSERT_EQ(start(capture), "no error");
    ASSERT_TRUE(recorder->waitForSamples(1600));
    server.addSink("orvel_second");  // and makes it the default
    EXPECT_TRUE(test::waitUntil([&] { return recordedSourceName(server) == "orvel_second.monitor"; }, 20s))
        << "records " << recordedSourceName(server) << ", not the new default's monitor";

    const auto started = std::chrono::steady_clock::now();
    const std::size_t before = recorder->samples();
    server.stop(SIGKILL);
    std::this_thread::sleep_for(2s);
    server.start();
    ASSERT_TRUE(test::waitUntil([&] { return server.sourceOutputs().size() == 1; }, 20s)) << "no reconnect";
    std::this_thread::sleep_for(1s);
    const auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - started).count();
    const std::size_t received = recorder->samples() - before;
    // The gap was over 2 s; less than 1 s missing means it was filled.
    EXPECT_GE(received, static_cast<std::size_t>((seconds - 1.0) * 16000)) << received << " samples in " << seconds << " s";
    EXPECT_EQ(recorder->waitForError(0s), nullptr);

    server.stop(SIGKILL);
    EXPECT_THAT(describe(recorder->waitForError(60s)), ::testing::HasSubstr("Connection terminated"));
}

}  // namespace
}  // namespace orvel::platform
