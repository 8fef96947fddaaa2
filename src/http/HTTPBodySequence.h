#pragma once
#include "async/Task.h"
#include "net/AsyncBufferedSequence.h"

#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace orvel::http {

// The body of a request or response: a sequence of byte buffers of at most bufferSize bytes,
// with an optional known count. Copies share the source. A body made from bytes in memory, a
// file or a shared replay buffer is replayable: every iteration yields all bytes from the first;
// a body over a Source is one pass.
class HTTPBodySequence {
public:
    using Bytes = net::Bytes;
    static constexpr std::size_t defaultBufferSize = 4096;

    // A buffered asynchronous byte source, read once, buffer by buffer.
    using Source = net::AsyncByteSequence;

    // An empty body (count 0, replayable); costs no allocation.
    HTTPBodySequence() = default;
    explicit HTTPBodySequence(std::string bytes, std::size_t bufferSize = defaultBufferSize);
    explicit HTTPBodySequence(const Bytes& bytes, std::size_t bufferSize = defaultBufferSize);
    explicit HTTPBodySequence(std::shared_ptr<const std::string> bytes, std::size_t bufferSize = defaultBufferSize);
    // A source whose length is known: not replayable.
    HTTPBodySequence(std::shared_ptr<Source> source, std::int64_t count, std::size_t bufferSize = defaultBufferSize);
    // A source whose length is known, read once through a shared replay buffer limited to count
    // bytes: replayable, and its flusher reads what no reader took, so the source then stands
    // behind the body.
    static HTTPBodySequence shared(std::shared_ptr<Source> source, std::int64_t count,
                                   std::size_t bufferSize = defaultBufferSize);
    // The file at url, opened afresh by each iteration; its size is read now. Raises the file
    // sequence's FileSizeError or FileError when it cannot be.
    static HTTPBodySequence file(const std::filesystem::path& url, std::size_t bufferSize = defaultBufferSize);
    // A source of unknown length whose buffers are the body as they stand (a decoded chunked
    // request body). To send one in a response, wrap its source with chunked().
    static HTTPBodySequence ofUnknownLength(std::shared_ptr<Source> source, std::size_t bufferSize = defaultBufferSize);
    // A source of unknown length, sent with chunked transfer coding: its buffers come out framed.
    static HTTPBodySequence chunked(std::shared_ptr<Source> source, std::size_t bufferSize = defaultBufferSize);

    std::optional<std::int64_t> count() const noexcept { return count_; }
    std::size_t bufferSize() const noexcept { return bufferSize_; }
    bool canReplay() const noexcept { return source_ == nullptr; }
    // The source of a one-pass body, else null.
    const std::shared_ptr<Source>& source() const noexcept { return source_; }
    // What brings a shared body's source to its end, else null.
    std::shared_ptr<net::Flushable> flusher() const noexcept;

    // The whole body when it sits in memory, else absent: lets the writer send small bodies
    // together with the header block.
    std::optional<std::string_view> bytesInMemory() const noexcept;

    class Iterator;
    Iterator makeIterator() const;

    // Every byte of the body, in order.
    async::Task<Bytes> collect() const;

    // Hands out one pass over a replayable body that is not in memory.
    class Passes {
    public:
        virtual ~Passes() = default;
        virtual std::shared_ptr<Source> makePass() const = 0;
    };

private:
    std::shared_ptr<const std::string> bytes_;
    std::shared_ptr<Source> source_;
    std::shared_ptr<const Passes> passes_;
    std::optional<std::int64_t> count_ = 0;
    std::size_t bufferSize_ = defaultBufferSize;
};

class HTTPBodySequence::Iterator {
public:
    // The next buffer of at most bufferSize bytes, or nothing at the end.
    async::Task<std::optional<Bytes>> next();

private:
    friend class HTTPBodySequence;
    explicit Iterator(const HTTPBodySequence& body) : body_(body) {}
    HTTPBodySequence body_;
    std::shared_ptr<Source> pass_;  // of a replayable body not in memory, made on the first pull
    std::size_t index_ = 0;
    bool isComplete_ = false;
};

inline HTTPBodySequence::Iterator HTTPBodySequence::makeIterator() const { return Iterator(*this); }

// Chunked transfer coding (RFC 9112 section 7.1) over a source of unknown length: each buffer
// becomes "<size in hex, at least two digits>\r\n<bytes>\r\n", and the end "0\r\n\r\n".
class HTTPChunkedTransferEncoder final : public HTTPBodySequence::Source {
public:
    explicit HTTPChunkedTransferEncoder(std::shared_ptr<HTTPBodySequence::Source> bytes) : bytes_(std::move(bytes)) {}
    async::Task<std::optional<HTTPBodySequence::Bytes>> nextBuffer(std::size_t suggested) override;
    // Chunk framing is per buffer: asking for single bytes is a programming error.
    async::Task<std::optional<std::uint8_t>> next() override;

private:
    std::shared_ptr<HTTPBodySequence::Source> bytes_;
    bool isComplete_ = false;
};

}  // namespace orvel::http
