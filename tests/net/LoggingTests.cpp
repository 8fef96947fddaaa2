#include "net/Logging.h"

#include "net/PoolTesting.h"

#include <gtest/gtest.h>

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <sstream>
#include <thread>
#include <tuple>

using namespace orvel::net;

namespace {

// Counts how often the message was built, to show dropped levels never build it.
struct CountingMessage {
    int* calls;
    std::string operator()() const {
        ++*calls;
        return "built";
    }
};

int buildsAtEveryLevel(const Logging& logger) {
    int calls = 0;
    const CountingMessage message{&calls};
    logger.logDebug(message);
    logger.logInfo(message);
    logger.logNotice(message);
    logger.logWarning(message);
    logger.logError(message);
    logger.logCritical(message);
    return calls;
}

// A pipe for a writer's text lines.
struct Pipe {
    int fd[2] = {-1, -1};  // read, write
    Pipe() { EXPECT_EQ(::pipe2(fd, O_CLOEXEC), 0); }
    ~Pipe() { closeWrite(), ::close(fd[0]); }
    int write() const { return fd[1]; }
    void closeWrite() { ::close(std::exchange(fd[1], -1)); }
    std::string readAll() {  // until the write end is closed
        std::string out;
        char buffer[4096];
        for (ssize_t n; (n = ::read(fd[0], buffer, sizeof buffer)) > 0;) out.append(buffer, static_cast<std::size_t>(n));
        return out;
    }
};

}  // namespace

TEST(JournalLogger, WritesEntriesInTheJournalsDatagramFormat) {
    const std::string path = testing::TempDir() + "orvel-journal-" + std::to_string(::getpid());
    orvel::test::Owned journal(Socket::make(AF_UNIX, SocketType::datagram));
    journal->bind(unix(path));
    journal->setFlags(Socket::Flags::nonBlocking);
    LogWriter writer({.textDescriptor = -1, .journalSocket = path});
    const JournalLogger toJournal("LoggingTest", {.subsystem = "com.tamrix.orvel", .writer = &writer});
    EXPECT_TRUE(toJournal.writesToJournal());
    toJournal.logInfo("journal line");
    toJournal.logError("two\nlines");
    writer.flush();
    constexpr char twoLines[] = "PRIORITY=3\nSYSLOG_IDENTIFIER=orvel\nCATEGORY=LoggingTest\nSUBSYSTEM=com.tamrix.orvel\n"
                                "MESSAGE\n\x09\0\0\0\0\0\0\0two\nlines\n";
    EXPECT_EQ(journal->receive(256).bytes,
              orvel::test::bytes("PRIORITY=6\nSYSLOG_IDENTIFIER=orvel\nCATEGORY=LoggingTest\nSUBSYSTEM=com.tamrix.orvel\nMESSAGE=journal line\n"));
    EXPECT_EQ(journal->receive(256).bytes, orvel::test::bytes(std::string_view(twoLines, sizeof twoLines - 1)));
    ::unlink(path.c_str());
}

TEST(Loggers, WriteTheirLineFormatAndNeverBuildADroppedLevel) {
    EXPECT_EQ(buildsAtEveryLevel(DisabledLogger()), 0);
    testing::internal::CaptureStdout();
    const PrintLogger print("C");
    print.logInfo([] { return "from a callable"; });
    print.logError("fixed");
    EXPECT_EQ(buildsAtEveryLevel(print), 6);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[C] info: from a callable\n[C] error: fixed\n[C] debug: built\n[C] info: built\n[C] notice: built\n"
              "[C] warning: built\n[C] error: built\n[C] critical: built\n");

    Pipe text;
    {
        LogWriter writer({.textDescriptor = text.write(), .journalSocket = ""});
        const JournalLogger errorsOnly("C", {.minimumLevel = Logging::Level::error, .writer = &writer});
        EXPECT_EQ(buildsAtEveryLevel(errorsOnly), 2);
        const JournalLogger byDefault("D", {.writer = &writer});
        EXPECT_FALSE(byDefault.writesToJournal());
        EXPECT_EQ(buildsAtEveryLevel(byDefault), 5);  // debug is off
    }
    text.closeWrite();
    EXPECT_EQ(text.readAll(), "orvel: [C] error: built\norvel: [C] critical: built\norvel: [D] info: built\n"
                              "orvel: [D] notice: built\norvel: [D] warning: built\norvel: [D] error: built\norvel: [D] critical: built\n");
}

