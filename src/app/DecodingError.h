#pragma once
#include "async/Error.h"

#include <string>

namespace orvel {

// Why a JSON text did not decode into one of the application's values. Callers treat every
// kind alike; the kind and text are there for tests and the debug log.
class DecodingError final : public async::Error {
public:
    enum class Kind {
        dataCorrupted,  // not JSON, or a value outside its type's cases
        keyNotFound,    // a required member is missing
        valueNotFound,  // a required member is null
        typeMismatch,   // a member or the top level has the wrong JSON type or number form
    };

    DecodingError(Kind kind, std::string text) : Error(std::move(text)), kind_(kind) {}
    Kind kind() const noexcept { return kind_; }

private:
    Kind kind_;
};

}  // namespace orvel
