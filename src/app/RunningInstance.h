#pragma once
#include <chrono>
#include <cstdint>
#include <optional>
#include <string>

namespace orvel {

// The version a running Orvel answers on `address`:`port` ("GET /version"), or nothing when
// nobody listens there, or what listens does not answer like Orvel within `limit`. Blocks the
// calling thread for at most `limit`: for the launch steps on the main thread, so that a second
// launch can say that Orvel is simply already running.
std::optional<std::string> runningOrvelVersion(const char* address, std::uint16_t port,
                                               std::chrono::milliseconds limit = std::chrono::milliseconds(1000));

}  // namespace orvel
