#pragma once
#include "http/HTTPRequest.h"

#include <array>
#include <string>
#include <string_view>
#include <vector>

namespace orvel::http::detail {

// Splits a URL reference (a request target or a route's path text) into its percent-decoded,
// dot-segment-free path and its query items, the way both requests and routes read them.
// Text that is not an RFC 3986 reference gives an empty path and no query items. False (and an
// empty path) when the decoded path holds NUL, CR or LF: no such path is ever handed on.
bool parseURLReference(std::string_view text, std::string& path, std::vector<HTTPRequest::QueryItem>& query);

// Appends `text` to `out` with every byte not marked in `kept` written as %XX.
void appendPercentEncoded(std::string& out, std::string_view text, const std::array<bool, 256>& kept);

// Percent-encodes every byte outside the characters a URL query may hold (unreserved,
// sub-delimiters, ":", "@", "/" and "?").
std::string percentEncodeForQuery(std::string_view text);

}  // namespace orvel::http::detail
