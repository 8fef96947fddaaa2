// The load side of bench/ws.sh: a plain epoll WebSocket client that reads as fast as it can and
// measures the server's CPU from /proc while it does. Built by the script with g++ -O2.
//   ws_bench_client throughput PORT SECONDS SERVER_PID
//       one connection; asks for 9600-byte messages 64 at a time, keeping 256 outstanding
//   ws_bench_client paced PORT CONNECTIONS RATE SECONDS SERVER_PID
//       CONNECTIONS connections, each asking for RATE messages a second
//   ws_bench_client scale PORT CONNECTIONS SECONDS SERVER_PID FIRST_MESSAGE
//       CONNECTIONS connections that each send FIRST_MESSAGE and then only read, expecting 10
//       messages a second: delivered share, pace, interval jitter, connect time, CPU and RSS
// Prints one line of key=value figures.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

[[noreturn]] void fail(const std::string& what) {
    std::fprintf(stderr, "ws_bench_client: %s: %s\n", what.c_str(), std::strerror(errno));
    std::exit(1);
}

double cpuSeconds(long pid) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/stat");
    std::string text((std::istreambuf_iterator<char>(file)), std::istreambuf_iterator<char>());
    auto close = text.rfind(')');
    if (close == std::string::npos) fail("no /proc stat for the server");
    std::istringstream fields(text.substr(close + 2));
    std::string field;
    unsigned long long utime = 0, stime = 0;
    for (int i = 3; i <= 15 && fields >> field; ++i) {
        if (i == 14) utime = std::stoull(field);
        if (i == 15) stime = std::stoull(field);
    }
    return static_cast<double>(utime + stime) / static_cast<double>(sysconf(_SC_CLK_TCK));
}

void sendAll(int fd, const std::string& bytes) {
    std::size_t at = 0;
    while (at < bytes.size()) {
        ssize_t n = ::send(fd, bytes.data() + at, bytes.size() - at, MSG_NOSIGNAL);
        if (n < 0 && errno == EAGAIN) continue;  // tiny commands: the socket is never full for long
        if (n <= 0) fail("send");
        at += static_cast<std::size_t>(n);
    }
}

// A masked text frame (key 0: the mask bit is what RFC 6455 requires of clients); under 126 bytes.
std::string textFrame(const std::string& text) {
    std::string frame{'\x81', static_cast<char>(0x80 | text.size()), 0, 0, 0, 0};
    return frame + text;
}

// A line of /proc/PID/status ("VmRSS", "VmHWM") in KiB.
long statusKiB(long pid, const std::string& key) {
    std::ifstream file("/proc/" + std::to_string(pid) + "/status");
    for (std::string line; std::getline(file, line);)
        if (line.rfind(key + ":", 0) == 0) return std::atol(line.c_str() + key.size() + 1);
    return -1;
}

int connectAndUpgrade(int port) {
    int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) fail("socket");
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) fail("connect");
    int one = 1;
    ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    sendAll(fd, "GET / HTTP/1.1\r\nHost: 127.0.0.1\r\nOrigin: http://localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                "Sec-WebSocket-Key: dGhlIHNhbXBsZSBub25jZQ==\r\nSec-WebSocket-Version: 13\r\n\r\n");
    std::string head;
    char c;
    while (head.size() < 4 || head.compare(head.size() - 4, 4, "\r\n\r\n") != 0) {
        if (::recv(fd, &c, 1, 0) != 1) fail("handshake answer");
        head += c;
    }
    if (head.rfind("HTTP/1.1 101", 0) != 0) {
        errno = 0;
        fail("handshake refused: " + head.substr(0, head.find('\r')));
    }
    return fd;
}

// Walks server frames (unmasked) across reads, counting whole messages and payload bytes.
struct FrameCounter {
    std::uint8_t header[14];
    std::size_t headerHave = 0;
    std::uint64_t payloadLeft = 0;
    bool fin = false;
    std::uint64_t messages = 0;
    std::uint64_t bytes = 0;
    std::vector<double>* arrivals = nullptr;  // seconds on the steady clock of each whole message, when kept
    double now = 0;

