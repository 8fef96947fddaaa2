#include "websocket/MessageFrameWSHandler.h"

#include "WSTestSupport.h"
#include "async/Sleep.h"
#include "async/Spawn.h"
#include "websocket/WSFrameValidator.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <deque>
#include <functional>
#include <future>
#include <tuple>
#include <vector>

namespace orvel::http {
namespace {

using Opcode = WSFrame::Opcode;
using ::testing::ElementsAre;

const WSFrame protocolError = WSFrame::close("Protocol Error");

// The peer's frames; after them the peer has gone.
class ListedFrames final : public WSIncomingFrames {
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

async::Task<void> record(WSIncomingMessages incoming, std::shared_ptr<std::promise<std::vector<WSMessage>>> done) {
    std::vector<WSMessage> seen;
    while (auto message = co_await incoming.next()) seen.push_back(std::move(*message));
    done->set_value(std::move(seen));
}

// Hands what arrives to `read` and says nothing.
class ReadingHandler final : public WSMessageHandler {
public:
    explicit ReadingHandler(std::function<async::Task<void>(WSIncomingMessages)> read) : read_(std::move(read)) {}
    async::Task<WSOutgoingMessages> makeMessages(WSIncomingMessages incoming) override {
        auto [out, producer] = WSOutgoingMessages::make();
        producer_.emplace(producer);  // never finished: the application has nothing to say
        (void)async::spawn(read_(std::move(incoming)));
        co_return std::move(out);
    }

private:
    std::function<async::Task<void>(WSIncomingMessages)> read_;
    std::optional<WSOutgoingMessages::Continuation> producer_;
};

async::Task<std::vector<WSFrame>> collect(MessageFrameWSHandler* handler, std::shared_ptr<WSIncomingFrames> incoming) {
    auto frames = co_await handler->makeFrames(std::move(incoming));
    std::vector<WSFrame> out;
    while (auto f = co_await frames.next()) out.push_back(std::move(*f));
    co_return out;
}

// Every frame the handler sends to a peer that sends `incoming` and goes.
std::vector<WSFrame> run(std::shared_ptr<WSMessageHandler> handler, std::vector<WSFrame> incoming) {
    MessageFrameWSHandler handlers(std::move(handler), 16384);
    return async::syncWait(collect(&handlers, std::make_shared<ListedFrames>(std::move(incoming))));
}

TEST(WSOutgoingFraming, CutsMessagesIntoFramesOfAtMostFrameSize) {
    auto frames = MessageFrameWSHandler::frames(WSMessage::data(Bytes(40000, 7)), 16384);
    EXPECT_THAT(frames, ElementsAre(frame(Opcode::binary, false, Bytes(16384, 7)),
                                    frame(Opcode::continuation, false, Bytes(16384, 7)),
                                    frame(Opcode::continuation, true, Bytes(7232, 7))));
    EXPECT_THAT(MessageFrameWSHandler::frames(WSMessage::data(Bytes(16384, 1)), 16384),
                ElementsAre(frame(Opcode::binary, true, Bytes(16384, 1))));
    EXPECT_THAT(MessageFrameWSHandler::frames(WSMessage::text(""), 16384), ElementsAre(frame(Opcode::text, true)));
    EXPECT_THAT(MessageFrameWSHandler::frames(WSMessage::data({}), 1), ElementsAre(frame(Opcode::binary, true)));
    // Text is cut at byte boundaries, even inside a character (61 C3 A9).
    EXPECT_THAT(MessageFrameWSHandler::frames(WSMessage::text("aé"), 2),
                ElementsAre(frame(Opcode::text, false, {0x61, 0xC3}), frame(Opcode::continuation, true, {0xA9})));
    EXPECT_THROW(MessageFrameWSHandler(std::make_shared<ReadingHandler>(nullptr), 0), std::invalid_argument);
}

// What the peer sends, the one frame it gets back, and the messages the application saw.
TEST(WSMessageExchange, DeliversMessagesBeforeThePeersCloseOrAProtocolErrorAndNothingAfter) {
    const WSFrame late = frame(Opcode::text, true, bytesOf("late"));
    const std::tuple<const char*, std::vector<WSFrame>, WSFrame, std::vector<WSMessage>> cases[] = {
        {"peer's close", {frame(Opcode::binary, true, {9}), frame(Opcode::close, true, {0x03, 0xE8}), late},
         WSFrame::close("Goodbye"), {WSMessage::data({9})}},
        {"broken fragmentation", {frame(Opcode::text, true, bytesOf("ok")), frame(Opcode::text, false, bytesOf("dropped")),
                                  frame(Opcode::text, true, bytesOf("x")), late}, protocolError, {WSMessage::text("ok")}},
        {"text not UTF-8", {frame(Opcode::text, true, bytesOf("ok")), frame(Opcode::text, true, {0xC3, 0x28}), late},
         protocolError, {WSMessage::text("ok")}},
        {"unknown opcode", {frame(static_cast<Opcode>(0x3), true), late}, protocolError, {}},
    };
    for (const auto& [name, incoming, reply, received] : cases) {
        SCOPED_TRACE(name);
        // The messages the application saw are ready once they end.
        auto done = std::make_shared<std::promise<std::vector<WSMessage>>>();
        auto app = std::make_shared<ReadingHandler>([done](WSIncomingMessages in) { return record(std::move(in), done); });
        EXPECT_THAT(run(app, incoming), ElementsAre(reply));
        EXPECT_EQ(done->get_future().get(), received);
    }
}

async::Task<std::optional<WSFrame>> nextOf(WSOutgoingFrames* frames) { co_return co_await frames->next(); }

TEST(WSOutgoingFrameStream, AnErrorEndsWithOneProtocolErrorCloseAfterTheReadyFrames) {
    auto [frames, producer] = WSOutgoingFrames::make();
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
        auto [frames, producer] = WSOutgoingFrames::make();
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
        auto [frames, producer] = WSOutgoingFrames::make();
        producer.onTermination([&] { ++terminations; });
    }
    EXPECT_EQ(terminations.load(), 2);
}

TEST(WSOutgoingFrameStream, ABacklogPastItsBudgetDropsWhatIsQueuedAndEndsWithClientTooSlow) {
    const WSFrame tooSlow = WSFrame::close(1008, "Client too slow");
    auto [frames, producer] = WSOutgoingFrames::make(1000);  // a 100-byte payload takes 102 bytes
    std::vector<std::size_t> overflows;
    frames.onOverflow([&](std::size_t budget) { overflows.push_back(budget); });
    for (int i = 0; i < 9; ++i) producer.yield(frame(Opcode::binary, true, Bytes(100)));
    ASSERT_TRUE(frames.tryNext());
    ASSERT_TRUE(frames.tryNext());
    frames.written(102);  // one of the two taken is written: 816 bytes count
    producer.yield(frame(Opcode::binary, true, Bytes(100)));
    producer.yield(frame(Opcode::binary, true, Bytes(80)));  // 1000: at the budget
    EXPECT_TRUE(overflows.empty());
    producer.setMaxBacklog(1002);
    producer.yield(frame(Opcode::pong, true, Bytes(1)));  // pongs count too: 1003
    EXPECT_THAT(overflows, ElementsAre(1002));
    producer.yield(frame(Opcode::binary, true, Bytes(1)));  // after the end: dropped
    EXPECT_EQ(async::syncWait(nextOf(&frames)), tooSlow);
    EXPECT_FALSE(async::syncWait(nextOf(&frames)));
}

// Sends bursts of messages until the connection stops taking them, pausing between bursts so
// that it shares its thread.
async::Task<void> chatter(WSOutgoingMessages::Continuation out, std::shared_ptr<std::atomic<bool>> over) {
    while (!over->load()) {
        for (int i = 0; i < 16; ++i) out.yield(WSMessage::data({1}));
        co_await async::sleep(std::chrono::microseconds(20));
    }
}

class ChattyHandler final : public WSMessageHandler {
public:
    async::Task<WSOutgoingMessages> makeMessages(WSIncomingMessages) override {
        auto [out, producer] = WSOutgoingMessages::make();
        auto over = std::make_shared<std::atomic<bool>>(false);
        producer.onTermination([over](async::Termination) { *over = true; });
        (void)async::spawn(chatter(producer, over));
        co_return std::move(out);
    }
};

TEST(WSMessageExchange, NothingFollowsTheCloseReplyEvenWhileTheApplicationSends) {
    for (int round = 0; round < 1000; ++round) {
        auto out = run(std::make_shared<ChattyHandler>(), {frame(Opcode::close, true, {0x03, 0xE8})});
        ASSERT_FALSE(out.empty());
        ASSERT_EQ(out.back(), WSFrame::close("Goodbye")) << "round " << round << ", " << out.size() << " frames";
    }
}

// Hands out `count` binary frames of 1 MiB, then the peer's close; notes how many messages the
// application had read when each frame was taken, and opens `gate` once 17 are taken.
class MegabyteFrames final : public WSIncomingFrames {
public:
    MegabyteFrames(std::size_t count, async::AsyncStream<int>::Continuation gate) : count_(count), gate_(gate) {}
    async::Task<std::optional<WSFrame>> next() override {
        if (taken.size() == count_) co_return frame(Opcode::close, true);
        taken.push_back(read->load());
        if (taken.size() == 17) gate_.finish();
        co_return frame(Opcode::binary, true, Bytes(1024 * 1024));
    }
    std::shared_ptr<std::atomic<std::size_t>> read = std::make_shared<std::atomic<std::size_t>>(0);
    std::vector<std::size_t> taken;  // looked at once the frames have ended

private:
    std::size_t count_;
    async::AsyncStream<int>::Continuation gate_;
};

async::Task<void> readLate(WSIncomingMessages incoming, async::AsyncStream<int> gate,
                           std::shared_ptr<std::atomic<std::size_t>> read) {
    while (auto opened = co_await gate.next()) {
    }
    while (auto message = co_await incoming.next()) ++*read;
}

TEST(WSMessageExchange, TheReaderWaitsWhileTheApplicationHasMoreThan16MiBUnread) {
    auto [gate, opener] = async::AsyncStream<int>::make();
    auto frames = std::make_shared<MegabyteFrames>(40, opener);
    // The application reads nothing until the gate opens, then everything.
    auto lateReader = std::make_shared<ReadingHandler>([gate = std::make_shared<async::AsyncStream<int>>(std::move(gate)),
                                                        read = frames->read](WSIncomingMessages messages) {
        return readLate(std::move(messages), std::move(*gate), read);
    });
    MessageFrameWSHandler handler(lateReader, 16384);
    EXPECT_THAT(async::syncWait(collect(&handler, frames)), ElementsAre(WSFrame::close("Goodbye")));
    ASSERT_EQ(frames->taken.size(), 40u);
    // Frame k is taken only once no more than 16 MiB of the k before it are unread (one more
    // may be on its way to the application, taken but not yet counted).
    for (std::size_t k = 0; k < frames->taken.size(); ++k) EXPECT_GE(frames->taken[k] + 17, k) << "frame " << k;
}

}  // namespace
}  // namespace orvel::http
