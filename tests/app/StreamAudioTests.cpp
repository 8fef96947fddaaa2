#include "app/OrvelMessageHandler.h"

#include "app/AudioCaptureTestSupport.h"
#include "app/StreamCount.h"
#include "async/Async.h"
#include "e2e/Process.h"
#include "platform/PulseAudioError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <ranges>

namespace orvel {
namespace {

using http::WSMessage;
using ::testing::ElementsAre;
using ::testing::IsEmpty;

using test::FakeCapture;
using test::startingWith;

std::vector<std::uint8_t> bytes(std::size_t count) {
    std::vector<std::uint8_t> result(count);
    for (std::size_t i = 0; i < count; ++i) result[i] = static_cast<std::uint8_t>(i);
    return result;
}

class StreamAudio : public ::testing::Test {
protected:
    // Runs streamAudio to its end with the given incoming messages; returns what it sent.
    std::vector<WSMessage> run(std::vector<WSMessage> incomingMessages, CaptureStart start) {
        auto [incoming, in] = async::AsyncStream<WSMessage>::make();
        for (auto& message : incomingMessages) in.yield(std::move(message));
        in.finish();
        auto [outgoing, out] = async::AsyncStream<WSMessage>::make();
        async::syncWait(streamAudio(std::move(incoming), out, std::move(start), logger_));
        return async::syncWait(collect(std::move(outgoing)));
    }

    static async::Task<std::vector<WSMessage>> collect(async::AsyncStream<WSMessage> outgoing) {
        std::vector<WSMessage> result;
        while (auto message = co_await outgoing.next()) result.push_back(std::move(*message));
        co_return result;
    }
    static async::Task<std::size_t> nextSize(async::AsyncStream<WSMessage>* outgoing) {
        auto message = co_await outgoing->next();
        co_return message ? message->bytes().size() : 0;
    }
    static std::vector<std::size_t> sizes(const std::vector<WSMessage>& messages) {
        auto view = messages | std::views::transform([](const WSMessage& m) { return m.bytes().size(); });
        return {view.begin(), view.end()};
    }

    void TearDown() override { EXPECT_EQ(currentStreamCount().value(), 0) << "every way out lowers the count"; }

