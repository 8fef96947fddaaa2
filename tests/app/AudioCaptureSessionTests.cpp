#include "app/AudioCapture.h"

#include "app/AudioCaptureTestSupport.h"
#include "app/CaptureHub.h"
#include "app/SharedCapture.h"
#include "async/Spawn.h"
#include "platform/PulseAudioError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>


namespace orvel {
namespace {

using test::floatBuffer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::vector<std::string> stopLines{"info: Starting audio capture.",
                                         "info: Stream will close, stopping audio capture.",
                                         "info: Stopped audio capture."};

class AudioCaptureSession : public ::testing::Test {
protected:
    AudioCaptureStream start(std::int64_t rate = 48000) {
        return async::syncWait(startAudioCapture(rate, environment()));
    }
    // Time stands still unless a test moves it: where a page starts among the samples depends on it.
    AudioCaptureEnvironment environment() { return {service_, logger_, [this] { return now_; }}; }
    test::FakeCaptureStream::Record& stream(std::size_t index = 0) { return *service_->made.at(index); }

    std::shared_ptr<test::FakeCaptureService> service_ = std::make_shared<test::FakeCaptureService>();
    std::shared_ptr<test::RecordingLogger> logger_ = std::make_shared<test::RecordingLogger>();
    std::chrono::steady_clock::time_point now_;
};

TEST_F(AudioCaptureSession, AsksForOneChannelAtTheRateWithScreenThenAudioOutputs) {
    auto bytes = start(16000);
    EXPECT_TRUE(stream().started);
    // Audio, one channel, the rate, a queue of 5.
    EXPECT_THAT(stream().configuration, ::testing::FieldsAre(true, 1u, 16000, 5));
    EXPECT_THAT(stream().outputTypes, ElementsAre(platform::StreamOutputType::screen, platform::StreamOutputType::audio));
    EXPECT_EQ(stream().outputs[0], stream().outputs[1]) << "one delegate serves both";
    EXPECT_THAT(logger_->lines(), ElementsAre("info: Starting audio capture."));
}

TEST_F(AudioCaptureSession, ARefusedRateFailsBeforeAnyPlatformCall) {
    EXPECT_THAT([&] { start(4000); },
                ::testing::ThrowsMessage<AudioCaptureError>(AudioCaptureError::cannotCreateSourceFormat().description()));
    EXPECT_THAT(service_->made, IsEmpty());
    EXPECT_THAT(logger_->lines(), IsEmpty());
}

TEST_F(AudioCaptureSession, AFailedStartOrOutputPassesThePlatformErrorOnAndReleasesTheStream) {
    service_->next = std::make_shared<test::FakeCaptureStream::Record>();
    service_->next->startError = std::make_exception_ptr(platform::PulseAudioError::failed("Connect", 6));
    EXPECT_THROW(start(), platform::PulseAudioError);
    EXPECT_TRUE(stream(0).destroyed);
    EXPECT_EQ(stream(0).stops, 0);
    EXPECT_THAT(logger_->lines(), ElementsAre("info: Starting audio capture."));

    service_->next = std::make_shared<test::FakeCaptureStream::Record>();
    service_->next->addOutputError = std::make_exception_ptr(platform::PulseAudioError::failed("AddStreamOutput", 15));
    EXPECT_THROW(start(), platform::PulseAudioError);
    EXPECT_FALSE(stream(1).started);
    EXPECT_TRUE(stream(1).destroyed);
    EXPECT_THAT(logger_->lines(), ElementsAre("info: Starting audio capture.")) << "the second never started";
}

TEST_F(AudioCaptureSession, BuffersBeforeTheByteStreamExistsAreDropped) {
    const std::vector<float> early(4800, 1.0f), later(4800, 0.5f);  // 100 ms each
    service_->next = std::make_shared<test::FakeCaptureStream::Record>();
    service_->next->duringStart = [&](test::FakeCaptureStream::Record& record) { test::deliver(record, floatBuffer(early)); };
    auto bytes = start();
    test::deliver(stream(), floatBuffer(later));
    const auto first = test::next(bytes);
    ASSERT_TRUE(first.has_value());
    EXPECT_EQ(test::samplesOf(*first), std::vector<std::int16_t>(4800, 16384));
}

TEST_F(AudioCaptureSession, AStopWithErrorOrABufferAfterTheEndDoesNothing) {
    std::optional<AudioCaptureStream> bytes = start();
    bytes.reset();  // the consumer goes away
    EXPECT_EQ(stream().stops, 1);
    stream().delegate->didStopWithError(std::make_exception_ptr(platform::PulseAudioError::failed("Capture", 11)));
    EXPECT_EQ(stream().stops, 1);
    EXPECT_THAT(logger_->lines(), ::testing::ElementsAreArray(stopLines));
    EXPECT_TRUE(stream().destroyed) << "the platform stream lives only as long as the byte stream";
    const std::vector<float> samples(4800, 0.25f);
    test::deliver(stream(), floatBuffer(samples));  // after the end: dropped, nothing breaks
    EXPECT_EQ(stream().stops, 1);
}

std::vector<std::int16_t> runs(std::initializer_list<std::pair<std::size_t, std::int16_t>> parts) {
    std::vector<std::int16_t> samples;
    for (auto [count, value] : parts) samples.insert(samples.end(), count, value);
    return samples;
}

// Pages at 16000 Hz (chunks of 1600 samples, hand-on steps of 800) and one at 8000 Hz, on one hub.
TEST_F(AudioCaptureSession, PagesAtARateShareOnePlatformStreamEachCutFromItsOwnStart) {
    CaptureHub hub(environment());
    std::optional<AudioCaptureStream> first = async::syncWait(hub.start(16000));
    auto other = async::syncWait(hub.start(8000));
    const auto& output = *stream(0).outputs.at(1);
    EXPECT_EQ(output.framesWanted(), 1600u);
    test::deliver(stream(0), floatBuffer(std::vector<float>(1000, 0.5f), 16000.0));
    EXPECT_EQ(output.framesWanted(), 600u) << "the rest of the first page's chunk";
    now_ += std::chrono::milliseconds(25);  // 400 samples on their way when the late page joins
    std::optional<AudioCaptureStream> late = async::syncWait(hub.start(16000));
    test::deliver(stream(0), floatBuffer(std::vector<float>(2200, 0.25f), 16000.0));
    EXPECT_EQ(service_->made.size(), 2u) << "one platform stream per rate";
    EXPECT_EQ(test::samplesOf(*test::next(*first)), runs({{1000, 16384}, {600, 8192}}));
    EXPECT_EQ(test::samplesOf(*test::next(*first)), runs({{1600, 8192}}));
    EXPECT_EQ(test::samplesOf(*test::next(*late)), runs({{1600, 8192}})) << "nothing from before its start";
    EXPECT_EQ(output.framesWanted(), 1600u) << "the late page, due 200 before, waits for the step boundary";

    first.reset();
    EXPECT_EQ(stream(0).stops, 0) << "a page leaving stops nothing while another reads";
    test::deliver(stream(0), floatBuffer(std::vector<float>(1400, 0.0f), 16000.0));
    EXPECT_EQ(test::samplesOf(*test::next(*late)), runs({{200, 8192}, {1400, 0}}));
    late.reset();
    EXPECT_EQ(stream(0).stops, 1) << "the last page's leaving stops it";
    EXPECT_TRUE(stream(0).destroyed);
    EXPECT_EQ(stream(1).stops, 0) << "the other rate goes on";
    auto again = async::syncWait(hub.start(16000));
    EXPECT_EQ(service_->made.size(), 3u) << "a page after the last starts anew";
    const auto lines = logger_->lines();
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "info: Starting audio capture."), 4);
    EXPECT_EQ(std::count(lines.begin(), lines.end(), "info: Stopped audio capture."), 2);
}

