// One handler blocks its worker thread for a second (a slow journal, a file read, a long
// computation); meanwhile another connection on the same SocketPool echoes one byte at a time and
// a task sleeps 10 ms in a loop. Prints the other connection's worst echo round trip and the
// worst lateness of a sleep beside the time blocked: both should stay at a few milliseconds.
#include "async/Async.h"
#include "net/AsyncSocket.h"
#include "net/SocketPool.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <stdexcept>
#include <thread>

using namespace orvel;
using namespace orvel::net;
using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

namespace {

constexpr auto blockedFor = 1000ms;

async::Task<void> runPool(SocketPool* pool) { co_await pool->run(); }
async::Task<void> preparePool(SocketPool* pool) { co_await pool->prepare(); }

async::Task<void> readThenBlock(AsyncSocket socket, std::atomic<bool>* blocking) {
    co_await socket.read();
    blocking->store(true);
    std::this_thread::sleep_for(blockedFor);
    blocking->store(false);
}

async::Task<void> echoUntilClosed(AsyncSocket socket) {
    try {
        for (;;) {
            const auto byte = co_await socket.read();
            co_await socket.write(std::span<const std::uint8_t>(&byte, 1));
        }
    } catch (const SocketError&) {
    }
}

async::Task<void> measureSleeps(const std::atomic<bool>* stop, Clock::duration* worst) {
    while (!stop->load()) {
        const auto start = Clock::now();
        co_await async::sleep(10ms);
        *worst = std::max(*worst, Clock::now() - start - 10ms);
    }
}

// The client's end is blocking, on this thread; the server's end is an AsyncSocket on the pool.
std::pair<AsyncSocket, int> connection(const std::shared_ptr<SocketPool>& pool) {
    int fds[2];
    if (::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds) != 0)
        throw std::runtime_error("socketpair");
    return {AsyncSocket(Socket(fds[0]), pool), fds[1]};
}

double milliseconds(Clock::duration duration) { return std::chrono::duration<double, std::milli>(duration).count(); }

}  // namespace

int main() {
    auto pool = SocketPool::make();
    async::syncWait(preparePool(pool.get()));
    auto loop = async::spawn(runPool(pool.get()));

    auto [blocked, blockedClient] = connection(pool);
    auto [echoed, echoClient] = connection(pool);
    std::atomic<bool> blocking{false}, stopSleeping{false};
    Clock::duration worstSleepLateness{};
    auto blocker = async::spawn(readThenBlock(blocked, &blocking));
    auto echoer = async::spawn(echoUntilClosed(echoed));
    auto sleeper = async::spawn(measureSleeps(&stopSleeping, &worstSleepLateness));

    char byte = 'x';
    if (::write(blockedClient, &byte, 1) != 1)
        return 1;
    while (!blocking.load())
        std::this_thread::yield();
    const auto start = Clock::now();
    Clock::duration worstEcho{};
    long roundTrips = 0;
    while (blocking.load()) {
        const auto sent = Clock::now();
        if (::write(echoClient, &byte, 1) != 1 || ::read(echoClient, &byte, 1) != 1)
            return 1;
        worstEcho = std::max(worstEcho, Clock::now() - sent);
        ++roundTrips;
    }
    const auto blockedTime = Clock::now() - start;
    stopSleeping.store(true);
    sleeper.wait();
    blocker.wait();
    ::close(echoClient);
    ::close(blockedClient);
    echoer.wait();
    echoed.close();
    blocked.close();
    loop.cancel();
    try {
        loop.wait();
    } catch (const async::CancellationError&) {
    }
    std::printf("handler blocked its thread %.0f ms; meanwhile the other connection echoed %ld times, worst round "
                "trip %.2f ms; worst lateness of a 10 ms sleep %.2f ms\n",
                milliseconds(blockedTime), roundTrips, milliseconds(worstEcho), milliseconds(worstSleepLateness));
}
