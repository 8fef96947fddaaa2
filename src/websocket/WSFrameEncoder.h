#pragma once
#include "async/Error.h"
#include "async/Task.h"
#include "websocket/WSFrame.h"
#include "http/detail/ConnectionReader.h"

#include <array>
#include <cstddef>
#include <cstdint>
#include <limits>
#include <span>
#include <string>
#include <variant>
#include <vector>

namespace orvel::http {

// The RFC 6455 wire format of one frame, both ways. Encoding cannot fail; decoding checks only
// what it needs to read the frame (fragmentation and control-frame rules are WSFrameValidator's).
// Stateless: any thread may use it.
class WSFrameEncoder {
public:
    class Error final : public async::Error {
    public:
        explicit Error(std::string text) : async::Error(std::move(text)) {}
        const std::string& errorDescription() const noexcept { return description(); }
        static Error lengthTooLarge() { return Error("Length is greater than Int.max"); }
    };

    // First byte, length bytes (1, 3 or 9) and the key when masked.
    static constexpr std::size_t maxHeaderSize = 2 + 8 + 4;
    using HeaderBytes = std::array<std::uint8_t, maxHeaderSize>;

    // Writes the header of `frame` into `out` and returns how many bytes it took.
    static std::size_t encodeHeader(const WSFrame& frame, HeaderBytes& out) noexcept;

    // Appends the whole wire frame to `out`; one allocation at most, so a reused buffer makes
    // writing a frame allocation-free.
    static void encode(const WSFrame& frame, std::vector<std::uint8_t>& out);
    static std::vector<std::uint8_t> encode(const WSFrame& frame);

    // XORs `bytes` with the key, `offset` being the position of bytes[0] within the payload.
    static void applyMask(std::span<std::uint8_t> bytes, WSFrame::Mask mask, std::size_t offset = 0) noexcept;

    // Everything of a frame but its payload, as read from the wire.
    struct Header {
        bool fin = false;
        bool rsv1 = false;
        bool rsv2 = false;
        bool rsv3 = false;
        WSFrame::Opcode opcode = WSFrame::Opcode::continuation;
        std::optional<WSFrame::Mask> mask = std::nullopt;
        std::uint64_t payloadLength = 0;  // at most INT64_MAX
        std::size_t size = 0;             // header bytes on the wire
    };
    // The header bytes seen so far are not enough: at least this many bytes are needed in all.
    struct NeedBytes {
        std::size_t total;
    };

    // Parses the header at the start of `bytes`. Running short is an expected outcome and
    // returned; a 64-bit length with the top bit set throws Error before any payload is read.
    static std::variant<Header, NeedBytes> parseHeader(std::span<const std::uint8_t> bytes);

    // Whether a frame must arrive masked: a server requires it of every client frame (RFC 6455
    // section 5.1).
    enum class Masking { optional, required };

    // Reads exactly one frame from a connection's bytes and returns it unmasked, without its
    // key. Throws SocketError::disconnected when the bytes end inside the frame, Error for a
    // length with the top bit set, WSFrameValidator::Error "Message Too Large" for a payload
    // over maxPayloadLength and "Unmasked Frame" for an unmasked frame when a mask is required,
    // all before any payload is read. The payload buffer grows with the bytes that arrive, not
    // with the length a peer announces.
    static async::Task<WSFrame> decode(detail::ConnectionReader& reader,
                                       std::uint64_t maxPayloadLength = std::numeric_limits<std::uint64_t>::max(),
                                       Masking masking = Masking::optional);
};

}  // namespace orvel::http
