#pragma once
#include "net/AsyncBufferedSequence.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace orvel::net {

// Bytes in memory as a buffered sequence: every iterator walks them from the first byte and
// hands out runs of at most the suggested size. Owned bytes are shared, never copied, by the
// sequence and its iterators; a view borrows bytes whose owner keeps them alive for all of them.
class AsyncBufferedCollection {
public:
    class Iterator;

    explicit AsyncBufferedCollection(Bytes bytes);
    explicit AsyncBufferedCollection(std::shared_ptr<const Bytes> bytes) noexcept;
    explicit AsyncBufferedCollection(std::shared_ptr<const std::string> bytes) noexcept;
    // Borrowed bytes: the caller guarantees they outlive the sequence and every iterator.
    static AsyncBufferedCollection view(std::span<const Byte> bytes) noexcept;
    static AsyncBufferedCollection view(std::string_view bytes) noexcept;

    std::size_t count() const noexcept { return bytes_.size(); }
    Iterator makeIterator() const noexcept;

private:
    AsyncBufferedCollection(std::shared_ptr<const void> owner, std::span<const Byte> bytes) noexcept
        : owner_(std::move(owner)), bytes_(bytes) {}

    std::shared_ptr<const void> owner_;  // null for a view
    std::span<const Byte> bytes_;
};

// One pass over the collection. Copies go on independently from the same position.
class AsyncBufferedCollection::Iterator final : public AsyncByteSequence {
public:
    async::Task<std::optional<Byte>> next() override;
    // A suggestion of 0 counts as 1, so a run is never empty.
    async::Task<std::optional<Bytes>> nextBuffer(std::size_t suggested) override;

    // What this pass has not delivered yet, without copying.
    std::span<const Byte> remaining() const noexcept { return bytes_.subspan(index_); }

private:
    friend class AsyncBufferedCollection;
    Iterator(std::shared_ptr<const void> owner, std::span<const Byte> bytes) noexcept
        : owner_(std::move(owner)), bytes_(bytes) {}

    std::shared_ptr<const void> owner_;
    std::span<const Byte> bytes_;
    std::size_t index_ = 0;
};

inline AsyncBufferedCollection::Iterator AsyncBufferedCollection::makeIterator() const noexcept {
    return Iterator(owner_, bytes_);
}

}  // namespace orvel::net
