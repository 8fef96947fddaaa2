#include "async/detail/TaskContext.h"

namespace orvel::async::detail {
namespace {
thread_local TaskContext* currentContextSlot = nullptr;
}

TaskContext* currentContext() noexcept { return currentContextSlot; }
void setCurrentContext(TaskContext* context) noexcept { currentContextSlot = context; }

TaskContext::TaskContext(TaskContext* parent, std::shared_ptr<const LocalBinding> inherited)
    : locals(std::move(inherited)), parent_(parent) {
    if (parent_) {
        parent_->retain();
        parent_->addChild(this);
    }
}

TaskContext::~TaskContext() { detachFromParent(); }

void TaskContext::detachFromParent() {
    if (TaskContext* parent = std::exchange(parent_, nullptr)) {
        parent->removeChild(this);
        parent->release();
    }
}

void TaskContext::addChild(TaskContext* child) {
    bool cancelChild;
    {
        std::lock_guard lock(mutex_);
        child->nextSibling_ = firstChild_;
        if (firstChild_) firstChild_->previousSibling_ = child;
        firstChild_ = child;
        cancelChild = isCancelled();
    }
    // A child made after its parent was cancelled starts cancelled.
    if (cancelChild) child->cancelled_.store(true, std::memory_order_release);
}

void TaskContext::removeChild(TaskContext* child) {
    std::lock_guard lock(mutex_);
    if (nextToCancel_ == child) nextToCancel_ = child->nextSibling_;
    if (child->previousSibling_) child->previousSibling_->nextSibling_ = child->nextSibling_;
    else firstChild_ = child->nextSibling_;
    if (child->nextSibling_) child->nextSibling_->previousSibling_ = child->previousSibling_;
    child->previousSibling_ = child->nextSibling_ = nullptr;
}

// Lock order: a context's mutex is a leaf. cancel() takes one handler or one child at a time
// under it and lets go before running the handler or cancelling the child, so no lock of this
// task or of an ancestor is held while foreign code runs: a handler may touch any task (add a
// child to its parent's group, cancel an ancestor, unregister itself) without deadlocking. What
// the lock used to give, that a handler never runs after remove() has returned and that a task
// resumed by its cancellation finds every handler told, comes from tellingHandlers_: remove() on
// another thread waits until cancel() has gone through the handlers.
void TaskContext::cancel() noexcept {
    if (cancelled_.exchange(true, std::memory_order_acq_rel)) return;
    std::unique_lock lock(mutex_);
    // Handlers registered from now on run at once in add(), so the list only shrinks.
    tellingHandlers_ = true;
    runningOn_ = std::this_thread::get_id();
    while (CancellationNode* node = handlers_) {
        handlers_ = node->next;
        if (handlers_) handlers_->previous = nullptr;
        node->linked = false;
        lock.unlock();
        try {
            node->run(node);
        } catch (...) {
        }
        lock.lock();
    }
    tellingHandlers_ = false;
    handlerDone_.notify_all();
    // Children made from now on start cancelled. One that finishes meanwhile moves the cursor on
    // (removeChild), and the one being cancelled is kept alive by its reference.
    nextToCancel_ = firstChild_;
    while (TaskContext* child = nextToCancel_) {
        nextToCancel_ = child->nextSibling_;
        // A child whose last reference is gone is being destroyed: it waits for our lock to
        // unlist itself and needs no cancelling (taking a reference now would free it twice).
        int references = child->references_.load(std::memory_order_relaxed);
        while (references > 0 &&
               !child->references_.compare_exchange_weak(references, references + 1, std::memory_order_relaxed)) {
        }
        if (references == 0) continue;
        lock.unlock();
        child->cancel();
        child->release();
        lock.lock();
    }
}

void TaskContext::add(CancellationNode& node) {
    {
        std::lock_guard lock(mutex_);
        if (!isCancelled()) {
            node.previous = nullptr;
            node.next = handlers_;
            if (handlers_) handlers_->previous = &node;
            handlers_ = &node;
            node.linked = true;
            return;
        }
    }
    node.run(&node);
}

void TaskContext::remove(CancellationNode& node) noexcept {
    std::unique_lock lock(mutex_);
    if (node.linked) {
        if (node.previous) node.previous->next = node.next;
        else handlers_ = node.next;
        if (node.next) node.next->previous = node.previous;
        node.linked = false;
        // Cancelled, and cancel() has not reached this handler yet (it tells them one at a time
        // and the task may go on meanwhile): told here, so every handler registered before the
        // cancellation runs exactly once.
        if (isCancelled()) {
            lock.unlock();
            try {
                node.run(&node);
            } catch (...) {
            }
            lock.lock();
        }
    }
    // The task goes on only once cancel() has told all its handlers, as if they had run at once.
    // A handler that unregisters itself (or another) from inside a run must not wait for itself.
    if (tellingHandlers_ && runningOn_ != std::this_thread::get_id())
        handlerDone_.wait(lock, [&] { return !tellingHandlers_; });
}

}  // namespace orvel::async::detail
