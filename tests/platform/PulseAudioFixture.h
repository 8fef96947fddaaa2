#pragma once
// A private sound server for capture tests, and the signal tools to check what was captured.

// Relative, so that bench programs (which do not have tests/ on their include path) can use it.
#include "../e2e/Process.h"
#include "net/SocketAddress.h"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <optional>
#include <utility>
#include <span>
#include <sstream>

namespace orvel::test {

// A private sound server for capture tests: PulseAudio, or PipeWire with its session manager
// and pulse server on a session bus of their own. Either runs in its own XDG_RUNTIME_DIR with a
// null sink as the default sink, kept busy by a silent pacat stream: an idle null sink renders
// in ~2 s bursts (PipeWire suspends it). Everything is stopped by PID. Only children get the
// server's environment; this process passes the server to libpulse explicitly.
class SoundServer {
public:
    enum class Kind { pulseaudio, pipewire };

    explicit SoundServer(Kind kind = Kind::pulseaudio) : kind_(kind) {
        const auto runtime = folder_.path() / "xdg";
        std::filesystem::create_directories(runtime);
        std::filesystem::permissions(runtime, std::filesystem::perms::owner_all);
        std::filesystem::create_directories(folder_.path() / "home");
        EnvironmentChanges changes{{"XDG_RUNTIME_DIR", runtime.string()},
                                   {"HOME", (folder_.path() / "home").string()},
                                   {"PULSE_SERVER", server()}};
        for (const char* name : {"PULSE_RUNTIME_PATH", "PULSE_SINK", "PULSE_SOURCE", "PIPEWIRE_REMOTE", "PIPEWIRE_RUNTIME_DIR",
                                 "XDG_CONFIG_HOME", "XDG_STATE_HOME"})
            changes[name] = std::nullopt;
        if (kind_ == Kind::pipewire) {
            const auto bus = runProgram({findProgram("dbus-daemon"), "--session", "--fork", "--print-pid=1",
                                         "--address=unix:path=" + (folder_.path() / "bus").string()},
                                        {.environment = environmentWith(changes)}, 30s);
            busPid_ = std::atoi(bus.output.c_str());
            if (bus.exitCode != 0 || busPid_ <= 0) throw std::runtime_error("dbus-daemon did not start: " + bus.output);
            changes["DBUS_SESSION_BUS_ADDRESS"] = "unix:path=" + (folder_.path() / "bus").string();
        }
        environment_ = environmentWith(changes);
        try {
            start();
        } catch (...) {
            stop();  // no destructor runs for a constructor that throws
            stopBus();
            throw;
        }
    }

    SoundServer(const SoundServer&) = delete;
    SoundServer& operator=(const SoundServer&) = delete;
    ~SoundServer() {
        stop();
        stopBus();
    }

    // The server as libpulse takes it; the same across restarts.
    std::string server() const { return "unix:" + (folder_.path() / "xdg" / "pulse" / "native").string(); }

    // For children that should talk to this server (paplay, pactl, pacat).
    ChildProcess::Options childOptions() const { return {.environment = environment_}; }

