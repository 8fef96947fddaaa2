#include "platform/PulseAudioCapture.h"

#include "platform/PulseAudioError.h"

#include "async/Executor.h"

#include <pulse/pulseaudio.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <mutex>
#include <cstdint>
#include <thread>
#include <utility>
#include <vector>

namespace orvel::platform {

namespace {

std::exception_ptr pulseError(std::string_view operation, int code) {
    return std::make_exception_ptr(PulseAudioError::failed(operation, code));
}

class EventDescriptor {
public:
    EventDescriptor() : fd_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    EventDescriptor(const EventDescriptor&) = delete;
    EventDescriptor& operator=(const EventDescriptor&) = delete;
    ~EventDescriptor() {
        if (fd_ >= 0) ::close(fd_);  // no retry on EINTR: on Linux the fd is already gone
    }
    int get() const noexcept { return fd_; }

    // An eventfd write only fails when the 64-bit counter would overflow; a stop never gets there.
    void signal() const noexcept {
        const std::uint64_t one = 1;
        [[maybe_unused]] ssize_t written = ::write(fd_, &one, sizeof one);
    }
    void drain() const noexcept {
        std::uint64_t count = 0;
        [[maybe_unused]] ssize_t read = ::read(fd_, &count, sizeof count);
    }

private:
    int fd_;
};

// Interleaved float samples at the configuration's rate and channel count.
pa_sample_spec sampleFormatOf(const StreamConfiguration& configuration) {
    return {PA_SAMPLE_FLOAT32NE, static_cast<std::uint32_t>(configuration.sampleRate),
            static_cast<std::uint8_t>(configuration.channelCount)};
}

// Captures whose clean-up runs on a thread of its own, so that the end of the process can wait
// for them. Never destroyed: such a clean-up may still be finishing during static destruction.
class BackgroundShutdowns {
public:
    static BackgroundShutdowns& instance() {
        static BackgroundShutdowns* const shutdowns = new BackgroundShutdowns;
        return *shutdowns;
    }
    void begin() {
        std::lock_guard lock(mutex_);
        ++pending_;
    }
    void end() {
        std::lock_guard lock(mutex_);
        if (--pending_ == 0) none_.notify_all();
    }
    void waitUntilNone() {
        std::unique_lock lock(mutex_);
        none_.wait(lock, [this] { return pending_ == 0; });
    }

private:
    std::mutex mutex_;
    std::condition_variable none_;
    std::size_t pending_ = 0;
};

}  // namespace

// Everything the libpulse thread touches. Callbacks get a raw pointer: the Core outlives the
// thread, because shutdown() joins it before the last owner lets go.
struct PulseAudioCapture::Core {
    Options options;
    StreamConfiguration configuration;
    std::shared_ptr<StreamDelegate> delegate;
    std::vector<std::shared_ptr<StreamOutput>> audioOutputs;
    std::vector<std::shared_ptr<StreamOutput>> screenOutputs;  // kept as given, never called

    // Read by stopCapture and by the thread between buffers; the thread does the disconnecting.
    std::atomic<bool> stopRequested{false};
    EventDescriptor wake;

    // Set up on the starting thread before the libpulse thread runs; afterwards only touched
    // under the main loop's lock (which every callback holds).
    bool started = false;
    pa_threaded_mainloop* mainloop = nullptr;
    pa_context* context = nullptr;
    pa_stream* stream = nullptr;
    pa_io_event* wakeEvent = nullptr;
    std::function<void(std::exception_ptr)> completion;  // until the start has an outcome
    bool running = false;
    bool closed = false;
    AudioStreamDescription description;

    static void contextStateChanged(pa_context* context, void* userdata);
    static void streamStateChanged(pa_stream* stream, void* userdata);
    static void readable(pa_stream* stream, std::size_t bytes, void* userdata);
    static void woken(pa_mainloop_api* api, pa_io_event* event, int fd, pa_io_event_flags_t flags, void* userdata);

