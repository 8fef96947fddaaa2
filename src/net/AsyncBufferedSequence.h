#pragma once
#include "async/Task.h"

#include <concepts>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace orvel::net {

using Byte = std::uint8_t;
using Bytes = std::vector<Byte>;

// A pull-based source of bytes that can be read an element or, much more cheaply, a buffer at a
// time. Each call suspends until it has bytes, returns nothing at the end, or raises an error.
// Sockets, memory, files and replay buffers are sources; the HTTP body wraps one. One consumer at a
// time per source. A sequence that can be read more than once hands out a fresh source per pass
// (makeIterator()); a socket is a single pass and is its own source.
class AsyncByteSequence {
public:
    virtual ~AsyncByteSequence() = default;

    // The next byte, or nothing at the end.
    virtual async::Task<std::optional<Byte>> next() = 0;

    // The next run of at most about `suggested` bytes (never empty), or nothing at the end.
    virtual async::Task<std::optional<Bytes>> nextBuffer(std::size_t suggested) = 0;
};

// A byte sequence that can be iterated: every makeIterator() starts a pass of its own.
template <class S>
concept AsyncBufferedSequence = requires(const S& sequence) {
    { sequence.makeIterator() } -> std::derived_from<AsyncByteSequence>;
};

// A replayable sequence whose source may still hold part of it. flush() reads that rest, so the
// source (a connection) stands behind the sequence and can be read by the next consumer.
class Flushable {
public:
    virtual ~Flushable() = default;
    virtual async::Task<void> flush() = 0;
};

}  // namespace orvel::net
