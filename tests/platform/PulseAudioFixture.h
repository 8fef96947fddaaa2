#pragma once
// A private PulseAudio server for capture tests, and the signal tools to check what was
// captured. The server runs in its own XDG_RUNTIME_DIR with one null sink as the default sink,
// kept busy by a silent pacat stream: an idle null sink renders in ~2 s bursts. The daemon is
// stopped by the PID in its pid file. Only children get the server's environment; this process
// passes the server to libpulse explicitly.

// Relative, so that bench programs (which do not have tests/ on their include path) can use it.
#include "../e2e/Process.h"

#include <cmath>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <memory>
#include <span>
#include <sstream>

namespace orvel::test {

class PulseAudioServer {
public:
    PulseAudioServer() {
        const auto runtime = folder_.path() / "xdg";
        std::filesystem::create_directories(runtime);
        std::filesystem::permissions(runtime, std::filesystem::perms::owner_all);
        std::filesystem::create_directories(folder_.path() / "home");
        environment_ = environmentWith({{"XDG_RUNTIME_DIR", runtime.string()},
                                        {"HOME", (folder_.path() / "home").string()},
                                        {"PULSE_SERVER", server()},
                                        {"PULSE_RUNTIME_PATH", std::nullopt},
                                        {"PULSE_SINK", std::nullopt},
                                        {"PULSE_SOURCE", std::nullopt}});
        const std::string pulseaudio = findProgram("pulseaudio");
        if (pulseaudio.empty()) throw std::runtime_error("pulseaudio is not installed (see scripts/setup)");
        const auto started = runProgram({pulseaudio, "--daemonize=yes", "--exit-idle-time=-1", "-n",
                                         "--load=module-native-protocol-unix",
                                         "--load=module-null-sink sink_name=orvel_test",
                                         "--log-target=file:" + (folder_.path() / "pulseaudio.log").string()},
                                        childOptions(), 30s);
        std::ifstream(runtime / "pulse" / "pid") >> pid_;
        if (started.exitCode != 0 || pid_ <= 0)
            throw std::runtime_error("pulseaudio did not start: " + started.output + log());
        daemon_ = Fd(static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)));
        keepBusy_ = std::make_unique<ChildProcess>(
            std::vector<std::string>{findProgram("pacat"), "--playback", "--raw", "--format=s16le", "--rate=48000",
                                     "--channels=2", "--latency-msec=20", "/dev/zero"},
            childOptions());
        if (!waitUntil([&] { return lines(pactl({"list", "short", "sink-inputs"})).size() == 1; })) {
            const std::string why = "the keep-busy stream did not appear: " + keepBusy_->output() + log();
            keepBusy_.reset();
            stop();  // no destructor runs for a constructor that throws
            throw std::runtime_error(why);
        }
    }

    PulseAudioServer(const PulseAudioServer&) = delete;
    PulseAudioServer& operator=(const PulseAudioServer&) = delete;
    ~PulseAudioServer() {
        keepBusy_.reset();
        stop();
    }

    // The server as libpulse takes it.
    std::string server() const { return "unix:" + (folder_.path() / "xdg" / "pulse" / "native").string(); }

    // For children that should talk to this server (paplay, pactl, pacat).
    ChildProcess::Options childOptions() const { return {.environment = environment_}; }

    std::string pactl(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin(), findProgram("pactl"));
        auto result = runProgram(std::move(arguments), childOptions(), 30s);
        if (result.exitCode != 0) throw std::runtime_error("pactl failed: " + result.output);
        return result.output;
    }

    // Record streams the server has, one line each.
    std::vector<std::string> sourceOutputs() const { return lines(pactl({"list", "short", "source-outputs"})); }

    // A client's disconnect reaches the server asynchronously, so the first look may still see it.
    bool waitUntilNoSourceOutputs() const {
        return waitUntil([&] { return sourceOutputs().empty(); });
    }

    // Plays a sound file on the default sink; the returned child ends when it has been played.
    std::unique_ptr<ChildProcess> play(const std::filesystem::path& file) const {
        return std::make_unique<ChildProcess>(std::vector<std::string>{findProgram("paplay"), file.string()},
                                              childOptions());
    }

    // Ends the daemon (SIGTERM, then SIGKILL) and waits for it to go, by its pidfd.
    void stop() {
        if (pid_ <= 0) return;
        for (int signal : {SIGTERM, SIGKILL}) {
            ::kill(pid_, signal);
            pollfd entry{daemon_.get(), POLLIN, 0};
            if (!daemon_ || ::poll(&entry, 1, 10000) > 0) break;
        }
        pid_ = -1;
        daemon_ = Fd();
    }

    std::string log() const {
        std::ifstream file(folder_.path() / "pulseaudio.log");
        return "\npulseaudio log:\n" + std::string(std::istreambuf_iterator<char>(file), {});
    }

private:
    static std::vector<std::string> lines(const std::string& text) {
        std::vector<std::string> result;
        std::istringstream stream(text);
        for (std::string line; std::getline(stream, line);)
            if (!line.empty()) result.push_back(line);
        return result;
    }

    TemporaryFolder folder_;
    std::vector<std::string> environment_;
    pid_t pid_ = -1;
    Fd daemon_;
    std::unique_ptr<ChildProcess> keepBusy_;
};

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
        std::ifstream in(raw, std::ios::binary);
        std::string bytes((std::istreambuf_iterator<char>(in)), {});
        std::vector<float> result(bytes.size() / sizeof(float));
        std::memcpy(result.data(), bytes.data(), result.size() * sizeof(float));
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
// correlates best with it, so start-up gaps and latency only move the offset.
inline SignalMatch findWindow(std::span<const float> captured, std::span<const float> reference, std::size_t window) {
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
        float dot = 0.0f;
        for (std::size_t i = 0; i < window; ++i) dot += captured[offset + i] * probe[i];
        const double denominator = std::sqrt(std::max(energy, 0.0) * probeEnergy);
        const double correlation = denominator > 0.0 ? dot / denominator : 0.0;
        if (correlation > best.correlation) best = {correlation, 0.0, offset};
    }
    best.levelRatio = rms(captured.subspan(best.offset, window)) / rms(probe);
    return best;
}

// 16-bit little-endian samples as floats in -1..1.
inline std::vector<float> int16ToFloats(std::span<const std::uint8_t> bytes) {
    std::vector<float> result(bytes.size() / 2);
    for (std::size_t i = 0; i < result.size(); ++i)
        result[i] = static_cast<std::int16_t>(bytes[2 * i] | (bytes[2 * i + 1] << 8)) / 32768.0f;
    return result;
}

}  // namespace orvel::test
