// Loopback TCP echo: the same blocking client (this thread) against two servers, an AsyncSocket
// echo task per connection on one SocketPool, and a plain blocking read/write loop with a thread
// per connection. Each iteration sends one message on every connection and reads every echo back.
#include "BenchReport.h"
#include "async/Async.h"
#include "net/AsyncSocket.h"
#include "net/OwnedDescriptor.h"
#include "net/SocketPool.h"

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using namespace orvel;
using namespace orvel::net;

namespace {

constexpr std::size_t echoBufferSize = 64 * 1024;
constexpr int clientBufferSize = 1 << 20;  // every echo fits, so writing all before reading never stalls

struct Listener {
    Listener() {
        const auto socket = Socket::make(AF_INET);
        owner = OwnedDescriptor(socket.file.rawValue);
        socket.setValue(true, reuseAddress);
        socket.bind(inet("127.0.0.1", 0));
        socket.listen(128);
        port = socket.sockname().port;
    }
    Socket socket() const { return Socket(owner.get()); }
    OwnedDescriptor owner;
    std::uint16_t port = 0;
};

// The client side, identical for both servers: blocking sockets on this thread.
struct Clients {
    Clients(std::uint16_t port, int count) {
        for (int i = 0; i < count; ++i) {
            const auto socket = Socket::make(AF_INET);
            sockets.emplace_back(socket.file.rawValue);
            socket.setValue(clientBufferSize, sendBufferSize);
            socket.setValue(clientBufferSize, receiveBufferSize);
            socket.connect(inet("127.0.0.1", port));
        }
    }
    // One message out on every connection, then every echo back.
    void round(const std::vector<std::uint8_t>& message, std::vector<std::uint8_t>& echo) const {
        for (const auto& owner : sockets) {
            const Socket socket(owner.get());
            for (std::size_t index = 0; index < message.size();)
                index = socket.write(message, index);
        }
        for (const auto& owner : sockets) {
            const Socket socket(owner.get());
            for (std::size_t got = 0; got < message.size();)
                got += socket.read(echo.data() + got, message.size() - got);
        }
    }
    std::vector<OwnedDescriptor> sockets;
};

async::Task<void> echo(AsyncSocket socket) {
    std::vector<std::uint8_t> buffer(echoBufferSize);
    try {
        for (;;) {
            const auto count = co_await socket.readAtMost(std::span<std::uint8_t>(buffer));
            co_await socket.write(std::span<const std::uint8_t>(buffer.data(), count));
        }
    } catch (const std::exception&) {
        // The client went away.
    }
    socket.close();
}

async::Task<void> serveAccepted(AsyncSocket listener, int count, std::vector<async::TaskHandle<void>>* connections) {
    for (int i = 0; i < count; ++i)
        connections->push_back(async::spawn(echo(co_await listener.accept())));
}

async::Task<void> runPool(SocketPool* pool) { co_await pool->run(); }
async::Task<void> preparePool(SocketPool* pool) { co_await pool->prepare(); }

void report(benchmark::State& state, std::size_t messageSize, int connections) {
    state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations()) * static_cast<std::int64_t>(messageSize) *
                            connections);
}

void asyncSocketEcho(benchmark::State& state) {
    const auto messageSize = static_cast<std::size_t>(state.range(0));
    const auto connectionCount = static_cast<int>(state.range(1));
    auto pool = SocketPool::make(SocketPool::defaultMaxEvents, std::make_shared<DisabledLogger>());
    async::syncWait(preparePool(pool.get()));
    auto loop = async::spawn(runPool(pool.get()));
    Listener listener;
    AsyncSocket asyncListener(listener.socket(), pool);
    std::vector<async::TaskHandle<void>> connections;
    auto accepting = async::spawn(serveAccepted(asyncListener, connectionCount, &connections));
    {
        Clients clients(listener.port, connectionCount);
        accepting.wait();
        std::vector<std::uint8_t> message(messageSize, 'm');
        std::vector<std::uint8_t> echoed(messageSize);
        for (auto _ : state)
            clients.round(message, echoed);
        report(state, messageSize, connectionCount);
    }
    for (auto& connection : connections)
        connection.wait();
    pool->descriptorWillClose(listener.socket().file);
    loop.cancel();
    try {
        loop.wait();
    } catch (const async::CancellationError&) {
    }
}

