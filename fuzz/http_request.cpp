// HTTP request decoding over arbitrary peer bytes: every request of the input through a request
// sequence, with each body read, until the bytes end or a request is malformed.
#include "FuzzStream.h"

#include "async/Spawn.h"
#include "http/HTTPDecoder.h"
#include "http/HTTPRequestSequence.h"

#include <memory>

namespace {

using namespace orvel;

async::Task<void> decodeAll(std::shared_ptr<http::detail::ConnectionReader> reader) {
    // A small replay size reaches both body paths with small inputs.
    http::HTTPRequestSequence requests(reader, http::HTTPRequest::Address::ip4("127.0.0.1", 1), http::HTTPDecoder(64));
    while (auto request = co_await requests.next()) {
        (void)co_await request->bodyData();
        (void)request->shouldKeepAlive();
        (void)request->remoteIPAddress();
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto reader = std::make_shared<http::detail::ConnectionReader>(std::make_shared<fuzz::InputStream>(data, size));
    try {
        async::syncWait(decodeAll(reader));
    } catch (const async::Error&) {
        // Malformed requests and disconnections end the connection: expected.
    }
    return 0;
}
