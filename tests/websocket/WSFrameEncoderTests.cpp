#include "websocket/WSFrameEncoder.h"

#include "WSTestSupport.h"
#include "async/Spawn.h"
#include "net/SocketError.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <memory>
#include <string>
#include <vector>

namespace orvel::http {
namespace {

using Opcode = WSFrame::Opcode;
using Header = WSFrameEncoder::Header;
using ::testing::ElementsAre;

const WSFrame::Mask helloMask{0x37, 0xFA, 0x21, 0x3D};
const Bytes maskedHello{0x81, 0x85, 0x37, 0xFA, 0x21, 0x3D, 0x7F, 0x9F, 0x4D, 0x51, 0x58};
constexpr std::uint64_t noLimit = std::numeric_limits<std::uint64_t>::max();

TEST(WSFrameEncoding, ProducesTheKnownByteVectorsAndTheLengthFormThePayloadSizeNeeds) {
    EXPECT_THAT(WSFrameEncoder::encode(frame(Opcode::text, true, {0x48, 0x69})), ElementsAre(0x81, 0x02, 0x48, 0x69));
    WSFrame hello = frame(Opcode::text, true, bytesOf("Hello"));
    hello.mask = helloMask;
    EXPECT_EQ(WSFrameEncoder::encode(hello), maskedHello);
    EXPECT_THAT(WSFrameEncoder::encode(WSFrame::close()), ElementsAre(0x88, 0x02, 0x03, 0xE8));
    // Flags, and only the low four bits of the opcode.
    WSFrame flags{.fin = false, .rsv1 = true, .rsv2 = false, .rsv3 = true, .opcode = static_cast<Opcode>(0xF3)};
    EXPECT_EQ(WSFrameEncoder::encode(flags)[0], 0x53);
    Bytes out{0xEE};
    WSFrameEncoder::encode(frame(Opcode::text, true, {0x21}), out);
    EXPECT_THAT(out, ElementsAre(0xEE, 0x81, 0x01, 0x21));

    // Each length form at its bounds, lengths big-endian; a mask sets the high bit and adds its key.
    const std::pair<std::size_t, Bytes> heads[] = {{0, {0x82, 0}}, {125, {0x82, 125}}, {126, {0x82, 126, 0, 126}},
                                                   {65535, {0x82, 126, 0xFF, 0xFF}}, {65536, {0x82, 127, 0, 0, 0, 0, 0, 1, 0, 0}}};
    for (const auto& [length, head] : heads) {
        for (bool masked : {false, true}) {
            WSFrame f = frame(Opcode::binary, true, Bytes(length, 0xAB));
            Bytes expected = head;
            if (masked) {
                f.mask = WSFrame::Mask{1, 2, 3, 4};
                expected[1] |= 0x80;
                expected.insert(expected.end(), {1, 2, 3, 4});
            }
            auto bytes = WSFrameEncoder::encode(f);
            ASSERT_EQ(bytes.size(), expected.size() + length) << length;
            EXPECT_EQ(Bytes(bytes.begin(), bytes.begin() + expected.size()), expected) << length << " masked " << masked;
            auto header = std::get<Header>(WSFrameEncoder::parseHeader(bytes));
            EXPECT_EQ(header.payloadLength, length);
            EXPECT_EQ(header.size, expected.size());
        }
    }
}

TEST(WSFrameHeaderParsing, AcceptsShortLengthsInTheLongForms) {
    EXPECT_EQ(std::get<Header>(WSFrameEncoder::parseHeader(Bytes{0x82, 0x7E, 0x00, 0x05})).payloadLength, 5u);
    EXPECT_EQ(std::get<Header>(WSFrameEncoder::parseHeader(Bytes{0x82, 0x7F, 0, 0, 0, 0, 0, 0, 0, 5})).payloadLength, 5u);
}

// `bytes` as the peer sends them: `first` bytes, then pieces of at most `chunk` bytes.
std::vector<std::string> sent(const Bytes& bytes, std::size_t first, std::size_t chunk = SIZE_MAX) {
    std::vector<std::string> pieces{std::string(bytes.begin(), bytes.begin() + first)};
    for (std::size_t at = first, n; at < bytes.size(); at += n) {
        n = std::min(chunk, bytes.size() - at);
        pieces.emplace_back(bytes.begin() + at, bytes.begin() + at + n);
    }
    return pieces;
}

struct Source {
    std::shared_ptr<PiecesStream> stream;
    detail::ConnectionReader reader;
    explicit Source(std::vector<std::string> pieces) : stream(std::make_shared<PiecesStream>(std::move(pieces))), reader(stream) {}
};

async::Task<std::vector<WSFrame>> decodeFrames(detail::ConnectionReader& reader, std::size_t count, std::uint64_t limit) {
    std::vector<WSFrame> frames;
    for (std::size_t i = 0; i < count; ++i) frames.push_back(co_await WSFrameEncoder::decode(reader, limit));
    co_return frames;
}

std::vector<WSFrame> decode(std::vector<std::string> pieces, std::size_t count = 1, std::uint64_t limit = noLimit) {
    Source source(std::move(pieces));
    return async::syncWait(decodeFrames(source.reader, count, limit));
}

// How decoding one frame fails, caught inside the task so the error never crosses threads.
async::Task<std::string> failureIn(Bytes bytes, std::uint64_t limit) {
    Source source(sent(bytes, bytes.size()));
    try {
        (void)co_await WSFrameEncoder::decode(source.reader, limit);
        co_return "no failure";
    } catch (const net::SocketError& error) {
        co_return error.kind() == net::SocketError::Kind::disconnected ? "disconnected" : error.description();
    } catch (const async::Error& error) {
        co_return error.description();
    }
}

std::string failureOf(Bytes bytes, std::uint64_t limit = noLimit) { return async::syncWait(failureIn(std::move(bytes), limit)); }

TEST(WSFrameDecoding, UnmasksAndTakesNothingOfTheNextFrameAtEverySplit) {
    Bytes bytes = maskedHello;
    Bytes second = WSFrameEncoder::encode(frame(Opcode::binary, true, Bytes(300, 9)));
    bytes.insert(bytes.end(), second.begin(), second.end());
    bytes.push_back(0x89);  // the first byte of a third frame
    for (std::size_t first = 0; first <= bytes.size(); ++first) {
        Source source(sent(bytes, first, first == 0 ? 1 : SIZE_MAX));  // cut in two, or byte by byte
        auto frames = async::syncWait(decodeFrames(source.reader, 2, noLimit));
        EXPECT_THAT(frames, ElementsAre(frame(Opcode::text, true, bytesOf("Hello")), frame(Opcode::binary, true, Bytes(300, 9))));
        // The byte behind the second frame is still there for the next read.
        const bool leftInBuffer = source.reader.buffered() == std::string_view("\x89", 1);
        const bool notReadYet = source.stream->handedOut == bytes.size() - 1;
        EXPECT_TRUE(leftInBuffer || notReadYet);
    }
}

TEST(WSFrameDecoding, EncodedFramesDecodeToThemselvesWithoutTheirMaskInAnyChunking) {
    Bytes large(200000);
    for (std::size_t i = 0; i < large.size(); ++i) large[i] = static_cast<std::uint8_t>(i * 13 + i / 256);
    std::vector<WSFrame> frames = {
        WSFrame{.fin = false, .opcode = Opcode::text, .payload = {'a'}},
        WSFrame{.rsv1 = true, .opcode = Opcode::ping, .mask = WSFrame::Mask{1, 2, 3, 4}, .payload = {}},
        WSFrame{.rsv2 = true, .rsv3 = true, .opcode = static_cast<Opcode>(0x3)},  // passed on unchecked
        WSFrame{.opcode = Opcode::binary, .mask = WSFrame::Mask{5, 6, 7, 8}, .payload = Bytes(126, 1)},
        WSFrame{.opcode = Opcode::binary, .payload = Bytes(65535, 2)},
        WSFrame{.opcode = Opcode::binary, .mask = WSFrame::Mask{0xA1, 0xB2, 0xC3, 0xD4}, .payload = large},
        WSFrame::close("Goodbye"),
    };
    Bytes bytes;
    for (const auto& f : frames) WSFrameEncoder::encode(f, bytes);
    for (auto& f : frames) f.mask.reset();
    for (std::size_t chunk : {1u, 7u, 4096u, 65537u, 400000u}) {
        EXPECT_EQ(decode(sent(bytes, 0, chunk), frames.size()), frames) << "chunk " << chunk;
    }
}

TEST(WSFrameDecoding, FailsOnTruncatedBytesAndOnLengthsBeforeReadingThePayload) {
    // After the first byte, inside the length, inside the key, inside the payload.
    const Bytes longForm{0x82, 0xFE, 0x00, 0x03, 1, 2, 3, 4, 0xAA, 0xBB, 0xCC};
    for (std::size_t cut : {0u, 1u, 3u, 6u, 9u}) {
        EXPECT_EQ(failureOf(Bytes(longForm.begin(), longForm.begin() + cut)), "disconnected") << "cut at " << cut;
    }
    // No payload follows these headers: reading one would end in a disconnection instead.
    EXPECT_EQ(failureOf(Bytes{0x82, 0x7F, 0x80, 0, 0, 0, 0, 0, 0, 0}), "Length is greater than Int.max");
    EXPECT_EQ(failureOf(Bytes{0x82, 0x06}, 5), "Message Too Large");
    EXPECT_EQ(decode({"\x82\x05\x01\x02\x03\x04\x05"}, 1, 5)[0].payload, (Bytes{1, 2, 3, 4, 5}));
    // The largest length is accepted, and costs nothing until its bytes arrive.
    EXPECT_EQ(failureOf(Bytes{0x82, 0x7F, 0x7F, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 1, 2, 3}), "disconnected");
}

}  // namespace
}  // namespace orvel::http
