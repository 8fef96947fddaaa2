#include "platform/PulseAudioCapture.h"

#include "platform/PulseAudioError.h"
#include "platform/PulseAudioMainLoop.h"

#include "async/Executor.h"

#include <pulse/pulseaudio.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <string_view>
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

// Interleaved float samples at the configuration's rate and channel count.
pa_sample_spec sampleFormatOf(const StreamConfiguration& configuration) {
    return {PA_SAMPLE_FLOAT32NE, static_cast<std::uint32_t>(configuration.sampleRate),
            static_cast<std::uint8_t>(configuration.channelCount)};
}

// What is recorded: a mono capture takes two channels and averages them itself. Asked for one
// channel, PipeWire sums a stereo monitor (+3 dB on a centred signal) where PulseAudio averages.
pa_sample_spec recordFormatOf(const StreamConfiguration& configuration) {
    pa_sample_spec format = sampleFormatOf(configuration);
    if (format.channels == 1) format.channels = 2;
    return format;
}

using Clock = std::chrono::steady_clock;

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

enum class CaptureState {
    created,    // startCapture not called yet
    starting,   // the first record stream is being made; the start's completion is pending
    running,    // samples flow
    bridging,   // the record stream or the server was lost: silence by the clock until it is back
    ended,      // stopped or failed; no callback any more
};

// One capture on a connection. Everything but stopRequested is touched on the libpulse thread or
// under the main loop's lock only; the connection keeps its captures alive while it may call them.
struct PulseAudioCapture::Core {
    StreamConfiguration configuration;
    std::shared_ptr<StreamDelegate> delegate;
    std::vector<std::shared_ptr<StreamOutput>> audioOutputs;
    std::vector<std::shared_ptr<StreamOutput>> screenOutputs;  // kept as given, never called
    std::atomic<bool> stopRequested{false};

    CaptureState state = CaptureState::created;
    std::function<void(std::exception_ptr)> completion;  // while starting
    pa_stream* stream = nullptr;
    Connection* connection = nullptr;
    std::vector<float> pending;  // converted samples not yet handed on
    Clock::time_point gapSince;  // bridging: when the samples stopped
    std::size_t gapFilled = 0;   // frames of silence put in since then
    Clock::time_point lastOpen;

    std::size_t batchFrames() const;
    // The fewest frames an audio output asks for before its next buffer; 0 when none says.
    std::size_t wantedFrames() const;
    // Frames still to come before a hand-on.
    std::size_t missingFrames() const;
    void append(const float* samples, std::size_t frames, std::size_t recordedChannels);
    void appendSilence(std::size_t frames);
    void deliver();
    void fillGap(Clock::time_point now);
};

struct PulseAudioCapture::Connection {
    Options options;

    PulseAudioMainLoop loop{[this] { sweep(); }, [this] { return readDelay(); }};
    std::mutex threadMutex;  // guards its start

    // Under the main loop's lock.
    pa_context* context = nullptr;
    pa_time_event* tick = nullptr;
    std::vector<std::shared_ptr<Core>> captures;
    Clock::time_point downSince;
    Clock::time_point lastAttempt;
    int downCode = PA_ERR_CONNECTIONTERMINATED;

    explicit Connection(Options options) : options(std::move(options)) {}
    ~Connection() { shutdown(); }

    bool ensureThread();
    bool connect(int& code);  // false, with the error's code, when the server cannot be reached now
    void openStream(Core& core);
    void closeStream(Core& core);
    void end(Core& core, std::exception_ptr error);
    void lose(Core& core, int code);
    void sweep();
    std::chrono::milliseconds readDelay() const;
    void armTick();
    void followDefault();
    void shutdown();

