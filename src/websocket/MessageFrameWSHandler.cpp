#include "websocket/MessageFrameWSHandler.h"

#include "async/Cancellation.h"
#include "async/Spawn.h"
#include "async/TaskGroup.h"
#include "websocket/WSFrameValidator.h"
#include "http/detail/UTF8.h"

#include <algorithm>
#include <cassert>
#include <exception>
#include <stdexcept>
#include <string_view>
#include <utility>

namespace orvel::http {

namespace {

using Opcode = WSFrame::Opcode;
using FrameOut = WSOutgoingFrames::Continuation;
using MessageIn = WSIncomingMessages::Continuation;

// Cuts a message into frames as MessageFrameWSHandler::frames says, handing each to `emit`.
template <class Emit>
void forEachFrame(WSMessage message, std::size_t frameSize, Emit&& emit) {
    const Opcode first = message.isText() ? Opcode::text : Opcode::binary;
    auto payload = std::move(message).takeBytes();
    if (payload.size() <= frameSize) {
        // The common case costs no copy: the message's bytes become the frame's payload.
        emit(WSFrame{.fin = true, .opcode = first, .payload = std::move(payload)});
        return;
    }
    for (std::size_t at = 0; at < payload.size(); at += frameSize) {
        const std::size_t end = std::min(payload.size(), at + frameSize);
        emit(WSFrame{.fin = end == payload.size(),
                     .opcode = at == 0 ? first : Opcode::continuation,
                     .payload = std::vector<std::uint8_t>(payload.begin() + static_cast<std::ptrdiff_t>(at),
                                                          payload.begin() + static_cast<std::ptrdiff_t>(end))});
    }
}

// Takes the validated incoming frames of one connection until they end, a rule is broken or the
// peer closes, and says how the outgoing frames end.
async::Task<void> readFrames(std::shared_ptr<WSIncomingFrames> incoming, MessageIn messages, FrameOut frames) {
    using FrameError = MessageFrameWSHandler::FrameError;
    WSFrameValidator::Validator validator;
    std::exception_ptr failure;
    bool peerClosed = false;
    try {
        while (auto frame = co_await incoming->next()) {
            auto complete = validator.validate(std::move(*frame));
            if (!complete) continue;
            switch (complete->opcode) {
                case Opcode::text: {
                    std::string_view text(reinterpret_cast<const char*>(complete->payload.data()),
                                          complete->payload.size());
                    if (!detail::isValidUTF8(text)) throw FrameError::invalid("Invalid UTF8 Sequence");
                    messages.yield(WSMessage::text(std::string(text)));
                    co_await messages.waitUntilBufferedAtMost(MessageFrameWSHandler::maxUnreadIncoming);
                    break;
                }
                case Opcode::binary:
                    messages.yield(WSMessage::data(std::move(complete->payload)));
                    co_await messages.waitUntilBufferedAtMost(MessageFrameWSHandler::maxUnreadIncoming);
                    break;
                case Opcode::ping:
                    complete->opcode = Opcode::pong;
                    frames.yield(std::move(*complete));
                    break;
                case Opcode::pong:
                    break;
                case Opcode::close:
                    throw FrameError::closed();
                default:
                    throw FrameError::invalid("Unexpected Frame");
            }
        }
    } catch (const FrameError& error) {
        if (error.kind() == FrameError::Kind::closed) peerClosed = true;
        else failure = std::current_exception();
    } catch (...) {
        failure = std::current_exception();
    }
    // Decided before anything below can end the application's messages: ending them ends the
    // writer, and the producer then cancels this reader.
    const bool cancelled = async::isCancelled();
    // The close goes last in one step: the writer may be yielding data at this very moment.
    if (peerClosed) {
        frames.yieldLast(WSFrame::close("Goodbye"));
    } else if (cancelled) {
        // Cancelled because the application's messages ended (or nobody reads the frames any
        // more, when this goes nowhere): a normal closure, whatever the interrupted read raised.
        frames.yieldLast(WSFrame::close());
    } else if (failure) {
        frames.finish(failure);
    } else {
        frames.finish();
    }
    // The application learns that the client is gone instead of waiting for cancellation.
    messages.finish();
}

// Turns the application's messages into frames until they end. Ends the frames itself only with
// the application's close.
async::Task<void> writeMessages(WSOutgoingMessages outgoing, FrameOut frames, std::size_t frameSize) {
    // A cancelled writer stops even when messages keep coming and it never has to wait for one.
    while (!async::isCancelled()) {
        auto message = co_await outgoing.next();
        if (!message) break;
        if (message->isClose()) {
            frames.yieldLast(WSFrame::close(message->closeValue().code, message->closeValue().reason));
            break;
        }
        forEachFrame(std::move(*message), frameSize, [&](WSFrame frame) { frames.yield(std::move(frame)); });
    }
}

// One per connection: reader and writer side by side; the first to end stops the other.
async::Task<void> produceFrames(std::shared_ptr<WSIncomingFrames> incoming, MessageIn messages,
                                WSOutgoingMessages outgoing, FrameOut frames, std::size_t frameSize) {
    async::TaskGroup<void> group;
    group.add(readFrames(std::move(incoming), std::move(messages), frames));
    group.add(writeMessages(std::move(outgoing), frames, frameSize));
    (void)co_await group.nextResult();
    group.cancelAll();
    (void)co_await group.nextResult();
}

}  // namespace

MessageFrameWSHandler::MessageFrameWSHandler(std::shared_ptr<WSMessageHandler> handler, std::int64_t frameSize,
                                             std::size_t maxSendBacklog)
    : handler(std::move(handler)), frameSize(frameSize), maxSendBacklog(maxSendBacklog) {
    // A frame size of 0 would cut a message into infinitely many empty frames.
    if (frameSize < 1) throw std::invalid_argument("MessageFrameWSHandler: frameSize must be at least 1");
    assert(this->handler);
}

async::Task<WSOutgoingFrames> MessageFrameWSHandler::makeFrames(std::shared_ptr<WSIncomingFrames> incoming) {
    auto [incomingMessages, messageProducer] =
        WSIncomingMessages::make([](const WSMessage& message) { return message.bytes().size(); });
    auto [frames, frameProducer] = WSOutgoingFrames::make(maxSendBacklog);
    // Named before the co_await: g++ 12 destroys a lambda written inside one twice.
    WSMessageHandler::SetSendBudget setSendBudget = [budget = frameProducer](std::size_t bytes) {
        budget.setMaxBacklog(bytes);
    };
    auto outgoingMessages = co_await handler->makeMessages(std::move(incomingMessages), std::move(setSendBudget));

    auto producer = async::spawn(produceFrames(std::move(incoming), std::move(messageProducer),
                                               std::move(outgoingMessages), frameProducer,
                                               static_cast<std::size_t>(frameSize)));
    // Whoever stops reading the frames (the end was reached, or the connection went away) stops
    // the reader and the writer.
    frameProducer.onTermination([producer] { producer.cancel(); });
    co_return std::move(frames);
}

std::vector<WSFrame> MessageFrameWSHandler::frames(WSMessage message, std::size_t frameSize) {
    assert(frameSize >= 1);
    std::vector<WSFrame> result;
    forEachFrame(std::move(message), frameSize, [&](WSFrame frame) { result.push_back(std::move(frame)); });
    return result;
}

}  // namespace orvel::http
