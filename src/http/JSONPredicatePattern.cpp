#include "http/JSONPredicatePattern.h"

#include "http/detail/Ascii.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cstdint>
#include <optional>
#include <regex>
#include <vector>

namespace orvel::http {

using json = nlohmann::json;

namespace {

enum class Operator { equal, notEqual, less, lessOrEqual, greater, greaterOrEqual, beginsWith, endsWith, contains, like, matches, in, between };
enum class Modifier { none, any, all, noneOf };
constexpr unsigned caseInsensitive = 1;
constexpr unsigned diacriticInsensitive = 2;

// libstdc++'s matcher recurses per character: a long subject could exhaust a pool thread's stack.
constexpr std::size_t maxMatchesSubject = 4096;

struct Step {
    enum class Kind { key, index, first, last, size };
    explicit Step(Kind kind, std::string key = {}, std::int64_t index = 0) : kind(kind), key(std::move(key)), index(index) {}
    Kind kind;
    std::string key;
    std::int64_t index;
};

struct Expression {
    enum class Kind { constant, keyPath, aggregate };
    Kind kind = Kind::constant;
    json value;                     // constant
    std::vector<Step> path;         // from SELF; empty for SELF itself
    std::vector<Expression> elements;  // aggregate
};

}  // namespace

struct JSONPredicatePattern::Node {
    enum class Kind { constant, comparison, conjunction, disjunction, negation };
    Kind kind = Kind::constant;
    bool truth = false;
    Modifier modifier = Modifier::none;
    Operator op = Operator::equal;
    unsigned options = 0;
    Expression left, right;
    std::optional<std::regex> regex;  // MATCHES with a constant pattern, compiled once
    std::vector<Node> children;
};

namespace {

using Node = JSONPredicatePattern::Node;

// ---- Text folding for [c] and [d]: ASCII and Latin-1 letters, which covers what the app needs.

// Base letters of U+00C0 to U+00FF; 0 keeps the character.
constexpr char32_t latin1Base[64] = {
    'A', 'A', 'A', 'A', 'A', 'A', 0, 'C', 'E', 'E', 'E', 'E', 'I', 'I', 'I', 'I',
    0,   'N', 'O', 'O', 'O', 'O', 'O', 0, 0, 'U', 'U', 'U', 'U', 'Y', 0, 0,
    'a', 'a', 'a', 'a', 'a', 'a', 0, 'c', 'e', 'e', 'e', 'e', 'i', 'i', 'i', 'i',
    0,   'n', 'o', 'o', 'o', 'o', 'o', 0, 0, 'u', 'u', 'u', 'u', 'y', 0, 'y'};

std::u32string decode(std::string_view text) {
    std::u32string out;
    out.reserve(text.size());
    for (std::size_t i = 0; i < text.size();) {
        auto c = static_cast<unsigned char>(text[i]);
        int extra = c < 0x80 ? 0 : c < 0xE0 ? 1 : c < 0xF0 ? 2 : 3;
        char32_t point = extra == 0 ? c : c & (0x3F >> extra);
        for (int k = 1; k <= extra && i + k < text.size(); ++k) point = point << 6 | (static_cast<unsigned char>(text[i + k]) & 0x3F);
        out.push_back(point);
        i += static_cast<std::size_t>(extra) + 1;
    }
    return out;
}

std::string encode(std::u32string_view text) {
    std::string out;
    for (char32_t c : text) {
        if (c < 0x80) {
            out += static_cast<char>(c);
        } else if (c < 0x800) {
            out += static_cast<char>(0xC0 | c >> 6);
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            out += static_cast<char>(0xE0 | c >> 12);
            out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        } else {
            out += static_cast<char>(0xF0 | c >> 18);
            out += static_cast<char>(0x80 | (c >> 12 & 0x3F));
            out += static_cast<char>(0x80 | (c >> 6 & 0x3F));
            out += static_cast<char>(0x80 | (c & 0x3F));
        }
    }
    return out;
}

std::u32string fold(std::string_view text, unsigned options) {
    std::u32string out = decode(text);
    for (char32_t& c : out) {
        if ((options & diacriticInsensitive) && c >= 0xC0 && c <= 0xFF && latin1Base[c - 0xC0]) c = latin1Base[c - 0xC0];
        if (options & caseInsensitive) {
            if (c >= 'A' && c <= 'Z') c += 'a' - 'A';
            else if (c >= 0xC0 && c <= 0xDE && c != 0xD7) c += 0x20;
        }
    }
    return out;
}

// ---- Values.

bool isNumber(const json& v) { return v.is_number() || v.is_boolean(); }

// Integers compare exactly, in either signedness; anything with a fraction as double.
int compareNumbers(const json& a, const json& b) {
    auto sign = [](auto x, auto y) { return x < y ? -1 : y < x ? 1 : 0; };
    auto integral = [](const json& v) { return v.is_number_integer() || v.is_boolean(); };
    if (integral(a) && integral(b)) {
        auto wide = [](const json& v) -> __int128 {
            if (v.is_boolean()) return v.get<bool>() ? 1 : 0;
            if (v.is_number_unsigned()) return static_cast<__int128>(v.get<std::uint64_t>());
            return v.get<std::int64_t>();
        };
        return sign(wide(a), wide(b));
    }
    auto real = [](const json& v) { return v.is_boolean() ? (v.get<bool>() ? 1.0 : 0.0) : v.get<double>(); };
    return sign(real(a), real(b));
}

std::optional<int> order(const json& a, const json& b, unsigned options) {
    if (isNumber(a) && isNumber(b)) return compareNumbers(a, b);
    if (a.is_string() && b.is_string()) {
        if (options == 0) {
            int c = a.get_ref<const std::string&>().compare(b.get_ref<const std::string&>());
            return c < 0 ? -1 : c > 0 ? 1 : 0;
        }
        auto x = fold(a.get_ref<const std::string&>(), options);
        auto y = fold(b.get_ref<const std::string&>(), options);
        return x < y ? -1 : x == y ? 0 : 1;
    }
    return std::nullopt;
}

bool equal(const json& a, const json& b, unsigned options) {
    if ((isNumber(a) && isNumber(b)) || (a.is_string() && b.is_string())) return order(a, b, options) == 0;
    return a == b;
}

// LIKE: "*" any run, "?" one character; the rest literal.
bool like(std::u32string_view text, std::u32string_view pattern) {
    std::size_t t = 0, p = 0, starP = std::u32string_view::npos, starT = 0;
    while (t < text.size()) {
        if (p < pattern.size() && (pattern[p] == U'?' || pattern[p] == text[t])) {
            ++t, ++p;
        } else if (p < pattern.size() && pattern[p] == U'*') {
            starP = p++;
            starT = t;
        } else if (starP != std::u32string_view::npos) {
            p = starP + 1;
            t = ++starT;
        } else {
            return false;
        }
    }
    while (p < pattern.size() && pattern[p] == U'*') ++p;
    return p == pattern.size();
}

std::regex compileRegex(const std::string& pattern, unsigned options) {
    auto flags = std::regex::ECMAScript;
    if (options & caseInsensitive) flags |= std::regex::icase;
    return std::regex(pattern, flags);
}

bool stringTest(const Node& node, const json& a, const json& b) {
    if (node.op == Operator::matches) {
        if (!a.is_string() || a.get_ref<const std::string&>().size() > maxMatchesSubject) return false;
        std::string subject = a.get<std::string>();
        if (node.options & diacriticInsensitive) subject = encode(fold(subject, diacriticInsensitive));
        if (node.regex) return std::regex_match(subject, *node.regex);
        if (!b.is_string()) return false;
        try {
            return std::regex_match(subject, compileRegex(b.get<std::string>(), node.options));
        } catch (const std::regex_error&) {
            return false;
        }
    }
    if (!a.is_string() || !b.is_string()) return false;
    auto x = fold(a.get_ref<const std::string&>(), node.options);
    auto y = fold(b.get_ref<const std::string&>(), node.options);
    switch (node.op) {
        case Operator::beginsWith: return x.starts_with(y);
        case Operator::endsWith: return x.ends_with(y);
        case Operator::contains: return x.find(y) != std::u32string::npos;
        case Operator::like: return like(x, y);
        default: return false;
    }
}

bool compare(const Node& node, const json& a, const json& b) {
    switch (node.op) {
        case Operator::equal: return equal(a, b, node.options);
        case Operator::notEqual: return !equal(a, b, node.options);
        case Operator::less: return order(a, b, node.options) < 0;
        case Operator::lessOrEqual: return order(a, b, node.options) <= 0;
        case Operator::greater: return order(a, b, node.options) > 0;
        case Operator::greaterOrEqual: return order(a, b, node.options) >= 0;
        case Operator::contains:
            // A collection contains an element; a string contains a substring.
            if (a.is_array()) return std::any_of(a.begin(), a.end(), [&](const json& e) { return equal(e, b, node.options); });
            return stringTest(node, a, b);
        case Operator::in:
            if (b.is_array() || b.is_object()) {
                return std::any_of(b.begin(), b.end(), [&](const json& e) { return equal(a, e, node.options); });
            }
            if (a.is_string() && b.is_string()) {
                return fold(b.get_ref<const std::string&>(), node.options).find(fold(a.get_ref<const std::string&>(), node.options)) !=
                       std::u32string::npos;
            }
            return false;
        case Operator::between: {
            if (!b.is_array() || b.size() != 2) return false;
            auto low = order(a, b[0], node.options);
            auto high = order(a, b[1], node.options);
            return low && high && *low >= 0 && *high <= 0;
        }
        case Operator::beginsWith:
        case Operator::endsWith:
        case Operator::like:
        case Operator::matches: return stringTest(node, a, b);
    }
    return false;
}

json applyStep(const Step& step, const json& value) {
    switch (step.kind) {
        case Step::Kind::key:
            if (value.is_object()) {
                auto found = value.find(step.key);
                return found == value.end() ? json() : *found;
            }
            if (value.is_array()) {
                // A key of a collection is the collection of its elements' values.
                json mapped = json::array();
                for (const json& element : value) mapped.push_back(applyStep(step, element));
                return mapped;
            }
            return json();
        case Step::Kind::index: {
            if (!value.is_array()) return json();
            std::int64_t n = step.index < 0 ? static_cast<std::int64_t>(value.size()) + step.index : step.index;
            return n >= 0 && static_cast<std::size_t>(n) < value.size() ? value[static_cast<std::size_t>(n)] : json();
        }
        case Step::Kind::first: return value.is_array() && !value.empty() ? value.front() : json();
        case Step::Kind::last: return value.is_array() && !value.empty() ? value.back() : json();
        case Step::Kind::size:
            if (value.is_array() || value.is_object()) return value.size();
            if (value.is_string()) return decode(value.get_ref<const std::string&>()).size();
            return json();
    }
    return json();
}

json resolve(const Expression& expression, const json& self) {
    switch (expression.kind) {
        case Expression::Kind::constant: return expression.value;
        case Expression::Kind::aggregate: {
            json values = json::array();
            for (const Expression& element : expression.elements) values.push_back(resolve(element, self));
            return values;
        }
        case Expression::Kind::keyPath: {
            if (expression.path.empty()) return self;
            json value = applyStep(expression.path.front(), self);
            for (std::size_t i = 1; i < expression.path.size(); ++i) value = applyStep(expression.path[i], value);
            return value;
        }
    }
    return json();
}

bool evaluateNode(const Node& node, const json& self) {
    switch (node.kind) {
        case Node::Kind::constant: return node.truth;
        case Node::Kind::negation: return !evaluateNode(node.children.front(), self);
        case Node::Kind::conjunction:
            return std::all_of(node.children.begin(), node.children.end(), [&](const Node& c) { return evaluateNode(c, self); });
        case Node::Kind::disjunction:
            return std::any_of(node.children.begin(), node.children.end(), [&](const Node& c) { return evaluateNode(c, self); });
        case Node::Kind::comparison: break;
    }
    json left = resolve(node.left, self);
    json right = resolve(node.right, self);
    if (node.modifier == Modifier::none) return compare(node, left, right);
    if (!left.is_array()) return false;  // ANY, ALL and NONE need a collection
    auto holds = [&](const json& element) { return compare(node, element, right); };
    switch (node.modifier) {
        case Modifier::any: return std::any_of(left.begin(), left.end(), holds);
        case Modifier::all: return std::all_of(left.begin(), left.end(), holds);
        case Modifier::noneOf: return std::none_of(left.begin(), left.end(), holds);
        case Modifier::none: break;
    }
    return false;
}

// ---- Parsing: a recursive descent over the format string, keywords in any letter case.

Node makeNode(Node::Kind kind, bool truth = false) {
    Node node;
    node.kind = kind;
    node.truth = truth;
    return node;
}

class Parser {
public:
    explicit Parser(std::string_view format) : text_(format) {}

