#pragma once
#include "async/Spawn.h"
#include "async/Task.h"
#include "net/Logging.h"
#include "net/OwnedDescriptor.h"
#include "net/SocketAddress.h"
#include "net/SocketPool.h"

#include "net/FdLeakCheck.h"

#include <gtest/gtest.h>

#include <sys/epoll.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <exception>
#include <fstream>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace orvel::test {

// Spins (yielding) until the condition holds; the deadline only guards against a hang.
template <class Condition>
bool eventually(Condition condition) {
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::yield();
    }
    return true;
}

inline std::vector<std::uint8_t> bytes(std::string_view text) { return {text.begin(), text.end()}; }

// The events (EPOLLIN, EPOLLOUT) the kernel watches `fd` for in the epoll instance, read from
// /proc/self/fdinfo; nothing when it is not registered there.
inline std::optional<std::uint32_t> epollWatch(int epoll, int fd) {
    std::ifstream info("/proc/self/fdinfo/" + std::to_string(epoll));
    for (std::string line; std::getline(info, line);)
        if (line.starts_with("tfd:") && std::stoi(line.substr(4)) == fd)
            return std::stoul(line.substr(line.find("events:") + 7), nullptr, 16) & (EPOLLIN | EPOLLOUT);
    return std::nullopt;
}

// What the call raised, or "" when it returned.
template <class Call>
std::string errorOf(Call call) {
    try {
        call();
        return "";
    } catch (const std::exception& error) {
        return error.what();
    }
}

// What a finished task raised, or "" when it returned. Blocks until it ends.
template <class T>
std::string outcome(const async::TaskHandle<T>& handle) { return errorOf([&] { handle.wait(); }); }

// Pointers, not shared_ptr parameters: a parameter lives as long as the coroutine frame, which
// may outlast the moment its waiter learns the result.
inline async::Task<void> runPool(net::AsyncSocketPool* pool) { co_await pool->run(); }
inline async::Task<void> preparePool(net::AsyncSocketPool* pool) { co_await pool->prepare(); }
inline async::Task<void> waitOn(net::AsyncSocketPool* pool, net::Socket socket, net::Socket::Events events) {
    co_await pool->suspendSocket(socket, events);
}
// Parks a task on the socket and returns once the pool holds it.
inline async::TaskHandle<void> park(net::SocketPool* pool, net::Socket socket, net::Socket::Events events) {
    const auto before = pool->waitingCount();
    auto handle = async::spawn(waitOn(pool, socket, events));
    EXPECT_TRUE(eventually([&] { return pool->waitingCount() == before + 1; }));
    return handle;
}

inline constexpr std::chrono::seconds hangGuard{30};

// Keeps every line as "level: text" and lets a test wait for one to appear.
class RecordingLogger final : public net::Logging {
public:
    void log(Level level, const net::LogMessage& message) const override {
        std::lock_guard lock(mutex_);
        lines_.push_back(std::string(name(level)) + ": " + message());
        changed_.notify_all();
    }
    // The first line containing `text`, once one has been logged.
    std::string waitFor(std::string_view text) const {
        std::unique_lock lock(mutex_);
        std::string found;
        bool seen = changed_.wait_for(lock, hangGuard, [&] {
            auto line = std::find_if(lines_.begin(), lines_.end(),
                                     [&](const std::string& l) { return l.find(text) != std::string::npos; });
            if (line != lines_.end()) found = *line;
            return line != lines_.end();
        });
        if (!seen) ADD_FAILURE() << "no log line with: " << text;
        return found;
    }
    std::vector<std::string> lines() const {
        std::lock_guard lock(mutex_);
        return lines_;
    }
    // Position of a line, or -1.
    long indexOf(const std::string& line) const {
        auto all = lines();
        auto found = std::find(all.begin(), all.end(), line);
        return found == all.end() ? -1 : found - all.begin();
    }

private:
    mutable std::mutex mutex_;
    mutable std::condition_variable changed_;
    mutable std::vector<std::string> lines_;
};

// A socket whose descriptor is closed when it goes.
struct Owned {
    explicit Owned(net::Socket socket) : owner(socket.file.rawValue), socket(socket) {}
    const net::Socket* operator->() const { return &socket; }
    std::uint16_t port() const { return socket.sockname().port; }
    net::OwnedDescriptor owner;
    net::Socket socket;
};

// A connected pair (by default non-blocking streams), closed when it goes.
struct Pair {
    explicit Pair(std::pair<net::Socket, net::Socket> made = net::Socket::makeNonBlockingPair(net::SocketType::stream))
        : first(made.first.file.rawValue), second(made.second.file.rawValue) {}
    net::Socket socket() const { return net::Socket(first.get()); }
    net::Socket peer() const { return net::Socket(second.get()); }
    void fillSocketBuffer() const {
        std::vector<char> chunk(1 << 16);
        for (int writes = 0; socket().tryWrite(chunk.data(), chunk.size()).done();)
            ASSERT_LT(++writes, 10000) << "the socket buffer never filled";
    }
    net::OwnedDescriptor first;
    net::OwnedDescriptor second;
};

// An IPv4 socket listening on an ephemeral loopback port.
inline Owned listeningOnLoopback(int backlog = 16) {
    Owned listener(net::Socket::make(AF_INET));
    listener->setValue(true, net::reuseAddress);
    listener->bind(net::inet("127.0.0.1", 0));
    listener->listen(backlog);
    return listener;
}

// A prepared epoll pool whose loop runs for the length of each test, with the descriptor check.
class RunningPool : public FdLeakCheck {
protected:
    void SetUp() override {
        FdLeakCheck::SetUp();
        pool = net::SocketPool::make(20, logger);
        async::syncWait(preparePool(pool.get()));
        loop = async::spawn(runPool(pool.get()));
        // Until the loop has taken the pool, a second run() could take it instead.
        ASSERT_TRUE(eventually([&] { return pool->state() == net::SocketPool::State::running; }));
    }
    void TearDown() override {
        loop.cancel();
        EXPECT_EQ(outcome(loop), "CancellationError()");
        pool.reset();
        FdLeakCheck::TearDown();
    }

    bool parked(std::size_t count) const { return eventually([&] { return pool->waitingCount() == count; }); }
    async::TaskHandle<void> park(net::Socket socket, net::Socket::Events events) {
        return test::park(pool.get(), socket, events);
    }

    std::shared_ptr<RecordingLogger> logger = std::make_shared<RecordingLogger>();
    std::shared_ptr<net::SocketPool> pool;
    async::TaskHandle<void> loop;
};

}  // namespace orvel::test