    static void contextStateChanged(pa_context* context, void* userdata);
    static void serverChanged(pa_context* context, pa_subscription_event_type_t type, std::uint32_t, void* userdata);
    static void serverInfo(pa_context* context, const pa_server_info* info, void* userdata);
    static void sinkInfo(pa_context* context, const pa_sink_info* info, int last, void* userdata);
    static void streamStateChanged(pa_stream* stream, void* userdata);
    static void readable(pa_stream* stream, std::size_t bytes, void* userdata);
    static void ticked(pa_mainloop_api*, pa_time_event*, const struct timeval*, void* userdata);
};

std::size_t PulseAudioCapture::Core::batchFrames() const {
    const auto milliseconds = connection->options.batch.count();
    return std::max<std::size_t>(1, static_cast<std::size_t>(configuration.sampleRate * milliseconds / 1000));
}

std::size_t PulseAudioCapture::Core::wantedFrames() const {
    std::size_t wanted = 0;
    for (const auto& output : audioOutputs) {
        const std::size_t frames = output->framesWanted();
        if (frames > 0 && (wanted == 0 || frames < wanted)) wanted = frames;
    }
    return wanted;
}

std::size_t PulseAudioCapture::Core::missingFrames() const {
    const std::size_t have = pending.size() / configuration.channelCount;
    if (const std::size_t wanted = wantedFrames(); wanted > 0) return wanted > have ? wanted - have : 0;
    return batchFrames() - have % batchFrames();
}

void PulseAudioCapture::Core::append(const float* samples, std::size_t frames, std::size_t recordedChannels) {
    const std::size_t channels = configuration.channelCount;
    if (recordedChannels == channels) {
        pending.insert(pending.end(), samples, samples + frames * channels);
        return;
    }
    const std::size_t at = pending.size();
    pending.resize(at + frames);
    for (std::size_t i = 0; i < frames; ++i) pending[at + i] = 0.5f * (samples[2 * i] + samples[2 * i + 1]);
}

void PulseAudioCapture::Core::appendSilence(std::size_t frames) {
    pending.resize(pending.size() + frames * configuration.channelCount, 0.0f);
}

// Hands on exactly what the outputs want, as often as it is there, so each hand-on ends where
// they asked; to outputs that do not say, whole batches. The rest waits for more samples.
void PulseAudioCapture::Core::deliver() {
    const std::size_t channels = configuration.channelCount;
    for (;;) {
        const std::size_t have = pending.size() / channels;
        const std::size_t wanted = wantedFrames();
        std::size_t frames = have / batchFrames() * batchFrames();
        if (wanted > 0) frames = have >= wanted ? wanted : 0;
        const std::size_t ready = frames * channels;
        if (ready == 0 || stopRequested.load(std::memory_order_acquire)) return;
        const SampleBuffer buffer{true, AudioStreamDescription{static_cast<double>(configuration.sampleRate),
                                                               configuration.channelCount},
                                  std::as_bytes(std::span(pending.data(), ready))};
        for (const auto& output : audioOutputs) output->didOutputSampleBuffer(buffer, StreamOutputType::audio);
        pending.erase(pending.begin(), pending.begin() + static_cast<std::ptrdiff_t>(ready));
        if (wanted == 0) return;
    }
}

void PulseAudioCapture::Core::fillGap(Clock::time_point now) {
    const auto elapsed = std::chrono::duration_cast<std::chrono::microseconds>(now - gapSince).count();
    const auto due = static_cast<std::size_t>(elapsed * configuration.sampleRate / 1000000);
    if (due > gapFilled) appendSilence(due - gapFilled);
    gapFilled = std::max(gapFilled, due);
    deliver();
}

bool PulseAudioCapture::Connection::ensureThread() {
    std::lock_guard lock(threadMutex);
    return loop.started() || loop.start();
}

