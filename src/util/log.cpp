#include "util/log.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

#include "util/standard_streams.h"
#include "util/utf8.h"

namespace qm {
namespace {

constexpr std::size_t kRingLines = 300;
constexpr std::size_t kLineBuffer = 1024;

struct Ring {
    std::mutex mutex;
    std::deque<std::string> lines;
};

/// Never destroyed: a detached thread may log while the process ends.
Ring& ring() {
    static Ring& instance = *std::make_unique<Ring>().release();
    return instance;
}

const char* levelName(LogLevel level) {
    static constexpr std::array<const char*, 4> kNames{"DEBUG", "INFO", "WARN", "ERROR"};
    return kNames[static_cast<std::size_t>(level)];
}

/// What could end a line early, or steer the terminal that shows it. Messages quote texts of the gateway.
bool isControl(char character) {
    const auto byte = static_cast<unsigned char>(character);
    return byte < 0x20 || byte == 0x7F;
}

std::string timeOfDay() {
    const std::time_t now = std::time(nullptr);
    std::tm local{};
    std::array<char, 16> text{};
    if (localtime_r(&now, &local) == nullptr) return "00:00:00";
    text[std::strftime(text.data(), text.size(), "%H:%M:%S", &local)] = '\0';
    return text.data();
}

}  // namespace

void log(LogLevel level, std::string_view message) noexcept {
    try {
        // One byte more than a line has, for its line feed.
        std::array<char, kLineBuffer + 1> line{};
        std::string text(message.substr(0, kLineBuffer));
        std::replace_if(text.begin(), text.end(), isControl, ' ');
        std::snprintf(line.data(), kLineBuffer, "[%s] %-5s %s", timeOfDay().c_str(), levelName(level), text.c_str());
        const std::size_t length = std::strlen(line.data());
        std::string kept = toStrictUtf8({line.data(), length});
        line[length] = '\n';
        printText({line.data(), length + 1});
        const std::lock_guard lock(ring().mutex);
        ring().lines.push_back(std::move(kept));
        if (ring().lines.size() > kRingLines) ring().lines.pop_front();
    } catch (...) {
        // Out of memory: the line is lost, which is better than losing the thread.
        return;
    }
}

std::vector<std::string> recentLogLines(std::size_t count) {
    const std::lock_guard lock(ring().mutex);
    const auto& lines = ring().lines;
    const std::size_t taken = std::min(count, lines.size());
    return {lines.end() - static_cast<std::ptrdiff_t>(taken), lines.end()};
}

}  // namespace qm
