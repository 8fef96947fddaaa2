// Frame decoding plus validation over arbitrary peer bytes: decode frames back to back and put
// them through a validator until the bytes end or a rule is broken. Encoding what was decoded
// must decode to the same frame.
#include "FuzzStream.h"

#include "async/Spawn.h"
#include "websocket/WSFrameEncoder.h"
#include "websocket/WSFrameValidator.h"
#include "net/SocketError.h"

#include <cstdlib>
#include <memory>

namespace {

using namespace orvel;

// Small, so the fuzzer reaches the limit checks without megabyte inputs.
constexpr std::uint64_t payloadLimit = 4096;

async::Task<void> decodeAll(http::detail::ConnectionReader& reader) {
    http::WSFrameValidator::Validator validator;
    for (;;) {
        http::WSFrame frame = co_await http::WSFrameEncoder::decode(reader, payloadLimit);
        if (frame.payload.size() > payloadLimit) std::abort();

        auto bytes = http::WSFrameEncoder::encode(frame);
        auto copy = std::make_shared<fuzz::InputStream>(bytes.data(), bytes.size());
        http::detail::ConnectionReader again(copy);
        if (co_await http::WSFrameEncoder::decode(again) != frame) std::abort();

        (void)validator.validate(std::move(frame));
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    auto stream = std::make_shared<fuzz::InputStream>(data, size);
    http::detail::ConnectionReader reader(stream);
    try {
        async::syncWait(decodeAll(reader));
    } catch (const async::Error&) {
        // Disconnection, a bad length, a broken rule: every expected way out is an Error.
    }
    return 0;
}
