#include "platform/PulseAudioCapture.h"

#include "async/Async.h"
#include "net/FdLeakCheck.h"
#include "platform/PulseAudioFixture.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <future>
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

    std::function<void()> onBuffer;  // runs on the libpulse thread, under the recorder's lock

private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::size_t samples_ = 0;
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

class PulseAudioCaptureWithServer : public ::testing::Test {
protected:
    static void SetUpTestSuite() { server_ = std::make_unique<test::PulseAudioServer>(); }
    static void TearDownTestSuite() { server_.reset(); }
    void TearDown() override { EXPECT_TRUE(server_->waitUntilNoSourceOutputs()) << "a record stream was left behind"; }

    static inline std::unique_ptr<test::PulseAudioServer> server_;
};

TEST_F(PulseAudioCaptureWithServer, StopEndsTheRecordStreamWithoutAnError) {
    auto recorder = std::make_shared<Recorder>();
    auto capture = makeCapture(server_->server(), 48000, recorder);
    ASSERT_EQ(start(*capture), "no error");
    ASSERT_TRUE(recorder->waitForSamples(4800));
    EXPECT_EQ(server_->sourceOutputs().size(), 1u);
    capture->stopCapture();
    capture->stopCapture();  // a second request changes nothing
    EXPECT_TRUE(server_->waitUntilNoSourceOutputs()) << "the capture still records after stopCapture";
    EXPECT_EQ(recorder->waitForError(0s), nullptr);
}

TEST_F(PulseAudioCaptureWithServer, CanBeReleasedFromItsOwnCallback) {
    auto recorder = std::make_shared<Recorder>();
    std::unique_ptr<CaptureStream> capture = makeCapture(server_->server(), 48000, recorder);
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

TEST_F(PulseAudioCaptureWithServer, ReleasedOnAPoolWorkerItNeverWaitsForTheLibpulseThread) {
    auto recorder = std::make_shared<Recorder>();
    auto capture = makeCapture(server_->server(), 48000, recorder);
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

TEST(PulseAudioCaptureServerLoss, EndsTheCaptureWithTheServersError) {
    test::PulseAudioServer server;
    auto recorder = std::make_shared<Recorder>();
    auto capture = makeCapture(server.server(), 48000, recorder);
    ASSERT_EQ(start(*capture), "no error");
    ASSERT_TRUE(recorder->waitForSamples(4800));
    server.stop();
    EXPECT_THAT(describe(recorder->waitForError()), ::testing::HasSubstr("Connection terminated"));
}

}  // namespace
}  // namespace orvel::platform
