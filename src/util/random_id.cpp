#include "util/random_id.h"

#include <array>
#include <cstdio>

namespace qm {
namespace {

/// One generator a thread.
std::mt19937_64& generator() {
    thread_local std::mt19937_64 engine = [] {
        std::random_device device("default");
        return seededGenerator([&device] { return device(); });
    }();
    return engine;
}

}  // namespace

std::mt19937_64 seededGenerator(const std::function<std::uint32_t()>& nextWord) {
    std::array<std::uint32_t, 16> words{};
    for (auto& word : words)
        word = nextWord();
    std::seed_seq seed(words.begin(), words.end());
    return std::mt19937_64(seed);
}

std::string randomId(std::string_view prefix, std::size_t length) {
    static constexpr std::string_view kAlphabet = "0123456789abcdefghijklmnopqrstuvwxyz";
    std::string id(prefix);
    id.reserve(prefix.size() + length);
    auto& engine = generator();
    for (std::size_t i = 0; i < length; ++i)
        id += kAlphabet[engine() % kAlphabet.size()];
    return id;
}

std::string randomUuid() {
    auto& engine = generator();
    const std::uint64_t high = engine();
    const std::uint64_t low = engine();
    std::array<char, 37> text{};
    std::snprintf(text.data(), text.size(), "%08x-%04x-%04x-%04x-%04x%08x", static_cast<unsigned>(high >> 32),
                  static_cast<unsigned>(high >> 16 & 0xFFFF), static_cast<unsigned>((high & 0x0FFF) | 0x4000),
                  static_cast<unsigned>((low >> 48 & 0x3FFF) | 0x8000), static_cast<unsigned>(low >> 32 & 0xFFFF),
                  static_cast<unsigned>(low & 0xFFFFFFFF));
    return text.data();
}

std::uint64_t randomBits() {
    return generator()();
}

}  // namespace qm
