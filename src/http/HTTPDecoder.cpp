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

RequestBodySource::RequestBodySource(std::shared_ptr<ConnectionReader> reader, bool expectsContinue)
    : reader_(std::move(reader)), awaitsContinue_(expectsContinue) {}

async::Task<std::optional<std::string_view>> RequestBodySource::take(std::size_t max) {
    if (error_) std::rethrow_exception(error_);
    std::optional<std::string_view> run;
    try {
        if (awaitsContinue_) {
            // The peer holds the body back until it hears from us.
            awaitsContinue_ = false;
            co_await writeAll(reader_->stream(), "HTTP/1.1 100 Continue\r\n\r\n");
        }
        run = co_await nextRun(std::max<std::size_t>(max, 1));
    } catch (const async::CancellationError&) {
        throw;  // the reader's state is intact: a later read goes on where this one stopped
    } catch (...) {
        error_ = std::current_exception();
        throw;
    }
    co_return run;
}

async::Task<std::optional<HTTPBodySequence::Bytes>> RequestBodySource::nextBuffer(std::size_t suggested) {
    auto run = co_await take(suggested);
    if (!run) co_return std::nullopt;
    auto* first = reinterpret_cast<const std::uint8_t*>(run->data());
    co_return HTTPBodySequence::Bytes(first, first + run->size());
}

async::Task<std::optional<std::uint8_t>> RequestBodySource::next() {
    auto run = co_await take(1);
    if (!run) co_return std::nullopt;
    co_return static_cast<std::uint8_t>(run->front());
}

async::Task<void> RequestBodySource::discard() {
    for (;;) {
        auto run = co_await take(SIZE_MAX);
        if (!run) co_return;
    }
}

async::Task<void> RequestBodySource::writeAll(ByteStream& stream, std::string_view bytes) {
    while (!bytes.empty()) {
        net::Socket::IOResult result = stream.tryWrite(bytes.data(), bytes.size());
        switch (result.status) {
            case net::Socket::IOResult::Status::done: bytes.remove_prefix(result.count); continue;
            case net::Socket::IOResult::Status::blocked: co_await stream.waitUntil(net::Socket::Event::write); continue;
            case net::Socket::IOResult::Status::disconnected: throw net::SocketError::disconnected();
            case net::Socket::IOResult::Status::failed: throw result.error("Write");
        }
    }
}

async::Task<std::string_view> RequestBodySource::available() {
    while (reader_->buffered().empty()) co_await reader_->fill();
    co_return reader_->buffered();
}

namespace {

// A body framed by Content-Length: ends after exactly its count.
class LengthBody final : public RequestBodySource {
public:
    LengthBody(std::shared_ptr<ConnectionReader> reader, bool expectsContinue, std::int64_t count)
        : RequestBodySource(std::move(reader), expectsContinue), remaining_(count) {}
    bool isAtEnd() const noexcept override { return remaining_ == 0; }

private:
    async::Task<std::optional<std::string_view>> nextRun(std::size_t max) override {
        if (remaining_ == 0) co_return std::nullopt;
        std::string_view bytes = co_await available();
        std::size_t n = std::min({bytes.size(), max, static_cast<std::size_t>(remaining_)});
        reader().consume(n);  // the bytes stay where they are until the next read
        remaining_ -= static_cast<std::int64_t>(n);
        if (remaining_ == 0) reader().endPhase();
        co_return bytes.substr(0, n);
    }

    std::int64_t remaining_;
};

// A body in chunked transfer coding (RFC 9112 section 7.1): sizes checked before they can
// overflow, extensions ignored, trailer lines read and dropped.
class ChunkedBody final : public RequestBodySource {
public:
    ChunkedBody(std::shared_ptr<ConnectionReader> reader, bool expectsContinue)
        : RequestBodySource(std::move(reader), expectsContinue) {}
    bool isAtEnd() const noexcept override { return state_ == State::done; }

private:
    enum class State { size, data, dataEnd, trailer, done };

    async::Task<std::string_view> line() {
        std::string_view text;
        for (;;) {
            auto status = reader().takeLine(HTTPDecoder::maxLineBytes, text);
            if (status == ConnectionReader::LineStatus::line) co_return text;
            if (status == ConnectionReader::LineStatus::tooLong) throw HTTPDecoder::Error("Line Too Long");
            co_await reader().fill();
        }
    }

    static std::uint64_t parseSize(std::string_view text) {
        if (!text.empty() && text.back() == '\r') text.remove_suffix(1);
        std::uint64_t size = 0;
        std::size_t digits = 0;
        for (; digits < text.size(); ++digits) {
            int value = detail::hexDigitValue(text[digits]);
            if (value < 0) break;
            if (size > (std::uint64_t(INT64_MAX) >> 4)) throw HTTPDecoder::Error("Invalid Chunk Size");
            size = size << 4 | static_cast<std::uint64_t>(value);
        }
        if (digits == 0) throw HTTPDecoder::Error("Invalid Chunk Size");
        text.remove_prefix(digits);
        while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
        if (!text.empty() && text.front() != ';') throw HTTPDecoder::Error("Invalid Chunk Size");
        return size;
    }

