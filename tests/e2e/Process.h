#pragma once
// Child processes for end-to-end tests: spawned with a chosen environment, output read line by
// line with a deadline, ended by their own PID when the test is done. Deadlines only guard
// against hangs; nothing here waits a fixed time for readiness.

#include "net/OwnedDescriptor.h"

#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <ranges>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

extern char** environ;

namespace orvel::test {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using Fd = net::OwnedDescriptor;

inline std::pair<Fd, Fd> makePipe() {
    int fds[2];
    if (::pipe2(fds, O_CLOEXEC) != 0) throw std::runtime_error(std::string("pipe2: ") + std::strerror(errno));
    return {Fd(fds[0]), Fd(fds[1])};
}

// Polls a condition that another process or thread makes true; the guard only stops a hang.
template <class Condition>
bool waitUntil(Condition condition, Clock::duration guard = 10s) {
    const auto deadline = Clock::now() + guard;
    while (!condition()) {
        if (Clock::now() >= deadline) return false;
        std::this_thread::sleep_for(20ms);
    }
    return true;
}

using EnvironmentChanges = std::map<std::string, std::optional<std::string>>;

// This process's environment with `changes` applied: a value sets a variable, nullopt removes it.
inline std::vector<std::string> environmentWith(const EnvironmentChanges& changes) {
    std::vector<std::string> result;
    for (char** entry = environ; *entry; ++entry) {
        std::string_view text(*entry);
        if (!changes.contains(std::string(text.substr(0, text.find('='))))) result.emplace_back(text);
    }
    for (const auto& [name, value] : changes)
        if (value) result.push_back(name + "=" + *value);
    return result;
}

inline bool isExecutable(const std::string& path) { return ::access(path.c_str(), X_OK) == 0; }

// The full path of `program` on PATH, or empty.
inline std::string findProgram(const std::string& program) {
    const char* path = std::getenv("PATH");
    for (const auto folder : std::views::split(std::string_view(path ? path : "/usr/local/bin:/usr/bin:/bin"), ':'))
        if (auto candidate = std::string(folder.begin(), folder.end()) + "/" + program; isExecutable(candidate))
            return candidate;
    return {};
}

class ChildProcess {
public:
    struct Options {
        std::vector<std::string> environment = environmentWith({});
        bool mergeStderr = true;  // standard error into the captured output; else inherited
    };

