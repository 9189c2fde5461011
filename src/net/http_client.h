#pragma once

#include <map>
#include <memory>
#include <string>
#include <string_view>

#include "net/cancel_signal.h"
#include "net/http_response.h"

namespace qm {

/// Request headers, sent in the map's order. A name or value with a line break or NUL in it is never sent: such a call
/// fails with "请求发送失败".
using HttpHeaders = std::map<std::string, std::string>;

/// Blocking HTTP/1.1 calls, each on a connection of its own: no redirects, retries, keep-alive or compression.
///
/// A plain value that any number of threads may use at once. A transport failure never throws: it is an HttpResponse
/// with one of the texts of Socket::connect() or "无法解析 URL: " and the URL, "请求发送失败", "响应读取失败",
/// "响应格式非法".
class HttpClient {
public:
    /// `timeoutMs`, above 0, limits each wait for the peer, not the call as a whole. Once `cancel` is raised every call
    /// fails at once, those under way too (name resolution alone is waited for).
    explicit HttpClient(int timeoutMs, std::shared_ptr<CancelSignal> cancel = nullptr)
        : timeoutMs_(timeoutMs), cancel_(std::move(cancel)) {}

    HttpResponse get(const std::string& url, const HttpHeaders& headers = {}) const;
    HttpResponse post(const std::string& url, std::string_view body, const HttpHeaders& headers = {}) const;

    /// How the body of an answer is taken; by default all of it, in memory.
    using Options = HttpResponseParser::Options;

    /// The call behind get() and post(), for any method. `body` and Content-Length go with all methods but "GET"; the
    /// content type is JSON unless `headers` name another.
    HttpResponse request(std::string_view method, const std::string& url, const HttpHeaders& headers,
                         std::string_view body, Options options = {}) const;

private:
    int timeoutMs_;
    std::shared_ptr<CancelSignal> cancel_;
};

}  // namespace qm
