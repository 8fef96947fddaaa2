#pragma once
#include "net/LogWriter.h"

#include <concepts>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

namespace orvel::net {

// A message that is built only when a logger decides to write it. It refers to the caller's
// callable (or text) without owning or copying it, so it lives only for the logging call.
class LogMessage {
public:
    // Any callable returning something a std::string can be made from.
    template <class F>
        requires std::invocable<F&> && std::constructible_from<std::string, std::invoke_result_t<F&>>
    LogMessage(F& make) noexcept  // NOLINT(google-explicit-constructor)
        : object_(static_cast<const void*>(std::addressof(make))),
          build_([](const void* object) -> std::string {
              return std::string(std::invoke(*static_cast<F*>(const_cast<void*>(object))));
          }) {}

    // Fixed text: nothing to build.
    LogMessage(std::string_view text) noexcept  // NOLINT(google-explicit-constructor)
        : text_(text) {}

    std::string operator()() const { return build_ ? build_(object_) : std::string(text_); }

private:
    const void* object_ = nullptr;
    std::string (*build_)(const void*) = nullptr;
    std::string_view text_;
};

// The logging interface of the socket layer, the HTTP server and the app: the five levels of
// the toolkit plus notice, the system log's default level, for lines the app writes plainly. A logger is
// immutable once made and may be used from any thread; share it as std::shared_ptr<Logging>
// (see Logger below). The front end takes the message as a callable
// (`logger->logInfo([&] { return "<" + host + "> open connection"; })`) or as fixed text, and a
// logger that drops the level never calls it, so a dropped line costs no allocation.
class Logging {
public:
    enum class Level { debug, info, notice, warning, error, critical };

    virtual ~Logging() = default;

    // Never throw: a line that cannot be built or written is lost, and the caller, often a
    // destructor or a cancellation path, goes on.
    template <class F>
    void logDebug(F&& message) const noexcept { write(Level::debug, toMessage(message)); }
    template <class F>
    void logInfo(F&& message) const noexcept { write(Level::info, toMessage(message)); }
    template <class F>
    void logNotice(F&& message) const noexcept { write(Level::notice, toMessage(message)); }
    template <class F>
    void logWarning(F&& message) const noexcept { write(Level::warning, toMessage(message)); }
    template <class F>
    void logError(F&& message) const noexcept { write(Level::error, toMessage(message)); }
    template <class F>
    void logCritical(F&& message) const noexcept { write(Level::critical, toMessage(message)); }

    // The back end: writes the message, or drops it without calling it. It may throw (the
    // message function may); the front end above swallows it.
    virtual void log(Level level, const LogMessage& message) const = 0;

    // "debug", "info", "notice", "warning", "error", "critical".
    static std::string_view name(Level level) noexcept;

private:
    void write(Level level, const LogMessage& message) const noexcept {
        try {
            log(level, message);
        } catch (...) {
        }
    }

    template <class F>
    static LogMessage toMessage(F& message) noexcept {
        if constexpr (std::is_convertible_v<F&, std::string_view> && !std::invocable<F&>)
            return LogMessage(std::string_view(message));
        else
            return LogMessage(message);
    }
};

// The shared handle every layer holds.
using Logger = std::shared_ptr<const Logging>;

// Writes every line to standard output as "[category] level: message". No level filter.
class PrintLogger final : public Logging {
public:
    explicit PrintLogger(std::string category) : category_(std::move(category)) {}
    const std::string& category() const noexcept { return category_; }
    void log(Level level, const LogMessage& message) const override;

private:
    std::string category_;
};

// Drops everything and never builds a message.
class DisabledLogger final : public Logging {
public:
    void log(Level, const LogMessage&) const override {}
};

// The system log: the systemd journal (identifier "orvel", the category in field CATEGORY,
// the subsystem in SUBSYSTEM when given) when the writer reaches it, otherwise one line on
// standard error ("orvel: [category] level: message"). The line is handed to a LogWriter, whose
// thread writes it: logging costs the caller no system call.
// Levels below `minimumLevel` are dropped unevaluated; like unified logging, debug is off by
// default. Notice goes to the journal at notice priority; warning, error and critical at error
// priority.
class JournalLogger final : public Logging {
public:
    struct Options {
        std::string subsystem = {};
        Level minimumLevel = Level::info;
        LogWriter* writer = nullptr;  // not owned, outlives the logger; nullptr: LogWriter::shared()
    };

    explicit JournalLogger(std::string category);
    JournalLogger(std::string category, Options options);

    const std::string& category() const noexcept { return category_; }
    bool writesToJournal() const noexcept { return writer_->hasJournal(); }
    void log(Level level, const LogMessage& message) const override;

private:
    std::string category_;
    std::string subsystem_;
    Level minimumLevel_;
    LogWriter* writer_;
};

// The logger a layer uses when it is given none: the system log for `category`.
Logger defaultLogger(std::string category);

}  // namespace orvel::net
