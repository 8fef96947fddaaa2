#include "app/AppLogger.h"

#include "app/Bundle.h"

#include <memory>

namespace orvel {

const net::Logger& appLogger() {
    static const net::Logger logger = std::make_shared<net::JournalLogger>(
        "ApplicationCode", net::JournalLogger::Options{.subsystem = Bundle::mainBundle().bundleIdentifier()});
    return logger;
}

}  // namespace orvel
