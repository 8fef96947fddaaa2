// AppDelegate as the updater's user driver and delegate, with a scripted updater: the relaunch
// policy around streams, the setup at launch and the replies.
#include "app/AppDelegate.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <barrier>
#include <mutex>
#include <thread>

namespace orvel {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;

struct ScriptedUpdater final : update::UpdaterControl {
    std::atomic<int>* checks;
    std::optional<std::string> startError;
    void startUpdater() override {
        if (startError) throw update::UpdateError(*startError);
    }
    void checkForUpdatesInBackground() override { ++*checks; }
};

// A delegate whose updater is scripted and whose "SPUUpdater" lines are kept.
struct PolicyHarness {
    explicit PolicyHarness(bool automaticUpdates = true, std::optional<std::string> startError = std::nullopt) {
        Bundle::InfoDictionary info{{Bundle::versionKey, std::string("1.0.0")}};
        if (automaticUpdates) info.emplace(Bundle::automaticUpdatesKey, false);  // present is what counts
        AppDelegate::Environment environment{
            Bundle(Bundle::mainIdentifier, info), platform::XdgAutostart({"test", "test", "/nonexistent/orvel", "/nonexistent"}),
            std::make_shared<net::DisabledLogger>(), [] {}, false,
            [this, startError](AppDelegate&) {
                ++made;
                auto updater = std::make_unique<ScriptedUpdater>();
                updater->checks = &checks;
                updater->startError = startError;
                return updater;
            },
            &count,
            [this](std::string_view line) {
                std::unique_lock guard(lock);
                lines.emplace_back(line);
                guard.unlock();
                if (onLine) onLine(line);
            }};
        delegate = std::make_unique<AppDelegate>(std::move(environment));
        delegate->setUpUpdates();
    }

    std::vector<std::string> takeLines() {
        std::lock_guard guard(lock);
        return std::exchange(lines, {});
    }

    StreamCount count;
    std::function<void(std::string_view)> onLine;
    std::atomic<int> checks{0};
    int made = 0;
    std::mutex lock;
    std::vector<std::string> lines;
    std::unique_ptr<AppDelegate> delegate;
};

const std::string refused = "SPUUpdater, updaterShouldRelaunchApplication. Responding false";
const std::string allowed = "SPUUpdater, updaterShouldRelaunchApplication. Responding true";
const std::string awaiting = "SPUUpdater, Awaiting streaming end to apply";
const std::string resuming = "SPUUpdater, resuming update now that Orvel isn't streaming";

// Launch makes and starts the updater, and subscribes to the stream count, only with the update key.
TEST(UpdatePolicy, RefusesToRelaunchWhileStreamingAndResumesOnceWhenTheLastStreamEnds) {
    // '+' a stream starts, '-' one ends, 'a' the updater asks whether to relaunch, 't' the application terminates.
    const struct {
        std::string name, script;
        std::vector<std::string> lines;
        int checks;
        bool automaticUpdates = true;
        std::optional<std::string> startError = std::nullopt;
        int made = 1;
    } cases[] = {
        {"one stream", "+a-", {refused, awaiting, resuming}, 1},
        {"no stream, then one that ends", "a+-", {allowed}, 0},
        {"two streams ending one by one", "++a-", {refused, awaiting}, 0},
        {"two streams ending one by one, both", "++a--", {refused, awaiting, resuming}, 1},
        {"two refusals, one resumption", "+aa-", {refused, awaiting, refused, awaiting, resuming}, 1},
        {"count reaching 0 with nothing pending", "+-+-", {}, 0},
        {"start failed: logged, still subscribed", "+a-", {"Error while starting updater: No feed.", refused, awaiting, resuming},
         1, true, "No feed."},
        {"terminated: no longer subscribed", "t+a-", {refused, awaiting}, 0},
        {"no update key: nothing", "+a-", {refused, awaiting}, 0, false, std::nullopt, 0},
    };
    for (const auto& c : cases) {
        PolicyHarness harness(c.automaticUpdates, c.startError);
        for (char step : c.script) {
            if (step == '+') harness.count.increment();
            if (step == '-') harness.count.decrement();
            if (step == 'a') harness.delegate->updaterShouldRelaunchApplication();
            if (step == 't') harness.delegate->applicationWillTerminate();
        }
        EXPECT_THAT(harness.takeLines(), ElementsAreArray(c.lines)) << c.name;
        EXPECT_EQ(harness.checks, c.checks) << c.name;
        EXPECT_EQ(harness.made, c.made) << c.name;
    }
}

TEST(UpdatePolicy, TheCycleLineSaysNoErrorWhenThereIsNone) {
    PolicyHarness harness;
    const update::UpdateError error("It broke.");
    harness.delegate->didFinishUpdateCycleForUpdateCheck(update::UpdateCheck::updatesInBackground, nullptr);
    harness.delegate->didFinishUpdateCycleForUpdateCheck(update::UpdateCheck::updates, &error);
    EXPECT_THAT(harness.takeLines(),
                ElementsAre("SPUUpdater, didFinishUpdateCycle forUpdateCheckType: 1, with error: No error",
                            "SPUUpdater, didFinishUpdateCycle forUpdateCheckType: 0, with error: It broke."));
}

// A refusal on the updater's thread while the last stream ends on another: whichever comes
// first, the refusal is resumed exactly once, never lost and never twice.
TEST(UpdatePolicy, ARefusalRacingTheLastStreamsEndIsResumedExactlyOnce) {
    for (const bool betweenReadAndFlag : {true, false}) {
        PolicyHarness harness;
        harness.count.increment();
        const auto endStream = [&] { std::thread([&] { harness.count.decrement(); }).join(); };
        // The refusal's log lines come after it read the count and before it set the flag.
        if (betweenReadAndFlag)
            harness.onLine = [&, once = true](std::string_view line) mutable {
                if (line == awaiting && std::exchange(once, false)) endStream();
            };
        EXPECT_FALSE(harness.delegate->updaterShouldRelaunchApplication());
        if (!betweenReadAndFlag) endStream();
        EXPECT_EQ(harness.checks, 1) << "stream ended between the read and the flag: " << betweenReadAndFlag;
    }
    // Both sides on their own threads many times over, for ThreadSanitizer.
    PolicyHarness harness;
    std::barrier start(2), end(2);
    int refusals = 0;
    std::thread streams([&] {
        for (int round = 0; round < 2000; ++round) {
            harness.count.increment();
            start.arrive_and_wait();
            harness.count.decrement();
            end.arrive_and_wait();
        }
    });
    for (int round = 0; round < 2000; ++round) {
        start.arrive_and_wait();
        if (!harness.delegate->updaterShouldRelaunchApplication()) ++refusals;
        end.arrive_and_wait();
        ASSERT_EQ(harness.checks, refusals) << "round " << round;
    }
    streams.join();
}

}  // namespace
}  // namespace orvel