    void connectStream();
    void fail(std::string_view operation, int code);
    void finishStart(std::exception_ptr error);
    void closeConnection();
    void releaseLocked();
    void shutdown();
};

void PulseAudioCapture::Core::contextStateChanged(pa_context* context, void* userdata) {
    auto& core = *static_cast<Core*>(userdata);
    switch (pa_context_get_state(context)) {
    case PA_CONTEXT_READY:
        core.connectStream();
        break;
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED:
        core.fail(core.completion ? "Connect" : "Capture", pa_context_errno(context));
        break;
    default:
        break;
    }
}

void PulseAudioCapture::Core::streamStateChanged(pa_stream* stream, void* userdata) {
    auto& core = *static_cast<Core*>(userdata);
    switch (pa_stream_get_state(stream)) {
    case PA_STREAM_READY: {
        const pa_sample_spec* sampleFormat = pa_stream_get_sample_spec(stream);
        core.description = {static_cast<double>(sampleFormat->rate), sampleFormat->channels};
        core.running = true;
        core.finishStart(nullptr);
        break;
    }
    case PA_STREAM_FAILED:
    case PA_STREAM_TERMINATED:
        // A stream the server kills (its source went away) ends here too, as PA_ERR_KILLED.
        core.fail("Record", pa_context_errno(core.context));
        break;
    default:
        break;
    }
}

void PulseAudioCapture::Core::readable(pa_stream* stream, std::size_t, void* userdata) {
    auto& core = *static_cast<Core*>(userdata);
    // Read sizes follow the server's block size, not the asked-for fragment; take all there is.
    while (!core.stopRequested.load(std::memory_order_acquire)) {
        const void* data = nullptr;
        std::size_t size = 0;
        if (pa_stream_peek(stream, &data, &size) < 0) {
            core.fail("Read", pa_context_errno(core.context));
            return;
        }
        if (size == 0) return;
        if (data != nullptr) {  // no data with a size is a hole (lost samples): skip it
            const SampleBuffer buffer{true, core.description,
                                      std::span(static_cast<const std::byte*>(data), size)};
            for (const auto& output : core.audioOutputs) {
                output->didOutputSampleBuffer(buffer, StreamOutputType::audio);
            }
        }
        pa_stream_drop(stream);
    }
}

void PulseAudioCapture::Core::woken(pa_mainloop_api*, pa_io_event*, int, pa_io_event_flags_t, void* userdata) {
    auto& core = *static_cast<Core*>(userdata);
    core.wake.drain();
    if (!core.stopRequested.load(std::memory_order_acquire) || core.closed) return;
    core.closeConnection();
    core.finishStart(pulseError("Start", PA_ERR_CONNECTIONTERMINATED));
}

void PulseAudioCapture::Core::connectStream() {
    if (stopRequested.load(std::memory_order_acquire)) return;  // the wake-up closes everything
    const pa_sample_spec sampleFormat = sampleFormatOf(configuration);
    stream = pa_stream_new(context, "Loopback capture", &sampleFormat, nullptr);
    if (stream == nullptr) {
        fail("Record", pa_context_errno(context));
        return;
    }
    pa_stream_set_state_callback(stream, &Core::streamStateChanged, this);
    pa_stream_set_read_callback(stream, &Core::readable, this);

    pa_buffer_attr attributes;
    attributes.maxlength = static_cast<std::uint32_t>(-1);
    attributes.tlength = static_cast<std::uint32_t>(-1);
    attributes.prebuf = static_cast<std::uint32_t>(-1);
    attributes.minreq = static_cast<std::uint32_t>(-1);
    const auto fragmentMicroseconds = std::chrono::duration_cast<std::chrono::microseconds>(options.fragment);
    attributes.fragsize = static_cast<std::uint32_t>(pa_usec_to_bytes(fragmentMicroseconds.count(), &sampleFormat));
    // Without ADJUST_LATENCY the fragment size is only a transport size and the server keeps
    // its own 2 s latency.
    const auto flags = PA_STREAM_ADJUST_LATENCY;
    if (pa_stream_connect_record(stream, options.device.c_str(), &attributes, flags) < 0) {
        fail("Record", pa_context_errno(context));
    }
}

void PulseAudioCapture::Core::fail(std::string_view operation, int code) {
    if (closed) return;
    const bool wasRunning = running;
    closeConnection();
    if (completion) {
        finishStart(pulseError(operation, code));
    } else if (wasRunning && !stopRequested.load(std::memory_order_acquire)) {
        delegate->didStopWithError(pulseError(operation, code));
    }
}

void PulseAudioCapture::Core::finishStart(std::exception_ptr error) {
    if (!completion) return;
    auto done = std::exchange(completion, nullptr);
    done(std::move(error));
}

// Stops all callbacks of this capture, then lets the server drop the record stream and the
// client. Objects are released later, outside any callback of theirs.
void PulseAudioCapture::Core::closeConnection() {
    if (closed) return;
    closed = true;
    running = false;
    if (stream != nullptr) {
        pa_stream_set_read_callback(stream, nullptr, nullptr);
        pa_stream_set_state_callback(stream, nullptr, nullptr);
        if (pa_stream_get_state(stream) == PA_STREAM_READY) pa_stream_disconnect(stream);
    }
    if (context != nullptr) {
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
    }
}

void PulseAudioCapture::Core::releaseLocked() {
    stopRequested.store(true, std::memory_order_release);
    closeConnection();
    if (stream != nullptr) pa_stream_unref(std::exchange(stream, nullptr));
    if (wakeEvent != nullptr) {
        pa_mainloop_api* api = pa_threaded_mainloop_get_api(mainloop);
        api->io_free(std::exchange(wakeEvent, nullptr));
    }
    if (context != nullptr) pa_context_unref(std::exchange(context, nullptr));
    // A start that never got an outcome still gets one: its caller is waiting.
    finishStart(pulseError("Start", PA_ERR_CONNECTIONTERMINATED));
}

void PulseAudioCapture::Core::shutdown() {
    if (mainloop == nullptr) return;
    pa_threaded_mainloop_lock(mainloop);
    releaseLocked();
    pa_threaded_mainloop_unlock(mainloop);
    pa_threaded_mainloop_stop(mainloop);
    pa_threaded_mainloop_free(std::exchange(mainloop, nullptr));
}

PulseAudioCapture::PulseAudioCapture(Options options, StreamConfiguration configuration,
                                     std::shared_ptr<StreamDelegate> delegate)
    : core_(std::make_shared<Core>()) {
    core_->options = std::move(options);
    core_->configuration = configuration;
    core_->delegate = std::move(delegate);
}

PulseAudioCapture::~PulseAudioCapture() {
    if (core_->mainloop == nullptr) return;  // never started: there is no thread
    const bool onOwnThread = pa_threaded_mainloop_in_thread(core_->mainloop);
    if (!onOwnThread && async::currentExecutor() == nullptr) {
        core_->shutdown();
        return;
    }
    // A pool worker (often deep in cancellation handlers) must not wait for the libpulse thread,
    // and one of our own callbacks cannot join its own thread. The libpulse thread disconnects at
    // once; joining and freeing happen on a short-lived thread, which waits for the lock, so for
    // any callback to return. Should no thread be available, the capture is disconnected but its
    // objects are kept: ending the process from a destructor would be worse than that one leak.
    core_->stopRequested.store(true, std::memory_order_release);
    core_->wake.signal();
    auto& shutdowns = BackgroundShutdowns::instance();
    shutdowns.begin();
    try {
        std::thread([core = core_, &shutdowns]() mutable {
            core->shutdown();
            core.reset();
            shutdowns.end();
        }).detach();
    } catch (const std::system_error&) {
        shutdowns.end();
        new std::shared_ptr<Core>(std::move(core_));
    }
}

void PulseAudioCapture::waitForBackgroundShutdowns() { BackgroundShutdowns::instance().waitUntilNone(); }

void PulseAudioCapture::addStreamOutput(std::shared_ptr<StreamOutput> output, StreamOutputType type) {
    if (core_->started) throw PulseAudioError::failed("AddStreamOutput", PA_ERR_BADSTATE);
    auto& outputs = type == StreamOutputType::audio ? core_->audioOutputs : core_->screenOutputs;
    outputs.push_back(std::move(output));
}

void PulseAudioCapture::startCapture(std::function<void(std::exception_ptr)> completion) {
    Core& core = *core_;
    if (core.started) {
        completion(pulseError("Start", PA_ERR_BADSTATE));
        return;
    }
    core.started = true;
    if (core.stopRequested.load(std::memory_order_acquire)) {
        completion(pulseError("Start", PA_ERR_CONNECTIONTERMINATED));
        return;
    }
    const StreamConfiguration& configuration = core.configuration;
    if (!configuration.capturesAudio) {
        completion(pulseError("Start", PA_ERR_NOTSUPPORTED));  // there is nothing else to capture
        return;
    }
    const pa_sample_spec sampleFormat = sampleFormatOf(configuration);
    if (configuration.sampleRate <= 0 || configuration.sampleRate > PA_RATE_MAX || configuration.channelCount == 0 ||
        configuration.channelCount > PA_CHANNELS_MAX || !pa_sample_spec_valid(&sampleFormat)) {
        completion(pulseError("Start", PA_ERR_INVALID));
        return;
    }
    if (core.wake.get() < 0) {
        completion(pulseError("Start", PA_ERR_INTERNAL));
        return;
    }

    core.mainloop = pa_threaded_mainloop_new();
    if (core.mainloop == nullptr) {
        completion(pulseError("Start", PA_ERR_INTERNAL));
        return;
    }
    pa_mainloop_api* api = pa_threaded_mainloop_get_api(core.mainloop);
    core.context = pa_context_new(api, core.options.applicationName.c_str());
    if (core.context == nullptr) {
        core.shutdown();
        completion(pulseError("Start", PA_ERR_INTERNAL));
        return;
    }
    pa_context_set_state_callback(core.context, &Core::contextStateChanged, &core);
    const char* server = core.options.server.empty() ? nullptr : core.options.server.c_str();
    // With no server socket this fails right here (PA_ERR_CONNECTIONREFUSED) and no state
    // callback follows, so the caller hears of it at once.
    if (pa_context_connect(core.context, server, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        const int code = pa_context_errno(core.context);
        core.shutdown();
        completion(pulseError("Connect", code));
        return;
    }
    core.wakeEvent = api->io_new(api, core.wake.get(), PA_IO_EVENT_INPUT, &Core::woken, &core);
    core.completion = std::move(completion);
    if (pa_threaded_mainloop_start(core.mainloop) < 0) {
        auto done = std::exchange(core.completion, nullptr);
        core.shutdown();
        done(pulseError("Start", PA_ERR_INTERNAL));
    }
}

void PulseAudioCapture::stopCapture() {
    if (core_->stopRequested.exchange(true, std::memory_order_acq_rel)) return;
    core_->wake.signal();
}

std::unique_ptr<CaptureStream> PulseAudioCaptureService::makeStream(const StreamConfiguration& configuration,
                                                                    std::shared_ptr<StreamDelegate> delegate) {
    return std::make_unique<PulseAudioCapture>(options_, configuration, std::move(delegate));
}

}  // namespace orvel::platform
