#pragma once
#include <sys/un.h>

#include <chrono>
#include <condition_variable>
#include <initializer_list>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

namespace orvel::net {

// The one thread that writes log lines. Loggers append a finished line to a queue and return:
// the request path pays a lock and a copy per line, never a system call. The thread wakes when
// the queue gets its first line, lets more gather for a moment, and writes all it has at once:
// text lines in one write to the text descriptor, journal entries in one sendmmsg to the
// journal's datagram socket. Lines keep the order in which they were queued.
//
// The queue is bounded by bytes: a line that does not fit (the log cannot keep up) is dropped
// and counted, and the count is written as a line of its own with the next batch.
class LogWriter {
public:
    static constexpr std::string_view defaultJournalSocket = "/run/systemd/journal/socket";

    struct Options {
        int textDescriptor = 2;  // not owned; standard error by default
        std::string journalSocket = std::string(defaultJournalSocket);  // empty: no journal
        std::size_t maxQueuedBytes = 1 << 20;
    };

    explicit LogWriter(Options options);
    // Writes what is queued, then ends the thread.
    ~LogWriter();
    LogWriter(const LogWriter&) = delete;
    LogWriter& operator=(const LogWriter&) = delete;

    // The process's writer: standard error and the system journal. Never destroyed (loggers on
    // pool threads may log while the process exits); what is queued is written at exit.
    static LogWriter& shared();

    // True when the journal's socket is there and writable.
    bool hasJournal() const noexcept { return journal_ >= 0; }

    // Queues one text line made of `parts` and a line feed.
    void writeText(std::initializer_list<std::string_view> parts) noexcept;
    // Queues one journal entry (a syslog priority, identifier "orvel").
    void writeJournal(int priority, std::string_view category, std::string_view subsystem,
                      std::string_view message) noexcept;

    // Returns once everything queued before the call has been written (or dropped), or when
    // `limit` has passed (false then: a descriptor nobody reads must not hold up an exit).
    bool flush(std::chrono::milliseconds limit = std::chrono::milliseconds::max()) noexcept;
    // Lines dropped so far because the queue was full.
    std::uint64_t droppedCount() const noexcept;

private:
    struct Batch {
        std::string text;
        std::string journal;
        std::vector<std::uint32_t> journalSizes;  // one datagram each, back to back in `journal`
        std::size_t lines = 0;
        void clear() noexcept;
    };

    bool admit(std::size_t bytes) noexcept;  // with mutex_ held
    void queued(std::unique_lock<std::mutex>& lock) noexcept;
    void run();
    void write(const Batch& batch, std::uint64_t dropped) noexcept;
    void writeTextBytes(std::string_view bytes) noexcept;
    void sendJournal(const Batch& batch) noexcept;

    Options options_;
    sockaddr_un journalAddress_{};
    int journal_ = -1;
    mutable std::mutex mutex_;
    std::condition_variable wake_;
    std::condition_variable written_;
    Batch queue_;
    bool idle_ = false;  // the thread waits for a first line
    bool stopping_ = false;
    std::size_t flushing_ = 0;
    std::uint64_t queuedLines_ = 0;   // ever queued
    std::uint64_t writtenLines_ = 0;  // ever written
    std::uint64_t droppedSinceReport_ = 0;
    std::uint64_t droppedTotal_ = 0;
    std::thread thread_;
};

}  // namespace orvel::net
