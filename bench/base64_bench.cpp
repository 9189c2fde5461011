// Base64 beside OpenSSL's block routines over the same bytes. Wanted: at least 1 GB/s of what goes in, or a "ratio" of
// at most 1.2.

#include "util/base64.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <string>

#include "against_limit.h"

namespace {

constexpr std::size_t kBytes = 20'000'000;
constexpr std::size_t kCharacters = 28'000'000;

std::string unevenBytes(std::size_t size) {
    std::string bytes(size, '\0');
    std::uint32_t value = 1;
    for (char& byte : bytes) {
        value = value * 1664525 + 1013904223;
        byte = static_cast<char>(value >> 24);
    }
    return bytes;
}

unsigned char* data(std::string& text) {
    return reinterpret_cast<unsigned char*>(text.data());
}

const unsigned char* data(const std::string& text) {
    return reinterpret_cast<const unsigned char*>(text.data());
}

void encode(benchmark::State& state) {
    const std::string bytes = unevenBytes(kBytes);
    qm::bench::runAgainstLimit(
        state, bytes.size(), [&] { benchmark::DoNotOptimize(qm::base64Encode(bytes)); },
        [&] {
            std::string text((kBytes + 2) / 3 * 4 + 1, '\0');
            EVP_EncodeBlock(data(text), data(bytes), static_cast<int>(bytes.size()));
            benchmark::DoNotOptimize(text);
        });
}

void decodeText(benchmark::State& state, const std::string& text) {
    qm::bench::runAgainstLimit(
        state, text.size(), [&] { benchmark::DoNotOptimize(qm::base64Decode(text)); },
        [&] {
            std::string bytes(text.size() / 4 * 3, '\0');
            EVP_DecodeBlock(data(bytes), data(text), static_cast<int>(text.size()));
            benchmark::DoNotOptimize(bytes);
        });
}

void decode(benchmark::State& state) {
    decodeText(state, qm::base64Encode(unevenBytes(kCharacters / 4 * 3)));
}

/// Lines of 76 characters, as mail has them; OpenSSL's routine reads the same characters without the line ends.
void decodeLines(benchmark::State& state) {
    const std::string text = qm::base64Encode(unevenBytes(kCharacters / 4 * 3));
    std::string lines;
    for (std::size_t i = 0; i < text.size(); i += 76)
        lines.append(text, i, 76).append("\r\n");
    qm::bench::runAgainstLimit(
        state, lines.size(), [&] { benchmark::DoNotOptimize(qm::base64Decode(lines)); },
        [&] {
            std::string bytes(text.size() / 4 * 3, '\0');
            EVP_DecodeBlock(data(bytes), data(text), static_cast<int>(text.size()));
            benchmark::DoNotOptimize(bytes);
        });
}

BENCHMARK(encode)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(decode)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(decodeLines)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
