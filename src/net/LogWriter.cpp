#include "net/LogWriter.h"

#include <pthread.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <unistd.h>

#include <algorithm>
#include <utility>
#include <cerrno>
#include <chrono>
#include <cstring>

namespace orvel::net {
namespace {

// How long the thread lets lines gather after the first one woke it: a busy server then costs
// a few hundred writes a second however many lines it logs, and a line is late by this at most.
constexpr auto gatherTime = std::chrono::milliseconds(2);
constexpr std::size_t datagramsPerCall = 64;

void appendNumber(std::string& out, std::uint64_t value) { out += std::to_string(value); }

// One field of the journal's datagram protocol: "NAME=value\n", or, for a value that holds a
// line feed, "NAME\n", its size as 64-bit little-endian, the bytes and "\n".
void appendField(std::string& out, std::string_view name, std::string_view value) {
    out.append(name);
    if (value.find('\n') == std::string_view::npos) {
        out += '=';
        out.append(value);
    } else {
        out += '\n';
        std::uint64_t size = value.size();
        for (int i = 0; i < 8; ++i) out += static_cast<char>((size >> (8 * i)) & 0xff);
        out.append(value);
    }
    out += '\n';
}

std::size_t journalEntrySize(std::string_view category, std::string_view subsystem, std::string_view message) {
    return 96 + category.size() + subsystem.size() + message.size();  // at least the entry's size
}

void appendJournalEntry(std::string& out, int priority, std::string_view category, std::string_view subsystem,
                        std::string_view message) {
    out.append("PRIORITY=");
    appendNumber(out, static_cast<std::uint64_t>(priority));
    out.append("\nSYSLOG_IDENTIFIER=orvel\n");
    appendField(out, "CATEGORY", category);
    if (!subsystem.empty()) appendField(out, "SUBSYSTEM", subsystem);
    appendField(out, "MESSAGE", message);
}

// An unconnected datagram socket, each entry sent to the journal's address: a journal that
// restarts takes the next batch. None when the socket is not there or not writable.
int openJournal(const std::string& path, sockaddr_un& address) {
    if (path.empty() || path.size() >= sizeof address.sun_path || ::access(path.c_str(), W_OK) != 0) return -1;
    address.sun_family = AF_UNIX;
    std::memcpy(address.sun_path, path.data(), path.size());
    return ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
}

std::string droppedLine(std::uint64_t dropped) {
    return std::to_string(dropped) + " log lines dropped: the log could not keep up";
}

}  // namespace

void LogWriter::Batch::clear() noexcept {
    text.clear();
    journal.clear();
    journalSizes.clear();
    lines = 0;
}

LogWriter::LogWriter(Options options) : options_(std::move(options)), journal_(openJournal(options_.journalSocket, journalAddress_)) {
    try {
        thread_ = std::thread([this] {
            pthread_setname_np(pthread_self(), "orvel.log");
            run();
        });
    } catch (...) {
        if (journal_ >= 0) ::close(journal_);
        throw;
    }
}

LogWriter::~LogWriter() {
    {
        std::lock_guard lock(mutex_);
        stopping_ = true;
    }
    wake_.notify_one();
    thread_.join();
    if (journal_ >= 0) ::close(journal_);
}

LogWriter& LogWriter::shared() {
    static LogWriter* writer = new LogWriter(Options{});
    // Static destruction (a return from main, exit()) writes what is still queued, unless the
    // descriptor has stopped taking lines.
    static const struct FlushAtExit {
        ~FlushAtExit() { writer->flush(std::chrono::seconds(2)); }
    } flushAtExit;
    return *writer;
}

bool LogWriter::admit(std::size_t bytes) noexcept {
    if (queue_.text.size() + queue_.journal.size() + bytes <= options_.maxQueuedBytes) return true;
    ++droppedSinceReport_;
    ++droppedTotal_;
    return false;
}

void LogWriter::queued(std::unique_lock<std::mutex>& lock) noexcept {
    ++queue_.lines;
    ++queuedLines_;
    // Only the first line of a batch wakes the thread; the rest find it gathering.
    const bool wake = std::exchange(idle_, false);
    lock.unlock();
    if (wake) wake_.notify_one();
}

void LogWriter::writeText(std::initializer_list<std::string_view> parts) noexcept {
    std::size_t size = 1;
    for (std::string_view part : parts) size += part.size();
    std::unique_lock lock(mutex_);
    if (!admit(size)) return;
    try {
        for (std::string_view part : parts) queue_.text.append(part);
        queue_.text += '\n';
    } catch (...) {
        return;  // out of memory: the line is lost
    }
    queued(lock);
}

void LogWriter::writeJournal(int priority, std::string_view category, std::string_view subsystem,
                             std::string_view message) noexcept {
    std::unique_lock lock(mutex_);
    if (!admit(journalEntrySize(category, subsystem, message))) return;
    const std::size_t start = queue_.journal.size();
    try {
        appendJournalEntry(queue_.journal, priority, category, subsystem, message);
        queue_.journalSizes.push_back(static_cast<std::uint32_t>(queue_.journal.size() - start));
    } catch (...) {
        queue_.journal.resize(start);
        return;
    }
    queued(lock);
}

bool LogWriter::flush(std::chrono::milliseconds limit) noexcept {
    std::unique_lock lock(mutex_);
    const std::uint64_t target = queuedLines_;
    if (writtenLines_ >= target) return true;
    ++flushing_;
    idle_ = false;
    wake_.notify_one();
    const auto done = [&] { return writtenLines_ >= target; };
    bool flushed = true;
    if (limit == std::chrono::milliseconds::max())
        written_.wait(lock, done);
    else
        flushed = written_.wait_for(lock, limit, done);
    --flushing_;
    return flushed;
}

std::uint64_t LogWriter::droppedCount() const noexcept {
    std::lock_guard lock(mutex_);
    return droppedTotal_;
}

void LogWriter::run() {
    Batch batch;  // swapped with the queue: both keep their capacity
    std::unique_lock lock(mutex_);
    for (;;) {
        if (queue_.lines == 0 && droppedSinceReport_ == 0) {
            if (stopping_) return;
            idle_ = true;
            wake_.wait(lock, [&] { return !idle_ || stopping_; });
            idle_ = false;
            // Let the lines of a burst gather, unless someone waits for them.
            wake_.wait_for(lock, gatherTime, [&] { return stopping_ || flushing_ > 0; });
        }
        std::swap(batch, queue_);
        const std::uint64_t dropped = std::exchange(droppedSinceReport_, 0);
        lock.unlock();
        write(batch, dropped);
        lock.lock();
        writtenLines_ += batch.lines;
        batch.clear();
        written_.notify_all();
    }
}

void LogWriter::write(const Batch& batch, std::uint64_t dropped) noexcept {
    if (!batch.text.empty()) writeTextBytes(batch.text);
    if (!batch.journalSizes.empty()) sendJournal(batch);
    if (dropped == 0) return;
    // After the lines that were kept, so the count follows the gap it describes.
    try {
        if (hasJournal()) {
            Batch notice;
            appendJournalEntry(notice.journal, LOG_WARNING, "Logging", {}, droppedLine(dropped));
            notice.journalSizes.push_back(static_cast<std::uint32_t>(notice.journal.size()));
            sendJournal(notice);
        } else {
            writeTextBytes("orvel: " + droppedLine(dropped) + "\n");
        }
    } catch (...) {
    }
}

void LogWriter::writeTextBytes(std::string_view bytes) noexcept {
    while (!bytes.empty()) {
        const ssize_t written = ::write(options_.textDescriptor, bytes.data(), bytes.size());
        if (written < 0 && errno == EINTR) continue;
        if (written <= 0) return;  // nowhere to write: the lines are lost
        bytes.remove_prefix(static_cast<std::size_t>(written));
    }
}

void LogWriter::sendJournal(const Batch& batch) noexcept {
    std::size_t next = 0;
    std::size_t offset = 0;
    while (next < batch.journalSizes.size()) {
        iovec parts[datagramsPerCall];
        mmsghdr messages[datagramsPerCall]{};
        const std::size_t count = std::min(datagramsPerCall, batch.journalSizes.size() - next);
        std::size_t at = offset;
        for (std::size_t i = 0; i < count; ++i) {
            parts[i] = {const_cast<char*>(batch.journal.data() + at), batch.journalSizes[next + i]};
            messages[i].msg_hdr.msg_name = &journalAddress_;
            messages[i].msg_hdr.msg_namelen = sizeof journalAddress_;
            messages[i].msg_hdr.msg_iov = &parts[i];
            messages[i].msg_hdr.msg_iovlen = 1;
            at += batch.journalSizes[next + i];
        }
        int sent = ::sendmmsg(journal_, messages, static_cast<unsigned>(count), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) continue;
        // A datagram the journal refuses (too large, journal gone) is skipped, not retried.
        const std::size_t done = sent > 0 ? static_cast<std::size_t>(sent) : 1;
        for (std::size_t i = 0; i < done; ++i) offset += batch.journalSizes[next + i];
        next += done;
    }
}

}  // namespace orvel::net