    // Starts the server (again, after stop) with the busy null sink "orvel_test" as default.
    void start() {
        if (kind_ == Kind::pulseaudio) {
            std::filesystem::remove(folder_.path() / "xdg" / "pulse" / "pid");  // left by a killed daemon
            const auto started = runProgram({findProgram("pulseaudio"), "--daemonize=yes", "--exit-idle-time=-1", "-n",
                                             "--load=module-native-protocol-unix",
                                             "--log-target=file:" + logFile("pulseaudio").string()},
                                            childOptions(), 30s);
            std::ifstream(folder_.path() / "xdg" / "pulse" / "pid") >> pid_;
            if (started.exitCode != 0 || pid_ <= 0)
                throw std::runtime_error("pulseaudio did not start: " + started.output + log());
            daemon_ = Fd(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
        } else {
            // A killed core leaves its socket behind; the next one must not be taken as up before
            // it listens, or the session manager connects too early and gives up.
            std::filesystem::remove(folder_.path() / "xdg" / "pipewire-0");
            std::filesystem::remove(folder_.path() / "xdg" / "pipewire-0.lock");
            for (const char* program : {"pipewire", "wireplumber", "pipewire-pulse"}) {
                const std::string path = findProgram(program);
                if (path.empty()) throw std::runtime_error(std::string(program) + " is not installed (see scripts/setup)");
                // Into a file: a pipe nobody reads would stall the server once full.
                processes_.push_back(std::make_unique<ChildProcess>(
                    std::vector<std::string>{"/bin/sh", "-c", "exec \"$0\" >>\"$1\" 2>&1", path,
                                             logFile(program).string()},
                    childOptions()));
                // The others give up when the core is not there yet.
                if (processes_.size() == 1 &&
                    !waitUntil([&] { return accepts(folder_.path() / "xdg" / "pipewire-0"); }, 30s))
                    throw std::runtime_error("pipewire did not start" + log());
            }
            if (!waitUntil([&] { return tryPactl({"info"}).has_value(); }, 30s))
                throw std::runtime_error("pipewire-pulse did not answer" + log());
        }
        addSink("orvel_test");
    }

    // True when something listens on the Unix socket at `path`.
    static bool accepts(const std::filesystem::path& path) {
        const Fd probe(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
        const auto address = net::unix(path.string());
        return ::connect(probe.get(), net::addressPointer(address), sizeof address) == 0;
    }

    // Ends the server: SIGTERM, or SIGKILL for a crash; waits for every process by its pidfd.
    void stop(int signal = SIGTERM) {
        keepBusy_.clear();
        for (auto& process : processes_) process->signal(signal);
        processes_.clear();  // the destructors wait
        if (pid_ > 0) {
            for (int each : {signal, SIGKILL}) {
                ::kill(pid_, each);
                pollfd entry{daemon_.get(), POLLIN, 0};
                if (!daemon_ || ::poll(&entry, 1, 10000) > 0) break;
            }
            pid_ = -1;
            daemon_ = Fd();
        }
    }

    // A null sink kept busy by its own silent stream, made the default sink.
    void addSink(const std::string& name) {
        pactl({"load-module", "module-null-sink", "sink_name=" + name});
        // PipeWire's session manager, which keeps the default, may still be starting.
        if (!waitUntil([&] { return tryPactl({"set-default-sink", name}).has_value(); }, 30s))
            pactl({"set-default-sink", name});
        keepBusy_.push_back(std::make_unique<ChildProcess>(
            std::vector<std::string>{findProgram("pacat"), "--playback", "--raw", "--format=s16le", "--rate=48000",
                                     "--channels=2", "--latency-msec=20", "--device=" + name, "/dev/zero"},
            childOptions()));
        if (!waitUntil([&] { return lines(pactl({"list", "short", "sink-inputs"})).size() == keepBusy_.size(); }, 30s))
            throw std::runtime_error("the keep-busy stream did not appear: " + keepBusy_.back()->output() + log());
    }

    std::optional<std::string> tryPactl(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), findProgram("pactl"));
        auto result = runProgram(std::move(arguments), childOptions(), 30s);
        if (result.exitCode != 0) return std::nullopt;
        return result.output;
    }
    std::string pactl(std::vector<std::string> arguments) const {
        auto result = tryPactl(arguments);
        if (!result) throw std::runtime_error("pactl " + arguments.front() + " failed" + log());
        return *result;
    }

    // Record streams the server has, one line each.
    std::vector<std::string> sourceOutputs() const { return lines(pactl({"list", "short", "source-outputs"})); }

    // A client's disconnect reaches the server asynchronously, so the first look may still see it.
    bool waitUntilNoSourceOutputs() const {
        return waitUntil([&] { return sourceOutputs().empty(); });
    }

    // Plays a sound file on the default sink; the child ends when it has been played.
    std::unique_ptr<ChildProcess> play(const std::filesystem::path& file) const {
        return std::make_unique<ChildProcess>(std::vector<std::string>{findProgram("paplay"), file.string()}, childOptions());
    }

    std::string log() const {
        std::string text;
        for (const char* program : {"pulseaudio", "pipewire", "wireplumber", "pipewire-pulse"}) {
            std::ifstream file(logFile(program));
            if (file) text += std::string("\n") + program + " log:\n" + std::string(std::istreambuf_iterator<char>(file), {});
        }
        return text;
    }

private:
    std::filesystem::path logFile(const std::string& program) const { return folder_.path() / (program + ".log"); }

    void stopBus() {
        if (busPid_ > 0) ::kill(std::exchange(busPid_, -1), SIGTERM);
    }

    static std::vector<std::string> lines(const std::string& text) {
        std::vector<std::string> result;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);)
            if (!line.empty()) result.push_back(line);
        return result;
    }

    Kind kind_;
    TemporaryFolder folder_;
    std::vector<std::string> environment_;
    pid_t busPid_ = -1;
    pid_t pid_ = -1;  // the PulseAudio daemon, which detaches itself
    Fd daemon_;
    std::vector<std::unique_ptr<ChildProcess>> processes_;  // PipeWire's three
    std::vector<std::unique_ptr<ChildProcess>> keepBusy_;
};