// Under the lock. With no server socket pa_context_connect fails right here and no state
// callback follows, so a caller hears of it at once.
bool PulseAudioCapture::Connection::connect(int& code) {
    lastAttempt = Clock::now();
    if (context != nullptr) {
        const auto state = pa_context_get_state(context);
        if (PA_CONTEXT_IS_GOOD(state)) return true;
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_set_subscribe_callback(context, nullptr, nullptr);
        pa_context_unref(std::exchange(context, nullptr));
    }
    pa_mainloop_api* api = loop.api();
    context = pa_context_new(api, options.applicationName.c_str());
    if (context == nullptr) {
        code = PA_ERR_INTERNAL;
        return false;
    }
    pa_context_set_state_callback(context, &Connection::contextStateChanged, this);
    pa_context_set_subscribe_callback(context, &Connection::serverChanged, this);
    const char* server = options.server.empty() ? nullptr : options.server.c_str();
    if (pa_context_connect(context, server, PA_CONTEXT_NOAUTOSPAWN, nullptr) < 0) {
        code = pa_context_errno(context);
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_set_subscribe_callback(context, nullptr, nullptr);
        pa_context_unref(std::exchange(context, nullptr));
        return false;
    }
    return true;
}

void PulseAudioCapture::Connection::openStream(Core& core) {
    core.lastOpen = Clock::now();
    const pa_sample_spec format = recordFormatOf(core.configuration);
    core.stream = pa_stream_new(context, "Loopback capture", &format, nullptr);
    if (core.stream == nullptr) {
        lose(core, pa_context_errno(context));
        return;
    }
    pa_stream_set_state_callback(core.stream, &Connection::streamStateChanged, &core);
    pa_stream_set_read_callback(core.stream, &Connection::readable, &core);
    pa_buffer_attr attributes;
    attributes.maxlength = attributes.tlength = attributes.prebuf = attributes.minreq = static_cast<std::uint32_t>(-1);
    const auto fragment = std::chrono::duration_cast<std::chrono::microseconds>(options.fragment);
    attributes.fragsize = static_cast<std::uint32_t>(pa_usec_to_bytes(fragment.count(), &format));
    // Without ADJUST_LATENCY the fragment size is only a transport size and the server keeps
    // its own 2 s latency.
    if (pa_stream_connect_record(core.stream, options.device.c_str(), &attributes, PA_STREAM_ADJUST_LATENCY) < 0)
        lose(core, pa_context_errno(context));
}

// Stops every callback of the capture's record stream and lets the server drop it.
void PulseAudioCapture::Connection::closeStream(Core& core) {
    if (core.stream == nullptr) return;
    pa_stream_set_read_callback(core.stream, nullptr, nullptr);
    pa_stream_set_state_callback(core.stream, nullptr, nullptr);
    if (pa_stream_get_state(core.stream) == PA_STREAM_READY) pa_stream_disconnect(core.stream);
    pa_stream_unref(std::exchange(core.stream, nullptr));
}

// Ends a capture: a pending start gets `error`, a running capture's delegate hears of it unless
// it was asked to stop. The capture leaves the list on the next sweep.
void PulseAudioCapture::Connection::end(Core& core, std::exception_ptr error) {
    if (core.state == CaptureState::ended) return;
    closeStream(core);
    const CaptureState was = std::exchange(core.state, CaptureState::ended);
    if (was == CaptureState::starting) {
        std::exchange(core.completion, nullptr)(error ? error : pulseError("Start", PA_ERR_CONNECTIONTERMINATED));
    } else if (error && !core.stopRequested.load(std::memory_order_acquire)) {
        core.delegate->didStopWithError(error);
    }
}

// The record stream is gone (its source, or the whole server). A start fails; a running capture
// bridges the gap with silence while the stream is made again.
void PulseAudioCapture::Connection::lose(Core& core, int code) {
    closeStream(core);
    if (core.state == CaptureState::starting) {
        end(core, pulseError("Record", code));
    } else if (core.state == CaptureState::running) {
        core.state = CaptureState::bridging;
        core.gapSince = Clock::now();
        core.gapFilled = 0;
        downCode = code;
        armTick();
    }
}

