#include "http/HTTPRoute.h"

#include "http/detail/Ascii.h"
#include "http/detail/URLComponents.h"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <cstdlib>
#include <locale.h>

namespace orvel::http {
namespace {

void addMethod(std::vector<HTTPMethod>& methods, HTTPMethod method) {
    if (std::find(methods.begin(), methods.end(), method) == methods.end()) methods.push_back(std::move(method));
}

std::vector<HTTPMethod> standardMethods() {
    return {HTTPMethod::allMethods.begin(), HTTPMethod::allMethods.end()};
}

bool isStandardMethodSet(const std::vector<HTTPMethod>& methods) {
    if (methods.size() != HTTPMethod::allMethods.size()) return false;
    return std::all_of(HTTPMethod::allMethods.begin(), HTTPMethod::allMethods.end(), [&](const HTTPMethod& m) {
        return std::find(methods.begin(), methods.end(), m) != methods.end();
    });
}

}  // namespace

HTTPRoute::Component HTTPRoute::Component::make(std::string_view text) {
    if (text == "*") return wildcard();
    if (!text.empty() && text.front() == ':') return parameter(std::string(text.substr(1)));
    return caseInsensitive(std::string(text));
}

bool HTTPRoute::Component::matches(std::string_view value) const noexcept {
    return kind_ != Kind::caseInsensitive || detail::equalsIgnoringCase(text_, value);
}

std::string HTTPRoute::Component::description() const {
    switch (kind_) {
        case Kind::caseInsensitive: return text_;
        case Kind::parameter: return ":" + text_;
        case Kind::wildcard: break;
    }
    return "*";
}

HTTPRoute::HTTPRoute(std::string_view text, const Headers& headers, std::shared_ptr<const HTTPBodyPattern> body)
    : body_(std::move(body)) {
    auto split = detail::splitOmittingEmpty<1>(text, ' ');
    std::string_view pathText = text;
    if (split.count == 2 && split.pieces[0].front() != '/') {
        detail::forEachNonEmptyPiece(split.pieces[0], ',', [&](std::string_view method) {
            addMethod(methods_, HTTPMethod(method));
        });
        pathText = split.pieces[1];
    }
    if (methods_.empty()) methods_ = standardMethods();
    parsePathText(pathText, headers);
}

HTTPRoute::HTTPRoute(const HTTPMethod& method, std::string_view path, const Headers& headers,
                     std::shared_ptr<const HTTPBodyPattern> body)
    : methods_{method}, body_(std::move(body)) {
    parsePathText(path, headers);
}

HTTPRoute::HTTPRoute(std::span<const HTTPMethod> methods, std::string_view path, const Headers& headers,
                     std::shared_ptr<const HTTPBodyPattern> body)
    : body_(std::move(body)) {
    for (const HTTPMethod& m : methods) addMethod(methods_, m);
    parsePathText(path, headers);
}

void HTTPRoute::parsePathText(std::string_view text, const Headers& headers) {
    // Text without escapes is escaped first, so "/hello world" reads as a path; text that
    // already holds escapes is taken as written.
    std::string encoded;
    if (text.find('%') == std::string_view::npos) {
        encoded = detail::percentEncodeForQuery(text);
        text = encoded;
    }
    std::string pathText;
    std::vector<HTTPRequest::QueryItem> items;
    detail::parseURLReference(text, pathText, items);
    detail::forEachNonEmptyPiece(pathText, '/', [&](std::string_view piece) { path_.push_back(Component::make(piece)); });
    for (auto& item : items) query_.push_back({std::move(item.name), Component::make(item.value)});
    for (const auto& [name, value] : headers) headers_.emplace_back(name, Component::make(value));
}

bool HTTPRoute::matchesQueryAndHeaders(const HTTPRequest& request) const noexcept {
    if (!query_.empty()) {
        if (request.query.empty()) return false;
        for (const QueryItem& wanted : query_) {
            bool found = std::any_of(request.query.begin(), request.query.end(), [&](const HTTPRequest::QueryItem& item) {
                return item.name == wanted.name && wanted.value.matches(item.value);
            });
            if (!found) return false;
        }
    }
    for (const auto& [name, component] : headers_) {
        std::string_view value = request.headers.value(name).value_or(std::string_view());
        bool anyPiece = false;
        bool matched = false;
        detail::forEachNonEmptyPiece(value, ',', [&](std::string_view piece) {
            anyPiece = true;
            if (!matched && component.matches(detail::trimBlanks(piece))) matched = true;
        });
        if (!anyPiece || !matched) return false;
    }
    return true;
}

// The path compared is the one the request target names. A target "//version/" is an authority
// ("version") and the path "/", so it does not match "/version": empty pieces are skipped only
// within a path, never by reading an authority as one.
bool HTTPRoute::matchesMethodAndPath(const HTTPRequest& request) const noexcept {
    if (std::find(methods_.begin(), methods_.end(), request.method) == methods_.end()) return false;

    const std::size_t m = path_.size();
    std::size_t n = 0;
    bool matched = true;
    detail::forEachNonEmptyPiece(request.path, '/', [&](std::string_view piece) {
        if (n < m) {
            if (!path_[n].matches(piece)) matched = false;
        } else if (m == 0 || path_.back().kind() != Component::Kind::wildcard) {
            matched = false;
        }
        ++n;
    });
    if (n >= m) return n == 0 || matched;
    // Fewer request components than route components: only the root against a leading wildcard.
    return n == 0 && path_.front().kind() == Component::Kind::wildcard;
}

std::vector<HTTPRoute::Parameter> HTTPRoute::parameters() const {
    std::vector<Parameter> out;
    for (std::size_t i = 0; i < path_.size(); ++i) {
        if (path_[i].kind() == Component::Kind::parameter) out.push_back(Parameter::path(path_[i].text(), i));
    }
    for (const QueryItem& item : query_) {
        if (item.value.kind() == Component::Kind::parameter) out.push_back(Parameter::query(item.value.text(), item.name));
    }
    return out;
}

std::vector<HTTPRequest::RouteParameter> HTTPRoute::extractParameters(const HTTPRequest& request) const {
    std::vector<HTTPRequest::RouteParameter> out;
    std::vector<Parameter> declared = parameters();
    if (declared.empty()) return out;
    std::vector<std::string_view> components;
    detail::forEachNonEmptyPiece(request.path, '/', [&](std::string_view piece) { components.push_back(piece); });
    for (const Parameter& p : declared) {
        if (p.kind == Parameter::Kind::path) {
            if (p.position < components.size()) out.push_back({p.name, std::string(components[p.position])});
            continue;
        }
        auto item = std::find_if(request.query.begin(), request.query.end(),
                                 [&](const HTTPRequest::QueryItem& q) { return q.name == p.item; });
        if (item != request.query.end()) out.push_back({p.name, item->value});
    }
    return out;
}

std::string HTTPRoute::description() const {
    std::string text;
    if (!isStandardMethodSet(methods_)) {
        // Standard methods in their standard order, then any others.
        std::vector<std::string_view> names;
        for (const HTTPMethod& m : HTTPMethod::allMethods) {
            if (std::find(methods_.begin(), methods_.end(), m) != methods_.end()) names.push_back(m.rawValue);
        }
        for (const HTTPMethod& m : methods_) {
            if (std::find(HTTPMethod::allMethods.begin(), HTTPMethod::allMethods.end(), m) == HTTPMethod::allMethods.end()) {
                names.push_back(m.rawValue);
            }
        }
        for (std::size_t i = 0; i < names.size(); ++i) {
            if (i > 0) text += ',';
            text += names[i];
        }
        text += ' ';
    }
    text += '/';
    for (std::size_t i = 0; i < path_.size(); ++i) {
        if (i > 0) text += '/';
        text += path_[i].description();
    }
    if (!query_.empty()) {
        text += '?';
        for (std::size_t i = 0; i < query_.size(); ++i) {
            if (i > 0) text += '&';
            text += query_[i].description();
        }
    }
    return text;
}

namespace detail {
namespace {

// strtod in the C locale whatever the process locale (GTK sets the user's), consuming the
// whole text.
template <typename T, typename Parse>
T parseWholeNumber(std::string_view text, Parse parse) {
    static const locale_t cLocale = newlocale(LC_ALL_MASK, "C", nullptr);
    if (text.empty() || cLocale == nullptr) throw HTTPRouteParameterInvalid();
    std::string copy(text);
    char* end = nullptr;
    T value = parse(copy.c_str(), &end, cLocale);
    if (end != copy.c_str() + copy.size()) throw HTTPRouteParameterInvalid();
    return value;
}

}  // namespace

double parseDouble(std::string_view text) { return parseWholeNumber<double>(text, strtod_l); }
float parseFloat(std::string_view text) { return parseWholeNumber<float>(text, strtof_l); }

}  // namespace detail
}  // namespace orvel::http
