#include "http/HTTPDecoder.h"

#include "http/detail/Ascii.h"
#include "http/detail/URLComponents.h"
#include "http/detail/UTF8.h"
#include "net/SocketError.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace orvel::http {
namespace detail {

// A body larger than the replay size, read straight from the connection and ending after exactly
// its declared count. The connection reads no further request while bytes of it are unread.
class RequestBodySource final : public HTTPBodySequence::Source {
public:
    RequestBodySource(std::shared_ptr<ConnectionReader> reader, std::int64_t count)
        : reader_(std::move(reader)), remaining_(count) {}

    std::int64_t remaining() const noexcept { return remaining_; }

    async::Task<void> discard() {
        while (remaining_ > 0) {
            if (reader_->buffered().empty()) co_await reader_->fill();
            std::size_t n = std::min(reader_->buffered().size(), static_cast<std::size_t>(remaining_));
            reader_->consume(n);
            remaining_ -= static_cast<std::int64_t>(n);
        }
        reader_->endPhase();
    }

    async::Task<std::optional<std::uint8_t>> next() override {
        auto buffer = co_await nextBuffer(1);
        if (!buffer) co_return std::nullopt;
        co_return buffer->front();
    }

    async::Task<std::optional<HTTPBodySequence::Bytes>> nextBuffer(std::size_t suggested) override {
        if (remaining_ <= 0) co_return std::nullopt;
        while (reader_->buffered().empty()) co_await reader_->fill();
        std::string_view bytes = reader_->buffered();
        std::size_t n = std::min({bytes.size(), std::max<std::size_t>(suggested, 1),
                                  static_cast<std::size_t>(remaining_)});
        auto* first = reinterpret_cast<const std::uint8_t*>(bytes.data());
        HTTPBodySequence::Bytes buffer(first, first + n);
        reader_->consume(n);
        remaining_ -= static_cast<std::int64_t>(n);
        if (remaining_ == 0) reader_->endPhase();
        co_return buffer;
    }

private:
    std::shared_ptr<ConnectionReader> reader_;
    std::int64_t remaining_;
};

}  // namespace detail

namespace {

using detail::ConnectionReader;

// An optional sign and decimal digits within the signed 64-bit range.
std::optional<std::int64_t> parseContentLength(std::string_view text) {
    bool negative = false;
    if (!text.empty() && (text.front() == '+' || text.front() == '-')) {
        negative = text.front() == '-';
        text.remove_prefix(1);
    }
    if (text.empty() || text.front() < '0' || text.front() > '9') return std::nullopt;
    std::uint64_t magnitude = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), magnitude);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    if (negative) {
        if (magnitude > std::uint64_t(INT64_MAX) + 1) return std::nullopt;
        return magnitude == 0 ? 0 : -static_cast<std::int64_t>(magnitude - 1) - 1;
    }
    if (magnitude > std::uint64_t(INT64_MAX)) return std::nullopt;
    return static_cast<std::int64_t>(magnitude);
}

[[noreturn]] void failTooLong() { throw HTTPDecoder::Error("Line Too Long"); }

void requireText(std::string_view line) {
    if (!detail::isValidUTF8(line)) throw AsyncSequenceError("Invalid String Conversion");
}

}  // namespace

std::int64_t HTTPDecoder::unreadBodyBytes(const HTTPBodySequence& body) noexcept {
    auto* source = dynamic_cast<const detail::RequestBodySource*>(body.source().get());
    return source ? source->remaining() : 0;
}

async::Task<void> HTTPDecoder::discardUnreadBody(HTTPBodySequence body) {
    if (auto* source = dynamic_cast<detail::RequestBodySource*>(body.source().get())) co_await source->discard();
}

async::Task<HTTPRequest> HTTPDecoder::readRequest(std::shared_ptr<ConnectionReader> reader) const {
    ConnectionReader& in = *reader;
    std::string_view line;

    in.beginRequest();
    // Request line. Nothing at all before the end of the stream means the sequence has ended.
    try {
        if (in.takeIdleExpectation()) co_await in.waitUntilReadable();
    } catch (const net::SocketError& error) {
        if (error.kind() == net::SocketError::Kind::disconnected) throw SequenceTerminationError();
        throw;
    }
    for (;;) {
        auto status = in.takeLine(maxLineBytes, line);
        if (status == ConnectionReader::LineStatus::line) break;
        if (status == ConnectionReader::LineStatus::tooLong) failTooLong();
        try {
            if (!in.tryFill()) co_await in.waitUntilReadable();
        } catch (const net::SocketError& error) {
            if (error.kind() == net::SocketError::Kind::disconnected && in.buffered().empty()) {
                throw SequenceTerminationError();
            }
            throw;
        }
    }
    requireText(line);
    auto pieces = detail::splitOmittingEmpty<2>(detail::trimSpaceAndNewlines(line), ' ');
    if (pieces.count != 3) throw Error("No HTTP Method");

    std::string path;
    std::vector<HTTPRequest::QueryItem> query;
    // A path that decodes to a control byte could split a log line or a header it is copied to.
    if (!detail::parseURLReference(pieces.pieces[1], path, query)) throw Error("Invalid Path");
    HTTPRequest request(HTTPMethod(pieces.pieces[0]), HTTPVersion(pieces.pieces[2]), std::move(path),
                        std::move(query), HTTPHeaders(), HTTPBodySequence());

    // Header block, up to an empty line (or "\r").
    std::size_t headerLines = 0;
    request.headers.reserve(16, std::min<std::size_t>(in.buffered().size(), 4096));
    for (;;) {
        auto status = in.takeLine(maxLineBytes, line);
        if (status == ConnectionReader::LineStatus::tooLong) failTooLong();
        if (status == ConnectionReader::LineStatus::needMore) {
            if (!in.tryFill()) co_await in.waitUntilReadable();
            continue;
        }
        if (line.empty() || line == "\r") break;
        if (++headerLines > maxHeaderLines) throw Error("Too Many Header Lines");
        requireText(line);
        // Split once at ":"; a line without a name or without anything after the colon is
        // skipped, while a value of blanks or a lone "\r" is kept as "".
        auto field = detail::splitOmittingEmpty<1>(line, ':');
        if (field.count < 2) continue;
        request.headers.set(detail::trimSpaceAndNewlines(field.pieces[0]), detail::trimSpaceAndNewlines(field.pieces[1]));
    }

    // Body, framed by Content-Length only.
    std::optional<std::int64_t> length;
    if (auto value = request.headers.value(HTTPHeader::contentLength)) length = parseContentLength(*value);
    if (!length || *length <= 0) {
        in.endPhase();
        co_return request;
    }
    in.beginBody();
    if (*length <= sharedRequestReplaySize) {
        // Read whole before the handler runs: the body is replayable and nothing of it is left
        // on the connection when the response goes out.
        std::string body;
        body.reserve(static_cast<std::size_t>(*length));
        while (body.size() < static_cast<std::size_t>(*length)) {
            std::string_view bytes = in.buffered();
            if (bytes.empty()) {
                if (!in.tryFill()) co_await in.waitUntilReadable();
                continue;
            }
            std::size_t n = std::min(bytes.size(), static_cast<std::size_t>(*length) - body.size());
            body.append(bytes.data(), n);
            in.consume(n);
        }
        in.endPhase();
        request.bodySequence = HTTPBodySequence(std::move(body));
        co_return request;
    }
    request.bodySequence = HTTPBodySequence(std::make_shared<detail::RequestBodySource>(reader, *length), *length);
    co_return request;
}

}  // namespace orvel::http
