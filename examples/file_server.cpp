// Serves the files of a folder over HTTP, the way a newcomer starts with the toolkit:
//
//   file_server --root DIR --port N [--proxy /api=http://127.0.0.1:9000]...
//
// "GET /" is redirected to "/index.html"; a request under a proxied prefix is forwarded (its
// whole path appended to the URL); every other GET names a file below DIR. Only this machine
// can connect (127.0.0.1). Set FILE_SERVER_LOG=1 for a log line per connection.
#include "ExampleServer.h"
#include "http/HTTPServer.h"
#include "http/HTTPClientSession.h"
#include "http/handlers/DirectoryHTTPHandler.h"
#include "http/handlers/ProxyHTTPHandler.h"
#include "http/handlers/RedirectHTTPHandler.h"
#include "net/Logging.h"
#include "net/SocketAddress.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <utility>
#include <vector>

using namespace orvel;

namespace {

const char* const usage =
    "usage: file_server --root DIR --port N [--proxy PREFIX=URL]...\n"
    "Serves the files below DIR on http://127.0.0.1:N/ (\"/\" redirects to /index.html).\n"
    "--proxy /api=http://127.0.0.1:9000 forwards every request under /api to that server.\n";

struct Arguments {
    std::string root;
    long port = -1;
    std::vector<std::pair<std::string, std::string>> proxies;  // path prefix, target URL
};

// The arguments, or an error text (empty for --help).
bool parse(int argc, char** argv, Arguments& arguments, std::string& error) {
    for (int i = 1; i < argc; ++i) {
        std::string name = argv[i];
        if (name == "--help" || name == "-h") return false;
        if (name != "--root" && name != "--port" && name != "--proxy") {
            error = "unknown argument " + name;
            return false;
        }
        if (i + 1 == argc) {
            error = name + " needs a value";
            return false;
        }
        const std::string value = argv[++i];
        if (name == "--root") {
            arguments.root = value;
        } else if (name == "--proxy") {
            const auto equals = value.find('=');
            if (equals == std::string::npos || equals == 0 || value[0] != '/') {
                error = "--proxy needs PREFIX=URL with a prefix that starts with /, not " + value;
                return false;
            }
            arguments.proxies.emplace_back(value.substr(0, equals), value.substr(equals + 1));
        }
    }
    arguments.port = examples::portArgument(argc, argv);
    if (arguments.root.empty()) error = "--root DIR is missing";
    else if (arguments.port < 0) error = "--port N is missing or not a port number (0 to 65535)";
    else if (!std::filesystem::is_directory(arguments.root)) error = arguments.root + " is not a directory";
    return error.empty();
}

}  // namespace

int main(int argc, char** argv) {
    Arguments arguments;
    std::string error;
    if (!parse(argc, argv, arguments, error)) {
        if (error.empty()) {
            std::fputs(usage, stdout);
            return 0;
        }
        std::fprintf(stderr, "file_server: %s\n%s", error.c_str(), usage);
        return 2;
    }

    // Quiet by default: a log line per request would be a benchmark's bottleneck.
    net::Logger logger = std::getenv("FILE_SERVER_LOG") ? net::Logger(std::make_shared<net::PrintLogger>("file_server"))
                                                        : net::Logger(std::make_shared<net::DisabledLogger>());
    auto address = net::AnySocketAddress(net::inet("127.0.0.1", static_cast<std::uint16_t>(arguments.port)));
    auto server = std::make_shared<http::HTTPServer>(address, 15.0, http::HTTPServer::defaultPool(logger), logger);

    // Routes are tried in order; the first that matches answers.
    server->appendRoute("GET /", std::make_shared<http::RedirectHTTPHandler>("/index.html"));
    // Proxied prefixes before the folder's catch-all route; one client session serves them all.
    if (!arguments.proxies.empty()) {
        const auto session = http::HTTPClientSession::make();
        for (const auto& [prefix, url] : arguments.proxies) {
            try {
                const auto pattern = (prefix.back() == '/' ? prefix : prefix + "/") + "*";
                server->appendRoute(http::HTTPRoute(pattern), std::make_shared<http::ProxyHTTPHandler>(url, session));
            } catch (const std::exception& failure) {
                std::fprintf(stderr, "file_server: --proxy %s=%s: %s\n", prefix.c_str(), url.c_str(), failure.what());
                return 2;
            }
        }
    }
    server->appendRoute("GET /*", std::make_shared<http::DirectoryHTTPHandler>(arguments.root, "/"));

    std::printf("Serving %s on http://127.0.0.1:%ld/\n", arguments.root.c_str(), arguments.port);
    std::fflush(stdout);
    return examples::runServer(server, "file_server");
}
