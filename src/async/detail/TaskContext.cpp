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
    if (child->previousSibling_) child->previousSibling_->nextSibling_ = child->nextSibling_;
    else firstChild_ = child->nextSibling_;
    if (child->nextSibling_) child->nextSibling_->previousSibling_ = child->previousSibling_;
    child->previousSibling_ = child->nextSibling_ = nullptr;
}

void TaskContext::cancel() {
    if (cancelled_.exchange(true, std::memory_order_acq_rel)) return;
    // Handlers run under the lock so that remove() cannot return while one is running: a handler
    // never runs after its owner has unregistered it. Lock order is always parent before child.
    std::lock_guard lock(mutex_);
    for (CancellationNode* node = handlers_; node; node = node->next) node->run(node);
    for (TaskContext* child = firstChild_; child; child = child->nextSibling_) child->cancel();
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

void TaskContext::remove(CancellationNode& node) {
    std::lock_guard lock(mutex_);
    if (!node.linked) return;
    if (node.previous) node.previous->next = node.next;
    else handlers_ = node.next;
    if (node.next) node.next->previous = node.previous;
    node.linked = false;
}

}  // namespace orvel::async::detail
