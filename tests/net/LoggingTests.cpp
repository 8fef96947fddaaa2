#include "net/Logging.h"

#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

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

}  // namespace

TEST(PrintLogger, WritesOneLinePerLevelAsCategoryLevelAndMessage) {
    PrintLogger logger("C");
    testing::internal::CaptureStdout();
    logger.logDebug([] { return "a"; });
    logger.logInfo([] { return std::string("b"); });
    logger.logError("d");
    EXPECT_EQ(buildsAtEveryLevel(logger), 6);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              "[C] debug: a\n[C] info: b\n[C] error: d\n"
              "[C] debug: built\n[C] info: built\n[C] notice: built\n[C] warning: built\n[C] error: built\n[C] critical: built\n");
}

TEST(JournalLogger, WritesToTheJournalWhenItsSocketExistsElseTheLineToStandardError) {
    const JournalLogger toStandardError("HTTPServer", {.journalSocket = "/nonexistent/journal/socket"});
    EXPECT_FALSE(toStandardError.writesToJournal());
    testing::internal::CaptureStderr();
    toStandardError.logWarning([] { return "<127.0.0.1> open connection"; });
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "orvel: [HTTPServer] warning: <127.0.0.1> open connection\n");

    const std::string socket = testing::TempDir() + "orvel-journal-" + std::to_string(::getpid());
    FILE* standIn = std::fopen(socket.c_str(), "w");
    ASSERT_NE(standIn, nullptr);
    std::fclose(standIn);
    const JournalLogger toJournal("LoggingTest", {.journalSocket = socket});
    std::remove(socket.c_str());
    EXPECT_TRUE(toJournal.writesToJournal());
    testing::internal::CaptureStderr();
    toJournal.logInfo("journal logger test line");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(Loggers, DroppedLevelsAreNeverBuilt) {
    EXPECT_EQ(buildsAtEveryLevel(DisabledLogger()), 0);

    const JournalLogger errorsOnly("C", {.minimumLevel = Logging::Level::error, .journalSocket = "/nonexistent"});
    testing::internal::CaptureStderr();
    EXPECT_EQ(buildsAtEveryLevel(errorsOnly), 2);
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "orvel: [C] error: built\norvel: [C] critical: built\n");

    const JournalLogger byDefault("C", {.journalSocket = "/nonexistent"});
    testing::internal::CaptureStderr();
    EXPECT_EQ(buildsAtEveryLevel(byDefault), 5);  // debug is off
    testing::internal::GetCapturedStderr();
}

namespace {
struct FailingLogger final : Logging {
    void log(Level, const LogMessage&) const override { throw std::runtime_error("journal full"); }
};
}  // namespace

TEST(Loggers, AFailingMessageOrBackEndNeverReachesTheCaller) {
    const auto throwingMessage = []() -> std::string { throw std::bad_alloc(); };
    const JournalLogger journal("C", {.journalSocket = "/nonexistent"});
    const PrintLogger print("C");
    const FailingLogger failing;
    for (const Logging* logger : {static_cast<const Logging*>(&journal), static_cast<const Logging*>(&print)}) {
        EXPECT_NO_THROW(logger->logError(throwingMessage));
        EXPECT_NO_THROW(logger->logInfo(throwingMessage));
    }
    EXPECT_NO_THROW(failing.logWarning("a line"));
    EXPECT_NO_THROW(failing.logCritical(throwingMessage));
}
