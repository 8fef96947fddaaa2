#include "platform/PulseAudioMainLoop.h"

#include <pulse/mainloop.h>
#include <poll.h>
#include <pthread.h>
#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <system_error>
#include <utility>

namespace orvel::platform {

PulseAudioMainLoop::PulseAudioMainLoop(std::function<void()> woken, std::function<std::chrono::milliseconds()> readDelay)
    : woken_(std::move(woken)), readDelay_(std::move(readDelay)), wake_(::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}

PulseAudioMainLoop::~PulseAudioMainLoop() {
    stop();
    if (wake_ >= 0) ::close(wake_);  // no retry on EINTR: on Linux the fd is already gone
}

void PulseAudioMainLoop::stop() {
    if (thread_.joinable()) {
        lock();
        pa_mainloop_quit(loop_, 0);
        unlock();
        thread_.join();
    }
    if (loop_ != nullptr) pa_mainloop_free(std::exchange(loop_, nullptr));  // with every event on it
}

bool PulseAudioMainLoop::start() {
    if (wake_ < 0 || (loop_ = pa_mainloop_new()) == nullptr) return false;
    pa_mainloop_set_poll_func(loop_, &PulseAudioMainLoop::poll, this);
    pa_mainloop_api* loopApi = api();
    const auto drain = [](pa_mainloop_api*, pa_io_event*, int fd, pa_io_event_flags_t, void* self) {
        std::uint64_t count = 0;
        [[maybe_unused]] ssize_t read = ::read(fd, &count, sizeof count);
        static_cast<PulseAudioMainLoop*>(self)->woken_();
    };
    if (loopApi->io_new(loopApi, wake_, PA_IO_EVENT_INPUT, drain, this) == nullptr) {
        pa_mainloop_free(std::exchange(loop_, nullptr));
        return false;
    }
    try {
        std::lock_guard hold(mutex_);  // the thread waits for it, so for thread_ to be set
        thread_ = std::thread([this] {
            ::pthread_setname_np(::pthread_self(), "orvel.pulse");
            std::lock_guard running(mutex_);
            int ignored = 0;
            pa_mainloop_run(loop_, &ignored);
        });
    } catch (const std::system_error&) {
        pa_mainloop_free(std::exchange(loop_, nullptr));
        return false;
    }
    return true;
}

pa_mainloop_api* PulseAudioMainLoop::api() const { return pa_mainloop_get_api(loop_); }

// Whatever another thread changed under the lock (a stream to connect, the loop to quit) is
// seen at once, not after the read interval.
void PulseAudioMainLoop::unlock() {
    const bool foreign = !inThread();
    mutex_.unlock();
    if (foreign) wake();
}

// An eventfd write only fails when the 64-bit counter would overflow.
void PulseAudioMainLoop::wake() const noexcept {
    const std::uint64_t one = 1;
    [[maybe_unused]] ssize_t written = ::write(wake_, &one, sizeof one);
}

// The loop's wait, without the lock. What is ready now is taken at once (libpulse reads a socket
// one packet per pass); once nothing is, the wait first lets the read delay go by.
int PulseAudioMainLoop::poll(pollfd* descriptors, unsigned long count, int timeout, void* self) {
    auto& loop = *static_cast<PulseAudioMainLoop*>(self);
    const auto delay = static_cast<int>(loop.readDelay_().count());
    loop.mutex_.unlock();
    // Only a pause needs the look at what is ready now; without one it is a system call for nothing.
    int ready = 0;
    if (delay > 0 && timeout != 0 && (ready = ::poll(descriptors, count, 0)) == 0) {
        const int wait = timeout > 0 ? std::min(delay, timeout) : delay;
        pollfd wake{loop.wake_, POLLIN, 0};
        if (::poll(&wake, 1, wait) == 0 && timeout > 0) timeout -= wait;
    }
    if (ready == 0) ready = ::poll(descriptors, count, timeout);
    loop.mutex_.lock();
    return ready;
}

}  // namespace orvel::platform
