#pragma once
#include "async/Error.h"

#include <string>

namespace orvel {

// Why a JSON text did not decode into one of the application's values; callers treat every
// failure alike, the text is for the debug log.
class DecodingError final : public async::Error {
public:
    explicit DecodingError(std::string text) : Error(std::move(text)) {}
};

}  // namespace orvel