    void consume(const std::uint8_t* data, std::size_t size) {
        while (size > 0) {
            if (payloadLeft > 0) {
                std::size_t n = static_cast<std::size_t>(std::min<std::uint64_t>(payloadLeft, size));
                payloadLeft -= n;
                bytes += n;
                data += n;
                size -= n;
                if (payloadLeft == 0 && fin) arrived();
                continue;
            }
            header[headerHave++] = *data++;
            --size;
            if (headerHave < 2) continue;
            std::size_t need = 2 + ((header[1] & 0x7F) == 126 ? 2 : (header[1] & 0x7F) == 127 ? 8 : 0) +
                               ((header[1] & 0x80) ? 4 : 0);
            if (headerHave < need) continue;
            std::uint64_t length = header[1] & 0x7F;
            if (length == 126) length = std::uint64_t{header[2]} << 8 | header[3];
            if (length == 127) {
                length = 0;
                for (int i = 2; i < 10; ++i) length = length << 8 | header[i];
            }
            fin = (header[0] & 0x80) != 0;
            headerHave = 0;
            payloadLeft = length;
            if (length == 0 && fin) arrived();
        }
    }
    void arrived() {
        ++messages;
        if (arrivals) arrivals->push_back(now);
    }
};

double seconds(Clock::time_point at) { return std::chrono::duration<double>(at.time_since_epoch()).count(); }

double percentile(std::vector<double> values, double p) {
    if (values.empty()) return 0;
    std::sort(values.begin(), values.end());
    return values[std::min(values.size() - 1, static_cast<std::size_t>(p * static_cast<double>(values.size())))];
}

