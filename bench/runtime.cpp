// The task runtime's basic costs, each beside the plain mechanism it replaces.
#include "BenchReport.h"
#include "async/Async.h"

#include <atomic>
#include <condition_variable>
#include <deque>
#include <map>
#include <mutex>
#include <thread>

using namespace orvel::async;

namespace {

Task<void> empty() { co_return; }

Task<void> spawnAndAwaitLoop(benchmark::State& state) {
    for (auto _ : state) co_await spawn(empty()).value();
}

void spawnAwait(benchmark::State& state) { syncWait(spawnAndAwaitLoop(state)); }

// Reference: the bare pool, posting a job and waiting for it to flag completion.
void poolPostAndWait(benchmark::State& state) {
    auto& pool = ThreadPool::shared();
    std::atomic<bool> done{false};
    for (auto _ : state) {
        done.store(false, std::memory_order_relaxed);
        pool.post([](void* flag) { static_cast<std::atomic<bool>*>(flag)->store(true, std::memory_order_release); }, &done);
        while (!done.load(std::memory_order_acquire)) {
        }
    }
}

// A foreign thread yields one element at a time to a consumer task that is waiting for it.
Task<void> consumeLoop(benchmark::State& state, AsyncStream<long>& stream, std::atomic<long>& received) {
    long count = 0;
    for (auto _ : state) {
        co_await stream.next();
        received.store(++count, std::memory_order_release);
    }
}

void streamHandOff(benchmark::State& state) {
    auto [stream, continuation] = AsyncStream<long>::make();
    std::atomic<long> received{0};
    std::atomic<bool> stop{false};
    std::thread producer([&, c = continuation] {
        long sent = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            if (received.load(std::memory_order_acquire) == sent) c.yield(++sent);
        }
    });
    syncWait(consumeLoop(state, stream, received));
    stop.store(true);
    producer.join();
}

// Reference: a mutex and condition variable queue between the same two threads.
void condvarHandOff(benchmark::State& state) {
    std::mutex mutex;
    std::condition_variable ready;
    std::deque<long> queue;
    std::atomic<long> received{0};
    std::atomic<bool> stop{false};
    std::thread producer([&] {
        long sent = 0;
        while (!stop.load(std::memory_order_relaxed)) {
            if (received.load(std::memory_order_acquire) == sent) {
                std::lock_guard lock(mutex);
                queue.push_back(++sent);
                ready.notify_one();
            }
        }
    });
    long count = 0;
    for (auto _ : state) {
        std::unique_lock lock(mutex);
        ready.wait(lock, [&] { return !queue.empty(); });
        queue.pop_front();
        lock.unlock();
        received.store(++count, std::memory_order_release);
    }
    stop.store(true);
    producer.join();
}

struct Counter {
    SerialExecutor executor;
    long value = 0;
    Task<void> increment() {
        co_await executor.enter();
        ++value;
    }
};

Task<void> hopLoop(benchmark::State& state, Counter& counter) {
    for (auto _ : state) co_await counter.increment();
}

void serialExecutorHop(benchmark::State& state) {
    Counter counter;
    syncWait(hopLoop(state, counter));
}

// Reference: the same increment guarded by a mutex, called from a task.
Task<void> mutexLoop(benchmark::State& state, std::mutex& mutex, long& value) {
    for (auto _ : state) {
        std::lock_guard lock(mutex);
        benchmark::DoNotOptimize(++value);
    }
    co_return;
}

void mutexIncrement(benchmark::State& state) {
    std::mutex mutex;
    long value = 0;
    syncWait(mutexLoop(state, mutex, value));
}

void timerScheduleCancel(benchmark::State& state) {
    auto& service = TimerService::shared();
    TimerService::Timer timer;
    timer.fire = [](TimerService::Timer*) {};
    for (auto _ : state) {
        const auto now = TimerService::Clock::now();
        timer.deadline = now + std::chrono::seconds(10);
        service.schedule(timer, now);
        benchmark::DoNotOptimize(service.cancel(timer));
    }
}

// Reference: a timer table as an ordered multimap under a mutex.
void multimapScheduleCancel(benchmark::State& state) {
    std::mutex mutex;
    std::multimap<TimerService::Clock::time_point, void*> timers;
    for (auto _ : state) {
        auto deadline = TimerService::Clock::now() + std::chrono::seconds(10);
        std::multimap<TimerService::Clock::time_point, void*>::iterator entry;
        {
            std::lock_guard lock(mutex);
            entry = timers.emplace(deadline, nullptr);
        }
        std::lock_guard lock(mutex);
        timers.erase(entry);
    }
}

}  // namespace

BENCHMARK(spawnAwait)->UseRealTime();
BENCHMARK(poolPostAndWait)->UseRealTime();
BENCHMARK(streamHandOff)->UseRealTime();
BENCHMARK(condvarHandOff)->UseRealTime();
BENCHMARK(serialExecutorHop)->UseRealTime();
BENCHMARK(mutexIncrement)->UseRealTime();
BENCHMARK(timerScheduleCancel)->UseRealTime();
BENCHMARK(multimapScheduleCancel)->UseRealTime();

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    orvel::bench::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatio("spawnAwait/real_time", "poolPostAndWait/real_time");
    reporter.printRatio("streamHandOff/real_time", "condvarHandOff/real_time");
    reporter.printRatio("serialExecutorHop/real_time", "mutexIncrement/real_time");
    reporter.printRatio("timerScheduleCancel/real_time", "multimapScheduleCancel/real_time");
    reporter.printGoal("spawnAwait/real_time", 1000);
    reporter.printGoal("streamHandOff/real_time", 5000);
    reporter.printGoal("timerScheduleCancel/real_time", 500);
    benchmark::Shutdown();
}
