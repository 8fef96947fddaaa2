#include "net/AsyncBufferedCollection.h"

#include <algorithm>
#include <utility>

namespace orvel::net {

namespace {
std::span<const Byte> bytesOf(std::string_view text) noexcept {
    return {reinterpret_cast<const Byte*>(text.data()), text.size()};
}
}  // namespace

AsyncBufferedCollection::AsyncBufferedCollection(Bytes bytes)
    : AsyncBufferedCollection(std::make_shared<const Bytes>(std::move(bytes))) {}

AsyncBufferedCollection::AsyncBufferedCollection(std::shared_ptr<const Bytes> bytes) noexcept
    : AsyncBufferedCollection(bytes, std::span<const Byte>(*bytes)) {}

AsyncBufferedCollection::AsyncBufferedCollection(std::shared_ptr<const std::string> bytes) noexcept
    : AsyncBufferedCollection(bytes, bytesOf(*bytes)) {}

AsyncBufferedCollection AsyncBufferedCollection::view(std::span<const Byte> bytes) noexcept {
    return AsyncBufferedCollection(nullptr, bytes);
}

AsyncBufferedCollection AsyncBufferedCollection::view(std::string_view bytes) noexcept {
    return AsyncBufferedCollection(nullptr, bytesOf(bytes));
}

async::Task<std::optional<Byte>> AsyncBufferedCollection::Iterator::next() {
    if (index_ == bytes_.size()) co_return std::nullopt;
    co_return bytes_[index_++];
}

async::Task<std::optional<Bytes>> AsyncBufferedCollection::Iterator::nextBuffer(std::size_t suggested) {
    if (index_ == bytes_.size()) co_return std::nullopt;
    const auto run = bytes_.subspan(index_, std::min(std::max<std::size_t>(suggested, 1), bytes_.size() - index_));
    index_ += run.size();
    co_return Bytes(run.begin(), run.end());
}

}  // namespace orvel::net
