#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "support/wait_until.h"

namespace qm::test {

struct ScriptedAnswer {
    int status = 200;
    std::string body{};
    std::string contentType = "application/json";
    std::vector<std::pair<std::string, std::string>> headers{};  ///< Beside Content-Type and Content-Length.
    bool chunked = false;                                        ///< Send the body in chunks instead of a length.
    bool neverAnswer = false;                                    ///< Take the request and stay silent.
};

struct RecordedRequest {
    std::string method;
    std::string target;
    std::vector<std::pair<std::string, std::string>> headers;  ///< In their order, names as sent.
    std::string body;

    /// Value of the header `name`, ignoring case; empty if there is none.
    std::string header(std::string_view name) const;
};

struct ScriptedHttpServerOptions {
    std::string certificatePem;  ///< Set together with privateKeyPem: serve HTTPS.
    std::string privateKeyPem;
};

/// An HTTP server on loopback that answers from a script and records what it was asked.
///
/// Each path has a queue of answers; the last one of a queue stays for all later requests. A path without answers gets
/// 404. Runs on a thread of its own; every method may be called from any other thread.
class ScriptedHttpServer {
public:
    explicit ScriptedHttpServer(const ScriptedHttpServerOptions& options = {});
    ~ScriptedHttpServer();
    ScriptedHttpServer(const ScriptedHttpServer&) = delete;
    ScriptedHttpServer& operator=(const ScriptedHttpServer&) = delete;

    std::uint16_t port() const;
    /// "http://127.0.0.1:<port>", or "https://localhost:<port>" with TLS; no trailing "/".
    std::string url() const;

    /// Appends an answer for `path`, the target of a request without its query.
    void answer(std::string path, ScriptedAnswer answer);

    std::vector<RecordedRequest> requests() const;
    /// Throws std::runtime_error if `count` requests haven't come within `limit`.
    void waitForRequests(std::size_t count, std::chrono::milliseconds limit = kGenerousLimit) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qm::test
