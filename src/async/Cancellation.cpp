#include "async/Cancellation.h"

namespace orvel::async {

bool isCancelled() noexcept {
    auto* context = detail::currentContext();
    return context && context->isCancelled();
}

void checkCancellation() {
    if (isCancelled()) throw CancellationError();
}

}  // namespace orvel::async
