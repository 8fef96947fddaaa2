#pragma once
#include "net/AsyncBufferedSequence.h"

#include <cstddef>
#include <memory>
#include <optional>

namespace orvel::net {

// A byte sequence that several readers may read, each from the first byte: whichever reader is
// ahead pulls the base, every byte is kept, and readers behind read the kept bytes. However many
// readers wait, one request to the base is in flight. Used for request bodies that more than one
// handler may read; memory grows with the body, so the HTTP layer bounds it with its replay size.
//
// With a count, the base is read for exactly that many bytes and never beyond (a connection's
// next request follows the body). A base that ends short raises SocketError::disconnected: at
// the moment the end arrives to every waiting reader, and after the kept bytes to every later one.
// Copies share the buffer; the sequence and its iterators may be used from any task.
class AsyncSharedReplaySequence final : public Flushable {
public:
    class SharedBuffer;
    class Iterator;

    static constexpr std::size_t flushChunkSize = 4096;

    explicit AsyncSharedReplaySequence(std::shared_ptr<AsyncByteSequence> base,
                                       std::optional<std::size_t> count = std::nullopt);

    Iterator makeIterator() const;

    // Without a count, does nothing. With one, pulls the base in runs of flushChunkSize until it
    // has delivered count bytes; raises the base's error, SocketError::disconnected when it ends
    // short, and CancellationError when the calling task is cancelled before that.
    async::Task<void> flush() override;

private:
    std::shared_ptr<SharedBuffer> buffer_;
};

// One reader: starts at the first byte and ends when the buffer reports the end. A reader whose
// task is cancelled while it waits for the base sees the end.
class AsyncSharedReplaySequence::Iterator final : public AsyncByteSequence {
public:
    // Single bytes come from a block taken from the buffer, not one buffer request per byte.
    static constexpr std::size_t blockSize = 4096;

    async::Task<std::optional<Byte>> next() override;
    // A suggestion of 0 counts as 1.
    async::Task<std::optional<Bytes>> nextBuffer(std::size_t suggested) override;

private:
    friend class AsyncSharedReplaySequence;
    explicit Iterator(std::shared_ptr<SharedBuffer> buffer) noexcept : buffer_(std::move(buffer)) {}

    std::shared_ptr<SharedBuffer> buffer_;
    std::size_t index_ = 0;  // of the next byte to ask the buffer for
    bool isEnded_ = false;
    Bytes block_;            // taken by next() and not yet delivered
    std::size_t blockIndex_ = 0;
};

}  // namespace orvel::net
