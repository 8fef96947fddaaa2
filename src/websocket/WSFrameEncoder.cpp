#include "websocket/WSFrameEncoder.h"

#include "async/Cancellation.h"
#include "websocket/WSFrameValidator.h"
#include "net/SocketError.h"

#include <algorithm>
#include <cstring>
#include <limits>

namespace orvel::http {

std::size_t WSFrameEncoder::encodeHeader(const WSFrame& frame, HeaderBytes& out) noexcept {
    out[0] = static_cast<std::uint8_t>((frame.fin ? 0x80 : 0) | (frame.rsv1 ? 0x40 : 0) | (frame.rsv2 ? 0x20 : 0) |
                                       (frame.rsv3 ? 0x10 : 0) | (rawValue(frame.opcode) & 0x0F));
    const std::uint8_t masked = frame.mask ? 0x80 : 0;
    const std::uint64_t length = frame.payload.size();
    std::size_t n = 1;
    if (length <= 125) {
        out[n++] = masked | static_cast<std::uint8_t>(length);
    } else if (length <= 0xFFFF) {
        out[n++] = masked | 126;
        out[n++] = static_cast<std::uint8_t>(length >> 8);
        out[n++] = static_cast<std::uint8_t>(length);
    } else {
        out[n++] = masked | 127;
        for (int shift = 56; shift >= 0; shift -= 8) out[n++] = static_cast<std::uint8_t>(length >> shift);
    }
    if (frame.mask) {
        out[n++] = frame.mask->m1;
        out[n++] = frame.mask->m2;
        out[n++] = frame.mask->m3;
        out[n++] = frame.mask->m4;
    }
    return n;
}

void WSFrameEncoder::encode(const WSFrame& frame, std::vector<std::uint8_t>& out) {
    HeaderBytes header;
    const std::size_t headerSize = encodeHeader(frame, header);
    const std::size_t start = out.size();
    // Appended rather than resized and copied over: no zero-filling of bytes about to be written,
    // and the vector keeps growing geometrically when frames are batched into it.
    out.insert(out.end(), header.begin(), header.begin() + static_cast<std::ptrdiff_t>(headerSize));
    out.insert(out.end(), frame.payload.begin(), frame.payload.end());
    if (frame.mask) {
        applyMask(std::span(out).subspan(start + headerSize), *frame.mask);
    }
}

std::vector<std::uint8_t> WSFrameEncoder::encode(const WSFrame& frame) {
    std::vector<std::uint8_t> out;
    encode(frame, out);
    return out;
}

void WSFrameEncoder::applyMask(std::span<std::uint8_t> bytes, WSFrame::Mask mask, std::size_t offset) noexcept {
    const std::uint8_t key[4] = {mask.m1, mask.m2, mask.m3, mask.m4};
    std::size_t i = 0;
    // Eight bytes at a time: the key repeated and rotated to the payload position, applied
    // with memcpy so unaligned buffers are fine (compiles to plain loads and stores).
    std::uint8_t wide[8];
    for (std::size_t k = 0; k < 8; ++k) wide[k] = key[(offset + k) % 4];
    std::uint64_t wideKey;
    std::memcpy(&wideKey, wide, 8);
    for (; i + 8 <= bytes.size(); i += 8) {
        std::uint64_t word;
        std::memcpy(&word, bytes.data() + i, 8);
        word ^= wideKey;
        std::memcpy(bytes.data() + i, &word, 8);
    }
    for (; i < bytes.size(); ++i) bytes[i] ^= key[(offset + i) % 4];
}

std::variant<WSFrameEncoder::Header, WSFrameEncoder::NeedBytes> WSFrameEncoder::parseHeader(
    std::span<const std::uint8_t> bytes) {
    if (bytes.size() < 2) return NeedBytes{2};
    Header header;
    const std::uint8_t b0 = bytes[0];
    const std::uint8_t b1 = bytes[1];
    header.fin = (b0 & 0x80) != 0;
    header.rsv1 = (b0 & 0x40) != 0;
    header.rsv2 = (b0 & 0x20) != 0;
    header.rsv3 = (b0 & 0x10) != 0;
    header.opcode = static_cast<WSFrame::Opcode>(b0 & 0x0F);
    const bool masked = (b1 & 0x80) != 0;
    const std::uint8_t n = b1 & 0x7F;

    // Short lengths in the long forms are accepted: nothing here enforces minimal encoding.
    std::size_t pos = 2;
    if (n <= 125) {
        header.payloadLength = n;
    } else if (n == 126) {
        if (bytes.size() < 4) return NeedBytes{4};
        header.payloadLength = std::uint64_t{bytes[2]} << 8 | bytes[3];
        pos = 4;
    } else {
        if (bytes.size() < 10) return NeedBytes{10};
        std::uint64_t length = 0;
        for (std::size_t k = 2; k < 10; ++k) length = length << 8 | bytes[k];
        if (length > static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max())) {
            throw Error::lengthTooLarge();
        }
        header.payloadLength = length;
        pos = 10;
    }
    if (masked) {
        if (bytes.size() < pos + 4) return NeedBytes{pos + 4};
        header.mask = WSFrame::Mask{bytes[pos], bytes[pos + 1], bytes[pos + 2], bytes[pos + 3]};
        pos += 4;
    }
    header.size = pos;
    return header;
}