// Every connection sends `first` and reads. The window opens 2 s after the last connection is up;
// jitter is how far each gap between two messages of one stream strays from 100 ms.
void scale(int port, int connections, double duration, long serverPid, const std::string& first) {
    int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    std::vector<int> fds;
    std::vector<double> connectMs;
    std::vector<FrameCounter> counters(static_cast<std::size_t>(connections));
    std::vector<std::vector<double>> arrivals(static_cast<std::size_t>(connections));
    const double cpuBefore = cpuSeconds(serverPid);
    for (int i = 0; i < connections; ++i) {
        const auto start = Clock::now();
        int fd = connectAndUpgrade(port);
        connectMs.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
        sendAll(fd, textFrame(first));
        epoll_event event{EPOLLIN | EPOLLRDHUP, {.u32 = static_cast<std::uint32_t>(i)}};
        if (::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0) fail("epoll_ctl");
        fds.push_back(fd);
        counters[static_cast<std::size_t>(i)].arrivals = &arrivals[static_cast<std::size_t>(i)];
    }
    const double cpuConnecting = cpuSeconds(serverPid) - cpuBefore;
    std::vector<std::uint8_t> buffer(64 * 1024);
    std::vector<bool> closed(fds.size(), false);
    int closedCount = 0;
    auto runFor = [&](double length) {
        const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(length));
        epoll_event events[256];
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
            if (left <= 0) return;
            int n = ::epoll_wait(epoll, events, 256, static_cast<int>(left));
            const double now = seconds(Clock::now());
            for (int i = 0; i < n; ++i) {
                auto index = events[i].data.u32;
                for (;;) {
                    ssize_t got = ::recv(fds[index], buffer.data(), buffer.size(), MSG_DONTWAIT);
                    if (got > 0) {
                        counters[index].now = now;
                        counters[index].consume(buffer.data(), static_cast<std::size_t>(got));
                        if (static_cast<std::size_t>(got) < buffer.size()) break;
                        continue;
                    }
                    if (got == 0 || (errno != EAGAIN && errno != EINTR)) {
                        ::epoll_ctl(epoll, EPOLL_CTL_DEL, fds[index], nullptr);
                        closed[index] = true;
                        ++closedCount;
                    }
                    break;
                }
            }
        }
    };
    runFor(2.0);
    const double windowStart = seconds(Clock::now());
    const double startCpu = cpuSeconds(serverPid);
    runFor(duration);
    const double windowEnd = seconds(Clock::now());
    const double cpu = cpuSeconds(serverPid) - startCpu;
    const long rss = statusKiB(serverPid, "VmRSS"), peak = statusKiB(serverPid, "VmHWM");

    std::uint64_t messages = 0;
    std::vector<double> paces, jitterMs;
    for (auto& times : arrivals) {
        std::uint64_t inWindow = 0;
        for (std::size_t k = 0; k < times.size(); ++k) {
            if (times[k] < windowStart || times[k] > windowEnd) continue;
            ++inWindow;
            if (k > 0 && times[k - 1] >= windowStart) jitterMs.push_back(std::abs((times[k] - times[k - 1]) * 1000 - 100));
        }
        messages += inWindow;
        paces.push_back(static_cast<double>(inWindow) / (windowEnd - windowStart));
    }
    const double elapsed = windowEnd - windowStart;
    const double expected = connections * 10 * elapsed;
    std::printf("mode=scale connections=%d seconds=%.2f messages=%llu expected=%.0f delivered=%.2f closed=%d "
                "paceMin=%.2f paceMedian=%.2f jitterP50=%.2f jitterP99=%.2f jitterMax=%.2f connectP50=%.2f "
                "connectP99=%.2f connectMax=%.2f connectCpuSeconds=%.2f serverCpuSeconds=%.2f "
                "serverCpuSecondsPerStreamMinute=%.4f rssMiB=%.1f peakRssMiB=%.1f\n",
                connections, elapsed, static_cast<unsigned long long>(messages), expected, 100.0 * messages / expected,
                closedCount, percentile(paces, 0), percentile(paces, 0.5), percentile(jitterMs, 0.5),
                percentile(jitterMs, 0.99), percentile(jitterMs, 1.0), percentile(connectMs, 0.5),
                percentile(connectMs, 0.99), percentile(connectMs, 1.0), cpuConnecting, cpu,
                cpu / (connections * elapsed / 60.0), rss / 1024.0, peak / 1024.0);
    for (int fd : fds) ::close(fd);
    ::close(epoll);
}

void throughput(int port, double seconds, long serverPid) {
    constexpr int batch = 64;
    constexpr int outstandingBatches = 4;
    int fd = connectAndUpgrade(port);
    FrameCounter counter;
    std::uint64_t requested = 0;
    auto ask = [&] {
        sendAll(fd, textFrame("burst " + std::to_string(batch)));
        requested += batch;
    };
    for (int i = 0; i < outstandingBatches; ++i) ask();

    std::vector<std::uint8_t> buffer(256 * 1024);
    const auto warmUpEnd = Clock::now() + std::chrono::seconds(1);
    bool measuring = false;
    Clock::time_point start;
    std::uint64_t startBytes = 0, startMessages = 0;
    double startCpu = 0;
    for (;;) {
        ssize_t n = ::recv(fd, buffer.data(), buffer.size(), 0);
        if (n <= 0) fail("recv");
        counter.consume(buffer.data(), static_cast<std::size_t>(n));
        while (requested - counter.messages < static_cast<std::uint64_t>(batch * (outstandingBatches - 1))) ask();
        auto now = Clock::now();
        if (!measuring && now >= warmUpEnd) {
            measuring = true;
            start = now;
            startBytes = counter.bytes;
            startMessages = counter.messages;
            startCpu = cpuSeconds(serverPid);
        } else if (measuring && now - start >= std::chrono::duration<double>(seconds)) {
            double elapsed = std::chrono::duration<double>(now - start).count();
            double cpu = cpuSeconds(serverPid) - startCpu;
            double megabytes = static_cast<double>(counter.bytes - startBytes) / 1e6;
            std::printf("mode=throughput seconds=%.2f messages=%llu MBps=%.1f serverCpuSeconds=%.2f "
                        "serverCpuSecondsPerGB=%.3f\n",
                        elapsed, static_cast<unsigned long long>(counter.messages - startMessages),
                        megabytes / elapsed, cpu, cpu / (megabytes / 1000));
            ::close(fd);
            return;
        }
    }
}

