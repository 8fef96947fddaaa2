#include "http/HTTPResponse.h"

#include <string_view>

namespace orvel::http {
namespace {
async::Task<HTTPBodySequence::Bytes> noBytes() { co_return HTTPBodySequence::Bytes{}; }

bool holdsLineBreakOrNul(std::string_view text) {
    return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}
}  // namespace

void HTTPResponse::checkHeaders() const {
    for (HTTPHeaders::Field field : headers) {
        if (holdsLineBreakOrNul(field.name) || holdsLineBreakOrNul(field.value)) throw InvalidHeaderError();
    }
}

async::Task<HTTPBodySequence::Bytes> HTTPResponse::bodyData() const {
    if (const HTTPBodySequence* body = payload.body()) return body->collect();
    return noBytes();
}

}  // namespace orvel::http
