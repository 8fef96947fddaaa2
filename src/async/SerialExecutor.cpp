#include "async/SerialExecutor.h"

#include "async/ThreadPool.h"

#include <atomic>
#include <deque>
#include <mutex>

namespace orvel::async {

// The queue is the executor coroutines see as current, so it stays valid for a drain that is
// under way when the SerialExecutor itself goes away.
class SerialExecutor::Queue final : public Executor {
public:
    explicit Queue(ThreadPool& target) : target_(target) {}

    void retain() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
    void release() noexcept {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    void schedule(std::coroutine_handle<> coroutine) override {
        bool post;
        {
            std::lock_guard lock(mutex_);
            jobs_.push_back(coroutine);
            post = !draining_;
            draining_ = true;
        }
        if (post) {
            retain();
            target_.post(&Queue::drain, this);
        }
    }

private:
    // Bounded batches keep one busy object from starving the pool's other work.
    static constexpr int batchSize = 64;

    static void drain(void* argument) {
        auto* queue = static_cast<Queue*>(argument);
        Executor* previous = currentExecutor();
        detail::setCurrentExecutor(queue);
        bool more = true;
        for (int i = 0; i < batchSize; ++i) {
            std::coroutine_handle<> job;
            {
                std::lock_guard lock(queue->mutex_);
                if (queue->jobs_.empty()) {
                    queue->draining_ = false;
                    more = false;
                    break;
                }
                job = queue->jobs_.front();
                queue->jobs_.pop_front();
            }
            job.resume();
        }
        detail::setCurrentExecutor(previous);
        if (more) queue->target_.post(&Queue::drain, queue);  // keeps its reference
        else queue->release();
    }

    ThreadPool& target_;
    std::atomic<int> references_{1};
    std::mutex mutex_;
    std::deque<std::coroutine_handle<>> jobs_;
    bool draining_ = false;
};

SerialExecutor::SerialExecutor() : SerialExecutor(ThreadPool::shared()) {}
SerialExecutor::SerialExecutor(ThreadPool& target) : queue_(new Queue(target)) {}
SerialExecutor::~SerialExecutor() { queue_->release(); }

void SerialExecutor::schedule(std::coroutine_handle<> coroutine) { queue_->schedule(coroutine); }

bool SerialExecutor::isCurrent() const noexcept { return currentExecutor() == queue_; }

}  // namespace orvel::async
