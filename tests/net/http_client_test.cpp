#include "net/http_client.h"

#include <gtest/gtest.h>
#include <netdb.h>

#include <future>
#include <string>
#include <thread>

#include "support/promised.h"
#include "support/run_on_threads.h"
#include "support/tcp_peer.h"
#include "support/wait_until.h"

namespace qm {
namespace {

using test::FullListener;
using test::kGenerousLimit;
using test::PeerConnection;
using test::RefusingPort;
using test::TcpPeer;
using test::waitUntil;

constexpr int kLongMs = 60000;
constexpr int kShortMs = 50;

/// Reads a request with the given body size, keeps it, and answers.
class Exchange {
public:
    explicit Exchange(std::size_t bodySize = 0, std::string answer = "HTTP/1.1 200 OK\r\n\r\nfine")
        : peer_([this, bodySize, answer = std::move(answer)](PeerConnection& connection) {
              auto request = connection.readUntil("\r\n\r\n");
              request += connection.readExactly(bodySize);
              request_.set_value(request);
              connection.send(answer);
          }) {}

    std::string url(std::string_view path = {}) const { return peer_.url("http", path); }
    std::string host() const { return "127.0.0.1:" + std::to_string(peer_.port()); }
    std::string request() { return test::promised(request_); }

private:
    std::promise<std::string> request_;
    TcpPeer peer_;
};

HttpResponse getFrom(const TcpPeer& peer, int timeoutMs = kLongMs) {
    return HttpClient(timeoutMs).get(peer.url("http", "/"));
}

void expectFailure(const HttpResponse& response, const std::string& error) {
    EXPECT_EQ(response.error, error);
    EXPECT_EQ(response.status, 0);
    EXPECT_EQ(response.body, "");
}

TEST(HttpClient, AGetHasItsExactBytes) {
    Exchange exchange;

    const auto response = HttpClient(kLongMs).get(exchange.url("/a/b?c=d%20e"), {{"X-B", "2"}, {"X-A", "1"}});

    EXPECT_EQ(exchange.request(),
              "GET /a/b?c=d%20e HTTP/1.1\r\nHost: " + exchange.host() +
                  "\r\nConnection: close\r\nUser-Agent: Quillmarsh-Executor\r\nX-A: 1\r\nX-B: 2\r\n\r\n");
    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "fine");
    EXPECT_EQ(response.error, "");
}

TEST(HttpClient, AUrlWithoutPathAsksForTheRoot) {
    Exchange exchange;

    HttpClient(kLongMs).get(exchange.url());

    EXPECT_TRUE(exchange.request().starts_with("GET / HTTP/1.1\r\n"));
}

TEST(HttpClient, APostHasItsExactBytes) {
    Exchange exchange(7);

    HttpClient(kLongMs).post(exchange.url("/login"), R"({"a":1})", {{"Authorization", "Bearer t"}});

    EXPECT_EQ(exchange.request(),
              "POST /login HTTP/1.1\r\nHost: " + exchange.host() +
                  "\r\nConnection: close\r\nUser-Agent: Quillmarsh-Executor\r\nAuthorization: Bearer t\r\n"
                  "Content-Type: application/json\r\nContent-Length: 7\r\n\r\n{\"a\":1}");
}

TEST(HttpClient, ACallersContentTypeInAnyCaseIsTheOnlyOne) {
    Exchange exchange(2);

    HttpClient(kLongMs).post(exchange.url("/"), "hi", {{"Content-type", "text/plain"}});

    EXPECT_EQ(exchange.request(), "POST / HTTP/1.1\r\nHost: " + exchange.host() +
                                      "\r\nConnection: close\r\nUser-Agent: Quillmarsh-Executor\r\n"
                                      "Content-type: text/plain\r\nContent-Length: 2\r\n\r\nhi");
}

TEST(HttpClient, AnEmptyPostStillNamesItsLength) {
    Exchange exchange;

    HttpClient(kLongMs).post(exchange.url("/"), "");

    EXPECT_TRUE(exchange.request().ends_with("Content-Type: application/json\r\nContent-Length: 0\r\n\r\n"));
}

TEST(HttpClient, OtherMethodsCarryTheirBodyAndLength) {
    for (const std::string method : {"PUT", "PATCH", "DELETE"}) {
        Exchange exchange(4);

        HttpClient(kLongMs).request(method, exchange.url("/x"), {}, "body");

        const auto request = exchange.request();
        EXPECT_TRUE(request.starts_with(method + " /x HTTP/1.1\r\n")) << request;
        EXPECT_TRUE(request.ends_with("Content-Length: 4\r\n\r\nbody")) << request;
    }
}

TEST(HttpClient, ABodyOnEitherSideOfTheJoiningLimitArrivesWhole) {
    for (const std::size_t size : {65536U, 65537U, 4U << 20}) {
        Exchange exchange(size);
        const std::string body(size, 'b');

        const auto response = HttpClient(kLongMs).post(exchange.url("/"), body);

        EXPECT_EQ(response.error, "");
        EXPECT_TRUE(exchange.request().ends_with("Content-Length: " + std::to_string(size) + "\r\n\r\n" + body));
    }
}

TEST(HttpClient, AStatusOtherThan2xxIsNoFailure) {
    Exchange exchange(0, "HTTP/1.1 404 Not Found\r\n\r\nno such thing");

    const auto response = HttpClient(kLongMs).get(exchange.url());

    EXPECT_EQ(response.status, 404);
    EXPECT_EQ(response.body, "no such thing");
    EXPECT_EQ(response.error, "");
}

TEST(HttpClient, ARedirectIsNotFollowed) {
    Exchange exchange(0, "HTTP/1.1 302 Found\r\nLocation: http://127.0.0.1:1/\r\n\r\n");

    EXPECT_EQ(HttpClient(kLongMs).get(exchange.url()).status, 302);
}

TEST(HttpClient, AChunkedBodyIsDecoded) {
    Exchange exchange(0, "HTTP/1.1 200 OK\r\nTransfer-Encoding: chunked\r\n\r\n3\r\nabc\r\n2\r\nde\r\n0\r\n\r\n");

    EXPECT_EQ(HttpClient(kLongMs).get(exchange.url()).body, "abcde");
}

TEST(HttpClient, AnUrlThatCannotBeParsedIsNamed) {
    expectFailure(HttpClient(kLongMs).get("htp://host/"), "无法解析 URL: htp://host/");
    expectFailure(HttpClient(kLongMs).post("http://host:0", ""), "无法解析 URL: http://host:0");
}

TEST(HttpClient, AFailedNameLookupSaysWhy) {
    addrinfo* found = nullptr;
    const std::string host = "no..host";
    const int failure = ::getaddrinfo(host.c_str(), "80", nullptr, &found);
    ASSERT_NE(failure, 0);

    expectFailure(HttpClient(kLongMs).get("http://" + host + "/"),
                  std::string("DNS 解析失败: ") + ::gai_strerror(failure));
}

TEST(HttpClient, ARefusedConnectionSaysSo) {
    const RefusingPort port;

    expectFailure(HttpClient(kLongMs).get("http://127.0.0.1:" + std::to_string(port.port())),
                  "TCP 连接失败: Connection refused");
}

TEST(HttpClient, AConnectionThatNobodyAnswersTimesOut) {
    const FullListener listener;

    expectFailure(HttpClient(kShortMs).get("http://127.0.0.1:" + std::to_string(listener.port())),
                  "TCP 连接失败: Connection timed out");
}

TEST(HttpClient, ARequestThatThePeerThrowsAwayFailsToBeSent) {
    TcpPeer peer([](PeerConnection& connection) {
        connection.readUntil("\r\n\r\n");
        connection.reset();
    });

    expectFailure(HttpClient(kLongMs).post(peer.url("http"), std::string(64 << 20, 'b')), "请求发送失败");
}

TEST(HttpClient, ARequestThatThePeerDoesNotTakeTimesOut) {
    TcpPeer peer([](PeerConnection& connection) { connection.hold(); });

    expectFailure(HttpClient(kShortMs).post(peer.url("http"), std::string(64 << 20, 'b')), "请求发送失败");
}

TEST(HttpClient, AHeaderThatWouldBreakOutOfItsLineIsNeverSent) {
    TcpPeer peer([](PeerConnection& connection) { connection.hold(); });
    const std::string url = peer.url("http");
    const HttpClient client(kLongMs);

    expectFailure(client.get(url, {{"X", "a\r\nY: b"}}), "请求发送失败");
    expectFailure(client.get(url, {{"X", "a\nY: b"}}), "请求发送失败");
    expectFailure(client.get(url, {{"X\r\nY", "a"}}), "请求发送失败");
    expectFailure(client.get(url, {{"X", std::string("a\0b", 3)}}), "请求发送失败");
    expectFailure(client.request("GET / HTTP/1.1\r\n", url, {}, ""), "请求发送失败");

    EXPECT_EQ(peer.accepted(), 0U);
}

TEST(HttpClient, AResetBeforeTheFirstByteIsAFailedRead) {
    TcpPeer peer([](PeerConnection& connection) {
        connection.readUntil("\r\n\r\n");
        connection.reset();
    });

    expectFailure(getFrom(peer), "响应读取失败");
}

TEST(HttpClient, SilenceIsAFailedRead) {
    TcpPeer peer([](PeerConnection& connection) { connection.hold(); });

    expectFailure(getFrom(peer, kShortMs), "响应读取失败");
}

TEST(HttpClient, AnOrderlyEndBeforeTheFirstByteIsAMalformedResponse) {
    TcpPeer peer([](PeerConnection& connection) { connection.readUntil("\r\n\r\n"); });

    expectFailure(getFrom(peer), "响应格式非法");
}

TEST(HttpClient, AnAnswerWithoutABlankLineIsMalformed) {
    Exchange exchange(0, "HTTP/1.1 200 OK\r\nContent-Length: 0\r\n");

    expectFailure(HttpClient(kLongMs).get(exchange.url()), "响应格式非法");
}

TEST(HttpClient, AStatusLineWithoutANumberIsMalformed) {
    Exchange exchange(0, "HTTP/1.1 OK\r\n\r\nbody");

    expectFailure(HttpClient(kLongMs).get(exchange.url()), "响应格式非法");
}

TEST(HttpClient, ASilenceWithDataInHandEndsTheBody) {
    TcpPeer peer([](PeerConnection& connection) {
        connection.readUntil("\r\n\r\n");
        connection.send("HTTP/1.1 200 OK\r\n\r\npart");
        connection.hold();
    });

    // Long enough for the answer to arrive on a loaded machine, since the wait ends only by the limit.
    const auto response = getFrom(peer, 2000);

    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body, "part");
    EXPECT_EQ(response.error, "");
}

