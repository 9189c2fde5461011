#include "net/http_client.h"

#include <utility>
#include <vector>

#include "net/socket.h"
#include "net/url.h"
#include "util/text.h"

namespace qm {
namespace {

constexpr std::size_t kReadBlock = 8192;

// A body up to this size leaves with the header in one packet; for longer ones the copy would cost more than it saves.
constexpr std::size_t kJoinedBodyBytes = 65536;

HttpResponse failure(std::string error) {
    HttpResponse response;
    response.error = std::move(error);
    return response;
}

bool breaksLine(std::string_view text) {
    return text.find_first_of(std::string_view("\r\n\0", 3)) != std::string_view::npos;
}

/// Whether a value could end its line early and so smuggle in lines of its own.
bool breaksHeader(std::string_view method, const HttpHeaders& headers) {
    if (breaksLine(method)) return true;
    for (const auto& [name, value] : headers) {
        if (breaksLine(name) || breaksLine(value)) return true;
    }
    return false;
}

bool namesContentType(const HttpHeaders& headers) {
    for (const auto& [name, value] : headers) {
        if (equalsIgnoreCase(name, "content-type")) return true;
    }
    return false;
}

std::string requestHead(std::string_view method, const Url& url, const HttpHeaders& headers,
                        const std::string_view* body) {
    std::string head;
    head.append(method).append(" ").append(url.path).append(" HTTP/1.1\r\n");
    head.append("Host: ").append(url.hostHeader()).append("\r\n");
    head.append("Connection: close\r\n");
    head.append("User-Agent: Quillmarsh-Executor\r\n");
    for (const auto& [name, value] : headers)
        head.append(name).append(": ").append(value).append("\r\n");
    if (body != nullptr) {
        if (!namesContentType(headers)) head.append("Content-Type: application/json\r\n");
        head.append("Content-Length: ").append(std::to_string(body->size())).append("\r\n");
    }
    return head.append("\r\n");
}

bool sendRequest(Socket& socket, std::string head, std::string_view body) {
    if (body.size() <= kJoinedBodyBytes) return socket.send(head.append(body));
    return socket.send(head) && socket.send(body);
}

HttpResponse readResponse(Socket& socket, const CancelSignal* cancel, HttpClient::Options options) {
    HttpResponseParser parser(std::move(options));
    std::vector<char> block(kReadBlock);
    bool anything = false;
    while (true) {
        const auto count = socket.read(block.data(), block.size());
        if (count > 0) {
            anything = true;
            if (!parser.feed({block.data(), static_cast<std::size_t>(count)})) break;
            continue;
        }
        // What a failed read leaves behind is taken as if the stream had ended there, but a call that was cut short on
        // this side must never look like an answer.
        const bool cutShort = cancel != nullptr && cancel->cancelled();
        if (count < 0 && (!anything || cutShort)) return failure("响应读取失败");
        break;
    }
    return parser.finish();
}

}  // namespace

HttpResponse HttpClient::get(const std::string& url, const HttpHeaders& headers) const {
    return request("GET", url, headers, {});
}

HttpResponse HttpClient::post(const std::string& url, std::string_view body, const HttpHeaders& headers) const {
    return request("POST", url, headers, body);
}

HttpResponse HttpClient::request(std::string_view method, const std::string& url, const HttpHeaders& headers,
                                 std::string_view body, Options options) const {
    const auto target = parseUrl(url);
    if (!target) return failure("无法解析 URL: " + url);
    if (breaksHeader(method, headers)) return failure("请求发送失败");
    const bool withBody = method != "GET";
    if (!withBody) body = {};

    std::string error;
    const auto socket = Socket::connect(target->host, target->port, target->tls, timeoutMs_, &error, cancel_);
    if (!socket) return failure(std::move(error));
    if (!sendRequest(*socket, requestHead(method, *target, headers, withBody ? &body : nullptr), body)) {
        return failure("请求发送失败");
    }
    return readResponse(*socket, cancel_.get(), std::move(options));
}

}  // namespace qm
