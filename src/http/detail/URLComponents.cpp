#include "http/detail/URLComponents.h"

#include "http/detail/Ascii.h"
#include "http/detail/UTF8.h"

#include <uriparser/Uri.h>

#include <array>
#include <vector>
#include <string>

namespace orvel::http::detail {
namespace {

constexpr std::array<bool, 256> makeQueryAllowed() {
    std::array<bool, 256> table{};
    for (int c = 'a'; c <= 'z'; ++c) table[c] = true;
    for (int c = 'A'; c <= 'Z'; ++c) table[c] = true;
    for (int c = '0'; c <= '9'; ++c) table[c] = true;
    for (unsigned char c : std::string_view("-._~!$&'()*+,;=:@/?")) table[c] = true;
    return table;
}
constexpr std::array<bool, 256> queryAllowed = makeQueryAllowed();

// Decodes %XX escapes in place; a "%" without two hex digits stays as written. Decoded bytes
// that are not UTF-8 make the text undecodable.
bool percentDecode(std::string& text) {
    std::size_t out = text.find('%');
    if (out == std::string::npos) return isValidUTF8(text);
    for (std::size_t in = out; in < text.size(); ++in) {
        int high = -1, low = -1;
        if (text[in] == '%' && in + 2 < text.size()) {
            high = hexDigitValue(text[in + 1]);
            low = hexDigitValue(text[in + 2]);
        }
        if (high >= 0 && low >= 0) {
            text[out++] = static_cast<char>(high << 4 | low);
            in += 2;
        } else {
            text[out++] = text[in];
        }
    }
    text.resize(out);
    return isValidUTF8(text);
}

// RFC 3986 section 5.2.4 on a decoded path: "." segments go, ".." takes the segment before it and
// never climbs above the root. Done after decoding so that "%2e%2e" and "..%2F" are dots too.
std::string removeDotSegments(std::string_view path) {
    const bool rooted = !path.empty() && path.front() == '/';
    if (rooted) path.remove_prefix(1);
    std::vector<std::string_view> kept;
    for (std::size_t start = 0;;) {
        std::size_t end = path.find('/', start);
        bool last = end == std::string_view::npos;
        std::string_view segment = path.substr(start, last ? std::string_view::npos : end - start);
        if (segment == "..") {
            if (!kept.empty()) kept.pop_back();
            if (last) kept.emplace_back();
        } else if (segment == ".") {
            if (last) kept.emplace_back();
        } else {
            kept.push_back(segment);
        }
        if (last) break;
        start = end + 1;
    }
    std::string out = rooted ? "/" : "";
    for (std::size_t i = 0; i < kept.size(); ++i) {
        if (i > 0) out += '/';
        out.append(kept[i]);
    }
    return out;
}

std::string_view rangeText(const UriTextRangeA& range) {
    if (range.first == nullptr) return {};
    return {range.first, static_cast<std::size_t>(range.afterLast - range.first)};
}

void splitQuery(std::string_view text, std::vector<HTTPRequest::QueryItem>& query, bool decode) {
    if (text.empty()) return;
    std::size_t start = 0;
    while (true) {
        std::size_t end = text.find('&', start);
        std::string_view item = text.substr(start, end == std::string_view::npos ? std::string_view::npos : end - start);
        std::size_t equals = item.find('=');
        HTTPRequest::QueryItem q;
        q.name.assign(item.substr(0, equals));
        if (equals != std::string_view::npos) q.value.assign(item.substr(equals + 1));
        if (decode) {
            // An item whose escapes do not decode to text is kept as written.
            std::string name = q.name, value = q.value;
            if (percentDecode(name)) q.name = std::move(name);
            if (percentDecode(value)) q.value = std::move(value);
        }
        query.push_back(std::move(q));
        if (end == std::string_view::npos) break;
        start = end + 1;
    }
}

// The common target (/version, /a/b?x=1) needs neither decoding nor dot-segment removal:
// an absolute path (not "//", which would be an authority) of plain characters.
bool parsePlain(std::string_view text, std::string& path, std::vector<HTTPRequest::QueryItem>& query) {
    if (text.empty() || text[0] != '/' || (text.size() > 1 && text[1] == '/')) return false;
    std::size_t questionMark = text.find('?');
    std::string_view pathText = text.substr(0, questionMark);
    std::size_t segmentStart = 1;
    for (std::size_t i = 1; i <= pathText.size(); ++i) {
        if (i == pathText.size() || pathText[i] == '/') {
            std::string_view segment = pathText.substr(segmentStart, i - segmentStart);
            if (segment == "." || segment == "..") return false;
            segmentStart = i + 1;
            continue;
        }
        unsigned char c = static_cast<unsigned char>(pathText[i]);
        if (!queryAllowed[c] || c == '?') return false;
    }
    std::string_view queryText;
    if (questionMark != std::string_view::npos) {
        queryText = text.substr(questionMark + 1);
        for (unsigned char c : queryText) {
            if (!queryAllowed[c]) return false;
        }
    }
    path.assign(pathText);
    splitQuery(queryText, query, false);
    return true;
}

}  // namespace

bool parseURLReference(std::string_view text, std::string& path, std::vector<HTTPRequest::QueryItem>& query) {
    path.clear();
    query.clear();
    if (parsePlain(text, path, query)) return true;

    UriUriA uri;
    const char* errorPos = nullptr;
    if (uriParseSingleUriExA(&uri, text.data(), text.data() + text.size(), &errorPos) != URI_SUCCESS) return true;
    struct Release {
        UriUriA* uri;
        ~Release() { uriFreeUriMembersA(uri); }
    } release{&uri};

    std::string encoded;
    bool rooted = uri.absolutePath == URI_TRUE || uri.hostText.first != nullptr;
    if (uri.absolutePath == URI_TRUE && uri.pathHead == nullptr) encoded = "/";
    for (const UriPathSegmentA* segment = uri.pathHead; segment != nullptr; segment = segment->next) {
        if (segment != uri.pathHead || rooted) encoded += '/';
        encoded += rangeText(segment->text);
    }
    if (percentDecode(encoded)) {
        if (encoded.find_first_of(std::string_view("\0\r\n", 3)) != std::string::npos) return false;
        path = removeDotSegments(encoded);
    }
    splitQuery(rangeText(uri.query), query, true);
    return true;
}

void appendPercentEncoded(std::string& out, std::string_view text, const std::array<bool, 256>& kept) {
    static constexpr char hex[] = "0123456789ABCDEF";
    for (unsigned char c : text) {
        if (kept[c]) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0xF];
        }
    }
}

std::string percentEncodeForQuery(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    appendPercentEncoded(out, text, queryAllowed);
    return out;
}

}  // namespace orvel::http::detail