    Node parse() {
        Node node = disjunction();
        skipSpace();
        if (at_ < text_.size()) fail("unexpected text");
        return node;
    }

private:
    [[noreturn]] void fail(std::string_view what) const {
        throw JSONPredicatePattern::Error("Invalid predicate \"" + std::string(text_) + "\": " + std::string(what) + " at offset " +
                                          std::to_string(at_));
    }

    void skipSpace() {
        while (at_ < text_.size() && detail::isSpaceOrNewline(text_[at_])) ++at_;
    }
    static bool isWordStart(char c) { return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || c == '_'; }
    static bool isWordChar(char c) { return isWordStart(c) || (c >= '0' && c <= '9'); }

    // The word at the cursor, without taking it.
    std::string_view peekWord() {
        skipSpace();
        std::size_t end = at_;
        while (end < text_.size() && isWordChar(text_[end])) ++end;
        return at_ < text_.size() && isWordStart(text_[at_]) ? text_.substr(at_, end - at_) : std::string_view();
    }
    bool takeKeyword(std::string_view keyword) {
        if (!detail::equalsIgnoringCase(peekWord(), keyword)) return false;
        at_ += keyword.size();
        return true;
    }
    bool takeSymbol(std::string_view symbol) {
        skipSpace();
        if (text_.substr(at_, symbol.size()) != symbol) return false;
        at_ += symbol.size();
        return true;
    }

