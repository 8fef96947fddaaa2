#pragma once
#include "async/SerialExecutor.h"
#include "async/Spawn.h"
#include "async/Task.h"
#include "net/Logging.h"
#include "net/SocketPool.h"

#include <memory>

namespace orvel::net {

// The pool outgoing client sockets share: made with the loader, prepared and started on first
// use. Requests are serialised, so the pool is prepared and started once. Whoever owns the
// loader owns the loop: stop() cancels and awaits it; dropping the loader only cancels it.
class ClientPoolLoader {
public:
    explicit ClientPoolLoader(Logger logger = defaultLogger("SocketPool"));
    ~ClientPoolLoader();
    ClientPoolLoader(const ClientPoolLoader&) = delete;
    ClientPoolLoader& operator=(const ClientPoolLoader&) = delete;

    // The running pool. A failing prepare() passes on, and the next request tries again.
    async::Task<std::shared_ptr<SocketPool>> pool();
    async::Task<void> stop();

    bool isStarted() const noexcept { return isStarted_; }

private:
    async::SerialExecutor executor_;
    std::shared_ptr<SocketPool> pool_;
    bool isStarted_ = false;
    async::TaskHandle<void> run_;
};

}  // namespace orvel::net