using PulseAudioServer = SoundServer;

// Both servers, for tests that run on each.
inline constexpr SoundServer::Kind soundServerKinds[] = {SoundServer::Kind::pulseaudio, SoundServer::Kind::pipewire};
template <class ParamInfo>  // a GoogleTest TestParamInfo, for readable test names
std::string soundServerName(const ParamInfo& info) {
    return info.param == SoundServer::Kind::pipewire ? "PipeWire" : "PulseAudio";
}

// Sound files for the tests, made with sox and espeak-ng in a folder of their own.
class TestSignals {
public:
    // A sine of `hertz` at `amplitude` (0..1) for `seconds`, 48 kHz mono 16-bit.
    std::filesystem::path sine(double hertz, double amplitude, double seconds) const {
        auto path = folder_.path() / ("sine-" + std::to_string(static_cast<int>(hertz)) + ".wav");
        run({findProgram("sox"), "-n", "-r", "48000", "-c", "1", "-b", "16", path.string(), "synth",
             std::to_string(seconds), "sine", std::to_string(hertz), "vol", std::to_string(amplitude)});
        return path;
    }

    // A spoken phrase (22050 Hz mono, as espeak-ng writes it).
    std::filesystem::path speech(const std::string& phrase) const {
        auto path = folder_.path() / "speech.wav";
        run({findProgram("espeak-ng"), "-w", path.string(), phrase});
        return path;
    }

    // The file's samples at `rate`, mono float, resampled by sox: the reference for a capture.
    std::vector<float> samples(const std::filesystem::path& file, int rate) const {
        auto raw = folder_.path() / (file.stem().string() + "-" + std::to_string(rate) + ".f32");
        run({findProgram("sox"), file.string(), "-r", std::to_string(rate), "-c", "1", "-e", "floating-point", "-b",
             "32", "-t", "raw", raw.string()});
        std::vector<float> result(std::filesystem::file_size(raw) / sizeof(float));
        std::ifstream(raw, std::ios::binary).read(reinterpret_cast<char*>(result.data()), result.size() * sizeof(float));
        return result;
    }

private:
    static void run(std::vector<std::string> argv) {
        auto result = runProgram(std::move(argv));
        if (result.exitCode != 0) throw std::runtime_error("making a test signal failed: " + result.output);
    }

    TemporaryFolder folder_;
};

inline double rms(std::span<const float> samples) {
    double sum = 0.0;
    for (float x : samples) sum += double{x} * x;
    return samples.empty() ? 0.0 : std::sqrt(sum / samples.size());
}

struct SignalMatch {
    double correlation = 0.0;  // normalised cross-correlation at the best offset, -1..1
    double levelRatio = 0.0;   // RMS of the captured stretch over RMS of the reference window
    std::size_t offset = 0;    // start of that stretch in the capture
};

// Takes `window` samples from the middle of `reference` and finds the stretch of `captured` that
// correlates best with it, so start-up gaps and latency only move the offset. Optimised even in
// a -O0 build: the search is a billion multiply-adds, over five minutes unoptimised.
[[gnu::optimize("O2")]] inline SignalMatch findWindow(std::span<const float> captured, std::span<const float> reference, std::size_t window) {
    SignalMatch best{.correlation = -2.0};
    if (reference.size() < window || captured.size() < window) return {};
    const auto probe = reference.subspan((reference.size() - window) / 2, window);
    const double probeEnergy = rms(probe) * rms(probe) * window;
    // Running energy of the captured stretch, so each offset costs one dot product.
    double energy = rms(captured.first(window)) * rms(captured.first(window)) * window;
    for (std::size_t offset = 0; offset + window <= captured.size(); ++offset) {
        if (offset > 0) {
            energy += double{captured[offset + window - 1]} * captured[offset + window - 1] -
                      double{captured[offset - 1]} * captured[offset - 1];
        }
        // Plain pointers: a -O0 std::span index is a call the optimised loop could not inline.
        const float* stretch = captured.data() + offset;
        const float* wanted = probe.data();
        float dot = 0.0f;
        for (std::size_t i = 0; i < window; ++i) dot += stretch[i] * wanted[i];
        const double denominator = std::sqrt(std::max(energy, 0.0) * probeEnergy);
        const double correlation = denominator > 0.0 ? dot / denominator : 0.0;
        if (correlation > best.correlation) best = {correlation, 0.0, offset};
    }
    best.levelRatio = rms(captured.subspan(best.offset, window)) / rms(probe);
    return best;
}

}  // namespace orvel::test
