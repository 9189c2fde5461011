#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

namespace qm {

/// What became of one HTTP call. The transport failed if and only if `error` isn't empty; `status` is 0 then. A status
/// other than 2xx is no failure.
struct HttpResponse {
    std::int32_t status = 0;
    std::string body;
    std::string error;
};

/// Takes body bytes as they arrive; false ends the reading.
using HttpBodySink = std::function<bool(std::string_view bytes)>;

/// The value of the first header called `name`, whatever its case, in a block of lines, without spaces and tabs around
/// it. Nothing if there is none.
std::optional<std::string_view> findHeader(std::string_view headerBlock, std::string_view name);

/// The three digits after the first space of the block's first line; nothing if they aren't there or are "000".
std::optional<std::int32_t> statusOf(std::string_view headerBlock);

/// Undoes chunked transfer coding as the bytes come, in pieces of any size.
///
/// A size of 0 ends the body, and so does a size that isn't a number. A chunk that the stream's end cuts off doesn't
/// count: completeBytes() leaves it out.
class ChunkedDecoder {
public:
    /// Hands the data in `bytes` to `sink` and returns false once the sink refused some.
    bool feed(std::string_view bytes, const HttpBodySink& sink);

    /// How many of the bytes given out so far belong to chunks that are complete.
    std::uint64_t completeBytes() const { return completeBytes_; }

private:
    enum class State { SizeLine, Data, LineEndCr, LineEndLf, Ended };

    void takeSizeLine();

    State state_ = State::SizeLine;
    std::string sizeLine_;
    std::uint64_t left_ = 0;
    std::uint64_t givenBytes_ = 0;
    std::uint64_t completeBytes_ = 0;
};

/// Takes a response apart as its bytes come, in pieces of any size.
class HttpResponseParser {
public:
    struct Options {
        /// Body bytes after which nothing more is taken; a header block above kMaxHeaderBytes is refused then as well.
        std::optional<std::uint64_t> bodyLimit;
        /// Where the body goes instead of HttpResponse::body. It gets the bytes of a chunk that is cut off later, too.
        HttpBodySink sink;
    };

    static constexpr std::size_t kMaxHeaderBytes = 65536;

    HttpResponseParser() = default;
    explicit HttpResponseParser(Options options) : options_(std::move(options)) {}

    /// False when nothing that follows matters: the body limit is passed, the sink refused, or the header is unusable.
    bool feed(std::string_view bytes);

    /// The response, once the stream has ended; "响应格式非法" if there was no header end or no status.
    HttpResponse finish();

private:
    bool takeHeader(std::string_view* bytes);
    bool headerTooLong() const;
    bool takeBody(std::string_view bytes);
    bool giveOut(std::string_view bytes);
    bool limitPassed() const;

    Options options_;
    std::string header_;
    bool headerEnded_ = false;
    std::int32_t status_ = 0;
    std::optional<ChunkedDecoder> chunked_;
    std::uint64_t bodyBytes_ = 0;
    std::string body_;
};

}  // namespace qm
