#include "http/detail/ConnectionReader.h"

#include "async/Cancellation.h"
#include "net/SocketError.h"

#include <cstring>

namespace orvel::http::detail {

ConnectionReader::ConnectionReader(std::shared_ptr<ByteStream> stream)
    : stream_(std::move(stream)), buffer_(new char[2 * readSize]), capacity_(2 * readSize) {}

void ConnectionReader::consume(std::size_t count) noexcept {
    begin_ += count;
    scanned_ = scanned_ > count ? scanned_ - count : 0;
    if (begin_ == end_) begin_ = end_ = scanned_ = 0;
}

ConnectionReader::LineStatus ConnectionReader::takeLine(std::size_t maxLength, std::string_view& line) noexcept {
    const char* start = buffer_.get() + begin_;
    std::size_t available = end_ - begin_;
    const void* newline = std::memchr(start + scanned_, '\n', available - scanned_);
    if (newline == nullptr) {
        scanned_ = available;
        // Room for a "\r" that may still precede the "\n".
        return available > maxLength + 1 ? LineStatus::tooLong : LineStatus::needMore;
    }
    std::size_t length = static_cast<std::size_t>(static_cast<const char*>(newline) - start);
    line = std::string_view(start, length);
    std::size_t counted = length > 0 && start[length - 1] == '\r' ? length - 1 : length;
    if (counted > maxLength) return LineStatus::tooLong;
    consume(length + 1);
    return LineStatus::line;
}

bool ConnectionReader::tryFill() {
    async::checkCancellation();
    if (capacity_ - end_ < readSize) {
        std::size_t pending = end_ - begin_;
        if (begin_ > 0) {
            std::memmove(buffer_.get(), buffer_.get() + begin_, pending);
            begin_ = 0;
            end_ = pending;
        }
        if (capacity_ - end_ < readSize) {
            // Only a long line grows the buffer, and takeLine bounds lines.
            std::size_t capacity = capacity_ * 2;
            std::unique_ptr<char[]> grown(new char[capacity]);
            std::memcpy(grown.get(), buffer_.get(), pending);
            buffer_ = std::move(grown);
            capacity_ = capacity;
        }
    }
    net::Socket::IOResult result = stream_->tryRead(buffer_.get() + end_, readSize);
    switch (result.status) {
        case net::Socket::IOResult::Status::done:
            end_ += result.count;
            bytesArrived();
            return true;
        case net::Socket::IOResult::Status::blocked: return false;
        case net::Socket::IOResult::Status::disconnected:
            ended_ = true;
            throw net::SocketError::disconnected();
        case net::Socket::IOResult::Status::failed: break;
    }
    throw result.error("Read");
}

void ConnectionReader::startClock(Limits limits) noexcept {
    limits_ = limits;
    setPhase(Phase::head);
}

void ConnectionReader::beginRequest() noexcept {
    if (!limits_) return;
    // The first head's clock has run since connecting.
    if (std::exchange(firstRequest_, false)) return;
    setPhase(begin_ == end_ ? Phase::idle : Phase::head);
}

ConnectionReader::Clock::duration ConnectionReader::limit(Phase phase) const noexcept {
    if (!limits_) return Clock::duration::max();
    switch (phase) {
        case Phase::idle: return limits_->idle;
        case Phase::head: return limits_->head;
        case Phase::body: return limits_->body;
        case Phase::none: break;
    }
    return Clock::duration::max();
}

void ConnectionReader::setPhase(Phase phase) noexcept {
    if (!limits_) return;
    Clock::time_point deadline = Clock::time_point::max();
    if (phase != Phase::none) deadline = Clock::now() + limit(phase);
    deadline_.store(deadline.time_since_epoch().count(), std::memory_order_release);
    phase_.store(phase, std::memory_order_release);
}

void ConnectionReader::bytesArrived() noexcept {
    switch (phase_.load(std::memory_order_relaxed)) {
        case Phase::idle: setPhase(Phase::head); break;
        case Phase::body: setPhase(Phase::body); break;
        case Phase::head:
        case Phase::none: break;
    }
}

async::Task<void> ConnectionReader::fill() {
    try {
        while (!tryFill()) co_await waitUntilReadable();
    } catch (const net::SocketError& error) {
        if (error.kind() == net::SocketError::Kind::disconnected) noteEnd();
        throw;
    }
}

}  // namespace orvel::http::detail
