#pragma once

#include <functional>

namespace orvel::platform {

// What the application needs of its main thread: run until asked to quit, one quit path that
// runs a handler on the main thread first, and a way to hand work to the main thread. The tray
// icon is the real one; tests may put a fake in its place.
class MainLoop {
public:
    virtual ~MainLoop() = default;

    // Runs on the main thread when the quit path is taken, before run() returns. Set before run().
    virtual void setQuitHandler(std::function<void()> handler) = 0;

    // Runs the loop on the calling (main) thread until the quit path has run.
    virtual void run() = 0;

    // Takes the quit path; from any thread. Only the first of several requests runs the handler.
    virtual void terminate() = 0;

    // Runs `work` on the main thread, in the order posted; from any thread.
    virtual void post(std::function<void()> work) = 0;
};

}  // namespace orvel::platform
