// A WebSocket server that streams 9600-byte binary messages (100 ms of 48 kHz 16-bit mono), the
// subject of bench/ws.sh. Every request is a WebSocket handshake; the client then sends text:
//   "burst N"  N messages at once (a client that asks for more as it reads sets the pace)
//   "pace R"   R messages a second until the client goes
// Usage: ws_stream_server --port N
#include "ExampleServer.h"
#include "async/Cancellation.h"
#include "async/Sleep.h"
#include "async/Spawn.h"
#include "http/HTTPServer.h"
#include "websocket/WebSocketHTTPHandler.h"
#include "net/Logging.h"
#include "net/SocketAddress.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

using namespace orvel;
using Messages = async::AsyncStream<http::WSMessage>;

namespace {

constexpr std::size_t messageBytes = 9600;

std::vector<std::uint8_t> messageBody() {
    std::vector<std::uint8_t> body(messageBytes);
    for (std::size_t i = 0; i < body.size(); ++i) body[i] = static_cast<std::uint8_t>(i * 31 + 7);
    return body;
}

async::Task<void> stream(Messages incoming, Messages::Continuation out) {
    static const std::vector<std::uint8_t> body = messageBody();
    while (auto message = co_await incoming.next()) {
        if (!message->isText()) continue;
        const std::string& command = message->textValue();
        long count = 0;
        if (std::sscanf(command.c_str(), "burst %ld", &count) == 1 && count > 0) {
            for (long i = 0; i < count; ++i) out.yield(http::WSMessage::data(body));
        } else if (std::sscanf(command.c_str(), "pace %ld", &count) == 1 && count > 0) {
            // Deadlines from the start, so the rate does not drift with scheduling delays.
            const auto interval = std::chrono::nanoseconds(1'000'000'000 / count);
            auto next = std::chrono::steady_clock::now();
            for (;;) {
                next += interval;
                co_await async::sleep(next - std::chrono::steady_clock::now());
                out.yield(http::WSMessage::data(body));
            }
        }
    }
    out.finish();
}

class StreamHandler final : public http::WSMessageHandler {
public:
    async::Task<Messages> makeMessages(Messages incoming) override {
        auto [out, producer] = Messages::make();
        auto task = async::spawn(stream(std::move(incoming), producer));
        // The connection going away stops the stream.
        producer.onTermination([task](async::Termination) { task.cancel(); });
        co_return std::move(out);
    }
};

}  // namespace

int main(int argc, char** argv) {
    const long port = examples::portArgument(argc, argv);
    if (port < 0) {
        std::fprintf(stderr, "usage: ws_stream_server --port N\n");
        return 2;
    }
    net::Logger logger = std::make_shared<net::DisabledLogger>();
    auto handler = std::make_shared<http::WebSocketHTTPHandler>(std::make_shared<StreamHandler>(), 16384);
    auto server = std::make_shared<http::HTTPServer>(
        net::AnySocketAddress(net::inet("127.0.0.1", static_cast<std::uint16_t>(port))), 15.0,
        http::HTTPServer::defaultPool(logger), logger, handler);
    return examples::runServer(server, "ws_stream_server");
}