    Node disjunction() {
        Node first = conjunction();
        if (!peekOr()) return first;
        Node node = makeNode(Node::Kind::disjunction);
        node.children.push_back(std::move(first));
        while (takeKeyword("OR") || takeSymbol("||")) node.children.push_back(conjunction());
        return node;
    }
    bool peekOr() {
        std::size_t saved = at_;
        bool found = takeKeyword("OR") || takeSymbol("||");
        at_ = saved;
        return found;
    }
    Node conjunction() {
        Node first = negation();
        Node node = makeNode(Node::Kind::conjunction);
        node.children.push_back(std::move(first));
        while (takeKeyword("AND") || takeSymbol("&&")) node.children.push_back(negation());
        if (node.children.size() == 1) return std::move(node.children.front());
        return node;
    }
    Node negation() {
        skipSpace();
        if (takeKeyword("NOT") || (text_.substr(at_, 2) != "!=" && takeSymbol("!"))) {
            Node node = makeNode(Node::Kind::negation);
            node.children.push_back(negation());
            return node;
        }
        if (takeSymbol("(")) {
            Node inner = disjunction();
            if (!takeSymbol(")")) fail("expected \")\"");
            return inner;
        }
        if (takeKeyword("TRUEPREDICATE")) return makeNode(Node::Kind::constant, true);
        if (takeKeyword("FALSEPREDICATE")) return makeNode(Node::Kind::constant, false);
        return comparison();
    }

