#pragma once
#include <chrono>
#include <functional>
#include <mutex>
#include <thread>

struct pa_mainloop;
struct pa_mainloop_api;
struct pollfd;

namespace orvel::platform {

// A libpulse main loop on a thread of its own, locked the way libpulse's threaded loop is: the
// thread holds the lock while it dispatches and lets go of it while it waits. Unlike that one it
// can leave the server's socket unread for a while: a record stream gets a push for every block
// the sink renders, a few milliseconds apart, and its owner only needs them when a hand-on is due.
// Only samples wait: wake(), any unlock from another thread and a due timer end the pause at once.
class PulseAudioMainLoop {
public:
    // `woken` runs on the loop's thread, under the lock, after one or more wake() calls.
    // `readDelay`, asked under the lock each time nothing is ready, says how long the loop may
    // wait before it watches the server's socket again.
    PulseAudioMainLoop(std::function<void()> woken, std::function<std::chrono::milliseconds()> readDelay);
    ~PulseAudioMainLoop();

    PulseAudioMainLoop(const PulseAudioMainLoop&) = delete;
    PulseAudioMainLoop& operator=(const PulseAudioMainLoop&) = delete;

    // False when the loop, its wake-up descriptor or its thread cannot be made. Once only.
    bool start();
    bool started() const { return loop_ != nullptr; }
    // Ends the thread and joins it, then frees the loop and every event on it. Not from the loop's
    // own thread.
    void stop();
    pa_mainloop_api* api() const;
    bool inThread() const { return std::this_thread::get_id() == thread_.get_id(); }

    // Recursive, for callbacks that start or stop other captures.
    void lock() { mutex_.lock(); }
    void unlock();

    // Safe from any thread, before start() too.
    void wake() const noexcept;

private:
    static int poll(pollfd* descriptors, unsigned long count, int timeout, void* self);
    std::function<void()> woken_;
    std::function<std::chrono::milliseconds()> readDelay_;
    const int wake_;  // an eventfd
    pa_mainloop* loop_ = nullptr;
    std::recursive_mutex mutex_;
    std::thread thread_;
};

}  // namespace orvel::platform
