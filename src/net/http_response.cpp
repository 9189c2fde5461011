#include "net/http_response.h"

#include <algorithm>
#include <cstdlib>
#include <utility>

#include "util/text.h"

namespace qm {
namespace {

constexpr std::string_view kHeaderEnd = "\r\n\r\n";

// A size line longer than this holds nothing but extensions; what is behind isn't kept.
constexpr std::size_t kMaxSizeLine = 256;

bool isDigit(char character) {
    return character >= '0' && character <= '9';
}

}  // namespace

std::optional<std::string_view> findHeader(std::string_view headerBlock, std::string_view name) {
    while (!headerBlock.empty()) {
        const auto lineEnd = headerBlock.find('\n');
        const auto line = headerBlock.substr(0, lineEnd);
        headerBlock.remove_prefix(lineEnd == std::string_view::npos ? headerBlock.size() : lineEnd + 1);
        const auto colon = line.find(':');
        if (colon != std::string_view::npos && equalsIgnoreCase(line.substr(0, colon), name)) {
            return trimmed(trimmed(line.substr(colon + 1), "\r\n"), " \t");
        }
    }
    return std::nullopt;
}

std::optional<std::int32_t> statusOf(std::string_view headerBlock) {
    const auto line = headerBlock.substr(0, headerBlock.find('\n'));
    const auto space = line.find(' ');
    if (space == std::string_view::npos) return std::nullopt;
    const auto digits = line.substr(space + 1, 3);
    if (digits.size() != 3 || !std::all_of(digits.begin(), digits.end(), isDigit)) return std::nullopt;
    const std::int32_t status = (digits[0] - '0') * 100 + (digits[1] - '0') * 10 + (digits[2] - '0');
    // A status of 0 is how a transport failure looks.
    return status == 0 ? std::nullopt : std::optional(status);
}

void ChunkedDecoder::takeSizeLine() {
    left_ = std::strtoull(sizeLine_.c_str(), nullptr, 16);
    sizeLine_.clear();
    state_ = left_ == 0 ? State::Ended : State::Data;
}

bool ChunkedDecoder::feed(std::string_view bytes, const HttpBodySink& sink) {
    while (!bytes.empty() && state_ != State::Ended) {
        switch (state_) {
            case State::SizeLine: {
                const auto lineEnd = bytes.find('\n');
                const auto part = bytes.substr(0, lineEnd);
                sizeLine_.append(part.substr(0, kMaxSizeLine - sizeLine_.size()));
                bytes.remove_prefix(std::min(bytes.size(), part.size() + 1));
                if (lineEnd != std::string_view::npos) takeSizeLine();
                break;
            }
            case State::Data: {
                const auto data =
                    bytes.substr(0, static_cast<std::size_t>(std::min<std::uint64_t>(left_, bytes.size())));
                bytes.remove_prefix(data.size());
                left_ -= data.size();
                givenBytes_ += data.size();
                if (left_ == 0) {
                    completeBytes_ = givenBytes_;
                    state_ = State::LineEndCr;
                }
                if (!sink(data)) return false;
                break;
            }
            case State::LineEndCr:
                if (bytes.front() == '\r') bytes.remove_prefix(1);
                state_ = State::LineEndLf;
                break;
            case State::LineEndLf:
                if (bytes.front() == '\n') bytes.remove_prefix(1);
                state_ = State::SizeLine;
                break;
            case State::Ended:
                break;
        }
    }
    return true;
}

bool HttpResponseParser::feed(std::string_view bytes) {
    if (!headerEnded_ && !takeHeader(&bytes)) return !headerTooLong();
    return status_ != 0 && takeBody(bytes);
}

/// Adds to the header block from the front of `*bytes`; true once it is complete and `*bytes` is where the body begins.
bool HttpResponseParser::takeHeader(std::string_view* bytes) {
    const auto before = header_.size();
    header_.append(*bytes);
    // The end may have begun in the bytes that came before.
    const auto searchFrom = before < kHeaderEnd.size() ? 0 : before - (kHeaderEnd.size() - 1);
    const auto end = header_.find(kHeaderEnd, searchFrom);
    if (end == std::string::npos) return false;
    bytes->remove_prefix(end + kHeaderEnd.size() - before);
    header_.resize(end);
    headerEnded_ = true;
    status_ = statusOf(header_).value_or(0);
    const auto coding = findHeader(header_, "Transfer-Encoding");
    if (coding && toLowerAscii(*coding).find("chunked") != std::string::npos) chunked_.emplace();
    return true;
}

bool HttpResponseParser::headerTooLong() const {
    return options_.bodyLimit.has_value() && header_.size() > kMaxHeaderBytes;
}

bool HttpResponseParser::takeBody(std::string_view bytes) {
    if (bytes.empty()) return true;
    const auto give = [this](std::string_view data) { return giveOut(data); };
    return chunked_ ? chunked_->feed(bytes, give) : give(bytes);
}

bool HttpResponseParser::giveOut(std::string_view bytes) {
    bodyBytes_ += bytes.size();
    if (options_.sink) {
        if (!options_.sink(bytes)) return false;
    } else {
        body_.append(bytes);
    }
    return !limitPassed();
}

bool HttpResponseParser::limitPassed() const {
    return options_.bodyLimit.has_value() && bodyBytes_ > *options_.bodyLimit;
}

HttpResponse HttpResponseParser::finish() {
    HttpResponse response;
    if (!headerEnded_ || status_ == 0) {
        response.error = "响应格式非法";
        return response;
    }
    response.status = status_;
    // Of a body that was too long everything is kept, so that its size tells the caller.
    if (chunked_ && !options_.sink && !limitPassed()) body_.resize(static_cast<std::size_t>(chunked_->completeBytes()));
    response.body = std::move(body_);
    return response;
}

}  // namespace qm