    Node comparison() {
        Node node = makeNode(Node::Kind::comparison);
        if (takeKeyword("ANY") || takeKeyword("SOME")) node.modifier = Modifier::any;
        else if (takeKeyword("ALL")) node.modifier = Modifier::all;
        else if (takeKeyword("NONE")) node.modifier = Modifier::noneOf;
        node.left = expression();
        node.op = comparisonOperator();
        node.options = options();
        node.right = expression();
        if (node.op == Operator::between &&
            !(node.right.kind == Expression::Kind::aggregate ? node.right.elements.size() == 2
                                                             : node.right.kind == Expression::Kind::keyPath)) {
            fail("BETWEEN needs two bounds");
        }
        if (node.op == Operator::matches && node.right.kind == Expression::Kind::constant) {
            if (!node.right.value.is_string()) fail("MATCHES needs a string");
            try {
                node.regex = compileRegex(node.right.value.get<std::string>(), node.options);
            } catch (const std::regex_error&) {
                fail("invalid regular expression");
            }
        }
        return node;
    }

    Operator comparisonOperator() {
        static constexpr std::pair<std::string_view, Operator> symbols[] = {
            {"==", Operator::equal}, {"!=", Operator::notEqual}, {"<>", Operator::notEqual}, {"<=", Operator::lessOrEqual},
            {"=<", Operator::lessOrEqual}, {">=", Operator::greaterOrEqual}, {"=>", Operator::greaterOrEqual},
            {"<", Operator::less}, {">", Operator::greater}, {"=", Operator::equal}};
        for (const auto& [symbol, op] : symbols) {
            if (takeSymbol(symbol)) return op;
        }
        static constexpr std::pair<std::string_view, Operator> words[] = {
            {"BEGINSWITH", Operator::beginsWith}, {"ENDSWITH", Operator::endsWith}, {"CONTAINS", Operator::contains},
            {"LIKE", Operator::like}, {"MATCHES", Operator::matches}, {"IN", Operator::in}, {"BETWEEN", Operator::between}};
        for (const auto& [word, op] : words) {
            if (takeKeyword(word)) return op;
        }
        fail("expected a comparison operator");
    }