// Reference: one thread per connection, blocking read then write.
void blockingEcho(benchmark::State& state) {
    const auto messageSize = static_cast<std::size_t>(state.range(0));
    const auto connectionCount = static_cast<int>(state.range(1));
    Listener listener;
    std::vector<std::thread> servers;
    std::vector<OwnedDescriptor> accepted;
    {
        Clients clients(listener.port, connectionCount);
        for (int i = 0; i < connectionCount; ++i) {
            accepted.emplace_back(listener.socket().accept().file.rawValue);
            servers.emplace_back([fd = accepted.back().get()] {
                const Socket socket(fd);
                std::vector<std::uint8_t> buffer(echoBufferSize);
                try {
                    for (;;) {
                        const auto count = socket.read(buffer.data(), buffer.size());
                        for (std::size_t index = 0; index < count;)
                            index += socket.write(buffer.data() + index, count - index);
                    }
                } catch (const SocketError&) {
                }
            });
        }
        std::vector<std::uint8_t> message(messageSize, 'm');
        std::vector<std::uint8_t> echoed(messageSize);
        for (auto _ : state)
            clients.round(message, echoed);
        report(state, messageSize, connectionCount);
    }
    for (auto& server : servers)
        server.join();
}

void sizes(benchmark::internal::Benchmark* benchmark) {
    for (long connections : {1, 64})
        for (long size : {4 * 1024, 64 * 1024})
            benchmark->Args({size, connections});
}

}  // namespace

BENCHMARK(asyncSocketEcho)->Apply(sizes)->UseRealTime();
BENCHMARK(blockingEcho)->Apply(sizes)->UseRealTime();

// Keeps every repetition's time per name: on a shared machine the fastest repetition is the
// least disturbed one, so ratios compare best against best (and medians are printed beside).
class RepetitionReporter : public orvel::bench::RatioReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        RatioReporter::ReportRuns(runs);
        for (const auto& run : runs)
            if (run.run_type == Run::RT_Iteration)
                all[run.run_name.str()].push_back(run.GetAdjustedRealTime());
    }
    double best(const std::string& name) const {
        const auto found = all.find(name);
        return found == all.end() ? 0 : *std::min_element(found->second.begin(), found->second.end());
    }
    double median(const std::string& name) const {
        const auto found = all.find(name);
        if (found == all.end())
            return 0;
        auto times = found->second;
        std::nth_element(times.begin(), times.begin() + times.size() / 2, times.end());
        return times[times.size() / 2];
    }
    std::map<std::string, std::vector<double>> all;
};

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    RepetitionReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n%-10s %-6s %14s %14s %8s %8s\n", "message", "conns", "ours MB/s", "blocking MB/s", "best", "median");
    for (const auto& [size, connections] : {std::pair{4096, 1}, {65536, 1}, {4096, 64}, {65536, 64}}) {
        const auto args = std::to_string(size) + "/" + std::to_string(connections) + "/real_time";
        const double ours = reporter.best("asyncSocketEcho/" + args);
        const double reference = reporter.best("blockingEcho/" + args);
        if (ours == 0 || reference == 0)
            continue;
        const double bytes = static_cast<double>(size) * connections;
        std::printf("%-10d %-6d %14.0f %14.0f %7.2fx %7.2fx\n", size, connections, bytes / ours * 1e3, bytes / reference * 1e3,
                    reference / ours, reporter.median("blockingEcho/" + args) / reporter.median("asyncSocketEcho/" + args));
    }
    std::printf("(best, median: ours / blocking throughput; above 1 ours is faster)\n");
    benchmark::Shutdown();
}