// Drops ended and stopped captures, gives up on gaps that outlasted the window, and makes
// record streams again where the server is there.
void PulseAudioCapture::Connection::sweep() {
    const auto now = Clock::now();
    const bool ready = context != nullptr && pa_context_get_state(context) == PA_CONTEXT_READY;
    bool bridging = false;
    for (auto& core : captures) {
        if (core->stopRequested.load(std::memory_order_acquire)) end(*core, nullptr);
        if (core->state != CaptureState::bridging) continue;
        if (now - core->gapSince >= options.reconnectWindow) {
            end(*core, pulseError("Capture", downCode));
            continue;
        }
        core->fillGap(now);
        bridging = true;
        if (ready && core->stream == nullptr && now - core->lastOpen >= std::chrono::milliseconds(500)) openStream(*core);
    }
    std::erase_if(captures, [](const auto& core) { return core->state == CaptureState::ended; });
    int ignored = 0;  // the capture fails with the loss, not with a refused reconnect
    if (bridging && !ready && now - lastAttempt >= std::chrono::milliseconds(500)) connect(ignored);
    if (bridging) armTick();
}

// The server pushes every block the sink renders, a few milliseconds apart; waking for each costs
// more than the capture itself. Its socket can go unread until the first running capture's next
// hand-on could be due, less one push (a push carries up to a fragment). The push that completes
// it still wakes the loop at once, so nothing is handed on later than without the pause.
std::chrono::milliseconds PulseAudioCapture::Connection::readDelay() const {
    using std::chrono::milliseconds;
    if (captures.empty()) return milliseconds(0);
    auto delay = milliseconds::max();
    for (const auto& core : captures) {
        if (core->state != CaptureState::running) return milliseconds(0);
        delay = std::min(delay, milliseconds(core->missingFrames() * 1000 /
                                             static_cast<std::size_t>(core->configuration.sampleRate)));
    }
    return std::max(milliseconds(0), delay - options.fragment);
}

void PulseAudioCapture::Connection::armTick() {
    pa_mainloop_api* api = loop.api();
    struct timeval when;
    pa_timeval_add(pa_gettimeofday(&when), 100 * PA_USEC_PER_MSEC);
    if (tick == nullptr) {
        tick = api->time_new(api, &when, &Connection::ticked, this);
    } else {
        api->time_restart(tick, &when);
    }
}

// PipeWire leaves a record stream on the old monitor when the default sink changes, so the
// capture moves its streams itself; PulseAudio has moved them already and this changes nothing.
void PulseAudioCapture::Connection::followDefault() {
    if (options.device != "@DEFAULT_MONITOR@") return;
    if (pa_operation* operation = pa_context_get_server_info(context, &Connection::serverInfo, this))
        pa_operation_unref(operation);
}

void PulseAudioCapture::Connection::serverInfo(pa_context* context, const pa_server_info* info, void* userdata) {
    if (info == nullptr || info->default_sink_name == nullptr) return;
    if (pa_operation* operation =
            pa_context_get_sink_info_by_name(context, info->default_sink_name, &Connection::sinkInfo, userdata))
        pa_operation_unref(operation);
}

void PulseAudioCapture::Connection::sinkInfo(pa_context* context, const pa_sink_info* info, int last, void* userdata) {
    if (last != 0 || info == nullptr || info->monitor_source_name == nullptr) return;
    auto& connection = *static_cast<Connection*>(userdata);
    for (auto& core : connection.captures) {
        if (core->stream == nullptr || pa_stream_get_state(core->stream) != PA_STREAM_READY) continue;
        const char* device = pa_stream_get_device_name(core->stream);
        if (device != nullptr && std::string_view(device) == info->monitor_source_name) continue;
        if (pa_operation* operation = pa_context_move_source_output_by_name(
                context, pa_stream_get_index(core->stream), info->monitor_source_name, nullptr, nullptr))
            pa_operation_unref(operation);
    }
}

void PulseAudioCapture::Connection::serverChanged(pa_context*, pa_subscription_event_type_t type, std::uint32_t,
                                                  void* userdata) {
    if ((type & PA_SUBSCRIPTION_EVENT_FACILITY_MASK) == PA_SUBSCRIPTION_EVENT_SERVER)
        static_cast<Connection*>(userdata)->followDefault();
}