    unsigned options() {
        skipSpace();
        if (at_ >= text_.size() || text_[at_] != '[') return 0;
        unsigned options = 0;
        for (++at_; at_ < text_.size() && text_[at_] != ']'; ++at_) {
            switch (detail::asciiLower(text_[at_])) {
                case 'c': options |= caseInsensitive; break;
                case 'd': options |= diacriticInsensitive; break;
                case 'n': break;  // already normalised: UTF-8 compared as written
                default: fail("unknown option");
            }
        }
        if (!takeSymbol("]")) fail("expected \"]\"");
        return options;
    }

    Expression expression() {
        skipSpace();
        if (at_ >= text_.size()) fail("expected an expression");
        char c = text_[at_];
        if (c == '"' || c == '\'') return constant(string());
        if ((c >= '0' && c <= '9') || ((c == '-' || c == '+' || c == '.') && at_ + 1 < text_.size() &&
                                       ((text_[at_ + 1] >= '0' && text_[at_ + 1] <= '9') || text_[at_ + 1] == '.'))) {
            return constant(number());
        }
        if (c == '{') {
            ++at_;
            Expression aggregate;
        aggregate.kind = Expression::Kind::aggregate;
            if (!takeSymbol("}")) {
                do aggregate.elements.push_back(expression());
                while (takeSymbol(","));
                if (!takeSymbol("}")) fail("expected \"}\"");
            }
            return aggregate;
        }
        if (c == '%' || c == '$') fail("arguments and variables are not supported");
        if (takeKeyword("TRUE") || takeKeyword("YES")) return constant(true);
        if (takeKeyword("FALSE") || takeKeyword("NO")) return constant(false);
        if (takeKeyword("NULL") || takeKeyword("NIL")) return constant(nullptr);
        Expression path;
        path.kind = Expression::Kind::keyPath;
        if (takeKeyword("SELF")) {
            indexes(path);
            if (!takeSymbol(".")) return path;
        }
        do {
            path.path.push_back(key());
            indexes(path);
        } while (takeSymbol("."));
        return path;
    }
    static Expression constant(json value) {
        Expression expression;
        expression.value = std::move(value);
        return expression;
    }

