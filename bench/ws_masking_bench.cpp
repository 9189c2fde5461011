// Masking of WebSocket payloads beside a plain copy of the same bytes. Wanted: at least 2 GB/s.

#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <string>

#include "against_limit.h"
#include "net/ws_frame.h"

namespace {

constexpr std::uint32_t kMask = 0x9d3fa217;
// Much more than the clock's resolution, whatever the size of a payload.
constexpr std::size_t kBytesPerRound = 64 << 20;

/// From one buffer to another, as a payload goes into its frame.
void mask(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const std::size_t repetitions = kBytesPerRound / size;
    const std::string source(size, 's');
    std::string target(size, '\0');
    qm::bench::runAgainstLimit(
        state, repetitions * size,
        [&] {
            for (std::size_t i = 0; i < repetitions; ++i) {
                qm::applyWsMask(target.data(), source.data(), size, kMask);
                benchmark::DoNotOptimize(target.data());
                benchmark::ClobberMemory();
            }
        },
        [&] {
            for (std::size_t i = 0; i < repetitions; ++i) {
                std::memcpy(target.data(), source.data(), size);
                benchmark::DoNotOptimize(target.data());
                benchmark::ClobberMemory();
            }
        });
}

/// A whole frame, its memory included, beside a copy into new memory.
void encodeFrame(benchmark::State& state) {
    const auto size = static_cast<std::size_t>(state.range(0));
    const std::size_t repetitions = kBytesPerRound / size;
    const std::string payload(size, 'p');
    qm::bench::runAgainstLimit(
        state, repetitions * size,
        [&] {
            for (std::size_t i = 0; i < repetitions; ++i) {
                benchmark::DoNotOptimize(qm::encodeWsFrame(qm::WsOpcode::Text, payload, kMask).data());
                benchmark::ClobberMemory();
            }
        },
        [&] {
            for (std::size_t i = 0; i < repetitions; ++i) {
                const auto copy = std::make_unique_for_overwrite<char[]>(size);
                std::memcpy(copy.get(), payload.data(), size);
                benchmark::DoNotOptimize(copy.get());
                benchmark::ClobberMemory();
            }
        });
}

/// A large message taken apart in the blocks in which a connection reads, beside a copy that grows likewise.
void readFrame(benchmark::State& state) {
    constexpr std::size_t kBlock = 16384;
    const auto size = static_cast<std::size_t>(state.range(0));
    const std::size_t repetitions = kBytesPerRound / size;
    // The mask is 0, so masked or not the payload is the same; the work isn't.
    const auto frame = qm::encodeWsFrame(qm::WsOpcode::Text, std::string(size, 'p'), 0);
    qm::bench::runAgainstLimit(
        state, repetitions * size,
        [&] {
            for (std::size_t i = 0; i < repetitions; ++i) {
                qm::WsFrameReader reader;
                auto rest = frame.view();
                while (!rest.empty()) {
                    auto block = rest.substr(0, kBlock);
                    rest.remove_prefix(block.size());
                    benchmark::DoNotOptimize(reader.next(&block));
                }
                benchmark::DoNotOptimize(reader.payload().data());
            }
        },
        [&] {
            for (std::size_t i = 0; i < repetitions; ++i) {
                std::string copy;
                for (auto rest = frame.view(); !rest.empty();) {
                    copy.append(rest.substr(0, kBlock));
                    rest.remove_prefix(std::min(kBlock, rest.size()));
                }
                benchmark::DoNotOptimize(copy.data());
            }
        });
}

BENCHMARK(mask)->Arg(1 << 10)->Arg(64 << 10)->Arg(16 << 20)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(encodeFrame)->Arg(1 << 10)->Arg(64 << 10)->Arg(16 << 20)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(readFrame)->Arg(64 << 10)->Arg(16 << 20)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
