#include "http/MessageFrameWSHandler.h"

#include "HTTPTestSupport.h"
#include "async/Spawn.h"
#include "http/WSFrameValidator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <future>
#include <string>
#include <vector>

namespace orvel::http {
namespace {

using Opcode = WSFrame::Opcode;
using ::testing::ElementsAre;

const WSFrame protocolError = WSFrame::close("Protocol Error");

// The peer's frames; after them the peer has gone.
class ListedFrames final : public WSFrameSequence {
public:
    explicit ListedFrames(std::vector<WSFrame> frames) : frames_(frames.begin(), frames.end()) {}
    async::Task<std::optional<WSFrame>> next() override {
        if (frames_.empty()) co_return std::nullopt;
        WSFrame first = std::move(frames_.front());
        frames_.pop_front();
        co_return first;
    }

private:
    std::deque<WSFrame> frames_;
};

async::Task<void> record(async::AsyncStream<WSMessage> incoming, std::shared_ptr<std::promise<std::vector<WSMessage>>> done) {
    std::vector<WSMessage> seen;
    while (auto message = co_await incoming.next()) seen.push_back(std::move(*message));
    done->set_value(std::move(seen));
}

// Keeps what arrives and says nothing; `received` is ready once the incoming messages end.
class RecordingHandler final : public WSMessageHandler {
public:
    async::Task<async::AsyncStream<WSMessage>> makeMessages(async::AsyncStream<WSMessage> incoming) override {
        auto [out, producer] = async::AsyncStream<WSMessage>::make();
        producer_.emplace(producer);  // never finished: the application has nothing to say
        (void)async::spawn(record(std::move(incoming), done_));
        co_return std::move(out);
    }
    std::vector<WSMessage> received() { return done_->get_future().get(); }

private:
    std::optional<async::AsyncStream<WSMessage>::Continuation> producer_;
    std::shared_ptr<std::promise<std::vector<WSMessage>>> done_ = std::make_shared<std::promise<std::vector<WSMessage>>>();
};

async::Task<std::vector<WSFrame>> run(std::shared_ptr<WSMessageHandler> handler, std::vector<WSFrame> incoming) {
    MessageFrameWSHandler handlers(std::move(handler), 16384);
    auto in = std::make_shared<ListedFrames>(std::move(incoming));
    auto frames = co_await handlers.makeFrames(std::move(in));
    std::vector<WSFrame> out;
    while (auto f = co_await frames.next()) out.push_back(std::move(*f));
    co_return out;
}

TEST(WSOutgoingFraming, CutsMessagesIntoFramesOfAtMostFrameSize) {
    auto frames = MessageFrameWSHandler::frames(WSMessage::data(Bytes(40000, 7)), 16384);
    EXPECT_THAT(frames, ElementsAre(frame(Opcode::binary, false, Bytes(16384, 7)),
                                    frame(Opcode::continuation, false, Bytes(16384, 7)),
                                    frame(Opcode::continuation, true, Bytes(7232, 7))));
    EXPECT_THAT(MessageFrameWSHandler::frames(WSMessage::data(Bytes(16384, 1)), 16384),
                ElementsAre(frame(Opcode::binary, true, Bytes(16384, 1))));
    EXPECT_TRUE(MessageFrameWSHandler::frames(WSMessage::text(""), 16384).empty());
    EXPECT_TRUE(MessageFrameWSHandler::frames(WSMessage::data({}), 1).empty());
    // Text is cut at byte boundaries, even inside a character (61 C3 A9).
    EXPECT_THAT(MessageFrameWSHandler::frames(WSMessage::text("aé"), 2),
                ElementsAre(frame(Opcode::text, false, {0x61, 0xC3}), frame(Opcode::continuation, true, {0xA9})));
    EXPECT_THROW(MessageFrameWSHandler(std::make_shared<RecordingHandler>(), 0), std::invalid_argument);
}

TEST(WSMessageExchange, DeliversMessagesBeforeThePeersCloseOrAProtocolErrorAndNothingAfter) {
    auto app = std::make_shared<RecordingHandler>();
    auto out = async::syncWait(run(app, {frame(Opcode::binary, true, {9}), frame(Opcode::close, true, {0x03, 0xE8}),
                                         frame(Opcode::text, true, bytesOf("late"))}));
    EXPECT_THAT(out, ElementsAre(WSFrame::close("Goodbye")));
    EXPECT_THAT(app->received(), ElementsAre(WSMessage::data({9})));

    app = std::make_shared<RecordingHandler>();
    out = async::syncWait(run(app, {frame(Opcode::text, true, bytesOf("ok")), frame(Opcode::text, false, bytesOf("dropped")),
                                    frame(Opcode::text, true, {0xFF}), frame(Opcode::text, true, bytesOf("late"))}));
    EXPECT_THAT(out, ElementsAre(protocolError));
    EXPECT_THAT(app->received(), ElementsAre(WSMessage::text("ok")));
}

async::Task<std::optional<WSFrame>> nextOf(WSFrameStream* frames) { co_return co_await frames->next(); }

TEST(WSOutgoingFrameStream, AnErrorEndsWithOneProtocolErrorCloseAfterTheReadyFrames) {
    auto [frames, producer] = WSFrameStream::make();
    producer.yield(frame(Opcode::text, true, {'a'}));
    producer.yield(frame(Opcode::text, true, {'b'}));
    producer.finish(std::make_exception_ptr(WSFrameValidator::Error::unexpectedContinuation()));
    EXPECT_EQ(frames.tryNext(), frame(Opcode::text, true, {'a'}));
    EXPECT_EQ(async::syncWait(nextOf(&frames)), frame(Opcode::text, true, {'b'}));
    EXPECT_FALSE(frames.tryNext()) << "the end is left to next()";
    EXPECT_EQ(async::syncWait(nextOf(&frames)), protocolError);
    EXPECT_FALSE(async::syncWait(nextOf(&frames)));
}

TEST(WSOutgoingFrameStream, TerminationRunsOnceWhenTheReaderIsCancelledOrDropsTheStream) {
    std::atomic<int> terminations{0};
    {
        auto [frames, producer] = WSFrameStream::make();
        producer.onTermination([&] { ++terminations; });
        auto reading = async::spawn(nextOf(&frames));
        reading.cancel();
        EXPECT_FALSE(reading.wait()) << "a cancelled reader sees the end";
        EXPECT_EQ(terminations.load(), 1);
        producer.yield(frame(Opcode::text, true, {'x'}));  // goes nowhere now
        EXPECT_FALSE(frames.tryNext());
    }
    EXPECT_EQ(terminations.load(), 1) << "dropping the ended stream does not run it again";
    {
        auto [frames, producer] = WSFrameStream::make();
        producer.onTermination([&] { ++terminations; });
    }
    EXPECT_EQ(terminations.load(), 2);
}

}  // namespace
}  // namespace orvel::http
