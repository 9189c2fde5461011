// SHA-256 over 64 MiB beside OpenSSL's digest over the same bytes. Wanted: "ratio" at most 1.1 for the best engine, at
// least 250 MB/s for the portable one.

#include "util/sha256.h"

#include <benchmark/benchmark.h>
#include <openssl/evp.h>

#include <array>
#include <string>

#include "against_limit.h"

namespace {

constexpr std::size_t kSize = std::size_t{64} << 20;

void digest(benchmark::State& state, qm::Sha256::Engine engine) {
    const std::string bytes(kSize, 'x');
    qm::bench::runAgainstLimit(
        state, kSize,
        [&] {
            qm::Sha256 hash(engine);
            hash.update(bytes);
            benchmark::DoNotOptimize(hash.finish());
        },
        [&] {
            std::array<unsigned char, EVP_MAX_MD_SIZE> result{};
            EVP_Digest(bytes.data(), bytes.size(), result.data(), nullptr, EVP_sha256(), nullptr);
            benchmark::DoNotOptimize(result);
        });
}

BENCHMARK_CAPTURE(digest, best, qm::Sha256::Engine::Best)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(digest, portable, qm::Sha256::Engine::Portable)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
