#include "app/AudioCapture.h"

#include "app/AudioCaptureTestSupport.h"
#include "async/Spawn.h"
#include "platform/PulseAudioError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <future>

namespace orvel {
namespace {

using platform::StreamOutputType;
using test::floatBuffer;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

const std::vector<std::string> stopLines{"info: Starting audio capture.",
                                         "info: Stream will close, stopping audio capture.",
                                         "info: Stopped audio capture."};

class AudioCaptureSession : public ::testing::Test {
protected:
    AudioCaptureStream start(std::int64_t rate = 48000) {
        return async::syncWait(startAudioCapture(rate, {service_, logger_}));
    }
    test::FakeCaptureStream::Record& stream(std::size_t index = 0) { return *service_->made.at(index); }

    std::shared_ptr<test::FakeCaptureService> service_ = std::make_shared<test::FakeCaptureService>();
    std::shared_ptr<test::RecordingLogger> logger_ = std::make_shared<test::RecordingLogger>();
};

TEST_F(AudioCaptureSession, AsksForOneChannelAtTheRateWithScreenThenAudioOutputs) {
    auto bytes = start(16000);
    EXPECT_TRUE(stream().started);
    EXPECT_TRUE(stream().configuration.capturesAudio);
    EXPECT_EQ(stream().configuration.channelCount, 1u);
    EXPECT_EQ(stream().configuration.sampleRate, 16000);
    EXPECT_EQ(stream().configuration.queueDepth, 5);
    EXPECT_THAT(stream().outputTypes, ElementsAre(StreamOutputType::screen, StreamOutputType::audio));
    EXPECT_EQ(stream().outputs[0], stream().outputs[1]) << "one delegate serves both";
    EXPECT_THAT(logger_->lines(), ElementsAre("info: Starting audio capture."));
}

TEST_F(AudioCaptureSession, ARefusedRateFailsBeforeAnyPlatformCall) {
    try {
        start(4000);
        FAIL() << "started";
    } catch (const AudioCaptureError& error) {
        EXPECT_EQ(error, AudioCaptureError::cannotCreateSourceFormat());
    }
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
    const std::vector<float> early{1.0f}, later{0.5f};
    service_->next = std::make_shared<test::FakeCaptureStream::Record>();
    service_->next->duringStart = [&](test::FakeCaptureStream::Record& record) { test::deliver(record, floatBuffer(early)); };
    auto bytes = start();
    test::deliver(stream(), floatBuffer(later));
    const auto first = test::next(bytes);
    ASSERT_TRUE(first.has_value());
    EXPECT_THAT(test::samplesOf(*first), ElementsAre(16384));
}

// Iterates the byte stream until it ends, counting elements; signals after the first one.
async::Task<int> consume(AudioCaptureStream bytes, std::shared_ptr<std::promise<void>> gotOne) {
    int count = 0;
    while (auto element = co_await bytes.next()) {
        if (count++ == 0) gotOne->set_value();
    }
    co_return count;
}

TEST_F(AudioCaptureSession, ACancelledConsumerEndsWithoutErrorAndTheCaptureStops) {
    auto gotOne = std::make_shared<std::promise<void>>();
    auto received = gotOne->get_future();
    auto consumer = async::spawn(consume(start(), gotOne));
    const std::vector<float> samples{0.25f};
    test::deliver(stream(), floatBuffer(samples));
    ASSERT_EQ(received.wait_for(std::chrono::seconds(20)), std::future_status::ready);
    consumer.cancel();
    EXPECT_EQ(consumer.wait(), 1) << "ends with end-of-sequence, not an error";
    EXPECT_EQ(stream().stops, 1);
    EXPECT_THAT(logger_->lines(), ::testing::ElementsAreArray(stopLines));
    test::deliver(stream(), floatBuffer(samples));  // after the end: dropped, nothing breaks
    EXPECT_EQ(stream().stops, 1);
}

TEST_F(AudioCaptureSession, AConversionOrPlatformFailureEndsTheIterationWithItAndStops) {
    auto bytes = start();
    const std::vector<float> stereo{0.0f, 0.0f};
    test::deliver(stream(0), floatBuffer(stereo, 48000.0, 2));
    EXPECT_THROW(test::next(bytes), AudioCaptureError);
    EXPECT_EQ(stream(0).stops, 1);
    EXPECT_THAT(logger_->lines(), ::testing::ElementsAreArray(stopLines));

    auto other = start();
    stream(1).delegate->didStopWithError(std::make_exception_ptr(platform::PulseAudioError::failed("Capture", 11)));
    try {
        test::next(other);
        FAIL() << "no error";
    } catch (const platform::PulseAudioError& error) {
        EXPECT_EQ(error.description(), "PulseAudioError. Capture(11): Connection terminated");
    }
    EXPECT_EQ(stream(1).stops, 1);
}

TEST_F(AudioCaptureSession, AStopWithErrorAfterTheEndDoesNothing) {
    std::optional<AudioCaptureStream> bytes = start();
    bytes.reset();  // the consumer goes away
    EXPECT_EQ(stream().stops, 1);
    stream().delegate->didStopWithError(std::make_exception_ptr(platform::PulseAudioError::failed("Capture", 11)));
    EXPECT_EQ(stream().stops, 1);
    EXPECT_THAT(logger_->lines(), ::testing::ElementsAreArray(stopLines));
    EXPECT_TRUE(stream().destroyed) << "the platform stream lives only as long as the byte stream";
}

}  // namespace
}  // namespace orvel