    bool isReserved(std::string_view word) const {
        static constexpr std::string_view reserved[] = {"AND", "OR", "NOT", "ANY", "ALL", "NONE", "SOME", "IN", "BETWEEN",
                                                        "BEGINSWITH", "ENDSWITH", "CONTAINS", "LIKE", "MATCHES", "TRUE",
                                                        "FALSE", "YES", "NO", "NULL", "NIL", "SELF", "TRUEPREDICATE",
                                                        "FALSEPREDICATE"};
        return std::any_of(std::begin(reserved), std::end(reserved), [&](std::string_view r) { return detail::equalsIgnoringCase(r, word); });
    }

    Step key() {
        skipSpace();
        if (takeSymbol("@count")) return Step(Step::Kind::size);
        bool escaped = at_ < text_.size() && text_[at_] == '#';
        if (escaped) ++at_;
        std::string_view word = peekWord();
        if (word.empty()) fail("expected a key");
        if (!escaped && isReserved(word)) fail("expected a key, found a reserved word");
        at_ += word.size();
        return Step(Step::Kind::key, std::string(word));
    }

    void indexes(Expression& path) {
        while (at_ < text_.size() && text_[at_] == '[') {
            ++at_;
            skipSpace();
            if (takeKeyword("FIRST")) path.path.push_back(Step(Step::Kind::first));
            else if (takeKeyword("LAST")) path.path.push_back(Step(Step::Kind::last));
            else if (takeKeyword("SIZE")) path.path.push_back(Step(Step::Kind::size));
            else {
                json n = number();
                if (!n.is_number_integer()) fail("expected an index");
                path.path.push_back(Step(Step::Kind::index, {}, n.get<std::int64_t>()));
            }
            if (!takeSymbol("]")) fail("expected \"]\"");
        }
    }

    json number() {
        skipSpace();
        std::size_t start = at_;
        if (at_ < text_.size() && (text_[at_] == '-' || text_[at_] == '+')) ++at_;
        bool fraction = false;
        while (at_ < text_.size()) {
            char c = text_[at_];
            if (c >= '0' && c <= '9') {
                ++at_;
            } else if (c == '.' || c == 'e' || c == 'E') {
                fraction = true;
                ++at_;
                if ((c == 'e' || c == 'E') && at_ < text_.size() && (text_[at_] == '-' || text_[at_] == '+')) ++at_;
            } else {
                break;
            }
        }
        std::string_view digits = text_.substr(start, at_ - start);
        if (!digits.empty() && digits.front() == '+') digits.remove_prefix(1);
        if (!fraction) {
            std::int64_t value;
            auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
            if (error == std::errc() && end == digits.data() + digits.size()) return value;
            std::uint64_t big;
            auto [bigEnd, bigError] = std::from_chars(digits.data(), digits.data() + digits.size(), big);
            if (bigError == std::errc() && bigEnd == digits.data() + digits.size()) return big;
        }
        double value;
        auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), value);
        if (error != std::errc() || end != digits.data() + digits.size()) {
            at_ = start;
            fail("invalid number");
        }
        return value;
    }

    std::string string() {
        char quote = text_[at_];
        std::size_t start = at_++;
        std::string out;
        while (at_ < text_.size() && text_[at_] != quote) {
            char c = text_[at_++];
            if (c == '\\' && at_ < text_.size()) {
                c = text_[at_++];
                if (c == 'n') c = '\n';
                else if (c == 't') c = '\t';
                else if (c == 'r') c = '\r';
            }
            out += c;
        }
        if (at_ >= text_.size()) {
            at_ = start;
            fail("unterminated string");
        }
        ++at_;
        return out;
    }

    std::string_view text_;
    std::size_t at_ = 0;
};

}  // namespace

JSONPredicatePattern::JSONPredicatePattern(std::string_view format)
    : format_(format), predicate_(std::make_shared<const Node>(Parser(format).parse())) {}

bool JSONPredicatePattern::evaluate(std::string_view body) const {
    json value = json::parse(body, nullptr, false);
    if (value.is_discarded() || !(value.is_object() || value.is_array())) return false;
    return evaluateNode(*predicate_, value);
}

}  // namespace orvel::http