TEST(HttpClient, TheLimitHoldsForEachWaitAndNotForTheCall) {
    constexpr int kLimitMs = 4000;
    constexpr int kPieces = 3;
    TcpPeer peer([](PeerConnection& connection) {
        connection.readUntil("\r\n\r\n");
        connection.send("HTTP/1.1 200 OK\r\n\r\n");
        for (int i = 0; i < kPieces; ++i) {
            // Time that passes is what this test is about: less than the limit between two pieces, more in all.
            std::this_thread::sleep_for(std::chrono::milliseconds(1500));
            connection.send("x");
        }
    });

    EXPECT_EQ(getFrom(peer, kLimitMs).body, std::string(kPieces, 'x'));
}

TEST(HttpClient, ABodyLimitEndsTheReadingOfAnEndlessBody) {
    TcpPeer peer([](PeerConnection& connection) {
        connection.readUntil("\r\n\r\n");
        connection.send("HTTP/1.1 200 OK\r\n\r\n" + std::string(10001, 'x'));
        connection.hold();
    });

    const auto response =
        HttpClient(kLongMs).request("GET", peer.url("http"), {}, {}, {.bodyLimit = 10000, .sink = {}});

    EXPECT_EQ(response.status, 200);
    EXPECT_EQ(response.body.size(), 10001U);
}

