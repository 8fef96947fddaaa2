#pragma once
#include "async/Task.h"
#include "http/ClosureHTTPHandler.h"
#include "http/HTTPHandler.h"
#include "http/HTTPRoute.h"

#include <cassert>
#include <cstddef>
#include <functional>
#include <memory>
#include <span>
#include <tuple>
#include <type_traits>
#include <utility>
#include <vector>

namespace orvel::http {

namespace detail {
template <class F>
struct CallableArguments : CallableArguments<decltype(&std::remove_cvref_t<F>::operator())> {};
template <class R, class... A>
struct CallableArguments<R (*)(A...)> {
    using type = std::tuple<A...>;
};
template <class R, class... A>
struct CallableArguments<R(A...)> {
    using type = std::tuple<A...>;
};
template <class C, class R, class... A>
struct CallableArguments<R (C::*)(A...)> {
    using type = std::tuple<A...>;
};
template <class C, class R, class... A>
struct CallableArguments<R (C::*)(A...) const> {
    using type = std::tuple<A...>;
};
}  // namespace detail

// The server's dispatch table: an ordered list of (route, handler) pairs. A request goes to the
// first pair whose route matches; a handler that declines with HTTPUnhandledError passes it on.
// A value: copies share their pairs until one of them changes (copy on write), so a server can
// hand a snapshot to each connection while routes are still being added. One copy must not be
// changed by two threads at once.
class RoutedHTTPHandler final : public HTTPHandler {
public:
    struct Entry {
        HTTPRoute route;
        std::shared_ptr<HTTPHandler> handler;
    };

    RoutedHTTPHandler() = default;

    async::Task<HTTPResponse> handleRequest(HTTPRequest request) override;

    // A handler, a closure taking the request, a closure taking the request and typed route
    // parameters, or a closure taking only the typed parameters.
    template <class H>
    void appendRoute(HTTPRoute route, H&& handler) {
        auto made = makeHandler(route, std::forward<H>(handler));
        mutableEntries().push_back({std::move(route), std::move(made)});
    }
    template <class H>
    void appendRoute(std::span<const HTTPMethod> methods, std::string_view path, H&& handler) {
        appendRoute(HTTPRoute(methods, path), std::forward<H>(handler));
    }
    template <class H>
    void insertRoute(HTTPRoute route, std::size_t index, H&& handler) {
        assert(index <= size());
        auto made = makeHandler(route, std::forward<H>(handler));
        auto& entries = mutableEntries();
        entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(index), {std::move(route), std::move(made)});
    }
    template <class H>
    void insertRoute(std::span<const HTTPMethod> methods, std::string_view path, std::size_t index, H&& handler) {
        insertRoute(HTTPRoute(methods, path), index, std::forward<H>(handler));
    }

    // The collection of pairs.
    std::size_t size() const noexcept { return entries_ ? entries_->size() : 0; }
    bool empty() const noexcept { return size() == 0; }
    const Entry& operator[](std::size_t index) const {
        assert(index < size());
        return (*entries_)[index];
    }
    const Entry* begin() const noexcept { return entries_ ? entries_->data() : nullptr; }
    const Entry* end() const noexcept { return entries_ ? entries_->data() + entries_->size() : nullptr; }
    void insert(std::size_t index, Entry entry);
    void insert(std::size_t index, std::span<const Entry> entries);
    // Replaces the pairs [first, last) with `entries`.
    void replace(std::size_t first, std::size_t last, std::span<const Entry> entries);
    void set(std::size_t index, Entry entry);
    Entry removeAt(std::size_t index);
    Entry removeFirst();
    void removeAll();
    void removeAll(const std::function<bool(const Entry&)>& predicate);

private:
    std::vector<Entry>& mutableEntries();

    template <class H>
    static std::shared_ptr<HTTPHandler> makeHandler(const HTTPRoute& route, H&& handler) {
        using Plain = std::remove_cvref_t<H>;
        if constexpr (std::is_convertible_v<Plain, std::shared_ptr<HTTPHandler>>) {
            return std::forward<H>(handler);
        } else if constexpr (std::is_invocable_v<Plain&, HTTPRequest>) {
            return std::make_shared<ClosureHTTPHandler>(std::forward<H>(handler));
        } else {
            return withParameters(route, std::forward<H>(handler),
                                  static_cast<typename detail::CallableArguments<Plain>::type*>(nullptr));
        }
    }

    template <class F, class First, class... Rest>
    static std::shared_ptr<HTTPHandler> withParameters(const HTTPRoute& route, F&& closure, std::tuple<First, Rest...>*) {
        if constexpr (std::is_same_v<std::remove_cvref_t<First>, HTTPRequest>) {
            return std::make_shared<ClosureHTTPHandler>(
                [route, closure = std::forward<F>(closure)](HTTPRequest request) mutable -> async::Task<HTTPResponse> {
                    auto values = route.extractParameterValues<std::remove_cvref_t<Rest>...>(request);
                    co_return co_await std::apply(
                        [&](auto&&... v) { return closure(std::move(request), std::forward<decltype(v)>(v)...); },
                        std::move(values));
                });
        } else {
            return std::make_shared<ClosureHTTPHandler>(
                [route, closure = std::forward<F>(closure)](HTTPRequest request) mutable -> async::Task<HTTPResponse> {
                    auto values = route.extractParameterValues<std::remove_cvref_t<First>, std::remove_cvref_t<Rest>...>(request);
                    co_return co_await std::apply([&](auto&&... v) { return closure(std::forward<decltype(v)>(v)...); },
                                                  std::move(values));
                });
        }
    }

    std::shared_ptr<std::vector<Entry>> entries_;
};

}  // namespace orvel::http
