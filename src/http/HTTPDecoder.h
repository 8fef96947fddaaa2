#pragma once
#include "async/Error.h"
#include "async/Task.h"
#include "http/HTTPRequest.h"
#include "http/detail/ConnectionReader.h"

#include <cstddef>
#include <cstdint>
#include <exception>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace orvel::http {

// Raised when a source ended where an element was required (the peer closed between requests).
class SequenceTerminationError final : public async::Error {
public:
    SequenceTerminationError() : Error("Sequence Terminated") {}
};

// Raised when bytes of a request line or header line are not UTF-8.
class AsyncSequenceError final : public async::Error {
public:
    explicit AsyncSequenceError(std::string description) : Error(std::move(description)) {}
};

namespace detail {

// A request body read straight from the connection, behind its head. Reads go through take(), which
// answers "Expect: 100-continue" before the first one and keeps the first failure: a body whose
// framing broke fails every later read too, so the connection is never read past it.
class RequestBodySource : public HTTPBodySequence::Source {
public:
    async::Task<std::optional<HTTPBodySequence::Bytes>> nextBuffer(std::size_t suggested) override;
    async::Task<std::optional<std::uint8_t>> next() override;

    // All of the body has been read.
    virtual bool isAtEnd() const noexcept = 0;
    // The peer waits for "100 Continue" before it sends the body, and nothing asked for it yet.
    bool awaitsContinue() const noexcept { return awaitsContinue_; }
    // Reads and drops the rest of the body.
    async::Task<void> discard();

protected:
    RequestBodySource(std::shared_ptr<ConnectionReader> reader, bool expectsContinue);
    ConnectionReader& reader() noexcept { return *reader_; }
    // Buffered bytes, reading when there are none.
    async::Task<std::string_view> available();
    // The next run of at most max body bytes, consumed from the reader (the view is valid until its
    // next read), or nothing at the end.
    virtual async::Task<std::optional<std::string_view>> nextRun(std::size_t max) = 0;

private:
    async::Task<std::optional<std::string_view>> take(std::size_t max);
    static async::Task<void> writeAll(ByteStream& stream, std::string_view bytes);

    std::shared_ptr<ConnectionReader> reader_;
    bool awaitsContinue_;
    std::exception_ptr error_;
};

}  // namespace detail

// Reads one request from a connection: the request line, the header block and the body's framing.
// Lines are parsed in place in the connection's buffer; only what the request keeps is copied.
// The request is handed on as soon as its head is read; the body streams from the connection.
// Framing that two parties could read two ways fails like a malformed request: Transfer-Encoding
// with Content-Length, a coding other than chunked alone, two different Content-Length values.
// Limits against bad input: a line over maxLineBytes or more than maxHeaderLines header (or
// trailer) lines fail like a malformed request, and so does a path that decodes to NUL, CR or LF.
class HTTPDecoder {
public:
    class Error final : public async::Error {
    public:
        explicit Error(std::string description) : async::Error(std::move(description)) {}
    };

    static constexpr std::size_t maxLineBytes = 16 * 1024;  // before the line's CR LF
    static constexpr std::size_t maxHeaderLines = 100;
    static constexpr std::int64_t defaultSharedRequestReplaySize = 2 * 1024 * 1024;

    explicit HTTPDecoder(std::int64_t sharedRequestReplaySize = defaultSharedRequestReplaySize)
        : sharedRequestReplaySize(sharedRequestReplaySize) {}

    // A declared body up to this size streams through a shared replay buffer and stays
    // replayable; a larger one, or a chunked one, is streamed from the connection once.
    std::int64_t sharedRequestReplaySize;

    // One request, remoteAddress absent. SocketError::disconnected when the peer closes before
    // the request head is complete (the end of the source after the request line ends the header
    // block); HTTPDecoder::Error "No HTTP Method" for a malformed request line. `body`, when
    // given, receives the source of a body still on the connection, which the connection must
    // read to its end before the next request.
    async::Task<HTTPRequest> readRequest(std::shared_ptr<detail::ConnectionReader> reader,
                                         std::shared_ptr<detail::RequestBodySource>* body = nullptr) const;
};

}  // namespace orvel::http
