#pragma once
#include <atomic>
#include <memory>
#include <mutex>
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
    // Sets the flag, runs every registered handler once and cancels the children.
    void cancel();

    // Registers node; when the task is already cancelled the handler runs at once instead.
    void add(CancellationNode& node);
    // Unregisters node; waits for it when its handler is running on another thread.
    void remove(CancellationNode& node);

    // Called by the child's task when it finishes.
    void detachFromParent();

    // Task-local bindings: touched only by the task itself.
    std::shared_ptr<const LocalBinding> locals;

private:
    void addChild(TaskContext* child);
    void removeChild(TaskContext* child);

    std::atomic<int> references_{1};
    std::atomic<bool> cancelled_{false};
    std::mutex mutex_;  // guards handlers_, children_ and sibling links; handlers run under it
    CancellationNode* handlers_ = nullptr;
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
