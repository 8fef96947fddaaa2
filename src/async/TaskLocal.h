#pragma once
#include "async/Task.h"
#include "async/detail/TaskContext.h"

#include <memory>
#include <optional>
#include <type_traits>
#include <utility>

namespace orvel::async {

// A value bound for the extent of an operation in a task, and visible to the tasks it spawns or
// adds to groups while the binding holds. Outside any binding get() returns the default value.
template <class T>
class TaskLocal {
public:
    explicit TaskLocal(T defaultValue = T{}) : defaultValue_(std::move(defaultValue)) {}
    TaskLocal(const TaskLocal&) = delete;
    TaskLocal& operator=(const TaskLocal&) = delete;

    const T& get() const noexcept {
        if (auto* context = detail::currentContext()) {
            for (const detail::LocalBinding* binding = context->locals.get(); binding; binding = binding->next.get()) {
                if (binding->key == this) return *static_cast<const T*>(binding->value.get());
            }
        }
        return defaultValue_;
    }

    // Runs body with this local bound to value in the calling task.
    template <class R>
    Task<R> withValue(T value, Task<R> body) const {
        detail::TaskContext* context = detail::currentContext();
        auto saved = context->locals;
        context->locals = std::make_shared<const detail::LocalBinding>(
            detail::LocalBinding{this, std::make_shared<const T>(std::move(value)), saved});
        struct Restore {
            detail::TaskContext* context;
            std::shared_ptr<const detail::LocalBinding> saved;
            ~Restore() { context->locals = std::move(saved); }
        } restore{context, std::move(saved)};
        if constexpr (std::is_void_v<R>) co_await std::move(body);
        else co_return co_await std::move(body);
    }

private:
    T defaultValue_;
};

}  // namespace orvel::async
