#include "app/VersionRoute.h"

#include "async/Async.h"

#include <gtest/gtest.h>

#include <string>

namespace orvel {
namespace {

// Any value of the update key counts; without a text version the answer is a server error.
TEST(VersionRoute, AnswersTheBuildVersionWithTheAutomaticUpdateMark) {
    const std::tuple<Bundle::InfoDictionary, int, std::string> cases[] = {
        {{{"CFBundleVersion", std::string("412")}, {"SUAutomaticallyUpdate", true}}, 200, "412-a"},
        {{{"CFBundleVersion", std::string("7")}, {"SUAutomaticallyUpdate", false}}, 200, "7-a"},
        {{{"CFBundleVersion", std::string("412")}}, 200, "412"},
        {{{"cfbundleversion", std::string("412")}}, 500, "Unable to find Orvel version"},
        {{{"CFBundleVersion", std::int64_t{412}}}, 500, "Unable to find Orvel version"},
        {{{"SUAutomaticallyUpdate", true}}, 500, "Unable to find Orvel version"},
    };
    for (const auto& [info, status, body] : cases) {
        SCOPED_TRACE(body);
        const Bundle bundle("com.tamrix.orvel", info);
        http::HTTPRequest request(http::HTTPMethod::GET, http::HTTPVersion::http11, "/version", {}, {}, std::string());
        auto response = async::syncWait(handleVersionRoute(std::move(request), appVersion(bundle), hasAutomaticUpdates(bundle)));
        auto bytes = async::syncWait(response.bodyData());
        EXPECT_EQ(response.version, http::HTTPVersion::http11);
        EXPECT_EQ(response.statusCode.code, status);
        EXPECT_EQ(std::string(bytes.begin(), bytes.end()), body);
        EXPECT_EQ(response.headers, http::HTTPHeaders({{"Access-Control-Allow-Origin", "*"}}));
    }
}

}  // namespace
}  // namespace orvel
