#pragma once
#include "http/detail/ConnectionReader.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace orvel::fuzz {

// A peer that sends the fuzzer's input in pieces whose sizes come from the input itself, with
// "would block" between pieces, and then goes away. Writes are swallowed.
class InputStream final : public http::detail::ByteStream {
public:
    InputStream(const std::uint8_t* data, std::size_t size) : data_(data), size_(size) {}

    net::Socket::IOResult tryRead(void* into, std::size_t length) noexcept override {
        if ((blockNext_ = !blockNext_)) return {net::Socket::IOResult::Status::blocked, 0, 0};
        if (at_ == size_) return {net::Socket::IOResult::Status::disconnected, 0, 0};
        // Piece sizes 1..64 taken from the bytes themselves: varied splits, reproducible runs.
        std::size_t piece = 1 + (data_[at_] & 63);
        std::size_t n = std::min({length, piece, size_ - at_});
        std::memcpy(into, data_ + at_, n);
        at_ += n;
        return {net::Socket::IOResult::Status::done, n, 0};
    }
    net::Socket::IOResult tryWrite(const void*, std::size_t length) noexcept override {
        return {net::Socket::IOResult::Status::done, length, 0};
    }
    async::Task<void> waitUntil(net::Socket::Event) override { co_return; }
    void close() noexcept override {}

private:
    const std::uint8_t* data_;
    std::size_t size_;
    std::size_t at_ = 0;
    bool blockNext_ = false;
};

}  // namespace orvel::fuzz
