#pragma once
#include <atomic>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <thread>
#include <utility>

namespace orvel::async::detail {

// A cancellation handler registered on a task: an intrusive node that lives in the registering
// frame, so registering never allocates.
struct CancellationNode {
    void (*run)(CancellationNode*) = nullptr;
    CancellationNode* previous = nullptr;
    CancellationNode* next = nullptr;
    bool linked = false;
};

// One binding of a task-local value; bindings form an immutable list shared with child tasks.
struct LocalBinding {
    const void* key;
    std::shared_ptr<const void> value;
    std::shared_ptr<const LocalBinding> next;
};

// What a running task (spawned or a group's child) owns beyond its coroutine frames: the
// cancellation flag with its handlers, its structured children and its task-local bindings.
// Reference-counted: the task, its handle and its children each hold a reference.
class TaskContext {
public:
    explicit TaskContext(TaskContext* parent = nullptr, std::shared_ptr<const LocalBinding> locals = nullptr);
    ~TaskContext();
    TaskContext(const TaskContext&) = delete;
    TaskContext& operator=(const TaskContext&) = delete;

    void retain() noexcept { references_.fetch_add(1, std::memory_order_relaxed); }
    void release() noexcept {
        if (references_.fetch_sub(1, std::memory_order_acq_rel) == 1) delete this;
    }

    bool isCancelled() const noexcept { return cancelled_.load(std::memory_order_acquire); }
    // Sets the flag, runs every registered handler once and cancels every child once, whatever a
    // handler does: one that throws has still been told (its error is dropped, the canceller is
    // not its owner), and the rest are told after it. Only the first call does anything.
    void cancel() noexcept;

    // Registers node; when the task is already cancelled the handler runs at once instead.
    void add(CancellationNode& node);
    // Unregisters node; waits for it when its handler is running on another thread.
    void remove(CancellationNode& node) noexcept;

    // Called by the child's task when it finishes.
    void detachFromParent();

    // Task-local bindings: touched only by the task itself.
    std::shared_ptr<const LocalBinding> locals;

private:
    void addChild(TaskContext* child);
    void removeChild(TaskContext* child);

    std::atomic<int> references_{1};
    std::atomic<bool> cancelled_{false};
    // Guards the handler list, the running handler, the children and their sibling links. It is
    // never held while a handler runs or a child is cancelled (see cancel()).
    std::mutex mutex_;
    std::condition_variable handlerDone_;
    CancellationNode* handlers_ = nullptr;
    bool tellingHandlers_ = false;  // cancel() is going through the handlers, on runningOn_
    std::thread::id runningOn_;
    TaskContext* nextToCancel_ = nullptr;  // cancel()'s place among the children
    TaskContext* parent_;
    TaskContext* firstChild_ = nullptr;
    TaskContext* nextSibling_ = nullptr;
    TaskContext* previousSibling_ = nullptr;
};

// An owning reference to a context.
class ContextRef {
public:
    ContextRef() = default;
    explicit ContextRef(TaskContext* adopted) noexcept : context_(adopted) {}
    ContextRef(const ContextRef& other) noexcept : context_(other.context_) { if (context_) context_->retain(); }
    ContextRef(ContextRef&& other) noexcept : context_(std::exchange(other.context_, nullptr)) {}
    ContextRef& operator=(ContextRef other) noexcept { std::swap(context_, other.context_); return *this; }
    ~ContextRef() { if (context_) context_->release(); }
    TaskContext* get() const noexcept { return context_; }
    TaskContext* operator->() const noexcept { return context_; }

private:
    TaskContext* context_ = nullptr;
};

TaskContext* currentContext() noexcept;
void setCurrentContext(TaskContext* context) noexcept;

}  // namespace orvel::async::detail