namespace {

// The payload buffer grows by at least this much (or doubles) as bytes arrive.
constexpr std::size_t payloadGrowth = 64 * 1024;

}  // namespace

async::Task<WSFrame> WSFrameEncoder::decode(detail::ConnectionReader& reader, std::uint64_t maxPayloadLength,
                                            Masking masking) {
    Header header;
    for (;;) {
        std::string_view buffered = reader.buffered();
        auto parsed = parseHeader({reinterpret_cast<const std::uint8_t*>(buffered.data()), buffered.size()});
        if (auto* complete = std::get_if<Header>(&parsed)) {
            header = *complete;
            reader.consume(header.size);
            break;
        }
        co_await reader.fill();
    }
    if (header.payloadLength > maxPayloadLength) throw WSFrameValidator::Error::messageTooLarge();
    if (!header.mask && masking == Masking::required) throw WSFrameValidator::Error::unmaskedFrame();

    WSFrame frame{.fin = header.fin, .rsv1 = header.rsv1, .rsv2 = header.rsv2, .rsv3 = header.rsv3,
                  .opcode = header.opcode};
    // Fits in size_t: at most INT64_MAX after parseHeader, and a 64-bit size_t.
    const auto length = static_cast<std::size_t>(header.payloadLength);
    auto& payload = frame.payload;

    // What the reader already holds comes first; the rest is read straight into the payload,
    // exactly up to its end, so no byte of the next frame is taken.
    std::string_view buffered = reader.buffered();
    std::size_t have = std::min(buffered.size(), length);
    payload.resize(std::max(have, std::min(length, payloadGrowth)));
    if (have > 0) std::memcpy(payload.data(), buffered.data(), have);
    reader.consume(have);

    while (have < length) {
        if (have == payload.size()) payload.resize(std::min(length, have + std::max(have, payloadGrowth)));
        async::checkCancellation();
        net::Socket::IOResult result = reader.stream().tryRead(payload.data() + have, payload.size() - have);
        switch (result.status) {
            case net::Socket::IOResult::Status::done: have += result.count; break;
            case net::Socket::IOResult::Status::blocked: co_await reader.waitUntilReadable(); break;
            case net::Socket::IOResult::Status::disconnected: throw net::SocketError::disconnected();
            case net::Socket::IOResult::Status::failed: throw result.error("Read");
        }
    }
    if (header.mask) applyMask(payload, *header.mask);
    co_return frame;
}

}  // namespace orvel::http