void PulseAudioCapture::Connection::contextStateChanged(pa_context* context, void* userdata) {
    auto& connection = *static_cast<Connection*>(userdata);
    switch (pa_context_get_state(context)) {
    case PA_CONTEXT_READY:
        if (pa_operation* operation = pa_context_subscribe(context, PA_SUBSCRIPTION_MASK_SERVER, nullptr, nullptr))
            pa_operation_unref(operation);
        for (auto& core : connection.captures) {
            if (core->stream == nullptr && (core->state == CaptureState::starting || core->state == CaptureState::bridging))
                connection.openStream(*core);
        }
        connection.followDefault();  // the default may have changed while we were away
        break;
    case PA_CONTEXT_FAILED:
    case PA_CONTEXT_TERMINATED: {
        const int code = pa_context_errno(context);
        connection.downSince = Clock::now();
        for (auto& core : connection.captures) {
            if (core->state == CaptureState::starting) {
                connection.end(*core, pulseError(core->stream == nullptr ? "Connect" : "Record", code));
            } else {
                connection.lose(*core, code);
            }
        }
        connection.armTick();  // reconnecting is for later: this context is still in its own callback
        break;
    }
    default:
        break;
    }
}

void PulseAudioCapture::Connection::streamStateChanged(pa_stream* stream, void* userdata) {
    auto& core = *static_cast<Core*>(userdata);
    Connection& connection = *core.connection;
    switch (pa_stream_get_state(stream)) {
    case PA_STREAM_READY:
        if (core.state == CaptureState::starting) {
            core.state = CaptureState::running;
            std::exchange(core.completion, nullptr)(nullptr);
        }
        break;
    case PA_STREAM_FAILED:
    case PA_STREAM_TERMINATED:
        // A stream the server kills (its source went away) ends here too, as PA_ERR_KILLED.
        connection.lose(core, pa_context_errno(connection.context));
        break;
    default:
        break;
    }
}

void PulseAudioCapture::Connection::readable(pa_stream* stream, std::size_t, void* userdata) {
    auto& core = *static_cast<Core*>(userdata);
    const std::size_t channels = recordFormatOf(core.configuration).channels;
    // Read sizes follow the server's block size, not the asked-for fragment; take all there is.
    while (core.state == CaptureState::running || core.state == CaptureState::bridging) {
        const void* data = nullptr;
        std::size_t size = 0;
        if (pa_stream_peek(stream, &data, &size) < 0) {
            core.connection->lose(core, pa_context_errno(core.connection->context));
            return;
        }
        if (size == 0) break;
        if (core.state == CaptureState::bridging) {  // a gap ends with the first samples of the new stream
            core.fillGap(Clock::now());
            core.state = CaptureState::running;
        }
        const std::size_t frames = size / (channels * sizeof(float));
        if (data == nullptr) {
            core.appendSilence(frames);  // a hole: samples the server lost, which still took their time
        } else {
            core.append(static_cast<const float*>(data), frames, channels);
        }
        pa_stream_drop(stream);
    }
    core.deliver();
}

void PulseAudioCapture::Connection::ticked(pa_mainloop_api*, pa_time_event*, const struct timeval*, void* userdata) {
    static_cast<Connection*>(userdata)->sweep();
}

void PulseAudioCapture::Connection::shutdown() {
    if (!loop.started()) return;
    loop.lock();
    for (auto& core : captures) {
        core->stopRequested.store(true, std::memory_order_release);
        end(*core, nullptr);
    }
    captures.clear();
    pa_mainloop_api* api = loop.api();
    if (tick != nullptr) api->time_free(std::exchange(tick, nullptr));
    if (context != nullptr) {
        pa_context_set_state_callback(context, nullptr, nullptr);
        pa_context_set_subscribe_callback(context, nullptr, nullptr);
        pa_context_disconnect(context);
        pa_context_unref(std::exchange(context, nullptr));
    }
    loop.unlock();
    loop.stop();
}

