#include "app/VersionRoute.h"

#include <utility>

namespace orvel {

std::optional<std::string> appVersion(const Bundle& bundle) {
    return bundle.stringForInfoDictionaryKey(Bundle::versionKey);
}

bool hasAutomaticUpdates(const Bundle& bundle) {
    return bundle.objectForInfoDictionaryKey(Bundle::automaticUpdatesKey) != nullptr;
}

async::Task<http::HTTPResponse> handleVersionRoute(http::HTTPRequest, std::optional<std::string> appVersion,
                                                   bool hasAutomaticUpdates) {
    http::HTTPHeaders headers{{"Access-Control-Allow-Origin", "*"}};
    if (!appVersion) {
        co_return http::HTTPResponse(http::HTTPVersion::http11, http::HTTPStatusCode::internalServerError,
                                     std::move(headers), "Unable to find Orvel version");
    }
    std::string body = std::move(*appVersion);
    if (hasAutomaticUpdates) body += "-a";
    co_return http::HTTPResponse(http::HTTPVersion::http11, http::HTTPStatusCode::ok, std::move(headers),
                                 std::move(body));
}

}  // namespace orvel
