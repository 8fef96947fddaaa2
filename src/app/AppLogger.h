#pragma once
#include "net/Logging.h"

namespace orvel {

// The application's log: the system log with the bundle identifier as subsystem and category
// "ApplicationCode". Made on first use and never changed afterwards; any thread may use it.
const net::Logger& appLogger();

}  // namespace orvel
