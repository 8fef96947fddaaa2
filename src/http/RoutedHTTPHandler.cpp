#include "http/RoutedHTTPHandler.h"

#include "async/TaskLocal.h"

#include <algorithm>

namespace orvel::http {
namespace {

// The route whose handler is running, for HTTPRequest::routeParameters.
const async::TaskLocal<std::shared_ptr<const HTTPRoute>> matchedRoute;

async::Task<bool> bodyMatches(const HTTPRoute& route, const HTTPRequest& request) {
    // A body that cannot be replayed is never read for matching: the handler needs it whole.
    if (!request.bodySequence.canReplay()) co_return false;
    try {
        auto bytes = co_await request.bodyData();
        co_return route.body()->evaluate(
            std::string_view(reinterpret_cast<const char*>(bytes.data()), bytes.size()));
    } catch (...) {
        co_return false;  // a body that cannot be read only fails the match
    }
}

}  // namespace

std::vector<HTTPRequest::RouteParameter> HTTPRequest::routeParameters() const {
    const auto& route = matchedRoute.get();
    if (!route) return {};
    return route->extractParameters(*this);
}

async::Task<HTTPResponse> RoutedHTTPHandler::handleRequest(HTTPRequest request) {
    // Our own reference to the pairs: changes made meanwhile go to a fresh copy.
    std::shared_ptr<const std::vector<Entry>> entries = entries_;
    if (!entries || entries->empty()) throw HTTPUnhandledError();
    for (const Entry& entry : *entries) {
        const HTTPRoute& route = entry.route;
        if (!route.matchesQueryAndHeaders(request)) continue;
        if (route.body() && !co_await bodyMatches(route, request)) continue;
        if (!route.matchesMethodAndPath(request)) continue;
        try {
            // Binding costs allocations; a route without parameters needs it only to hide an
            // outer binding (nested routed handlers), since it would resolve to nothing anyway.
            if (!route.parameters().empty() || matchedRoute.get()) {
                co_return co_await matchedRoute.withValue(std::make_shared<const HTTPRoute>(route),
                                                          entry.handler->handleRequest(request));
            }
            // The last pair cannot pass the request on: it gets it without a copy.
            if (&entry == &entries->back()) co_return co_await entry.handler->handleRequest(std::move(request));
            co_return co_await entry.handler->handleRequest(request);
        } catch (const HTTPUnhandledError&) {
            // declined: the next matching pair gets the request
        }
    }
    throw HTTPUnhandledError();
}

std::vector<RoutedHTTPHandler::Entry>& RoutedHTTPHandler::mutableEntries() {
    if (!entries_) {
        entries_ = std::make_shared<std::vector<Entry>>();
    } else if (entries_.use_count() > 1) {
        entries_ = std::make_shared<std::vector<Entry>>(*entries_);
    }
    return *entries_;
}

void RoutedHTTPHandler::insert(std::size_t index, Entry entry) {
    assert(index <= size());
    auto& entries = mutableEntries();
    entries.insert(entries.begin() + static_cast<std::ptrdiff_t>(index), std::move(entry));
}

void RoutedHTTPHandler::insert(std::size_t index, std::span<const Entry> added) {
    replace(index, index, added);
}

void RoutedHTTPHandler::replace(std::size_t first, std::size_t last, std::span<const Entry> added) {
    assert(first <= last && last <= size());
    auto& entries = mutableEntries();
    auto at = entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(first),
                            entries.begin() + static_cast<std::ptrdiff_t>(last));
    entries.insert(at, added.begin(), added.end());
}

void RoutedHTTPHandler::set(std::size_t index, Entry entry) {
    assert(index < size());
    mutableEntries()[index] = std::move(entry);
}

RoutedHTTPHandler::Entry RoutedHTTPHandler::removeAt(std::size_t index) {
    assert(index < size());
    auto& entries = mutableEntries();
    Entry removed = std::move(entries[index]);
    entries.erase(entries.begin() + static_cast<std::ptrdiff_t>(index));
    return removed;
}

RoutedHTTPHandler::Entry RoutedHTTPHandler::removeFirst() { return removeAt(0); }

void RoutedHTTPHandler::removeAll() { entries_.reset(); }

void RoutedHTTPHandler::removeAll(const std::function<bool(const Entry&)>& predicate) {
    if (empty()) return;
    auto& entries = mutableEntries();
    entries.erase(std::remove_if(entries.begin(), entries.end(), predicate), entries.end());
}

}  // namespace orvel::http
