#include "update/Transfer.h"

#include "update/UpdateError.h"

#include <curl/curl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <mutex>

namespace orvel::update {

struct Transfer::Sink {
    std::uint64_t limit = 0;
    std::uint64_t received = 0;
    std::string* body = nullptr;  // either the body in memory
    int fd = -1;                  // or a file
    const std::function<void(std::size_t)>* progress = nullptr;
    std::string failure;  // why the sink stopped the transfer
    const CancellationCheck* cancelled = nullptr;
};

namespace {

CURL* handle(void* curl) { return static_cast<CURL*>(curl); }

std::size_t write(char* data, std::size_t, std::size_t size, void* context) {
    auto& sink = *static_cast<Transfer::Sink*>(context);
    if (size > sink.limit - sink.received) {
        sink.failure = "more bytes than the expected " + std::to_string(sink.limit);
        return 0;  // curl ends the transfer with a write error
    }
    if (sink.body) {
        sink.body->append(data, size);
    } else {
        for (std::size_t done = 0; done < size;) {
            const ssize_t n = ::write(sink.fd, data + done, size - done);
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) {
                sink.failure = std::string("cannot write the download: ") + std::strerror(errno);
                return 0;
            }
            done += static_cast<std::size_t>(n);
        }
    }
    sink.received += size;
    if (sink.progress) (*sink.progress)(size);
    return size;
}

int progress(void* context, curl_off_t, curl_off_t, curl_off_t, curl_off_t) {
    auto& sink = *static_cast<Transfer::Sink*>(context);
    if ((*sink.cancelled)()) {
        sink.failure = "cancelled";
        return 1;
    }
    return 0;
}

}  // namespace

Transfer::Transfer(CancellationCheck cancelled) : cancelled_(std::move(cancelled)) {
    static std::once_flag initialised;
    std::call_once(initialised, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
    curl_ = curl_easy_init();
    if (!curl_) throw UpdateError("Could not set up a transfer.");
}

Transfer::~Transfer() { curl_easy_cleanup(handle(curl_)); }

bool Transfer::isAllowedURL(std::string_view url) {
    if (url.starts_with("https://")) return true;
    // A feed on this machine, for tests: nothing crosses a network in clear text.
    return url.starts_with("http://127.0.0.1/") || url.starts_with("http://127.0.0.1:");
}

void Transfer::perform(const std::string& url, Sink& sink) {
    if (!isAllowedURL(url)) throw UpdateError("The update URL " + url + " is neither HTTPS nor on 127.0.0.1.");
    CURL* curl = handle(curl_);
    curl_easy_reset(curl);
    sink.cancelled = &cancelled_;
    curl_easy_setopt(curl, CURLOPT_URL, url.c_str());
    curl_easy_setopt(curl, CURLOPT_PROTOCOLS_STR, "https,http");
    curl_easy_setopt(curl, CURLOPT_FOLLOWLOCATION, 1L);
    curl_easy_setopt(curl, CURLOPT_MAXREDIRS, 5L);
    curl_easy_setopt(curl, CURLOPT_REDIR_PROTOCOLS_STR, "https");  // never down to clear text
    curl_easy_setopt(curl, CURLOPT_FAILONERROR, 1L);
    curl_easy_setopt(curl, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(curl, CURLOPT_CONNECTTIMEOUT, 30L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_LIMIT, 1L);
    curl_easy_setopt(curl, CURLOPT_LOW_SPEED_TIME, 60L);
    curl_easy_setopt(curl, CURLOPT_USERAGENT, "Orvel updater");
    curl_easy_setopt(curl, CURLOPT_WRITEFUNCTION, &write);
    curl_easy_setopt(curl, CURLOPT_WRITEDATA, &sink);
    curl_easy_setopt(curl, CURLOPT_XFERINFOFUNCTION, &progress);
    curl_easy_setopt(curl, CURLOPT_XFERINFODATA, &sink);
    curl_easy_setopt(curl, CURLOPT_NOPROGRESS, 0L);
    const CURLcode code = curl_easy_perform(curl);
    if (code != CURLE_OK) {
        const std::string reason = sink.failure.empty() ? curl_easy_strerror(code) : sink.failure;
        throw UpdateError("Could not load " + url + ": " + reason + ".");
    }
}

std::string Transfer::fetch(const std::string& url, std::size_t limit) {
    std::string body;
    Sink sink;
    sink.limit = limit;
    sink.body = &body;
    perform(url, sink);
    return body;
}

void Transfer::download(const std::string& url, int fd, std::uint64_t length,
                        const std::function<void(std::size_t)>& received) {
    Sink sink;
    sink.limit = length;
    sink.fd = fd;
    sink.progress = &received;
    perform(url, sink);
    if (sink.received != length)
        throw UpdateError("The update archive has " + std::to_string(sink.received) + " bytes, not the " +
                          std::to_string(length) + " the feed gives.");
}

}  // namespace orvel::update
