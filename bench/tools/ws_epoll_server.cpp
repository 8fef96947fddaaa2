// The floor for bench/scale.sh: a bare single-threaded epoll WebSocket server with no framework,
// streaming the same synthetic 9600-byte binary messages as bench/ws-stream-server.js. A
// connection's first text frame "pace R" starts R messages a second, on deadlines from its own
// start; one timerfd armed for the earliest deadline drives them all. Built by the script with
// g++ -O2 -lcrypto. Usage: ws_epoll_server PORT
#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <openssl/evp.h>
#include <openssl/sha.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <queue>
#include <string>
#include <unordered_map>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

struct Connection {
    std::string in;
    std::string out;  // what a full socket did not take yet
    bool upgraded = false;
    bool pacing = false;
    Clock::duration interval{};
    std::uint64_t generation = 0;  // tells a reused descriptor from the connection it was before
};

struct Due {
    Clock::time_point at;
    int fd;
    std::uint64_t generation;
    bool operator>(const Due& other) const { return at > other.at; }
};

std::string acceptValue(const std::string& key) {
    const std::string text = key + "258EAFA5-E914-47DA-95CA-C5AB0DC85B11";
    unsigned char digest[SHA_DIGEST_LENGTH];
    SHA1(reinterpret_cast<const unsigned char*>(text.data()), text.size(), digest);
    unsigned char encoded[64];
    const int length = EVP_EncodeBlock(encoded, digest, SHA_DIGEST_LENGTH);
    return std::string(reinterpret_cast<char*>(encoded), static_cast<std::size_t>(length));
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: ws_epoll_server PORT\n");
        return 2;
    }
    int listener = ::socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    int one = 1;
    ::setsockopt(listener, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<std::uint16_t>(std::atoi(argv[1])));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (::bind(listener, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0 || ::listen(listener, 4096) != 0) {
        std::perror("ws_epoll_server: bind");
        return 1;
    }
    int epoll = ::epoll_create1(EPOLL_CLOEXEC);
    int timer = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    epoll_event event{EPOLLIN, {.fd = listener}};
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, listener, &event);
    event = {EPOLLIN, {.fd = timer}};
    ::epoll_ctl(epoll, EPOLL_CTL_ADD, timer, &event);

    std::string frame = {'\x82', 126, static_cast<char>(9600 >> 8), static_cast<char>(9600 & 0xff)};
    for (int i = 0; i < 9600; ++i) frame += static_cast<char>((i * 31 + 7) & 0xff);

    std::unordered_map<int, Connection> connections;
    std::uint64_t generations = 0;
    std::priority_queue<Due, std::vector<Due>, std::greater<>> schedule;
    auto arm = [&] {
        if (schedule.empty()) return;
        const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(schedule.top().at.time_since_epoch()).count();
        itimerspec due{{0, 0}, {static_cast<time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)}};
        if (due.it_value.tv_sec == 0 && due.it_value.tv_nsec == 0) due.it_value.tv_nsec = 1;
        ::timerfd_settime(timer, TFD_TIMER_ABSTIME, &due, nullptr);
    };
    auto drop = [&](int fd) {
        ::close(fd);
        connections.erase(fd);
    };
    auto write = [&](int fd, Connection& connection, const std::string& bytes) {
        if (!connection.out.empty()) {
            connection.out += bytes;
            return true;
        }
        ssize_t n = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (n < 0 && errno != EAGAIN) return false;
        if (n < static_cast<ssize_t>(bytes.size())) {
            connection.out.assign(bytes, static_cast<std::size_t>(std::max<ssize_t>(n, 0)));
            epoll_event both{EPOLLIN | EPOLLOUT, {.fd = fd}};
            ::epoll_ctl(epoll, EPOLL_CTL_MOD, fd, &both);
        }
        return true;
    };

    std::vector<char> buffer(64 * 1024);
    epoll_event events[256];
    for (;;) {
        int n = ::epoll_wait(epoll, events, 256, -1);
        for (int i = 0; i < n; ++i) {
            const int fd = events[i].data.fd;
            if (fd == listener) {
                for (int client; (client = ::accept4(listener, nullptr, nullptr, SOCK_NONBLOCK | SOCK_CLOEXEC)) >= 0;) {
                    ::setsockopt(client, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
                    epoll_event in{EPOLLIN, {.fd = client}};
                    ::epoll_ctl(epoll, EPOLL_CTL_ADD, client, &in);
                    connections[client];
                }
                continue;
            }
            if (fd == timer) {
                std::uint64_t expirations;
                (void)!::read(timer, &expirations, sizeof expirations);
                const auto now = Clock::now();
                while (!schedule.empty() && schedule.top().at <= now) {
                    Due due = schedule.top();
                    schedule.pop();
                    auto found = connections.find(due.fd);
                    if (found == connections.end() || found->second.generation != due.generation) continue;
                    if (!write(due.fd, found->second, frame)) {
                        drop(due.fd);
                        continue;
                    }
                    schedule.push({due.at + found->second.interval, due.fd, due.generation});
                }
                arm();
                continue;
            }
            auto found = connections.find(fd);
            if (found == connections.end()) continue;
            Connection& connection = found->second;
            if (events[i].events & EPOLLOUT) {
                ssize_t sent = ::send(fd, connection.out.data(), connection.out.size(), MSG_NOSIGNAL);
                if (sent < 0 && errno != EAGAIN) {
                    drop(fd);
                    continue;
                }
                connection.out.erase(0, static_cast<std::size_t>(std::max<ssize_t>(sent, 0)));
                if (connection.out.empty()) {
                    epoll_event in{EPOLLIN, {.fd = fd}};
                    ::epoll_ctl(epoll, EPOLL_CTL_MOD, fd, &in);
                }
            }
            if (!(events[i].events & (EPOLLIN | EPOLLHUP | EPOLLERR))) continue;
            ssize_t got = ::recv(fd, buffer.data(), buffer.size(), 0);
            if (got == 0 || (got < 0 && errno != EAGAIN)) {
                drop(fd);
                continue;
            }
            if (got < 0) continue;
            if (connection.pacing) continue;  // later frames change nothing
            connection.in.append(buffer.data(), static_cast<std::size_t>(got));
            if (!connection.upgraded) {
                const auto end = connection.in.find("\r\n\r\n");
                if (end == std::string::npos) continue;
                const auto at = connection.in.find("Sec-WebSocket-Key: ");
                if (at == std::string::npos) {
                    drop(fd);
                    continue;
                }
                const auto keyStart = at + 19;
                const std::string key = connection.in.substr(keyStart, connection.in.find("\r\n", keyStart) - keyStart);
                connection.in.erase(0, end + 4);
                connection.upgraded = true;
                if (!write(fd, connection, "HTTP/1.1 101 Switching Protocols\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                                           "Sec-WebSocket-Accept: " + acceptValue(key) + "\r\n\r\n")) {
                    drop(fd);
                    continue;
                }
            }
            // One short masked text frame from the client: 2 header bytes, 4 mask bytes, payload.
            if (connection.in.size() < 2) continue;
            const std::size_t length = static_cast<unsigned char>(connection.in[1]) & 0x7f;
            if (length >= 126 || connection.in.size() < 6 + length) continue;
            std::string text = connection.in.substr(6, length);
            for (std::size_t k = 0; k < length; ++k) text[k] = static_cast<char>(text[k] ^ connection.in[2 + k % 4]);
            const int rate = text.rfind("pace ", 0) == 0 ? std::atoi(text.c_str() + 5) : 0;
            if (rate <= 0) continue;
            connection.pacing = true;
            connection.generation = ++generations;
            connection.interval = std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(1.0 / rate));
            connection.in.clear();
            schedule.push({Clock::now() + connection.interval, fd, connection.generation});
            arm();
        }
    }
}