    std::shared_ptr<test::RecordingLogger> logger_ = std::make_shared<test::RecordingLogger>();
    std::shared_ptr<FakeCapture> fake_ = std::make_shared<FakeCapture>();
    std::vector<std::int64_t> counts_;  // every value of the process's stream count, the first at the start
    StreamCount::Subscription watch_ = currentStreamCount().subscribe([this](std::int64_t value) { counts_.push_back(value); });
};

const WSMessage config48k = WSMessage::text(R"({"type": "loopback", "sample_rate": 48000})");
// The last message of a stream that ended badly: the page can tell why.
const WSMessage invalidConfiguration = WSMessage::close(1007, "Invalid configuration");
const WSMessage captureFailed = WSMessage::close(1011, "Audio capture failed");

// Whatever pieces the capture delivers, the page gets the bytes unchanged in 100 ms messages
// and the rest at the end.
TEST_F(StreamAudio, CutsTheCaptureIntoHundredMillisecondMessagesWhateverItsPieces) {
    const auto all = bytes(3200 * 3 + 10);
    for (std::size_t piece : {1u, 7u, 3199u, 3200u, 3201u, 10000u}) {
        auto fake = std::make_shared<FakeCapture>();
        for (std::size_t at = 0; at < all.size(); at += piece)
            fake->feed->yield({all.begin() + at, all.begin() + std::min(all.size(), at + piece)});
        fake->feed->finish();
        auto sent = run({WSMessage::text(R"({"type":"loopback","sample_rate":16000})")}, startingWith(fake));
        EXPECT_THAT(fake->startedRates, ElementsAre(16000));
        EXPECT_THAT(sizes(sent), ElementsAre(3200, 3200, 3200, 10)) << "pieces of " << piece;
        std::vector<std::uint8_t> joined;
        for (const auto& m : sent) {
            EXPECT_FALSE(m.isText());
            joined.insert(joined.end(), m.bytes().begin(), m.bytes().end());
        }
        EXPECT_EQ(joined, all);
    }
    EXPECT_THAT(logger_->lines(), IsEmpty());
}

TEST_F(StreamAudio, AnythingButAConfigurationFirstEndsWithoutCounting) {
    const std::vector<std::vector<WSMessage>> firsts{
        {},
        {WSMessage::data(bytes(4))},
        {WSMessage::text(R"({"type": "microphone", "sample_rate": 48000})")},  // what else fails to decode is the decoder's test
    };
    for (const auto& first : firsts) EXPECT_THAT(run(first, startingWith(fake_)), ElementsAre(invalidConfiguration));
    EXPECT_THAT(counts_, ElementsAre(0));
    EXPECT_THAT(fake_->startedRates, IsEmpty());
    EXPECT_EQ(logger_->lines(), std::vector<std::string>(firsts.size(), "error: Could not parse configuration, closing WebSocket connection."));
}

TEST_F(StreamAudio, ACaptureFailureDropsPendingBytesLogsAndLowersTheCount) {
    fake_->feed->yield(bytes(9600 + 100));
    fake_->feed->finish(std::make_exception_ptr(platform::PulseAudioError::failed("Read", 11)));
    auto sent = run({config48k}, startingWith(fake_));
    ASSERT_THAT(sizes(sent), ElementsAre(9600, captureFailed.bytes().size()));
    EXPECT_EQ(sent.back(), captureFailed);
    EXPECT_THAT(counts_, ElementsAre(0, 1, 0));
    EXPECT_THAT(logger_->lines(), ElementsAre(::testing::AllOf(::testing::StartsWith("error: Audio capture failed prematurely ("),
                                                               ::testing::EndsWith("), closing WebSocket connection."))));
}

TEST_F(StreamAudio, APageSilentPastTheConfigurationTimeIsRefusedLikeABadConfiguration) {
    auto [incoming, in] = async::AsyncStream<WSMessage>::make();  // kept open: the page says nothing
    auto [outgoing, out] = async::AsyncStream<WSMessage>::make();
    auto streaming = async::spawn(
        streamAudio(std::move(incoming), out, startingWith(fake_), logger_, std::chrono::milliseconds(20)));
    EXPECT_TRUE(test::waitUntil([&] { return streaming.isFinished(); }));
    in.finish();  // lets a stream that missed its time end, so the test does too
    streaming.wait();
    EXPECT_THAT(async::syncWait(collect(std::move(outgoing))), ElementsAre(invalidConfiguration));
    EXPECT_THAT(logger_->lines(), ElementsAre("error: Could not parse configuration, closing WebSocket connection."));
}

// A refused permission has its own line; a rate the capture cannot serve (past the signed range
// too, which must not wrap into it) takes the premature failure path. The range itself is the
// delegate's test.
TEST_F(StreamAudio, ACaptureThatCannotStartEndsTheStreamWithItsLine) {
    fake_->startError = std::make_exception_ptr(platform::PulseAudioError::failed("Connect", 1));  // access denied
    const std::tuple<std::string, CaptureStart, std::string> cases[] = {
        {"48000", startingWith(fake_), "error: User didn't grant screen capture permission, closing WebSocket connection."},
        {"18446744073709551615", [](std::int64_t r) { return startAudioCapture(r); },  // the real start, refusing before any server
         "error: Audio capture failed prematurely (" + AudioCaptureError::cannotCreateSourceFormat().description() +
             "), closing WebSocket connection."},
    };
    for (const auto& [rate, start, line] : cases) {
        counts_.clear();
        logger_ = std::make_shared<test::RecordingLogger>();
        EXPECT_THAT(run({WSMessage::text(R"({"type":"loopback","sample_rate":)" + rate + "}")}, start), ElementsAre(captureFailed))
            << rate;
        EXPECT_THAT(counts_, ElementsAre(1, 0));
        EXPECT_THAT(logger_->lines(), ElementsAre(line));
    }
}

async::Task<void> readOut(async::AsyncStream<WSMessage>::Continuation incoming) {
    co_await incoming.waitUntilBufferedAtMost(0);
}

// The connection may keep ten seconds of the page's audio unsent. The stream ends when the
// connection goes away: the capture with it, the count down, and no failure logged.
TEST_F(StreamAudio, LaterMessagesAreReadAndDroppedAndAConnectionThatGoesAwayEndsTheCapture) {
    auto [incoming, in] = async::AsyncStream<WSMessage>::make([](const WSMessage& m) { return m.bytes().size(); });
    in.yield(config48k);
    for (int i = 0; i < 3; ++i) in.yield(WSMessage::text(R"({"type": "loopback", "sample_rate": 8000})"));
    OrvelMessageHandler handler(startingWith(fake_), logger_);
    std::atomic<std::size_t> budget{0};
    auto outgoing = async::syncWait(handler.makeMessages(std::move(incoming), [&](std::size_t bytes) { budget = bytes; }));
    auto reading = async::spawn(readOut(in));
    EXPECT_TRUE(test::waitUntil([&] { return reading.isFinished(); })) << "later messages stay unread";
    fake_->feed->yield(bytes(9600 + 50));
    EXPECT_EQ(async::syncWait(nextSize(&outgoing)), 9600u) << "the stream goes on";
    EXPECT_EQ(budget.load(), 48000u * 2 * 10);
    EXPECT_EQ(currentStreamCount().value(), 1);
    { auto gone = std::move(outgoing); }
    EXPECT_TRUE(test::waitUntil([&] { return fake_->terminated->load() && currentStreamCount().value() == 0; }));
    in.finish();
    reading.wait();
    EXPECT_THAT(fake_->startedRates, ElementsAre(48000));
    EXPECT_THAT(logger_->lines(), IsEmpty());
}

}  // namespace
}  // namespace orvel
