#pragma once
#include "app/Bundle.h"
#include "async/Task.h"
#include "http/HTTPRequest.h"
#include "http/HTTPResponse.h"

#include <optional>
#include <string>

namespace orvel {

// What the version route and the menu title show of a bundle: "CFBundleVersion" when it is text,
// and whether "SUAutomaticallyUpdate" is there at all (false counts as there).
std::optional<std::string> appVersion(const Bundle& bundle);
bool hasAutomaticUpdates(const Bundle& bundle);

// GET /version: 200 with the version ("-a" appended when automatic updates are set up), or 500
// "Unable to find Orvel version" without one; either way "Access-Control-Allow-Origin: *" and
// no origin test. The request is not looked at.
async::Task<http::HTTPResponse> handleVersionRoute(http::HTTPRequest request, std::optional<std::string> appVersion,
                                                   bool hasAutomaticUpdates);

}  // namespace orvel
