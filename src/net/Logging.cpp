#include "net/Logging.h"

#include <systemd/sd-journal.h>
#include <syslog.h>
#include <unistd.h>

#include <cstdio>

namespace orvel::net {

std::string_view Logging::name(Level level) noexcept {
    switch (level) {
    case Level::debug: return "debug";
    case Level::info: return "info";
    case Level::notice: return "notice";
    case Level::warning: return "warning";
    case Level::error: return "error";
    case Level::critical: return "critical";
    }
    return "unknown";
}

namespace {

std::string formatLine(std::string_view prefix, std::string_view category, Logging::Level level,
                       std::string_view message) {
    std::string line;
    const auto levelName = Logging::name(level);
    line.reserve(prefix.size() + category.size() + levelName.size() + message.size() + 6);
    line.append(prefix).append("[").append(category).append("] ").append(levelName).append(": ");
    line.append(message).push_back('\n');
    return line;
}

int journalPriority(Logging::Level level) noexcept {
    switch (level) {
    case Logging::Level::debug: return LOG_DEBUG;
    case Logging::Level::info: return LOG_INFO;
    case Logging::Level::notice: return LOG_NOTICE;
    case Logging::Level::warning:
    case Logging::Level::error:
    case Logging::Level::critical: return LOG_ERR;
    }
    return LOG_ERR;
}

}  // namespace

void PrintLogger::log(Level level, const LogMessage& message) const {
    const auto line = formatLine({}, category_, level, message());
    // One fwrite per line: stdio's own lock keeps concurrent lines whole.
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fflush(stdout);
}

JournalLogger::JournalLogger(std::string category) : JournalLogger(std::move(category), Options{}) {}

JournalLogger::JournalLogger(std::string category, Options options)
    : category_(std::move(category)),
      subsystem_(std::move(options.subsystem)),
      minimumLevel_(options.minimumLevel),
      toJournal_(::access(options.journalSocket.c_str(), W_OK) == 0) {}

void JournalLogger::log(Level level, const LogMessage& message) const {
    if (level < minimumLevel_)
        return;
    const auto text = message();
    if (toJournal_) {
        if (subsystem_.empty()) {
            sd_journal_send("MESSAGE=%s", text.c_str(), "PRIORITY=%i", journalPriority(level),
                            "SYSLOG_IDENTIFIER=orvel", "CATEGORY=%s", category_.c_str(), nullptr);
        } else {
            sd_journal_send("MESSAGE=%s", text.c_str(), "PRIORITY=%i", journalPriority(level),
                            "SYSLOG_IDENTIFIER=orvel", "CATEGORY=%s", category_.c_str(),
                            "SUBSYSTEM=%s", subsystem_.c_str(), nullptr);
        }
        return;
    }
    const auto line = formatLine("orvel: ", category_, level, text);
    // A single write keeps lines from several threads apart; a short write of a log line is
    // not worth a retry loop.
    [[maybe_unused]] const auto written = ::write(STDERR_FILENO, line.data(), line.size());
}

Logger defaultLogger(std::string category) { return std::make_shared<JournalLogger>(std::move(category)); }

}  // namespace orvel::net
