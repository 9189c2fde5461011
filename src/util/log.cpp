#include "util/log.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <ctime>
#include <deque>
#include <memory>
#include <mutex>
#include <utility>

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
        std::array<char, kLineBuffer> line{};
        const int length = static_cast<int>(std::min<std::size_t>(message.size(), kLineBuffer));
        std::snprintf(line.data(), line.size(), "[%s] %-5s %.*s", timeOfDay().c_str(), levelName(level), length,
                      message.data());
        printLine(line.data());
        std::string kept = toStrictUtf8(line.data());
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

void printLine(std::string_view line) noexcept {
    // One lock over both writes, so that lines of several threads never mix.
    flockfile(stdout);
    std::fwrite(line.data(), 1, line.size(), stdout);
    std::fputc('\n', stdout);
    std::fflush(stdout);
    funlockfile(stdout);
}

}  // namespace qm
