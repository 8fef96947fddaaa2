#pragma once
#include "async/Error.h"

namespace orvel::http {

// Raised where the toolkit is handed a URL it cannot use: a redirect location or a proxy base
// that does not parse, or a target that cannot be rebuilt from its parts.
class BadURLError final : public async::Error {
public:
    BadURLError() : Error("bad URL") {}
};

}  // namespace orvel::http
