#pragma once
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace orvel::http {

// A status code with its reason phrase; both take part in equality, so 404 with another phrase
// is not notFound. Any code and phrase can be made; the constants carry the wire spellings.
class HTTPStatusCode {
public:
    HTTPStatusCode(std::int64_t code, std::string_view phrase) : code(code), phrase(phrase) {}

    std::int64_t code;
    std::string phrase;

    static const HTTPStatusCode continue_, switchingProtocols, earlyHints, ok, created,
        accepted, nonAuthoritativeInformation, noContent, resetContent, partialContent,
        multiChoice, movedPermanently, found, seeOther, notModified,
        useProxy, unused, temporaryRedirect, permanentRedirect, badRequest,
        unauthorized, paymentRequired, forbidden, notFound, methodNotAllowed,
        notAcceptable, proxyAuthenticationRequired, requestTimeout, conflict, gone,
        lengthRequired, preconditionFailed, payloadTooLarge, uriTooLong, unsupportedMediaType,
        rangeNotSatisfiable, expectationFailed, teapot, misdirectedRequest, unprocessableContent,
        locked, failedDependency, tooEarly, upgradeRequired, preconditionRequired,
        tooManyRequests, requestHeaderFieldsTooLarge, unavailableForLegalReasons, internalServerError, notImplemented,
        badGateway, serviceUnavailable, gatewayTimeout, httpVersionNotSupported, variantAlsoNegotiates,
        notExtended, networkAuthenticationRequired;

    friend bool operator==(const HTTPStatusCode&, const HTTPStatusCode&) = default;
};

inline const HTTPStatusCode HTTPStatusCode::continue_{100, "Continue"};
inline const HTTPStatusCode HTTPStatusCode::switchingProtocols{101, "Switching Protocols"};
inline const HTTPStatusCode HTTPStatusCode::earlyHints{103, "Early Hints"};
inline const HTTPStatusCode HTTPStatusCode::ok{200, "OK"};
inline const HTTPStatusCode HTTPStatusCode::created{201, "Created"};
inline const HTTPStatusCode HTTPStatusCode::accepted{202, "Accepted"};
inline const HTTPStatusCode HTTPStatusCode::nonAuthoritativeInformation{203, "Non-Authoritative Information"};
inline const HTTPStatusCode HTTPStatusCode::noContent{204, "No Content"};
inline const HTTPStatusCode HTTPStatusCode::resetContent{205, "Reset Content"};
inline const HTTPStatusCode HTTPStatusCode::partialContent{206, "Partial Content"};
inline const HTTPStatusCode HTTPStatusCode::multiChoice{300, "Multiple Choice"};
inline const HTTPStatusCode HTTPStatusCode::movedPermanently{301, "Moved Permanently"};
inline const HTTPStatusCode HTTPStatusCode::found{302, "Found"};
inline const HTTPStatusCode HTTPStatusCode::seeOther{303, "See Other"};
inline const HTTPStatusCode HTTPStatusCode::notModified{304, "Not Modified"};
inline const HTTPStatusCode HTTPStatusCode::useProxy{305, "Use Proxy"};
inline const HTTPStatusCode HTTPStatusCode::unused{306, "unused"};
inline const HTTPStatusCode HTTPStatusCode::temporaryRedirect{307, "Temporary Redirect"};
inline const HTTPStatusCode HTTPStatusCode::permanentRedirect{308, "Permanent Redirect"};
inline const HTTPStatusCode HTTPStatusCode::badRequest{400, "Bad Request"};
inline const HTTPStatusCode HTTPStatusCode::unauthorized{401, "Unauthorized"};
inline const HTTPStatusCode HTTPStatusCode::paymentRequired{402, "Payment Required"};
inline const HTTPStatusCode HTTPStatusCode::forbidden{403, "Forbidden"};
inline const HTTPStatusCode HTTPStatusCode::notFound{404, "Not Found"};
inline const HTTPStatusCode HTTPStatusCode::methodNotAllowed{405, "Method Not Allowed"};
inline const HTTPStatusCode HTTPStatusCode::notAcceptable{406, "Not Acceptable"};
inline const HTTPStatusCode HTTPStatusCode::proxyAuthenticationRequired{407, "Proxy Authentication Required"};
inline const HTTPStatusCode HTTPStatusCode::requestTimeout{408, "Request Timeout"};
inline const HTTPStatusCode HTTPStatusCode::conflict{409, "Conflict"};
inline const HTTPStatusCode HTTPStatusCode::gone{410, "Gone"};
inline const HTTPStatusCode HTTPStatusCode::lengthRequired{411, "Length Required"};
inline const HTTPStatusCode HTTPStatusCode::preconditionFailed{412, "Precondition Failed"};
inline const HTTPStatusCode HTTPStatusCode::payloadTooLarge{413, "Payload Too Large"};
inline const HTTPStatusCode HTTPStatusCode::uriTooLong{414, "URI Too Long"};
inline const HTTPStatusCode HTTPStatusCode::unsupportedMediaType{415, "Unsupported Media Type"};
inline const HTTPStatusCode HTTPStatusCode::rangeNotSatisfiable{416, "Range Not Satisfiable"};
inline const HTTPStatusCode HTTPStatusCode::expectationFailed{417, "Expectation Failed"};
inline const HTTPStatusCode HTTPStatusCode::teapot{418, "I'm a teapot"};
inline const HTTPStatusCode HTTPStatusCode::misdirectedRequest{421, "Misdirected Request"};
inline const HTTPStatusCode HTTPStatusCode::unprocessableContent{422, "Unprocessable Content"};
inline const HTTPStatusCode HTTPStatusCode::locked{423, "Locked"};
inline const HTTPStatusCode HTTPStatusCode::failedDependency{424, "Failed Dependency"};
inline const HTTPStatusCode HTTPStatusCode::tooEarly{425, "Too Early"};
inline const HTTPStatusCode HTTPStatusCode::upgradeRequired{426, "Upgrade Required"};
inline const HTTPStatusCode HTTPStatusCode::preconditionRequired{428, "Precondition Required"};
inline const HTTPStatusCode HTTPStatusCode::tooManyRequests{429, "Too Many Requests"};
inline const HTTPStatusCode HTTPStatusCode::requestHeaderFieldsTooLarge{431, "Request Header Fields Too Large"};
inline const HTTPStatusCode HTTPStatusCode::unavailableForLegalReasons{451, "Unavailable For Legal Reasons"};
inline const HTTPStatusCode HTTPStatusCode::internalServerError{500, "Internal Server Error"};
inline const HTTPStatusCode HTTPStatusCode::notImplemented{501, "Not Implemented"};
inline const HTTPStatusCode HTTPStatusCode::badGateway{502, "Bad Gateway"};
inline const HTTPStatusCode HTTPStatusCode::serviceUnavailable{503, "Service Unavailable"};
inline const HTTPStatusCode HTTPStatusCode::gatewayTimeout{504, "Gateway Timeout"};
inline const HTTPStatusCode HTTPStatusCode::httpVersionNotSupported{505, "HTTP Version Not Supported"};
inline const HTTPStatusCode HTTPStatusCode::variantAlsoNegotiates{506, "Variant Also Negotiates"};
inline const HTTPStatusCode HTTPStatusCode::notExtended{510, "Not Extended"};
inline const HTTPStatusCode HTTPStatusCode::networkAuthenticationRequired{511, "Network Authentication Required"};

}  // namespace orvel::http

template <>
struct std::hash<orvel::http::HTTPStatusCode> {
    std::size_t operator()(const orvel::http::HTTPStatusCode& s) const noexcept {
        return std::hash<std::int64_t>{}(s.code) * 31 + std::hash<std::string>{}(s.phrase);
    }
};
