#include "net/Logging.h"

#include <syslog.h>

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
      writer_(options.writer ? options.writer : &LogWriter::shared()) {}

void JournalLogger::log(Level level, const LogMessage& message) const {
    if (level < minimumLevel_)
        return;
    const auto text = message();
    if (writer_->hasJournal())
        writer_->writeJournal(journalPriority(level), category_, subsystem_, text);
    else
        writer_->writeText({"orvel: [", category_, "] ", name(level), ": ", text});
}

Logger defaultLogger(std::string category) { return std::make_shared<JournalLogger>(std::move(category)); }

}  // namespace orvel::net
