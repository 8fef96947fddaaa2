#pragma once
#include "async/Error.h"
#include "async/Task.h"
#include "http/HTTPRequest.h"
#include "http/detail/ConnectionReader.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

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
class RequestBodySource;
}

// Reads one request from a connection: the request line, the header block and the framing of a
// Content-Length body. Lines are parsed in place in the connection's buffer; only what the
// request keeps is copied. Chunked request bodies are not decoded (such a request has an empty
// body). Limits against bad input: a line over maxLineBytes or more than maxHeaderLines header
// lines fail like a malformed request, and so does a path that decodes to NUL, CR or LF.
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

    // A declared body up to this size is read before the request is handed on and stays
    // replayable; a larger one is streamed from the connection once.
    std::int64_t sharedRequestReplaySize;

    // One request, remoteAddress absent. SocketError::disconnected when the peer closes before
    // the request is complete; HTTPDecoder::Error "No HTTP Method" for a malformed request line.
    async::Task<HTTPRequest> readRequest(std::shared_ptr<detail::ConnectionReader> reader) const;

    // A streamed body's unread byte count, when `body` is one; else 0.
    static std::int64_t unreadBodyBytes(const HTTPBodySequence& body) noexcept;
    // Reads and drops what the handler left of a streamed body, so that the connection stands
    // at the next request.
    static async::Task<void> discardUnreadBody(HTTPBodySequence body);
};

}  // namespace orvel::http
