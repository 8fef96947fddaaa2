#include "http/detail/URLComponents.h"

#include "http/detail/UTF8.h"

#include <uriparser/Uri.h>

#include <array>
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

// Decodes %XX escapes in place with uriparser; the parser has already refused malformed ones.
// Decoded bytes that are not UTF-8 make the text undecodable.
bool percentDecode(std::string& text) {
    if (text.find('%') == std::string::npos) return isValidUTF8(text);
    const char* end = uriUnescapeInPlaceExA(text.data(), URI_FALSE, URI_BR_DONT_TOUCH);
    text.resize(static_cast<std::size_t>(end - text.data()));
    return isValidUTF8(text);
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

void parseURLReference(std::string_view text, std::string& path, std::vector<HTTPRequest::QueryItem>& query) {
    path.clear();
    query.clear();
    if (parsePlain(text, path, query)) return;

    UriUriA uri;
    const char* errorPos = nullptr;
    if (uriParseSingleUriExA(&uri, text.data(), text.data() + text.size(), &errorPos) != URI_SUCCESS) return;
    struct Release {
        UriUriA* uri;
        ~Release() { uriFreeUriMembersA(uri); }
    } release{&uri};

    if (uriNormalizeSyntaxExA(&uri, URI_NORMALIZE_PATH) == URI_SUCCESS) {
        bool rooted = uri.absolutePath == URI_TRUE || uri.hostText.first != nullptr;
        if (uri.absolutePath == URI_TRUE && uri.pathHead == nullptr) path = "/";
        for (const UriPathSegmentA* segment = uri.pathHead; segment != nullptr; segment = segment->next) {
            if (segment != uri.pathHead || rooted) path += '/';
            path += rangeText(segment->text);
        }
        if (!percentDecode(path)) path.clear();
    }
    splitQuery(rangeText(uri.query), query, true);
}

std::string percentEncodeForQuery(std::string_view text) {
    static constexpr char hex[] = "0123456789ABCDEF";
    std::string out;
    out.reserve(text.size());
    for (unsigned char c : text) {
        if (queryAllowed[c]) {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 0xF];
        }
    }
    return out;
}

}  // namespace orvel::http::detail