void paced(int port, int connections, int rate, double seconds, long serverPid) {
    int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    std::vector<int> fds;
    std::vector<FrameCounter> counters(static_cast<std::size_t>(connections));
    for (int i = 0; i < connections; ++i) {
        int fd = connectAndUpgrade(port);
        sendAll(fd, textFrame("pace " + std::to_string(rate)));
        epoll_event event{EPOLLIN, {.u32 = static_cast<std::uint32_t>(i)}};
        if (::epoll_ctl(epoll, EPOLL_CTL_ADD, fd, &event) != 0) fail("epoll_ctl");
        fds.push_back(fd);
    }
    std::vector<std::uint8_t> buffer(64 * 1024);
    auto total = [&] {
        std::uint64_t sum = 0;
        for (auto& c : counters) sum += c.messages;
        return sum;
    };
    auto runFor = [&](double duration) {
        const auto end = Clock::now() + std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(duration));
        epoll_event events[64];
        for (;;) {
            auto left = std::chrono::duration_cast<std::chrono::milliseconds>(end - Clock::now()).count();
            if (left <= 0) return;
            int n = ::epoll_wait(epoll, events, 64, static_cast<int>(left));
            for (int i = 0; i < n; ++i) {
                auto index = events[i].data.u32;
                ssize_t got = ::recv(fds[index], buffer.data(), buffer.size(), MSG_DONTWAIT);
                if (got == 0) fail("server closed a stream");
                if (got > 0) counters[index].consume(buffer.data(), static_cast<std::size_t>(got));
            }
        }
    };
    runFor(1.0);  // every stream running before the window opens
    const std::uint64_t startMessages = total();
    const double startCpu = cpuSeconds(serverPid);
    const auto start = Clock::now();
    runFor(seconds);
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    const double cpu = cpuSeconds(serverPid) - startCpu;
    const double streamMinutes = connections * elapsed / 60.0;
    std::printf("mode=paced connections=%d rate=%d seconds=%.2f messages=%llu expected=%.0f serverCpuSeconds=%.2f "
                "serverCpuSecondsPerStreamMinute=%.4f\n",
                connections, rate, elapsed, static_cast<unsigned long long>(total() - startMessages),
                connections * rate * elapsed, cpu, cpu / streamMinutes);
    for (int fd : fds) ::close(fd);
    ::close(epoll);
}

}  // namespace

int main(int argc, char** argv) {
    std::string mode = argc > 1 ? argv[1] : "";
    if (mode == "throughput" && argc == 5) {
        throughput(std::atoi(argv[2]), std::atof(argv[3]), std::atol(argv[4]));
    } else if (mode == "paced" && argc == 7) {
        paced(std::atoi(argv[2]), std::atoi(argv[3]), std::atoi(argv[4]), std::atof(argv[5]), std::atol(argv[6]));
    } else if (mode == "scale" && argc == 7) {
        scale(std::atoi(argv[2]), std::atoi(argv[3]), std::atof(argv[4]), std::atol(argv[5]), argv[6]);
    } else {
        std::fprintf(stderr, "usage: ws_bench_client throughput PORT SECONDS SERVER_PID\n"
                             "       ws_bench_client paced PORT CONNECTIONS RATE SECONDS SERVER_PID\n"
                             "       ws_bench_client scale PORT CONNECTIONS SECONDS SERVER_PID FIRST_MESSAGE\n");
        return 2;
    }
    return 0;
}
