#pragma once
#include <string_view>

namespace orvel::update {

// Orders release versions by their numeric components: "1.10" is after "1.9", "1.0" equals
// "1.0.0", and anything that is not a digit only separates components ("1.0.1-beta" is 1.0.1).
// Negative when a is older than b, 0 when equal, positive when newer.
int compareVersions(std::string_view a, std::string_view b);

}  // namespace orvel::update
