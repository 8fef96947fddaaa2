#include "net/ClientPoolLoader.h"

#include "async/Error.h"

namespace orvel::net {

namespace {

// The loop ends only by cancellation (or a failing queue, which fails every waiter anyway).
async::Task<void> runUntilCancelled(std::shared_ptr<SocketPool> pool) {
    try {
        co_await pool->run();
    } catch (const async::Error&) {
    }
}

}  // namespace

ClientPoolLoader::ClientPoolLoader(Logger logger) : pool_(SocketPool::make(SocketPool::defaultMaxEvents, std::move(logger))) {}

ClientPoolLoader::~ClientPoolLoader() {
    if (run_.isValid())
        run_.cancel();
}

async::Task<std::shared_ptr<SocketPool>> ClientPoolLoader::pool() {
    co_await executor_.enter();
    if (!isStarted_) {
        co_await pool_->prepare();
        isStarted_ = true;
        run_ = async::spawn(runUntilCancelled(pool_));
    }
    co_return pool_;
}

async::Task<void> ClientPoolLoader::stop() {
    co_await executor_.enter();
    if (!run_.isValid())
        co_return;
    run_.cancel();
    co_await run_.value();
    run_ = {};
    isStarted_ = false;
}

}  // namespace orvel::net