TEST_F(AudioCaptureSession, APageJoiningWhileTheServerSendsNothingMissesAtMostAChunkOfWhatComesNext) {
    CaptureHub hub(environment());
    auto first = async::syncWait(hub.start(16000));
    test::deliver(stream(), floatBuffer(std::vector<float>(1600, 0.5f), 16000.0));
    now_ += std::chrono::minutes(1);  // a suspended sink's monitor sends nothing
    auto late = async::syncWait(hub.start(16000));
    test::deliver(stream(), floatBuffer(std::vector<float>(3200, 0.25f), 16000.0));
    stream().delegate->didStopWithError(std::make_exception_ptr(platform::PulseAudioError::failed("Capture", 11)));
    EXPECT_EQ(test::samplesOf(*test::next(late)), runs({{1600, 8192}}));
}

// Whatever ends a shared capture (a platform failure or a buffer it cannot convert) ends every
// page at its rate with that error, and only those.
TEST_F(AudioCaptureSession, ASharedCaptureFailureReachesEveryPageAtItsRate) {
    const std::pair<std::function<void(test::FakeCaptureStream::Record&)>, std::string> failures[] = {
        {[](auto& record) { record.delegate->didStopWithError(std::make_exception_ptr(platform::PulseAudioError::failed("Capture", 11))); },
         "PulseAudioError. Capture(11): Connection terminated"},
        {[](auto& record) { test::deliver(record, floatBuffer(std::vector<float>(2, 0.0f), 48000.0, 2)); },
         AudioCaptureError::wrongChannelCount(2).description()},
    };
    for (const auto& [fail, error] : failures) {
        SCOPED_TRACE(error);
        auto logger = std::make_shared<test::RecordingLogger>();
        CaptureHub hub({service_, logger});
        const auto made = service_->made.size();
        AudioCaptureStream pages[] = {async::syncWait(hub.start(48000)), async::syncWait(hub.start(48000))};
        auto other = async::syncWait(hub.start(16000));
        fail(stream(made));
        for (auto& page : pages) EXPECT_EQ(test::endingError(page), error);
        EXPECT_EQ(stream(made).stops, 1);
        const auto lines = logger->lines();
        EXPECT_EQ(std::count(lines.begin(), lines.end(), "info: Stopped audio capture."), 2) << "each failed page left";
        test::deliver(stream(made + 1), floatBuffer(std::vector<float>(1600, 0.0f), 16000.0));
        EXPECT_TRUE(test::next(other).has_value()) << "the other rate goes on";
    }
}

// The capture thread never waits for a page: one that leaves 10 s unread is dropped alone.
TEST_F(AudioCaptureSession, APageThatDoesNotReadIsDroppedWithoutHoldingUpTheOthers) {
    CaptureHub hub({service_, logger_});
    auto reading = async::syncWait(hub.start(8000));
    auto stalled = async::syncWait(hub.start(8000));
    const std::vector<float> chunk(800, 0.25f);
    for (std::size_t i = 0; i <= SharedCapture::maximumUnreadChunks; ++i) {
        test::deliver(stream(), floatBuffer(chunk, 8000.0));
        ASSERT_TRUE(test::next(reading).has_value()) << "chunk " << i;
    }
    std::size_t unread = 0;
    EXPECT_THROW(while (test::next(stalled)) ++unread, SharedCapture::ReaderTooSlow);
    EXPECT_EQ(unread, SharedCapture::maximumUnreadChunks);
    EXPECT_EQ(stream().stops, 0);
}

}  // namespace
}  // namespace orvel
