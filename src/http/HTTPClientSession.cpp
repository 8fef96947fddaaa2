#include "http/HTTPClientSession.h"

#include "async/Cancellation.h"
#include "async/Continuation.h"
#include "http/detail/Ascii.h"

#include <curl/curl.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

namespace orvel::http {

namespace {

// What a task waits for: owned by the engine's thread while it runs, and by the waiting task's
// cancellation handler, which may still refer to it after it has finished.
struct Transfer {
    HTTPClientSession::Request request;
    async::Continuation<HTTPClientSession::Response> continuation;
    std::atomic<bool> cancelled{false};
    // Touched by the engine's thread only.
    CURL* easy = nullptr;
    curl_slist* headers = nullptr;
    std::string body;
    bool finished = false;
    char errorText[CURL_ERROR_SIZE] = {};

    ~Transfer() {
        if (easy) curl_easy_cleanup(easy);
        curl_slist_free_all(headers);
    }
};

std::size_t appendBody(char* bytes, std::size_t, std::size_t count, void* transfer) {
    static_cast<Transfer*>(transfer)->body.append(bytes, count);
    return count;
}

void appendHeader(curl_slist*& list, std::string line) {
    curl_slist* grown = curl_slist_append(list, line.c_str());
    if (!grown) throw std::bad_alloc();
    list = grown;
}

}  // namespace

// The multi handle and its thread. Other threads hand it work through a queue and wake it with
// curl_multi_wakeup; only its own thread touches the multi handle and the transfers' easy handles.
class HTTPClientSession::Engine {
public:
    Engine() {
        static std::once_flag globalInit;
        std::call_once(globalInit, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
        multi_ = curl_multi_init();
        if (!multi_) throw TransferError("Out of memory");
        thread_ = std::thread([this] { run(); });
    }

    ~Engine() {
        {
            std::lock_guard lock(mutex_);
            stopping_ = true;
        }
        curl_multi_wakeup(multi_);
        thread_.join();
        curl_multi_cleanup(multi_);
    }

    void start(std::shared_ptr<Transfer> transfer) { post({std::move(transfer), false}); }
    void cancel(std::shared_ptr<Transfer> transfer) {
        transfer->cancelled.store(true, std::memory_order_release);
        post({std::move(transfer), true});
    }

private:
    struct Command {
        std::shared_ptr<Transfer> transfer;
        bool cancel;
    };

    void post(Command command) {
        {
            std::lock_guard lock(mutex_);
            commands_.push_back(std::move(command));
        }
        curl_multi_wakeup(multi_);
    }

    void run() {
        std::vector<Command> commands;
        for (;;) {
            {
                std::lock_guard lock(mutex_);
                if (stopping_) break;
                commands.swap(commands_);
            }
            for (Command& command : commands) {
                if (command.cancel) {
                    // Not started yet: its start finds the flag. Finished: nothing to abort.
                    if (!command.transfer->finished && command.transfer->easy) fail(*command.transfer, cancelledError());
                } else if (command.transfer->cancelled.load(std::memory_order_acquire)) {
                    fail(*command.transfer, cancelledError());  // cancelled before it could start
                } else {
                    begin(command.transfer);
                }
            }
            commands.clear();
            int running = 0;
            curl_multi_perform(multi_, &running);
            int left = 0;
            while (CURLMsg* message = curl_multi_info_read(multi_, &left)) {
                if (message->msg != CURLMSG_DONE) continue;
                Transfer* transfer = nullptr;
                curl_easy_getinfo(message->easy_handle, CURLINFO_PRIVATE, &transfer);
                complete(*transfer, message->data.result);
            }
            // Waits for the sockets, curl's next timer or a wake-up, whichever is first.
            curl_multi_poll(multi_, nullptr, 0, 60'000, nullptr);
        }
        // A session ends only once no send() holds it, so nothing waits here any more; anything
        // still queued is failed all the same rather than left hanging.
        auto stopped = std::make_exception_ptr(TransferError("Session stopped"));
        std::lock_guard lock(mutex_);
        for (Command& command : commands_) {
            if (!command.transfer->finished && !command.cancel) fail(*command.transfer, stopped);
        }
        while (!active_.empty()) fail(*active_.begin()->second, stopped);
    }

    static std::exception_ptr cancelledError() { return std::make_exception_ptr(async::CancellationError()); }

    void begin(const std::shared_ptr<Transfer>& transfer) {
        try {
            configure(*transfer);
        } catch (...) {
            fail(*transfer, std::current_exception());
            return;
        }
        if (CURLMcode code = curl_multi_add_handle(multi_, transfer->easy); code != CURLM_OK) {
            fail(*transfer, std::make_exception_ptr(TransferError(curl_multi_strerror(code))));
            return;
        }
        active_.emplace(transfer.get(), transfer);
    }

    static void configure(Transfer& transfer) {
        Request& request = transfer.request;
        CURL* easy = transfer.easy = curl_easy_init();
        if (!easy) throw TransferError("Out of memory");
        curl_easy_setopt(easy, CURLOPT_PRIVATE, &transfer);
        curl_easy_setopt(easy, CURLOPT_URL, request.url.c_str());
        // A base of another scheme (file:, ftp: ...) must not turn the proxy into a file reader.
        curl_easy_setopt(easy, CURLOPT_PROTOCOLS_STR, "http,https");
        curl_easy_setopt(easy, CURLOPT_NOSIGNAL, 1L);
        curl_easy_setopt(easy, CURLOPT_ERRORBUFFER, transfer.errorText);
        curl_easy_setopt(easy, CURLOPT_ACCEPT_ENCODING, "gzip, deflate");
        curl_easy_setopt(easy, CURLOPT_WRITEFUNCTION, appendBody);
        curl_easy_setopt(easy, CURLOPT_WRITEDATA, &transfer);
        // The timeout bounds silence, not the whole transfer: a large answer that keeps coming
        // is not cut off. curl checks speed over whole seconds.
        const long milliseconds = std::max<long>(1, static_cast<long>(request.timeout.count()));
        curl_easy_setopt(easy, CURLOPT_CONNECTTIMEOUT_MS, milliseconds);
        curl_easy_setopt(easy, CURLOPT_LOW_SPEED_LIMIT, 1L);
        curl_easy_setopt(easy, CURLOPT_LOW_SPEED_TIME, (milliseconds + 999) / 1000);

        const std::string& method = request.method.rawValue;
        const bool sendsBody = !request.body.empty() || method == "POST" || method == "PUT" || method == "PATCH";
        if (method == "HEAD") {
            curl_easy_setopt(easy, CURLOPT_NOBODY, 1L);
        } else if (method != "GET" || sendsBody) {
            curl_easy_setopt(easy, CURLOPT_CUSTOMREQUEST, method.c_str());
        }
        if (sendsBody && method != "HEAD") {
            curl_easy_setopt(easy, CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(request.body.size()));
            curl_easy_setopt(easy, CURLOPT_POSTFIELDS, request.body.data());
        }

        for (auto field : request.headers) {
            if (isReserved(field.name)) continue;
            // "Name;" is curl's way to send a header with an empty value.
            std::string line(field.name);
            if (field.value.empty()) {
                line += ';';
            } else {
                line += ": ";
                line += field.value;
            }
            appendHeader(transfer.headers, std::move(line));
        }
        // curl would add a form type to a body and hold a large one back for "100 Continue".
        if (sendsBody && !request.headers.contains(HTTPHeader::contentType)) appendHeader(transfer.headers, "Content-Type:");
        appendHeader(transfer.headers, "Expect:");
        curl_easy_setopt(easy, CURLOPT_HTTPHEADER, transfer.headers);
    }

    void complete(Transfer& transfer, CURLcode result) {
        if (result != CURLE_OK) {
            std::string text = curl_easy_strerror(result);
            if (transfer.errorText[0] != '\0') text += std::string(": ") + transfer.errorText;
            fail(transfer, std::make_exception_ptr(TransferError(std::move(text))));
            return;
        }
        Response response;
        long status = 0;
        curl_easy_getinfo(transfer.easy, CURLINFO_RESPONSE_CODE, &status);
        response.statusCode = status;
        // The headers of the last answer only: a "100 Continue" before it brings none.
        for (curl_header* header = nullptr; (header = curl_easy_nextheader(transfer.easy, CURLH_HEADER, -1, header));) {
            if (isReserved(header->name)) continue;
            if (response.headers.contains(header->name)) {
                response.headers.addValue(header->value, header->name);
            } else {
                response.headers.set(header->name, header->value);
            }
        }
        response.body = std::move(transfer.body);
        auto continuation = transfer.continuation;
        release(transfer);
        continuation.resume(std::move(response));
    }

    void fail(Transfer& transfer, std::exception_ptr error) {
        auto continuation = transfer.continuation;
        release(transfer);
        continuation.resumeThrowing(std::move(error));
    }

    // Takes the transfer off the multi handle; its connection stays in the cache unless it was
    // cut short. After this the task may resume and drop the transfer.
    void release(Transfer& transfer) {
        transfer.finished = true;
        if (transfer.easy) {
            curl_multi_remove_handle(multi_, transfer.easy);
            curl_easy_cleanup(std::exchange(transfer.easy, nullptr));
        }
        active_.erase(&transfer);
    }

    CURLM* multi_ = nullptr;
    std::thread thread_;
    std::mutex mutex_;
    std::vector<Command> commands_;
    bool stopping_ = false;
    std::unordered_map<Transfer*, std::shared_ptr<Transfer>> active_;
};

HTTPClientSession::HTTPClientSession() : engine_(std::make_unique<Engine>()) {}
HTTPClientSession::~HTTPClientSession() = default;

std::shared_ptr<HTTPClientSession> HTTPClientSession::make() {
    return std::shared_ptr<HTTPClientSession>(new HTTPClientSession());
}

bool HTTPClientSession::isReserved(std::string_view name) noexcept {
    static constexpr std::array<std::string_view, 10> reserved{
        "Host", "Connection", "Content-Length", "Transfer-Encoding", "Keep-Alive", "TE",
        "Trailer", "Upgrade", "Accept-Encoding", "Expect"};
    if (name.size() >= 6 && detail::equalsIgnoringCase(name.substr(0, 6), "Proxy-")) return true;
    return std::any_of(reserved.begin(), reserved.end(),
                       [&](std::string_view r) { return detail::equalsIgnoringCase(name, r); });
}

async::Task<HTTPClientSession::Response> HTTPClientSession::send(Request request) {
    async::checkCancellation();
    auto self = shared_from_this();
    auto transfer = std::make_shared<Transfer>();
    transfer->request = std::move(request);
    // Runs at once when the task is already cancelled: the start then finds the flag set.
    async::CancellationHandler onCancel([engine = engine_.get(), transfer] { engine->cancel(transfer); });
    Engine* engine = engine_.get();
    std::shared_ptr<Transfer>* held = &transfer;
    auto body = [engine, held](async::Continuation<Response> continuation) {
        (*held)->continuation = continuation;
        engine->start(*held);
    };
    co_return co_await async::withCheckedContinuation<Response>(body);
}

}  // namespace orvel::http