TEST(HttpClient, ASinkGetsTheBodyAsItComes) {
    Exchange exchange(0, "HTTP/1.1 200 OK\r\n\r\n" + std::string(100000, 'x'));
    std::string received;

    const auto response = HttpClient(kLongMs).request("GET", exchange.url(), {}, {},
                                                      {.bodyLimit = {}, .sink = [&received](std::string_view bytes) {
                                                           received += bytes;
                                                           return true;
                                                       }});

    EXPECT_EQ(response.body, "");
    EXPECT_EQ(received, std::string(100000, 'x'));
}

TEST(HttpClient, EachCallIsAConnectionOfItsOwnOnAnyThread) {
    TcpPeer peer([](PeerConnection& connection) {
        const auto request = connection.readUntil("\r\n\r\n");
        connection.send("HTTP/1.1 200 OK\r\n\r\n" + request.substr(4, request.find(' ', 4) - 4));
    });
    const HttpClient client(kLongMs);
    test::runOnThreads(8, [&peer, &client](std::size_t number) {
        for (int call = 0; call < 10; ++call) {
            const auto path = "/" + std::to_string(number) + "/" + std::to_string(call);
            EXPECT_EQ(client.get(peer.url("http", path)).body, path);
        }
    });

    EXPECT_EQ(peer.accepted(), 80U);
}

