#include "platform/NSLog.h"

#include "e2e/Process.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <sys/socket.h>
#include <sys/un.h>

namespace orvel::platform {
namespace {

using ::testing::HasSubstr;
using ::testing::MatchesRegex;
using namespace std::chrono_literals;

TEST(NSLogLine, HasTheCustomaryShapeWithZeroPaddedMilliseconds) {
    auto when = std::chrono::system_clock::time_point(1714567507s + 5ms);
    EXPECT_THAT(formatNSLogLine("SPUUpdater, updaterDidNotFindUpdate", when, "orvel", 4242, 4243),
                MatchesRegex("[0-9]{4}-[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.005 "
                             "orvel\\[4242:4243\\] SPUUpdater, updaterDidNotFindUpdate"));
    EXPECT_THAT(formatNSLogLine("x", when + 994ms, "orvel", 1, 1), MatchesRegex(".*:[0-9]{2}\\.999 orvel\\[1:1\\] x"));
}

TEST(NSLogOutput, WritesOneLineToStandardErrorAndLeavesErrnoAsItFoundIt) {
    auto [readEnd, writeEnd] = test::makePipe();
    int saved = ::dup(STDERR_FILENO);
    ::dup2(writeEnd.get(), STDERR_FILENO);
    errno = EAGAIN;
    NSLog("SPUUpdater, resuming update now that Orvel isn't streaming");
    EXPECT_EQ(errno, EAGAIN);
    ::dup2(saved, STDERR_FILENO);
    ::close(saved);
    writeEnd = test::Fd();
    std::string text(4096, '\0');
    text.resize(std::max<ssize_t>(::read(readEnd.get(), text.data(), text.size()), 0));
    std::string ids = "\\[" + std::to_string(::getpid()) + ":" + std::to_string(::gettid()) + "\\]";
    EXPECT_THAT(text, MatchesRegex("[0-9-]{10} [0-9:.]{12} " + std::string(program_invocation_short_name) + ids +
                                   " SPUUpdater, resuming update now that Orvel isn't streaming\n"));
}

// Runs as a child inside a private mount namespace whose /run/systemd is an empty tmpfs, so the
// journal socket it binds is the only one sd_journal_send can reach. Prints the datagram received.
TEST(NSLogJournalProgram, DISABLED_SendsTheLineToTheJournal) {
    if (!std::getenv("ORVEL_NSLOG_JOURNAL_PROGRAM")) GTEST_SKIP() << "runs only as the child of NSLogJournal";
    test::Fd journal(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = "/run/systemd/journal/socket"};
    ASSERT_EQ(::bind(journal.get(), reinterpret_cast<sockaddr*>(&address), sizeof address), 0) << std::strerror(errno);
    NSLog("SPUUpdater, didFindValidUpdate: 412");
    pollfd entry{journal.get(), POLLIN, 0};
    ASSERT_EQ(::poll(&entry, 1, 30000), 1) << "nothing reached the journal socket";
    char datagram[4096];
    ssize_t n = ::recv(journal.get(), datagram, sizeof datagram, 0);
    ASSERT_GT(n, 0);
    std::printf("JOURNAL BEGIN\n%.*s\nJOURNAL END\n", static_cast<int>(n), datagram);
}

TEST(NSLogJournal, SendsTheTextToTheJournalWhenItsSocketIsThere) {
    if (::geteuid() != 0) GTEST_SKIP() << "a private mount namespace for a stand-in journal needs root";
    std::string unshare = test::findProgram("unshare");
    if (unshare.empty()) GTEST_SKIP() << "unshare is missing";
    auto result = test::runProgram(
        {unshare, "--mount", "--propagation", "private", "/bin/sh", "-c",
         "mount -t tmpfs tmpfs /run/systemd && mkdir /run/systemd/journal && exec \"$0\" "
         "--gtest_filter=NSLogJournalProgram.DISABLED_SendsTheLineToTheJournal --gtest_also_run_disabled_tests",
         std::filesystem::read_symlink("/proc/self/exe").string()},
        {.environment = test::environmentWith({{"ORVEL_NSLOG_JOURNAL_PROGRAM", "1"}})});
    ASSERT_EQ(result.exitCode, 0) << result.output;
    for (const char* field : {"\nMESSAGE=SPUUpdater, didFindValidUpdate: 412\n", "\nPRIORITY=5\n",
                              "\nSYSLOG_IDENTIFIER=orvel\n", "] SPUUpdater, didFindValidUpdate: 412\n"})
        EXPECT_THAT(result.output, HasSubstr(field)) << "journal fields, and still the line on standard error";
}

}  // namespace
}  // namespace orvel::platform