namespace {

// The last owner of a connection ends it. A pool worker (often deep in cancellation handlers)
// must not wait for the libpulse thread, and one of its own callbacks cannot join its own thread:
// there the joining and freeing happen on a short-lived thread, which waits for the lock, so for
// any callback to return. Should no thread be available, the connection is kept: ending the
// process from a destructor would be worse than that one leak.
void release(PulseAudioCapture::Connection* connection) {
    if (!connection->loop.started() || (!connection->loop.inThread() && async::currentExecutor() == nullptr)) {
        delete connection;
        return;
    }
    auto& shutdowns = BackgroundShutdowns::instance();
    shutdowns.begin();
    try {
        std::thread([connection, &shutdowns] {
            delete connection;
            shutdowns.end();
        }).detach();
    } catch (const std::system_error&) {
        shutdowns.end();
    }
}

std::shared_ptr<PulseAudioCapture::Connection> makeConnection(PulseAudioCapture::Options options) {
    return {new PulseAudioCapture::Connection(std::move(options)), &release};
}

}  // namespace

PulseAudioCapture::PulseAudioCapture(Options options, StreamConfiguration configuration,
                                     std::shared_ptr<StreamDelegate> delegate)
    : PulseAudioCapture(makeConnection(std::move(options)), configuration, std::move(delegate)) {}

PulseAudioCapture::PulseAudioCapture(std::shared_ptr<Connection> connection, StreamConfiguration configuration,
                                     std::shared_ptr<StreamDelegate> delegate)
    : connection_(std::move(connection)), core_(std::make_shared<Core>()) {
    core_->configuration = configuration;
    core_->delegate = std::move(delegate);
    core_->connection = connection_.get();
}

PulseAudioCapture::~PulseAudioCapture() { stopCapture(); }

void PulseAudioCapture::waitForBackgroundShutdowns() { BackgroundShutdowns::instance().waitUntilNone(); }

void PulseAudioCapture::addStreamOutput(std::shared_ptr<StreamOutput> output, StreamOutputType type) {
    if (core_->state != CaptureState::created) throw PulseAudioError::failed("AddStreamOutput", PA_ERR_BADSTATE);
    auto& outputs = type == StreamOutputType::audio ? core_->audioOutputs : core_->screenOutputs;
    outputs.push_back(std::move(output));
}

void PulseAudioCapture::startCapture(std::function<void(std::exception_ptr)> completion) {
    Core& core = *core_;
    if (core.state != CaptureState::created) {
        completion(pulseError("Start", PA_ERR_BADSTATE));
        return;
    }
    core.state = CaptureState::ended;  // until the connection takes it
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
    Connection& connection = *connection_;
    if (!connection.ensureThread()) {
        completion(pulseError("Start", PA_ERR_INTERNAL));
        return;
    }
    connection.loop.lock();
    int code = 0;
    if (!connection.connect(code)) {
        connection.loop.unlock();
        completion(pulseError("Connect", code));
        return;
    }
    core.state = CaptureState::starting;
    core.completion = std::move(completion);
    connection.captures.push_back(core_);
    if (pa_context_get_state(connection.context) == PA_CONTEXT_READY) connection.openStream(core);
    connection.loop.unlock();
}

void PulseAudioCapture::stopCapture() {
    if (core_->stopRequested.exchange(true, std::memory_order_acq_rel)) return;
    connection_->loop.wake();
}

PulseAudioCaptureService::PulseAudioCaptureService(PulseAudioCapture::Options options)
    : connection_(makeConnection(std::move(options))) {}

std::unique_ptr<CaptureStream> PulseAudioCaptureService::makeStream(const StreamConfiguration& configuration,
                                                                    std::shared_ptr<StreamDelegate> delegate) {
    return std::make_unique<PulseAudioCapture>(connection_, configuration, std::move(delegate));
}

}  // namespace orvel::platform
