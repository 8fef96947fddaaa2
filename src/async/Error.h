#pragma once
#include <exception>
#include <string>
#include <utility>

namespace orvel::async {

// Base of every error the system raises: a fixed text, reproduced exactly in log lines.
// description() and what() return the same text.
class Error : public std::exception {
public:
    const std::string& description() const noexcept { return text_; }
    const char* what() const noexcept override { return text_.c_str(); }

protected:
    explicit Error(std::string text) : text_(std::move(text)) {}

private:
    std::string text_;
};

// Raised by an operation of a task that has been cancelled.
class CancellationError final : public Error {
public:
    CancellationError() : Error("CancellationError()") {}
};

// The text of a caught error, for logs.
inline std::string describe(const std::exception_ptr& error) {
    try {
        std::rethrow_exception(error);
    } catch (const std::exception& e) {
        return e.what();
    } catch (...) {
        return "unknown error";
    }
}

}  // namespace orvel::async
