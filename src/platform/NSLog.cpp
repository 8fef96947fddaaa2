#include "platform/NSLog.h"

#include <systemd/sd-journal.h>
#include <syslog.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <ctime>

namespace orvel::platform {

namespace {
constexpr const char* journalSocket = "/run/systemd/journal/socket";
}

std::string formatNSLogLine(std::string_view message, std::chrono::system_clock::time_point when,
                            std::string_view processName, pid_t processId, pid_t threadId) {
    using namespace std::chrono;
    const auto sinceEpoch = when.time_since_epoch();
    const std::time_t seconds = static_cast<std::time_t>(floor<std::chrono::seconds>(sinceEpoch).count());
    const auto millis = duration_cast<milliseconds>(sinceEpoch - floor<std::chrono::seconds>(sinceEpoch)).count();
    std::tm local{};
    ::localtime_r(&seconds, &local);
    char stamp[64];
    std::size_t length = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(stamp + length, sizeof stamp - length, ".%03d", static_cast<int>(millis));

    std::string line = stamp;
    line += ' ';
    line += processName;
    line += '[' + std::to_string(processId) + ':' + std::to_string(threadId) + "] ";
    line += message;
    return line;
}

void NSLog(std::string_view message) {
    const int savedErrno = errno;  // like the original, logging leaves errno as it found it
    std::string line = formatNSLogLine(message, std::chrono::system_clock::now(), program_invocation_short_name,
                                       ::getpid(), ::gettid());
    line += '\n';
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
    // Without journald sd_journal_send returns 0 and drops the line, so the socket is checked
    // first rather than the return value.
    if (::access(journalSocket, W_OK) == 0) {
        const std::string text(message);
        sd_journal_send("MESSAGE=%s", text.c_str(), "PRIORITY=%i", LOG_NOTICE, "SYSLOG_IDENTIFIER=orvel", nullptr);
    }
    errno = savedErrno;
}

}  // namespace orvel::platform
