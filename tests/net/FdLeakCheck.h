#pragma once
#include "async/ThreadPool.h"
#include "async/TimerService.h"
#include "net/LogWriter.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <optional>
#include <set>
#include <string>
#include <thread>

namespace orvel::test {

// The descriptors this process has open, each with what it refers to ("socket:[123]"). The
// runtime's own (the thread pool's reactor, the timers' timerfd and the log's journal socket, made on first use and kept
// for the life of the process) are made first, so that they are never taken for a leak.
inline std::map<int, std::string> openDescriptors() {
    async::TimerService::shared();
    net::LogWriter::shared();
    std::map<int, std::string> descriptors;
    std::error_code error;  // an unreadable link is left as ""
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd"))
        descriptors.emplace(std::stoi(entry.path().filename()), std::filesystem::read_symlink(entry.path(), error).string());
    const std::string listing = "/proc/" + std::to_string(::getpid()) + "/fd";  // the iterator's own descriptor
    std::erase_if(descriptors, [&](const auto& descriptor) { return descriptor.second == listing; });
    return descriptors;
}

// Fails the current test for every descriptor opened since `before` that stays open, and every
// one in `before` that is gone. Descriptors onto the binary or one of its libraries are left out:
// the sanitizers' symbolizer opens them the first time it reads a stack and keeps them open.
// Another thread may hold one for a moment (glibc and the sanitizers read /proc/self/maps to find
// a stack), so a new descriptor counts only if it is still there after a grace period; a real
// leak is.
inline void expectUnchanged(const std::map<int, std::string>& before) {
    const auto openedSince = [&] {
        const auto now = openDescriptors();  // before the maps are open
        std::set<std::string> mapped;
        std::ifstream maps("/proc/self/maps");
        for (std::string line; std::getline(maps, line);)
            if (const auto slash = line.find('/'); slash != std::string::npos) mapped.insert(line.substr(slash));
        std::map<int, std::string> opened;
        for (const auto& [fd, target] : now)
            if (auto found = before.find(fd); (found == before.end() || found->second != target) && !mapped.contains(target))
                opened.emplace(fd, target);
        return opened;
    };
    auto opened = openedSince();
    for (int attempt = 0; !opened.empty() && attempt < 50; ++attempt) {
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
        opened = openedSince();
    }
    for (const auto& [fd, target] : opened)
        ADD_FAILURE() << "descriptor " << fd << " (" << target << ") leaked";
    const auto after = openDescriptors();
    for (const auto& [fd, target] : before)
        if (!after.contains(fd))
            ADD_FAILURE() << "descriptor " << fd << " (" << target << ") was closed by someone who did not open it";
}

// Checks, when it goes, that the descriptors are those open when it was made. Use as a member
// or a local; nothing for the test to call.
class FdSnapshot {
public:
    FdSnapshot() : before_(openDescriptors()) {}
    FdSnapshot(const FdSnapshot&) = delete;
    FdSnapshot& operator=(const FdSnapshot&) = delete;
    ~FdSnapshot() { expectUnchanged(before_); }

private:
    std::map<int, std::string> before_;
};

// Fixture base for socket tests: compares /proc/self/fd before and after each test.
// Derived fixtures that override SetUp/TearDown call these first/last.
class FdLeakCheck : public ::testing::Test {
protected:
    void SetUp() override { snapshot_.emplace(); }
    void TearDown() override { snapshot_.reset(); }

private:
    std::optional<FdSnapshot> snapshot_;
};

}  // namespace orvel::test
