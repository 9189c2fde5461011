// Journals of agent sessions beside what they can't be faster than: reading the file's bytes and hashing them once.
// Wanted: an append to 10,000 events (about 10 MB) takes at most 15 ms and has a "ratio" of at most 1.3; the replay of
// 100,000 events reads at least 60 MB/s of journal ("bestMB/s").

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>
#include <vector>

#include "against_limit.h"
#include "runtime/journal_batch.h"
#include "runtime/jsonl_agent_event_store.h"
#include "runtime/session_actor.h"
#include "support/temporary_directory.h"
#include "util/json.h"
#include "util/sha256.h"
#include "util/unique_fd.h"

namespace {

using qm::JsonlAgentEventStore;
using qm::runtime::AgentEvent;
using qm::runtime::AgentEventType;

AgentEvent progressEvent(std::size_t textBytes) {
    return {.v = 1,
            .eventId = qm::runtime::randomAgentId("evt"),
            .sessionId = "s1",
            .runId = "run_0123456789abcdefghij",
            .turnId = "turn_0123456789abcdefghij",
            .operationId = "runtime/run_0123456789abcdefghij/" + qm::runtime::randomAgentId("progress"),
            .sequence = 0,
            .timestampMs = 1700000000123,
            .type = AgentEventType::ToolProgress,
            .payload = {{"phase", "tool_done"},
                        {"detail", std::string(textBytes, 'x') + "\n整理 \"quoted\""},
                        {"target", "src/main.cpp"},
                        {"durationMs", 12},
                        {"success", true},
                        {"depth", 1},
                        {"callId", "call_1"}}};
}

/// A journal of batches of two events; `indentation` stands before each line, so that it isn't as the library prints
/// it.
class Journal {
public:
    Journal(std::uint64_t events, std::size_t textBytes, const char* indentation = "") : last_(events) {
        std::filesystem::create_directories(file().parent_path());
        std::ofstream stream(file(), std::ios::binary);
        for (std::uint64_t sequence = 1; sequence < events; sequence += 2) {
            std::vector<AgentEvent> batch{progressEvent(textBytes), progressEvent(textBytes)};
            batch[0].sequence = sequence;
            batch[1].sequence = sequence + 1;
            stream << indentation << qm::runtime::encodeJournalBatch("s1", batch) << '\n';
        }
    }

    const std::filesystem::path& directory() const { return directory_.path(); }
    std::filesystem::path file() const { return JsonlAgentEventStore(directory()).fileOf("s1"); }
    std::size_t bytes() const { return std::filesystem::file_size(file()); }
    std::uint64_t last() const { return last_; }

private:
    qm::test::TemporaryDirectory directory_;
    std::uint64_t last_;
};

/// Reads the file in the pieces that suit the caches best, and hashes them.
void readAndHash(const std::filesystem::path& file) {
    const qm::UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    std::vector<char> buffer(std::size_t{256} * 1024);
    qm::Sha256 hash;
    for (ssize_t count = 0; (count = ::read(fd.get(), buffer.data(), buffer.size())) > 0;) {
        hash.update({buffer.data(), static_cast<std::size_t>(count)});
    }
    benchmark::DoNotOptimize(hash.finish());
}

void appendToTenThousandEvents(benchmark::State& state) {
    const Journal journal(10'000, 600);
    const auto file = journal.file();
    JsonlAgentEventStore store(journal.directory());
    std::uint64_t last = journal.last();
    const auto append = [&] { last = store.append("s1", last, {progressEvent(100)}).back().sequence; };
    append();
    qm::bench::runAgainstLimit(state, journal.bytes(), append, [&] { readAndHash(file); });
}

void readOfTheNewestEvents(benchmark::State& state) {
    const Journal journal(10'000, 600);
    const auto file = journal.file();
    JsonlAgentEventStore store(journal.directory());
    const auto read = [&] { benchmark::DoNotOptimize(store.read("s1", journal.last() - 4)); };
    read();
    qm::bench::runAgainstLimit(state, journal.bytes(), read, [&] { readAndHash(file); });
}

void replay(benchmark::State& state, std::size_t textBytes, const char* indentation) {
    const Journal journal(100'000, textBytes, indentation);
    const auto file = journal.file();
    qm::bench::runAgainstLimit(
        state, journal.bytes(),
        [&] {
            const auto store = std::make_shared<JsonlAgentEventStore>(journal.directory());
            benchmark::DoNotOptimize(qm::runtime::SessionActor("s1", store).snapshot());
        },
        [&] { readAndHash(file); });
}

void replayOfLongEvents(benchmark::State& state) {
    replay(state, 600, "");
}

void replayOfShortEvents(benchmark::State& state) {
    replay(state, 20, "");
}

void replayOfLinesInAnotherForm(benchmark::State& state) {
    replay(state, 600, " ");
}

BENCHMARK(appendToTenThousandEvents)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(readOfTheNewestEvents)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(replayOfLongEvents)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(replayOfShortEvents)->UseManualTime()->Unit(benchmark::kMillisecond);
BENCHMARK(replayOfLinesInAnotherForm)->UseManualTime()->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
