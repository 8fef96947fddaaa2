#pragma once
#include "async/Task.h"

#include <string>

namespace orvel::http {

class HTTPConnection;

// What a 101 response hands its connection over to: from then on the connection no longer
// speaks HTTP. The WebSocket layer implements it; the HTTP layer knows nothing more of it.
class HTTPUpgradeHandler {
public:
    virtual ~HTTPUpgradeHandler() = default;
    // Serves `connection` until it is done. `header` is the response's header block, not yet
    // written: the handler writes it once it is ready to take over (and not at all when it
    // fails first). The connection outlives the returned task.
    virtual async::Task<void> takeOver(HTTPConnection& connection, std::string header) = 0;
};

}  // namespace orvel::http
