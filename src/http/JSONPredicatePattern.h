#pragma once
#include "async/Error.h"
#include "http/HTTPRoute.h"

#include <memory>
#include <string>
#include <string_view>

namespace orvel::http {

// A body pattern that decodes the body as JSON (an object or an array at the top) and evaluates a
// predicate format string against it: comparisons, string operators with [c]/[d] options, IN,
// BETWEEN, AND/OR/NOT, key paths, SELF, ANY/ALL/NONE and literals. The format is parsed once, at
// construction; evaluating never fails, and a body that is not JSON matches nothing. Immutable,
// shared by every connection.
class JSONPredicatePattern final : public HTTPBodyPattern {
public:
    // A format string that cannot be parsed: says what was expected, and where.
    class Error final : public async::Error {
    public:
        explicit Error(std::string description) : async::Error(std::move(description)) {}
    };

    struct Node;

    // Raises JSONPredicatePattern::Error for a format it cannot parse.
    explicit JSONPredicatePattern(std::string_view format);

    const std::string& format() const noexcept { return format_; }
    bool evaluate(std::string_view body) const override;

private:
    std::string format_;
    std::shared_ptr<const Node> predicate_;
};

}  // namespace orvel::http
