#pragma once
#include "async/Error.h"
#include "async/detail/TaskContext.h"

#include <functional>
#include <utility>

namespace orvel::async {

// True when the calling task has been cancelled (false outside every task).
bool isCancelled() noexcept;

// Throws CancellationError when the calling task has been cancelled.
void checkCancellation();

// Runs a function when the calling task is cancelled: at most once, at once if the task is
// already cancelled, never after the destructor has returned. The function may run on any thread
// and must be short: it runs while the task's cancellation is being delivered.
class CancellationHandler {
public:
    template <class F>
    explicit CancellationHandler(F&& onCancel)
        : onCancel_(std::forward<F>(onCancel)), context_(detail::currentContext()) {
        node_.owner = this;
        node_.run = [](detail::CancellationNode* node) { static_cast<Node*>(node)->owner->onCancel_(); };
        if (context_) context_->add(node_);
    }
    ~CancellationHandler() {
        if (context_) context_->remove(node_);
    }
    CancellationHandler(const CancellationHandler&) = delete;
    CancellationHandler& operator=(const CancellationHandler&) = delete;

private:
    struct Node : detail::CancellationNode {
        CancellationHandler* owner;
    };
    std::function<void()> onCancel_;
    detail::TaskContext* context_;
    Node node_;
};

}  // namespace orvel::async
