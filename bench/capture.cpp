// Capture costs. Two parts in one program:
//  1. The float -> Int16 conversion in samples per second, against a plain scalar lround loop.
//  2. A live capture at 48 kHz through startAudioCapture from a private PulseAudio server: CPU per
//     capture-minute and memory over the run, against parec recording the same monitor at the
//     same time. Default 5 s; `bench_capture --capture-seconds=600` is the 10-minute run,
//     `--capture-seconds=0` skips it, `--pulse-server=unix:/path/native` uses a running server.
#include "BenchReport.h"

#include "../tests/platform/PulseAudioFixture.h"
#include "app/AudioCapture.h"
#include "app/SampleConversion.h"
#include "async/Spawn.h"
#include "platform/PulseAudioCapture.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <atomic>
#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <numbers>

namespace orvel {
namespace {

std::vector<float> testSignal(std::size_t count) {
    std::vector<float> samples(count);
    for (std::size_t i = 0; i < count; ++i) {
        samples[i] = 0.9f * static_cast<float>(std::sin(2.0 * std::numbers::pi * 440.0 * static_cast<double>(i) / 48000.0));
    }
    return samples;
}

// What one would write first: exact, branchy, one libm call per sample.
[[gnu::noinline]] void scalarLround(std::span<const float> samples, std::uint8_t* out) {
    for (std::size_t i = 0; i < samples.size(); ++i) {
        const float x = samples[i];
        const long rounded = std::isnan(x) ? 0 : std::lround(static_cast<double>(x) * 32768.0);
        const auto s = static_cast<std::int16_t>(std::clamp(rounded, -32768L, 32767L));
        std::memcpy(out + 2 * i, &s, sizeof s);
    }
}

template <void (*convert)(std::span<const float>, std::uint8_t*)>
void conversion(benchmark::State& state) {
    const auto count = static_cast<std::size_t>(state.range(0));
    const auto samples = testSignal(count);
    std::vector<std::uint8_t> out(2 * count);
    for (auto _ : state) {
        convert(samples, out.data());
        benchmark::DoNotOptimize(out.data());
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * static_cast<std::int64_t>(count));
}

void ours(std::span<const float> samples, std::uint8_t* out) { convertToInt16LE(samples, out); }

constexpr std::int64_t sizes[] = {480, 4800, 65536};  // 10 ms and 100 ms at 48 kHz, and a large block

// Also keeps CPU time per iteration: on a loaded shared machine wall time counts the waits for
// a core, CPU time only the work.
class Reporter final : public bench::RatioReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        RatioReporter::ReportRuns(runs);
        for (const auto& run : runs) {
            if (run.run_type == Run::RT_Iteration) cpuNanoseconds[run.benchmark_name()] = run.GetAdjustedCPUTime();
        }
    }
    std::map<std::string, double> cpuNanoseconds;
};

// --- live capture ---------------------------------------------------------------------------

double processCpuSeconds() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    auto seconds = [](const timeval& t) { return static_cast<double>(t.tv_sec) + t.tv_usec / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

// "VmRSS" or "VmHWM" of this process, in KiB.
long memoryKiB(const std::string& field) {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind(field + ":", 0) == 0) return std::stol(line.substr(field.size() + 1));
    }
    return -1;
}

// CPU seconds a process has run so far, summed over its threads from /proc/<pid>/task/*/schedstat
// (nanoseconds; /proc/<pid>/stat counts clock ticks, too coarse for a tenth of a second).
double childCpuSeconds(pid_t pid) {
    double seconds = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/" + std::to_string(pid) + "/task")) {
        unsigned long long nanoseconds = 0;
        if (std::ifstream(task.path() / "schedstat") >> nanoseconds) seconds += static_cast<double>(nanoseconds) / 1e9;
    }
    return seconds;
}

// Consumes the byte stream the way the streaming handler does: accumulate, cut 100 ms messages.
async::Task<void> consume(AudioCaptureStream stream, std::shared_ptr<std::atomic<long>> messages) {
    constexpr std::size_t chunkBytes = 9600;
    std::vector<std::uint8_t> buffer;
    buffer.reserve(2 * chunkBytes);
    while (auto bytes = co_await stream.next()) {
        buffer.insert(buffer.end(), bytes->begin(), bytes->end());
        std::size_t offset = 0;
        while (buffer.size() - offset >= chunkBytes) {
            std::vector<std::uint8_t> message(buffer.begin() + offset, buffer.begin() + offset + chunkBytes);
            benchmark::DoNotOptimize(message.data());
            offset += chunkBytes;
            messages->fetch_add(1, std::memory_order_relaxed);
        }
        buffer.erase(buffer.begin(), buffer.begin() + offset);
    }
}

