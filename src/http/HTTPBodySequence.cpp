#include "http/HTTPBodySequence.h"

#include "net/AsyncBufferedFileSequence.h"
#include "net/AsyncSharedReplaySequence.h"

#include <algorithm>
#include <cassert>
#include <cstdlib>
#include <cstdio>
#include <utility>

namespace orvel::http {

using Bytes = HTTPBodySequence::Bytes;

HTTPBodySequence::HTTPBodySequence(std::string bytes, std::size_t bufferSize)
    : HTTPBodySequence(bytes.empty() ? nullptr : std::make_shared<const std::string>(std::move(bytes)), bufferSize) {}

HTTPBodySequence::HTTPBodySequence(const Bytes& bytes, std::size_t bufferSize)
    : HTTPBodySequence(std::string(bytes.begin(), bytes.end()), bufferSize) {}

HTTPBodySequence::HTTPBodySequence(std::shared_ptr<const std::string> bytes, std::size_t bufferSize)
    : bytes_(std::move(bytes)),
      count_(bytes_ ? static_cast<std::int64_t>(bytes_->size()) : 0),
      bufferSize_(bufferSize) {}

HTTPBodySequence::HTTPBodySequence(std::shared_ptr<Source> source, std::int64_t count, std::size_t bufferSize)
    : source_(std::move(source)), count_(count), bufferSize_(bufferSize) {}

namespace {

class SharedPasses final : public HTTPBodySequence::Passes {
public:
    SharedPasses(std::shared_ptr<HTTPBodySequence::Source> source, std::int64_t count)
        : sequence_(std::make_shared<net::AsyncSharedReplaySequence>(std::move(source), static_cast<std::size_t>(count))) {}
    std::shared_ptr<HTTPBodySequence::Source> makePass() const override {
        return std::make_shared<net::AsyncSharedReplaySequence::Iterator>(sequence_->makeIterator());
    }
    const std::shared_ptr<net::AsyncSharedReplaySequence>& sequence() const noexcept { return sequence_; }

private:
    std::shared_ptr<net::AsyncSharedReplaySequence> sequence_;
};

class FilePasses final : public HTTPBodySequence::Passes {
public:
    explicit FilePasses(const std::filesystem::path& url) : sequence_(url) {}
    std::shared_ptr<HTTPBodySequence::Source> makePass() const override {
        return std::make_shared<net::AsyncBufferedFileSequence::Iterator>(sequence_.makeIterator());
    }

private:
    net::AsyncBufferedFileSequence sequence_;
};

}  // namespace

HTTPBodySequence HTTPBodySequence::shared(std::shared_ptr<Source> source, std::int64_t count, std::size_t bufferSize) {
    HTTPBodySequence body;
    body.passes_ = std::make_shared<SharedPasses>(std::move(source), std::max<std::int64_t>(count, 0));
    body.count_ = count;
    body.bufferSize_ = bufferSize;
    return body;
}

HTTPBodySequence HTTPBodySequence::file(const std::filesystem::path& url, std::size_t bufferSize) {
    HTTPBodySequence body;
    body.count_ = net::AsyncBufferedFileSequence::fileSize(url);
    body.passes_ = std::make_shared<FilePasses>(url);
    body.bufferSize_ = bufferSize;
    return body;
}

std::shared_ptr<net::Flushable> HTTPBodySequence::flusher() const noexcept {
    auto* shared = dynamic_cast<const SharedPasses*>(passes_.get());
    return shared ? shared->sequence() : nullptr;
}

HTTPBodySequence HTTPBodySequence::ofUnknownLength(std::shared_ptr<Source> source, std::size_t bufferSize) {
    HTTPBodySequence body(std::move(source), 0, bufferSize);
    body.count_.reset();
    return body;
}

HTTPBodySequence HTTPBodySequence::chunked(std::shared_ptr<Source> source, std::size_t bufferSize) {
    return ofUnknownLength(std::make_shared<HTTPChunkedTransferEncoder>(std::move(source)), bufferSize);
}

std::optional<std::string_view> HTTPBodySequence::bytesInMemory() const noexcept {
    if (source_ || passes_) return std::nullopt;
    if (bytes_) return std::string_view(*bytes_);
    return std::string_view();
}

async::Task<std::optional<Bytes>> HTTPBodySequence::Iterator::next() {
    if (isComplete_) co_return std::nullopt;
    if (auto memory = body_.bytesInMemory()) {
        if (index_ >= memory->size()) {
            isComplete_ = true;
            co_return std::nullopt;
        }
        std::size_t n = std::min(body_.bufferSize_, memory->size() - index_);
        auto* first = reinterpret_cast<const std::uint8_t*>(memory->data()) + index_;
        index_ += n;
        co_return Bytes(first, first + n);
    }
    if (!pass_) pass_ = body_.passes_ ? body_.passes_->makePass() : body_.source_;
    auto buffer = co_await pass_->nextBuffer(body_.bufferSize_);
    if (!buffer) {
        isComplete_ = true;
        pass_.reset();  // a file pass closes its descriptor
    }
    co_return buffer;
}

namespace {
// Takes the body by value: the task may outlive the object it was asked of.
async::Task<Bytes> collectBody(HTTPBodySequence body) {
    if (auto memory = body.bytesInMemory()) {
        auto* first = reinterpret_cast<const std::uint8_t*>(memory->data());
        co_return Bytes(first, first + memory->size());
    }
    Bytes all;
    if (auto count = body.count(); count && *count > 0) {
        all.reserve(static_cast<std::size_t>(std::min<std::int64_t>(*count, 1 << 24)));
    }
    auto iterator = body.makeIterator();
    while (auto buffer = co_await iterator.next()) all.insert(all.end(), buffer->begin(), buffer->end());
    co_return all;
}
}  // namespace

async::Task<Bytes> HTTPBodySequence::collect() const { return collectBody(*this); }

async::Task<std::optional<Bytes>> HTTPChunkedTransferEncoder::nextBuffer(std::size_t suggested) {
    if (isComplete_) co_return std::nullopt;
    auto buffer = co_await bytes_->nextBuffer(suggested);
    if (!buffer) {
        isComplete_ = true;
        co_return Bytes{'0', '\r', '\n', '\r', '\n'};
    }
    char size[24];
    int length = std::snprintf(size, sizeof size, "%02zX\r\n", buffer->size());
    Bytes framed;
    framed.reserve(static_cast<std::size_t>(length) + buffer->size() + 2);
    framed.insert(framed.end(), size, size + length);
    framed.insert(framed.end(), buffer->begin(), buffer->end());
    framed.push_back('\r');
    framed.push_back('\n');
    co_return framed;
}

}  // namespace orvel::http

namespace orvel::http {

async::Task<std::optional<std::uint8_t>> HTTPChunkedTransferEncoder::next() {
    assert(false && "call nextBuffer(suggested:)");
    std::abort();
    co_return std::nullopt;
}

}  // namespace orvel::http