// Lines from several threads, below the bound and (with the writer stuck on a full pipe) above
// it: each thread's lines arrive in order; below the bound none is lost; above it every line is
// either written or counted in a notice that follows the gap.
TEST(LogWriter, KeepsOrderLosesNothingBelowItsBoundAndCountsWhatItDropsAbove) {
    const std::tuple<const char*, std::size_t, bool> cases[] = {{"below", 1 << 20, false}, {"above", 4000, true}};
    for (const auto& [name, bound, stuck] : cases) {
        Pipe text;
        if (stuck) {  // fill the pipe: the writer's first write blocks until we read
            ::fcntl(text.write(), F_SETFL, O_NONBLOCK);
            while (::write(text.write(), "#", 1) == 1 || errno == EINTR) {
            }
            ::fcntl(text.write(), F_SETFL, 0);
        }
        constexpr int threads = 4, perThread = 500;
        std::string out;
        std::uint64_t dropped = 0;
        {
            LogWriter writer({.textDescriptor = text.write(), .journalSocket = "", .maxQueuedBytes = bound});
            std::vector<std::thread> producers;
            for (int t = 0; t < threads; ++t)
                producers.emplace_back([&, t] {
                    for (int i = 0; i < perThread; ++i) writer.writeText({std::to_string(t), " ", std::to_string(i)});
                });
            for (auto& producer : producers) producer.join();
            std::thread reader([&] { out = text.readAll(); });
            writer.flush();
            dropped = writer.droppedCount();
            text.closeWrite();
            reader.join();
        }
        out.erase(0, out.find_first_not_of('#'));
        std::istringstream lines(out);
        std::vector<int> next(threads, 0);
        std::uint64_t received = 0, noticed = 0;
        for (std::string line; std::getline(lines, line);) {
            unsigned long long count = 0;
            if (std::sscanf(line.c_str(), "orvel: %llu log lines dropped: the log could not keep up", &count) == 1) {
                noticed += count;
                continue;
            }
            int t = -1, i = -1;
            std::istringstream(line) >> t >> i;
            ASSERT_TRUE(t >= 0 && t < threads) << name << ": " << line;
            EXPECT_GE(i, next[t]) << name << ": thread " << t << " out of order";
            next[t] = i + 1;
            ++received;
        }
        EXPECT_EQ(received + dropped, static_cast<std::uint64_t>(threads * perThread)) << name;
        EXPECT_EQ(noticed, dropped) << name;
        if (stuck) {
            EXPECT_GT(dropped, 0u);
            EXPECT_GE(received, 4000u / 8) << "the queue holds a bound's worth";
        } else {
            EXPECT_EQ(dropped, 0u);
        }
    }
}

namespace {
struct FailingLogger final : Logging {
    void log(Level, const LogMessage&) const override { throw std::runtime_error("journal full"); }
};
}  // namespace

TEST(Loggers, AFailingMessageOrBackEndNeverReachesTheCaller) {
    const auto throwingMessage = []() -> std::string { throw std::bad_alloc(); };
    LogWriter writer({.textDescriptor = -1, .journalSocket = ""});
    const JournalLogger journal("C", {.writer = &writer});
    const PrintLogger print("C");
    const FailingLogger failing;
    for (const Logging* logger : {static_cast<const Logging*>(&journal), static_cast<const Logging*>(&print)}) {
        EXPECT_NO_THROW(logger->logError(throwingMessage));
        EXPECT_NO_THROW(logger->logInfo(throwingMessage));
    }
    EXPECT_NO_THROW(failing.logWarning("a line"));
    EXPECT_NO_THROW(failing.logCritical(throwingMessage));
}