    ChildProcess(std::vector<std::string> argv, Options options) {
        auto [readEnd, writeEnd] = makePipe();
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, STDIN_FILENO, "/dev/null", O_RDONLY, 0);
        posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDOUT_FILENO);
        if (options.mergeStderr) posix_spawn_file_actions_adddup2(&actions, writeEnd.get(), STDERR_FILENO);
        // The test runner may have blocked or ignored signals; the child starts clean.
        posix_spawnattr_t attributes;
        posix_spawnattr_init(&attributes);
        sigset_t none, all;
        sigemptyset(&none);
        sigfillset(&all);
        posix_spawnattr_setsigmask(&attributes, &none);
        posix_spawnattr_setsigdefault(&attributes, &all);
        posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETSIGMASK | POSIX_SPAWN_SETSIGDEF);

        std::vector<char*> args, env;
        for (auto& a : argv) args.push_back(a.data());
        args.push_back(nullptr);
        for (auto& e : options.environment) env.push_back(e.data());
        env.push_back(nullptr);
        int error = ::posix_spawn(&pid_, argv[0].c_str(), &actions, &attributes, args.data(), env.data());
        posix_spawn_file_actions_destroy(&actions);
        posix_spawnattr_destroy(&attributes);
        if (error != 0) throw std::runtime_error("cannot start " + argv[0] + ": " + std::strerror(error));
        output_ = std::move(readEnd);
        pidfd_ = Fd(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
    }

    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    ~ChildProcess() {
        if (exitStatus_) return;
        signal(SIGTERM);
        if (!waitForExit(5s)) {
            signal(SIGKILL);
            waitForExit(5s);
        }
    }

    pid_t pid() const noexcept { return pid_; }
    const std::string& output() const noexcept { return captured_; }

    void signal(int number) {
        if (!exitStatus_) ::kill(pid_, number);
    }

    // The next whole output line for which `matches` holds; nullopt if the child's output ended
    // or the deadline passed first.
    std::optional<std::string> waitForLine(const std::function<bool(const std::string&)>& matches,
                                           Clock::duration timeout) {
        const auto deadline = Clock::now() + timeout;
        while (true) {
            for (std::size_t newline; (newline = captured_.find('\n', scanned_)) != std::string::npos;) {
                std::string line = captured_.substr(scanned_, newline - scanned_);
                scanned_ = newline + 1;
                if (matches(line)) return line;
            }
            if (!readSome(deadline)) return std::nullopt;
        }
    }

    std::optional<std::string> waitForLineContaining(const std::string& text, Clock::duration timeout = 30s) {
        return waitForLine([&](const std::string& line) { return line.find(text) != std::string::npos; }, timeout);
    }

    // The exit status (as waitpid gives it), reading output meanwhile; nullopt at the deadline.
    std::optional<int> waitForExit(Clock::duration timeout) {
        const auto deadline = Clock::now() + timeout;
        for (int status = 0; !exitStatus_;) {
            if (::waitpid(pid_, &status, WNOHANG) == pid_) {
                exitStatus_ = status;
            } else if (Clock::now() >= deadline) {
                return std::nullopt;
            } else {
                pollfd entries[] = {{pidfd_.get(), POLLIN, 0}, {output_.get(), POLLIN, 0}};  // poll skips a closed -1
                ::poll(entries, 2, 100);
                if (entries[1].revents) readSome(Clock::now());
            }
        }
        while (readSome(Clock::now())) {
        }
        return exitStatus_;
    }

    // The exit code, or 128 + the signal as shells report it; -1 if it did not end in time.
    int exitCode(Clock::duration timeout = 60s) {
        auto status = waitForExit(timeout);
        if (!status) return -1;
        return WIFEXITED(*status) ? WEXITSTATUS(*status) : 128 + WTERMSIG(*status);
    }

private:
    // Reads what output there is once some is ready; false when it has closed or time is up.
    bool readSome(Clock::time_point deadline) {
        if (!output_) return false;
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd entry{output_.get(), POLLIN, 0};
        if (::poll(&entry, 1, static_cast<int>(std::max<long long>(left, 0))) <= 0) return false;
        char buffer[4096];
        ssize_t n = ::read(output_.get(), buffer, sizeof buffer);
        if (n <= 0) {
            output_ = Fd();  // every writer has gone
            return false;
        }
        captured_.append(buffer, static_cast<std::size_t>(n));
        return true;
    }

    pid_t pid_ = -1;
    Fd output_;
    Fd pidfd_;
    std::string captured_;
    std::size_t scanned_ = 0;
    std::optional<int> exitStatus_;
};

struct RunResult {
    int exitCode = -1;  // -1: still running at the deadline (then it was ended)
    std::string output;
};

// Runs a program to its end and returns its exit code and merged output.
inline RunResult runProgram(std::vector<std::string> argv, ChildProcess::Options options = {},
                            Clock::duration timeout = 60s) {
    ChildProcess child(std::move(argv), std::move(options));
    int code = child.exitCode(timeout);
    return {code, child.output()};
}

// A fresh folder under the system's temporary folder, removed with everything in it.
class TemporaryFolder {
public:
    TemporaryFolder() {
        std::string pattern = (std::filesystem::temp_directory_path() / "orvel-test-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) throw std::runtime_error(std::string("mkdtemp: ") + std::strerror(errno));
        path_ = pattern;
    }
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;
    ~TemporaryFolder() {
        std::error_code error;
        std::filesystem::permissions(path_, std::filesystem::perms::owner_all, error);
        std::filesystem::remove_all(path_, error);
    }
    const std::filesystem::path& path() const noexcept { return path_; }

private:
    std::filesystem::path path_;
};

}  // namespace orvel::test
