#pragma once
#include "async/Error.h"

#include <string>

namespace orvel::update {

// Every failure of the updater: a full sentence that the delegate's lines print as the error's
// localized description.
class UpdateError final : public async::Error {
public:
    explicit UpdateError(std::string text) : async::Error(std::move(text)) {}
    const std::string& localizedDescription() const noexcept { return description(); }
};

}  // namespace orvel::update
