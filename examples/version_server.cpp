// A server with one route, "GET /version" answering 412 with "Access-Control-Allow-Origin: *";
// everything else gets 404. The benchmark's subject: version_server --port N
#include "ExampleServer.h"
#include "async/Spawn.h"
#include "http/HTTPServer.h"
#include "net/Logging.h"
#include "net/SocketAddress.h"

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

using namespace orvel;

namespace {

async::Task<http::HTTPResponse> version(http::HTTPRequest) {
    co_return http::HTTPResponse(http::HTTPStatusCode::ok, {{"Access-Control-Allow-Origin", "*"}}, "412");
}

}  // namespace

int main(int argc, char** argv) {
    const long port = examples::portArgument(argc, argv);
    if (port < 0) {
        std::fprintf(stderr, "usage: version_server --port N\n");
        return 2;
    }
    // Quiet by default: a log line per request would be the benchmark's bottleneck.
    net::Logger logger = std::getenv("VERSION_SERVER_LOG") ? net::Logger(std::make_shared<net::PrintLogger>("version_server"))
                                                           : net::Logger(std::make_shared<net::DisabledLogger>());
    auto server = std::make_shared<http::HTTPServer>(net::AnySocketAddress(net::inet("127.0.0.1", static_cast<std::uint16_t>(port))),
                                                     15.0, http::HTTPServer::defaultPool(logger), logger);
    server->appendRoute("GET /version", version);
    return examples::runServer(server, "version_server");
}
