#pragma once
#include "http/HTTPTestSupport.h"
#include "websocket/WSFrameEncoder.h"

#include <optional>
#include <span>
#include <string>
#include <variant>
#include <vector>

// Helpers shared by the WebSocket tests.
namespace orvel::http {

inline WSFrame frame(WSFrame::Opcode opcode, bool fin, Bytes payload = {}) {
    return WSFrame{.fin = fin, .opcode = opcode, .payload = std::move(payload)};
}

// A loopback client that, after an upgrade, speaks WebSocket frames.
class WSLoopbackClient : public LoopbackClient {
public:
    using LoopbackClient::LoopbackClient;
    using LoopbackClient::send;

    // A client's frames are masked.
    void sendFrame(WSFrame frame) {
        frame.mask = WSFrame::Mask{0x12, 0x34, 0x56, 0x78};
        send(WSFrameEncoder::encode(frame));
    }

    // Sends an opening handshake for the RFC 6455 sample key; the response's header block.
    std::string handshake() {
        send("GET /chat HTTP/1.1\r\nHost: 127.0.0.1\r\nUpgrade: websocket\r\nConnection: keep-alive, Upgrade\r\n"
             "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
        return response();
    }

    // The next frame, or nothing once the server has closed the connection.
    std::optional<WSFrame> readFrame() {
        for (;;) {
            auto bytes = std::span(reinterpret_cast<const std::uint8_t*>(buffer_.data()), buffer_.size());
            auto parsed = WSFrameEncoder::parseHeader(bytes);
            auto* header = std::get_if<WSFrameEncoder::Header>(&parsed);
            if (header && bytes.size() >= header->size + header->payloadLength) {
                WSFrame frame{.fin = header->fin, .rsv1 = header->rsv1, .rsv2 = header->rsv2, .rsv3 = header->rsv3,
                              .opcode = header->opcode, .mask = header->mask};
                auto payload = bytes.subspan(header->size, header->payloadLength);
                frame.payload.assign(payload.begin(), payload.end());
                buffer_.erase(0, header->size + header->payloadLength);
                return frame;
            }
            if (!fill()) {
                EXPECT_TRUE(buffer_.empty()) << "connection closed inside a frame";
                return std::nullopt;
            }
        }
    }
    std::vector<WSFrame> readUntilClosed() {
        std::vector<WSFrame> frames;
        while (auto frame = readFrame()) frames.push_back(std::move(*frame));
        return frames;
    }
};

}  // namespace orvel::http
