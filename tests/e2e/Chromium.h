#pragma once
// Headless Chromium for end-to-end tests, through cdp.js (plain node): serves a folder at
// http://<host>:<free port>/, loads a page of it, evaluates an expression that may return a
// promise and gives its value as JSON. The browser runs in its own process group, which cdp.js ends.

#include "e2e/Process.h"

#include <nlohmann/json.hpp>

namespace orvel::test {

class Chromium {
public:
    static constexpr const char* browser = "/usr/bin/chromium";

    struct Evaluation {
        bool ok = false;
        nlohmann::json value;  // the expression's value when ok
        std::string error;     // what failed when not ok
        std::string output;    // everything cdp.js printed, with the page's console, for failure messages
    };

    static std::string missingTools() {
        std::string missing;
        if (findProgram("node").empty()) missing += "node ";
        if (!isExecutable(browser)) missing += std::string(browser) + " ";
        return missing;
    }

    // A folder served as a site; `host` sets the page's origin, `screenshot` keeps a PNG.
    struct Site {
        std::filesystem::path folder;
        std::string path = "/";
        std::string host = "localhost";
        std::filesystem::path screenshot = {};
    };

    static Evaluation evaluate(const Site& site, const std::string& expression, std::chrono::milliseconds timeout = 60s) {
        std::vector<std::string> arguments{findProgram("node"), std::string(ORVEL_SOURCE_DIR) + "/tests/e2e/cdp.js",
                                           "--serve", site.folder.string(), "--path", site.path, "--host", site.host,
                                           "--expression", expression, "--timeout", std::to_string(timeout.count()),
                                           "--chromium", browser};
        if (!site.screenshot.empty()) arguments.insert(arguments.end(), {"--screenshot", site.screenshot.string()});
        // The browser's chatter stays out of the JSON.
        auto run = runProgram(std::move(arguments), {.mergeStderr = false}, timeout + 30s);
        auto json = nlohmann::json::parse(run.output.substr(0, run.output.find('\n')), nullptr, false);
        if (!json.is_object()) return {false, {}, "cdp.js printed no result: " + run.output, run.output};
        return {json.value("ok", false), json.value("value", nlohmann::json()), json.value("error", ""), run.output};
    }
};

}  // namespace orvel::test
