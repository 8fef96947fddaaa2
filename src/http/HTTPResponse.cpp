#include "http/HTTPResponse.h"

namespace orvel::http {
namespace {
async::Task<HTTPBodySequence::Bytes> noBytes() { co_return HTTPBodySequence::Bytes{}; }
}  // namespace

async::Task<HTTPBodySequence::Bytes> HTTPResponse::bodyData() const {
    if (const HTTPBodySequence* body = payload.body()) return body->collect();
    return noBytes();
}

}  // namespace orvel::http
