#include "http/HTTPDecoder.h"

#include "HTTPTestSupport.h"
#include "http/HTTPRequestSequence.h"
#include "net/AsyncBufferedFileSequence.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <unistd.h>

#include <thread>
#include <tuple>
#include <string>
#include <vector>

namespace orvel::http {
namespace {

using ::testing::ElementsAre;
using QueryItem = HTTPRequest::QueryItem;

std::shared_ptr<detail::ConnectionReader> readerOver(std::vector<std::string> pieces) {
    return std::make_shared<detail::ConnectionReader>(std::make_shared<PiecesStream>(std::move(pieces)));
}

HTTPRequest decodeOne(std::vector<std::string> pieces, HTTPDecoder decoder = HTTPDecoder()) {
    return async::syncWait(decoder.readRequest(readerOver(std::move(pieces))));
}

std::string text(const HTTPBodySequence::Bytes& bytes) { return std::string(bytes.begin(), bytes.end()); }

// Every request of the input, decoded through a request sequence, with each request's body.
async::Task<std::vector<std::pair<HTTPRequest, std::string>>> decodeAll(std::vector<std::string> pieces,
                                                                         HTTPDecoder decoder, bool readBodies) {
    HTTPRequestSequence requests(readerOver(std::move(pieces)), HTTPRequest::Address::ip4("10.0.0.9", 4000), decoder);
    std::vector<std::pair<HTTPRequest, std::string>> out;
    while (auto request = co_await requests.next()) {
        std::string body;
        if (readBodies) {
            auto bytes = co_await request->bodyData();  // not inside ?: (g++ 12 miscompiles co_await there)
            body = text(bytes);
        }
        out.emplace_back(std::move(*request), std::move(body));
    }
    co_return out;
}

// The text of the error decoding the first request fails with.
std::string failure(std::vector<std::string> pieces) { return test::errorOf([&] { decodeOne(std::move(pieces)); }); }

TEST(HTTPRequestDecoding, GivesTheSameRequestForEverySplitAndEitherLineEnd) {
    const std::string crlf = "POST /a/../b%20c?x=1=%2B+&y HTTP/1.1\r\nHost: example\r\nContent-Length: 5\r\n\r\nhello";
    std::string lf = crlf;
    for (std::size_t at; (at = lf.find("\r\n")) != std::string::npos;) lf.erase(at, 1);
    for (const std::string& input : {crlf, lf}) {
        for (std::size_t split = 0; split <= input.size(); ++split) {
            HTTPRequest request = decodeOne({input.substr(0, split), input.substr(split)});
            EXPECT_EQ(request.method, HTTPMethod::POST);
            EXPECT_EQ(request.version, HTTPVersion::http11);
            EXPECT_EQ(request.path, "/b c");
            EXPECT_THAT(request.query, ElementsAre(QueryItem{"x", "1=++"}, QueryItem{"y", ""}));
            EXPECT_EQ(request.headers.value(HTTPHeader::host), "example");
            EXPECT_EQ(request.bodySequence.count(), 5);
            EXPECT_TRUE(request.bodySequence.canReplay());
            EXPECT_EQ(text(async::syncWait(request.bodyData())), "hello") << "split at " << split;
            EXPECT_FALSE(request.remoteAddress);
        }
    }
    // The same body in chunked coding, with an extension and a trailer that are dropped.
    const std::string chunked = "POST / HTTP/1.1\r\nTransfer-Encoding: Chunked\r\n\r\n3;x=\"y\"\r\nhel\r\n02 \r\nlo\r\n0\r\nT: v\r\n\r\n";
    for (std::size_t split = 0; split <= chunked.size(); ++split) {
        HTTPRequest request = decodeOne({chunked.substr(0, split), chunked.substr(split)});
        EXPECT_FALSE(request.bodySequence.count());
        EXPECT_EQ(text(async::syncWait(request.bodyData())), "hello") << "split at " << split;
    }
}

TEST(HTTPRequestDecoding, SplitsTheRequestLineAtBlanksAndReadsHeaderLinesLeniently) {
    HTTPRequest wide = decodeOne({"GET  /x HTTP/1.1\r\n\r\n"});
    EXPECT_EQ(wide.path, "/x");
    EXPECT_EQ(wide.version.rawValue, "HTTP/1.1");
    EXPECT_EQ(decodeOne({"get /x  HTTP/1.1\r\n\r\n"}).version.rawValue, " HTTP/1.1");
    EXPECT_EQ(decodeOne({"BREW /pot HTCPCP/1.0\r\n\r\n"}).method.rawValue, "BREW");
    EXPECT_EQ(failure({"GET /x\r\n\r\n"}), "No HTTP Method");
    EXPECT_EQ(failure({"\r\n\r\n"}), "No HTTP Method");
    EXPECT_EQ(failure({"GET /\xff HTTP/1.1\r\n\r\n"}), "Invalid String Conversion");

    HTTPRequest request = decodeOne({"GET / HTTP/1.1\r\nHost: a\r\nhost: b\r\nNoColon\r\n: nameless\r\n"
                                     "Bare:\nEmpty:\r\nSpaced:   \r\nX: a:b: c \r\n\r\n"});
    EXPECT_EQ(request.headers.value(HTTPHeader::host), "b");
    EXPECT_FALSE(request.headers.contains("Bare"));
    EXPECT_EQ(request.headers.value("Empty"), "");
    EXPECT_EQ(request.headers.value("Spaced"), "");
    EXPECT_EQ(request.headers.value("x"), "a:b: c");
    EXPECT_EQ(request.headers.size(), 4u);
    EXPECT_EQ(failure({"GET / HTTP/1.1\r\nX: \xc3\x28\r\n\r\n"}), "Invalid String Conversion");

    // Trimming goes by Unicode's white space and newlines (NEL, no-break, ideographic space...),
    // and leaves other characters whole, even ones ending in the same bytes.
    const std::pair<std::string, std::string> trims[] = {
        {"\xc2\xa0v\xc2\x85", "v"},
        {"\xe3\x80\x80\x0bv \xe2\x80\xa8", "v"},
        {"\xc3\xa0v\xc3\xa0", "\xc3\xa0v\xc3\xa0"},  // à
        {"v\xe2\x80\x8b", "v\xe2\x80\x8b"},          // zero-width space is not white space
    };
    for (const auto& [raw, trimmed] : trims)
        EXPECT_EQ(decodeOne({"GET / HTTP/1.1\r\nX:" + raw + "\r\n\r\n"}).headers.value("X"), trimmed) << raw;
}

TEST(HTTPRequestDecoding, DecodesThePathBeforeRemovingDotSegmentsAndRefusesControlBytes) {
    const std::pair<const char*, const char*> paths[] = {
        {"http://h:8/x/./y/", "/x/y/"}, {"/", "/"}, {"/a/..", "/"}, {"/a/.", "/a/"},
        {"/%FF", ""}, {"/x%2", ""},  // not UTF-8 once decoded; not a reference
        {"/a/..%2F..%2Fetc", "/etc"}, {"/%2e%2e/%2E%2E/etc/passwd", "/etc/passwd"}, {"/..%2f", "/"},
        {"/a/%2e%2e%2f%2e%2e%2f%2e%2e%2fb", "/b"},
        {"/a%00b", nullptr}, {"/a%0d%0aSet-Cookie:%20x", nullptr}, {"/%0A", nullptr},
    };
    for (const auto& [target, expected] : paths) {
        const std::string input = "GET " + std::string(target) + " HTTP/1.1\r\n\r\n";
        if (expected) {
            EXPECT_EQ(decodeOne({input}).path, expected) << target;
        } else {
            EXPECT_EQ(failure({input}), "Invalid Path") << target;
        }
    }
}

TEST(HTTPRequestDecoding, RefusesLinesAndHeaderBlocksPastTheLimits) {
    const std::string target = "/" + std::string(HTTPDecoder::maxLineBytes - std::string("GET / HTTP/1.1").size(), 'a');
    const std::string longest = "GET " + target + " HTTP/1.1";
    ASSERT_EQ(longest.size(), HTTPDecoder::maxLineBytes);
    EXPECT_EQ(decodeOne({longest + "\r\n\r\n"}).path, target);
    EXPECT_EQ(failure({"GET a" + target + " HTTP/1.1\r\n\r\n"}), "Line Too Long");
    // The limit holds before the line ends, so a peer cannot make the buffer grow without end.
    EXPECT_EQ(failure({"GET a" + target + " HTTP/1.1 and more", ""}), "Line Too Long");

    const std::string header = "X: " + std::string(HTTPDecoder::maxLineBytes - 3, 'v');
    EXPECT_EQ(decodeOne({"GET / HTTP/1.1\r\n" + header + "\r\n\r\n"}).headers.value("X")->size(), HTTPDecoder::maxLineBytes - 3);
    EXPECT_EQ(failure({"GET / HTTP/1.1\r\n" + header + "v\r\n\r\n"}), "Line Too Long");

    std::string lines;
    for (std::size_t i = 0; i < HTTPDecoder::maxHeaderLines; ++i) lines += "H" + std::to_string(i) + ": v\r\n";
    EXPECT_EQ(decodeOne({"GET / HTTP/1.1\r\n" + lines + "\r\n"}).headers.size(), HTTPDecoder::maxHeaderLines);
    EXPECT_EQ(failure({"GET / HTTP/1.1\r\n" + lines + "Z: v\r\n\r\n"}), "Too Many Header Lines");
}

// A peer that shuts down its side after the request line has sent its whole head.
TEST(HTTPRequestDecoding, TakesTheEndOfTheSourceAsTheEndOfTheHeadOnlyAfterTheRequestLine) {
    EXPECT_THROW(decodeOne({}), SequenceTerminationError);
    const std::pair<const char*, std::size_t> inputs[] = {
        {"", 0}, {"GET / HT", 0}, {"GET / HTTP/1.1\r\nHost: a\r\n", 1}, {"GET / HTTP/1.1\r\nHost: a", 1},
        {"GET / HTTP/1.1\r\nContent-Length: 9\r\n\r\nabc", 1}};
    for (const auto& [input, count] : inputs) {
        auto all = async::syncWait(decodeAll({input}, HTTPDecoder(), false));
        ASSERT_EQ(all.size(), count) << input;
        if (count) {
            EXPECT_EQ(all[0].first.headers.value(HTTPHeader::host).value_or("a"), "a");
        }
    }
}

// Bytes end an idle wait (the head's clock starts) and restart a body's clock; a head's clock
// runs from its start however the bytes trickle in.
TEST(ConnectionReaderClock, BytesEndAnIdleWaitAndRestartOnlyABodysClock) {
    using Phase = detail::ConnectionReader::Phase;
    using namespace std::chrono_literals;
    const std::tuple<Phase, Phase, bool> cases[] = {
        {Phase::idle, Phase::head, true}, {Phase::head, Phase::head, false}, {Phase::body, Phase::body, true}};
    for (const auto& [before, after, restarted] : cases) {
        auto reader = readerOver({"x"});
        reader->startClock({1h, 2h, 3h});  // the first request's head
        reader->beginRequest();
        if (before == Phase::idle) reader->beginRequest();  // a kept-alive connection's next request
        if (before == Phase::body) reader->beginBody();
        ASSERT_EQ(reader->phase(), before);
        auto deadline = reader->deadline();
        std::this_thread::sleep_for(2ms);  // so that a restarted clock shows
        while (!reader->tryFill()) {
        }
        EXPECT_EQ(reader->phase(), after);
        EXPECT_EQ(reader->deadline() != deadline, restarted) << static_cast<int>(before);
    }
}

TEST(HTTPRequestSequenceKeepAlive, FindsTheNextRequestBehindABodyWhetherItIsReadOrNot) {
    // A malformed length is no body at all.
    auto all = async::syncWait(decodeAll({"POST /1 HTTP/1.1\r\nConnection: keep-alive\r\nContent-Length: abc\r\n\r\n"
                                          "GET /2 HTTP/1.1\r\n\r\n"},
                                         HTTPDecoder(), true));
    ASSERT_EQ(all.size(), 2u);
    EXPECT_EQ(all[0].first.bodySequence.count(), 0);
    EXPECT_EQ(all[1].first.path, "/2");
    EXPECT_EQ(all[1].first.remoteAddress, HTTPRequest::Address::ip4("10.0.0.9", 4000));

    // Ten bytes that come after the head stream through the replay buffer (replay size 1024)
    // or straight (4); unread, they (though they look like a request) are dropped.
    const std::vector<std::string> twoRequests = {"POST /1 HTTP/1.1\r\nConnection: keep-alive\r\nContent-Length: 10\r\n\r\n",
                                                  "GET /x H\r\nGET /2 HTTP/1.1\r\nConnection: keep-alive\r\n\r\n"};
    for (std::int64_t replaySize : {4, 1024}) {
        for (bool readBodies : {true, false}) {
            all = async::syncWait(decodeAll(twoRequests, HTTPDecoder(replaySize), readBodies));
            ASSERT_EQ(all.size(), 2u);
            EXPECT_EQ(all[0].first.bodySequence.canReplay(), replaySize > 10);
            EXPECT_EQ(all[0].second, readBodies ? "GET /x H\r\n" : "");
            EXPECT_EQ(all[1].first.path, "/2");
        }
    }
}

TEST(HTTPBodyChunkedTransfer, FramesEachBufferAndEndsWithTheLastChunk) {
    auto body = HTTPBodySequence::chunked(std::make_shared<SizedBuffers>(std::vector<std::size_t>{5, 10, 4096}));
    EXPECT_FALSE(body.count());
    std::string framed = text(async::syncWait(body.collect()));
    EXPECT_EQ(framed, "05\r\nhhhhh\r\n0A\r\n" + std::string(10, 'h') + "\r\n1000\r\n" + std::string(4096, 'h') + "\r\n0\r\n\r\n");
}

// Bytes in memory, a file and a shared source all replay: every pass yields every byte in
// buffers of the given size. The shared source is read once, never past its count, and its
// flusher reads what no pass took; a file's size is read when the body is made.
TEST(HTTPBodyReplay, EveryReplayableFormYieldsAllBytesOnEveryPass) {
    char path[] = "/tmp/orvel-body-XXXXXX";
    int fd = ::mkstemp(path);
    ASSERT_EQ(::write(fd, "hhhhhhhhhh", 10), 10);
    ::close(fd);
    auto source = std::make_shared<SizedBuffers>(std::vector<std::size_t>{4, 4, 4, 4});
    const std::tuple<const char*, HTTPBodySequence, bool> bodies[] = {
        {"memory", HTTPBodySequence(std::string(10, 'h'), 4), false},
        {"file", HTTPBodySequence::file(path, 4), false},
        {"shared", HTTPBodySequence::shared(source, 10, 4), true},
    };
    for (const auto& [name, body, flushable] : bodies) {
        EXPECT_TRUE(body.canReplay()) << name;
        EXPECT_EQ(body.count(), 10) << name;
        EXPECT_EQ(body.flusher() != nullptr, flushable) << name;
        for (int pass = 0; pass < 2; ++pass) {
            auto iterator = body.makeIterator();
            std::vector<std::size_t> sizes;
            while (auto buffer = async::syncWait(iterator.next())) sizes.push_back(buffer->size());
            EXPECT_THAT(sizes, ElementsAre(4u, 4u, 2u)) << name;
        }
    }
    EXPECT_EQ(source->reads, 3);
    ::unlink(path);
    EXPECT_THROW(HTTPBodySequence::file(path), net::AsyncBufferedFileSequence::FileError);
    EXPECT_THROW(HTTPBodySequence::file("/tmp"), net::AsyncBufferedFileSequence::FileSizeError);

    auto unread = std::make_shared<SizedBuffers>(std::vector<std::size_t>{4, 4, 4, 4});
    async::syncWait(HTTPBodySequence::shared(unread, 10).flusher()->flush());
    EXPECT_EQ(unread->reads, 3);
}

std::string header(const HTTPResponse& response) {
    std::string out;
    encodeResponseHeader(response, out);
    return out;
}

TEST(HTTPResponseEncoding, AnnouncesTheBodyLengthOrChunking) {
    EXPECT_EQ(header(HTTPResponse(HTTPStatusCode::ok, {{"content-length", "99"}}, "hello")),
              "HTTP/1.1 200 OK\r\ncontent-length: 5\r\n\r\n");
    auto chunked = HTTPBodySequence::chunked(std::make_shared<SizedBuffers>(std::vector<std::size_t>{}));
    EXPECT_EQ(header(HTTPResponse(HTTPStatusCode::ok, {}, chunked)), "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n");
    EXPECT_EQ(header(HTTPResponse(HTTPStatusCode::ok, {{"Transfer-Encoding", "gzip"}}, chunked)),
              "HTTP/1.1 200 OK\r\nTransfer-Encoding: gzip, chunked\r\n\r\n");
    EXPECT_EQ(header(HTTPResponse(HTTPVersion("HTTP/1.0"), HTTPStatusCode(299, "Odd"))), "HTTP/1.0 299 Odd\r\nContent-Length: 0\r\n\r\n");
}

}  // namespace
}  // namespace orvel::http
