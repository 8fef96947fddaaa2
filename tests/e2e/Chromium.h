#pragma once
// Headless Chromium for end-to-end tests, through cdp.js (plain node): serves a page at
// http://localhost:<free port>/, loads it, evaluates an expression that may return a promise and
// gives its value as JSON. The browser runs in its own process group, which cdp.js ends.

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

    static Evaluation evaluate(const std::string& pageHtml, const std::string& expression,
                               std::chrono::milliseconds timeout = 60s) {
        auto run = runProgram({findProgram("node"), std::string(ORVEL_SOURCE_DIR) + "/tests/e2e/cdp.js", "--page",
                               pageHtml, "--expression", expression, "--timeout", std::to_string(timeout.count()),
                               "--chromium", browser},
                              {.mergeStderr = false}, timeout + 30s);  // the browser's chatter stays out of the JSON
        Evaluation result;
        result.output = run.output;
        auto json = nlohmann::json::parse(run.output.substr(0, run.output.find('\n')), nullptr, false);
        if (!json.is_object()) {
            result.error = "cdp.js printed no result: " + run.output;
            return result;
        }
        result.ok = json.value("ok", false);
        result.value = json.value("value", nlohmann::json());
        result.error = json.value("error", "");
        return result;
    }
};

}  // namespace orvel::test
