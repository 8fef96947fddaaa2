#pragma once
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

namespace orvel::update {

// HTTP transfers of the updater with libcurl: HTTPS, and plain http only to 127.0.0.1 (a feed a
// test serves). Each call blocks its caller, which is the updater's own thread, never a pool
// worker; the connection is kept for the next call. A transfer that stalls for a minute, or
// that the cancellation check stops, fails. Not thread-safe: one thread uses one Transfer.
class Transfer {
public:
    // Asked during a transfer; true ends it with an error.
    using CancellationCheck = std::function<bool()>;
    struct Sink;  // the receiving end of one transfer, in the .cpp

    explicit Transfer(CancellationCheck cancelled);
    ~Transfer();
    Transfer(const Transfer&) = delete;
    Transfer& operator=(const Transfer&) = delete;

    static bool isAllowedURL(std::string_view url);

    // The whole body of a 2xx answer; more than `limit` bytes fail. Throws UpdateError.
    std::string fetch(const std::string& url, std::size_t limit);

    // Writes the body to `fd`, which must come to exactly `length` bytes; more fail at once.
    // `received` is told each chunk's size. Throws UpdateError.
    void download(const std::string& url, int fd, std::uint64_t length, const std::function<void(std::size_t)>& received);

private:
    void perform(const std::string& url, Sink& sink);

    CancellationCheck cancelled_;
    void* curl_;
};

}  // namespace orvel::update