TEST(HttpClient, ACallOfARaisedSignalFailsAtOnce) {
    TcpPeer peer([](PeerConnection& connection) { connection.hold(); });
    const auto cancel = std::make_shared<CancelSignal>();
    cancel->cancel();

    expectFailure(HttpClient(kLongMs, cancel).get(peer.url("http")), "TCP 连接失败: Operation canceled");
}

TEST(HttpClient, RaisingTheSignalEndsAConnectUnderWay) {
    const FullListener listener;
    const auto cancel = std::make_shared<CancelSignal>();
    auto call = std::async(std::launch::async, [&] {
        return HttpClient(kLongMs, cancel).get("http://127.0.0.1:" + std::to_string(listener.port()));
    });
    ASSERT_TRUE(waitUntil([&] { return listener.attemptPending(); }));

    cancel->cancel();

    ASSERT_EQ(call.wait_for(kGenerousLimit), std::future_status::ready);
    expectFailure(call.get(), "TCP 连接失败: Operation canceled");
}

TEST(HttpClient, RaisingTheSignalEndsAWaitForTheAnswer) {
    const auto cancel = std::make_shared<CancelSignal>();
    TcpPeer peer([cancel](PeerConnection& connection) {
        connection.readUntil("\r\n\r\n");
        cancel->cancel();
        connection.hold();
    });

    expectFailure(HttpClient(kLongMs, cancel).get(peer.url("http")), "响应读取失败");
}

TEST(HttpClient, RaisingTheSignalInTheMiddleOfABodyIsAFailure) {
    const auto cancel = std::make_shared<CancelSignal>();
    TcpPeer peer([](PeerConnection& connection) {
        connection.readUntil("\r\n\r\n");
        connection.send("HTTP/1.1 200 OK\r\n\r\npart");
        connection.hold();
    });
    const HttpClient::Options options{.bodyLimit = {}, .sink = [cancel](std::string_view) {
                                          cancel->cancel();
                                          return true;
                                      }};

    expectFailure(HttpClient(kLongMs, cancel).request("GET", peer.url("http"), {}, {}, options), "响应读取失败");
}

TEST(HttpClient, RaisingTheSignalEndsASendThatIsStuck) {
    const auto cancel = std::make_shared<CancelSignal>();
    TcpPeer peer([cancel](PeerConnection& connection) {
        connection.readUntil("\r\n\r\n");
        cancel->cancel();
        connection.hold();
    });

    expectFailure(HttpClient(kLongMs, cancel).post(peer.url("http"), std::string(64 << 20, 'b')), "请求发送失败");
}

}  // namespace
}  // namespace qm