void measureCapture(int seconds, std::string server) {
    std::unique_ptr<test::PulseAudioServer> privateServer;
    if (server.empty()) {
        privateServer = std::make_unique<test::PulseAudioServer>();
        server = privateServer->server();
    }
    test::ChildProcess::Options parecOptions;
    if (privateServer) parecOptions = privateServer->childOptions();
    else parecOptions.environment = test::environmentWith({{"PULSE_SERVER", server}});

    AudioCaptureEnvironment environment{
        std::make_shared<platform::PulseAudioCaptureService>(platform::PulseAudioCapture::Options{.server = server}),
        std::make_shared<net::DisabledLogger>()};
    auto messages = std::make_shared<std::atomic<long>>(0);

    const long rssBefore = memoryKiB("VmRSS");
    const double cpuBefore = processCpuSeconds();
    auto stream = async::syncWait(startAudioCapture(48000, environment));
    auto consumer = async::spawn(consume(std::move(stream), messages));
    test::ChildProcess parec({test::findProgram("parec"), "--format=float32le", "--channels=1", "--rate=48000",
                              "--latency-msec=20", "/dev/null"},
                             parecOptions);

    long rssAfterOneSecond = 0;
    for (int second = 1; second <= seconds; ++second) {
        std::this_thread::sleep_for(std::chrono::seconds(1));  // pacing a measurement, not waiting for readiness
        if (second == 1) rssAfterOneSecond = memoryKiB("VmRSS");
        if (second % 60 == 0) {
            std::printf("  %d s: %ld messages, RSS %ld KiB\n", second, messages->load(), memoryKiB("VmRSS"));
            std::fflush(stdout);
        }
    }
    const double parecCpu = childCpuSeconds(parec.pid());
    consumer.cancel();
    consumer.wait();
    const double ourCpu = processCpuSeconds() - cpuBefore;
    const long rssAfter = memoryKiB("VmRSS");

    const double perMinute = ourCpu * 60.0 / seconds;
    std::printf("\nlive capture, 48 kHz mono, %d s (startAudioCapture + 100 ms message cutting):\n", seconds);
    std::printf("  messages: %ld (%.1f per second; 10 expected)\n", messages->load(),
                static_cast<double>(messages->load()) / seconds);
    std::printf("  CPU: %.3f s, %.1f ms per capture-minute (%.3f%% of one core)\n", ourCpu, perMinute * 1000.0,
                ourCpu / seconds * 100.0);
    std::printf("  parec on the same monitor: %.3f s CPU, %.1f ms per capture-minute\n", parecCpu,
                parecCpu * 60.0 / seconds * 1000.0);
    if (parecCpu > 0) std::printf("  startAudioCapture / parec = %.2f (CPU)\n", ourCpu / parecCpu);
    std::printf("  RSS: %ld KiB before, %ld KiB after 1 s, %ld KiB at the end, peak %ld KiB\n", rssBefore,
                rssAfterOneSecond, rssAfter, memoryKiB("VmHWM"));
}

}  // namespace
}  // namespace orvel

int main(int argc, char** argv) {
    using namespace orvel;
    int captureSeconds = 5;
    std::string server;
    std::vector<char*> rest;
    for (int i = 0; i < argc; ++i) {
        std::string_view argument = argv[i];
        if (argument.starts_with("--capture-seconds=")) {
            captureSeconds = std::stoi(std::string(argument.substr(18)));
        } else if (argument.starts_with("--pulse-server=")) {
            server = std::string(argument.substr(15));
        } else {
            rest.push_back(argv[i]);
        }
    }
    int restCount = static_cast<int>(rest.size());

    for (auto size : sizes) {
        benchmark::RegisterBenchmark("convertToInt16LE", conversion<ours>)->Arg(size);
        benchmark::RegisterBenchmark("scalarLround", conversion<scalarLround>)->Arg(size);
    }
    benchmark::Initialize(&restCount, rest.data());
    Reporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    std::printf("\n");
    for (auto size : sizes) {
        const std::string ours = "convertToInt16LE/" + std::to_string(size);
        const std::string reference = "scalarLround/" + std::to_string(size);
        reporter.printRatio(ours, reference);
        const auto wall = reporter.nanoseconds.find(ours);
        const auto cpu = reporter.cpuNanoseconds.find(ours);
        const auto cpuReference = reporter.cpuNanoseconds.find(reference);
        if (wall != reporter.nanoseconds.end() && cpu != reporter.cpuNanoseconds.end()) {
            const double perCpuSecond = static_cast<double>(size) / cpu->second;  // G samples/s
            std::printf("  %.2f G samples per CPU-second (goal >= 1: %s), %.2f G/s wall; reference %.2f G per "
                        "CPU-second; speed-up %.1fx\n",
                        perCpuSecond, perCpuSecond >= 1.0 ? "met" : "NOT met", static_cast<double>(size) / wall->second,
                        static_cast<double>(size) / cpuReference->second, cpuReference->second / cpu->second);
        }
    }
    if (captureSeconds > 0) measureCapture(captureSeconds, server);
    benchmark::Shutdown();
    return 0;
}
