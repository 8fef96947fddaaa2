#pragma once
// What the example servers share: their "--port N" argument and running until the server fails.
#include "async/Spawn.h"
#include "http/HTTPServer.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <memory>

namespace orvel::examples {

// The value of "--port N", or -1 when it is missing or not a port number.
inline long portArgument(int argc, char** argv) {
    long port = -1;
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--port") == 0 && i + 1 < argc) {
            char* end = nullptr;
            port = std::strtol(argv[++i], &end, 10);
            if (*end != '\0')
                port = -1;
        }
    }
    return port <= 65535 ? port : -1;
}

inline async::Task<void> serve(std::shared_ptr<http::HTTPServer> server) { co_await server->run(); }

// Runs the server on this thread; the exit status for main.
inline int runServer(std::shared_ptr<http::HTTPServer> server, const char* name) {
    try {
        async::syncWait(serve(std::move(server)));
    } catch (const std::exception& error) {
        std::fprintf(stderr, "%s: %s\n", name, error.what());
        return 1;
    }
    return 0;
}

}  // namespace orvel::examples