    async::Task<std::optional<std::string_view>> nextRun(std::size_t max) override {
        for (;;) {
            switch (state_) {
                case State::size: {
                    std::string_view text = co_await line();
                    remaining_ = parseSize(text);
                    state_ = remaining_ == 0 ? State::trailer : State::data;
                    continue;
                }
                case State::data: {
                    std::string_view bytes = co_await available();
                    std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>({bytes.size(), max, remaining_}));
                    reader().consume(n);
                    remaining_ -= n;
                    if (remaining_ == 0) state_ = State::dataEnd;
                    co_return bytes.substr(0, n);
                }
                case State::dataEnd: {
                    std::string_view text = co_await line();
                    if (!text.empty() && text != "\r") throw HTTPDecoder::Error("Invalid Chunk");
                    state_ = State::size;
                    continue;
                }
                case State::trailer: {
                    std::string_view text = co_await line();
                    if (text.empty() || text == "\r") {
                        state_ = State::done;
                        reader().endPhase();
                        co_return std::nullopt;
                    }
                    if (++trailerLines_ > HTTPDecoder::maxHeaderLines) throw HTTPDecoder::Error("Too Many Header Lines");
                    continue;
                }
                case State::done: co_return std::nullopt;
            }
        }
    }

    State state_ = State::size;
    std::uint64_t remaining_ = 0;
    std::size_t trailerLines_ = 0;
};

}  // namespace
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

async::Task<HTTPRequest> HTTPDecoder::readRequest(std::shared_ptr<ConnectionReader> reader,
                                                  std::shared_ptr<detail::RequestBodySource>* body) const {
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

    // Header block, up to an empty line (or "\r") or the end of the source: a peer that shuts
    // down its side after its head is answered.
    std::size_t headerLines = 0;
    std::optional<std::string> contentLength;  // a copy: a later read may move the buffer
    std::size_t transferEncodings = 0;
    request.headers.reserve(16, std::min<std::size_t>(in.buffered().size(), 4096));
    for (bool sourceEnded = false; !sourceEnded;) {
        auto status = in.takeLine(maxLineBytes, line);
        if (status == ConnectionReader::LineStatus::tooLong) failTooLong();
        if (status == ConnectionReader::LineStatus::needMore) {
            try {
                if (!in.tryFill()) co_await in.waitUntilReadable();
                continue;
            } catch (const net::SocketError& error) {
                if (error.kind() != net::SocketError::Kind::disconnected) throw;
            }
            in.noteEnd();
            sourceEnded = true;
            line = in.buffered();  // an unended last line still counts
            in.consume(line.size());
        }
        if (line.empty() || line == "\r") break;
        if (++headerLines > maxHeaderLines) throw Error("Too Many Header Lines");
        requireText(line);
        // Split once at ":"; a line without a name or without anything after the colon is
        // skipped, while a value of blanks or a lone "\r" is kept as "".
        auto field = detail::splitOmittingEmpty<1>(line, ':');
        if (field.count < 2) continue;
        std::string_view name = detail::trimSpaceAndNewlines(field.pieces[0]);
        std::string_view value = detail::trimSpaceAndNewlines(field.pieces[1]);
        if (detail::equalsIgnoringCase(name, HTTPHeader::contentLength.rawValue)) {
            if (contentLength && *contentLength != value) throw Error("Conflicting Content-Length");
            contentLength = value;
        }
        if (detail::equalsIgnoringCase(name, HTTPHeader::transferEncoding.rawValue)) ++transferEncodings;
        request.headers.set(name, value);
    }

    if (transferEncodings > 0) {
        if (contentLength) throw Error("Transfer-Encoding With Content-Length");
        if (transferEncodings > 1 || !detail::equalsIgnoringCase(*request.headers.value(HTTPHeader::transferEncoding), "chunked")) {
            throw Error("Unsupported Transfer-Encoding");
        }
    }
    // The peer holds the body back until we ask for it; HTTP/1.0 peers never do.
    const auto expect = request.headers.value("Expect");
    const bool expectsContinue = request.version == HTTPVersion::http11 && expect && detail::equalsIgnoringCase(*expect, "100-continue");
    if (transferEncodings > 0) {
        auto source = std::make_shared<detail::ChunkedBody>(reader, expectsContinue);
        in.beginBody();
        request.bodySequence = HTTPBodySequence::ofUnknownLength(source);
        if (body) *body = std::move(source);
        co_return request;
    }

    std::optional<std::int64_t> length;
    if (auto value = request.headers.value(HTTPHeader::contentLength)) length = parseContentLength(*value);
    if (!length || *length <= 0) {
        in.endPhase();
        co_return request;
    }
    if (in.buffered().size() >= static_cast<std::size_t>(*length)) {
        // It came with the head (the usual small body): no stream, nothing left to drain.
        request.bodySequence = HTTPBodySequence(std::string(in.buffered().substr(0, static_cast<std::size_t>(*length))));
        in.consume(static_cast<std::size_t>(*length));
        in.endPhase();
        co_return request;
    }
    in.beginBody();
    auto source = std::make_shared<detail::LengthBody>(reader, expectsContinue, *length);
    if (*length <= sharedRequestReplaySize) {
        request.bodySequence = HTTPBodySequence::shared(source, *length);
    } else {
        request.bodySequence = HTTPBodySequence(source, *length);
    }
    if (body) *body = std::move(source);
    co_return request;
}

}  // namespace orvel::http
