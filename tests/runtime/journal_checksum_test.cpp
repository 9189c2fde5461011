#include <gtest/gtest.h>
#include <sys/wait.h>

#include <array>
#include <cstdio>
#include <filesystem>
#include <memory>
#include <random>
#include <string>

#include "runtime/journal_fixture.h"
#include "runtime/jsonl_agent_event_store.h"
#include "runtime/random_json.h"
#include "support/temporary_directory.h"

namespace qm {
namespace {

using qm::test::readFile;
using qm::test::TemporaryDirectory;
using qm::test::writeFile;
using runtime::test::makeEvents;
using runtime::test::randomText;

/// What the checker, a program of another language and JSON library, says of a journal.
std::string check(const std::filesystem::path& journal) {
    std::string command = "python3 '" QM_RUNTIME_TESTS "/check_journal.py' '";
    command.append(journal.string()).append("' 2>&1");
    const auto close = [](FILE* stream) { ::pclose(stream); };
    const std::unique_ptr<FILE, decltype(close)> output(::popen(command.c_str(), "r"), close);
    std::string text;
    std::array<char, 256> buffer{};
    while (std::fgets(buffer.data(), buffer.size(), output.get()) != nullptr)
        text += buffer.data();
    return text;
}

TEST(JournalChecksum, AnIndependentProgramComputesTheSameDigests) {
    std::mt19937_64 random(21);
    const TemporaryDirectory directory;
    JsonlAgentEventStore store(directory.path());
    std::uint64_t last = 0;
    for (int batch = 0; batch < 200; ++batch) {
        auto events = makeEvents("会话/1", 1 + batch % 3);
        for (auto& event : events) {
            event.payload = {{randomText(random), randomText(random)},
                             {"integer", static_cast<std::int64_t>(random())},
                             {"unsigned", random()},
                             {"fraction", static_cast<double>(random() % 100'000) / 1024},
                             {"large", -1e20},
                             {"small", 5e-324},
                             {"nested", {nullptr, true, {{"整", randomText(random)}, {"é", json::array()}}}}};
        }
        last = store.append("会话/1", last, events).back().sequence;
    }
    EXPECT_EQ(check(store.fileOf("会话/1")), "200 " + std::to_string(last) + "\n");
}

TEST(JournalChecksum, TheIndependentProgramFindsAChangedByteToo) {
    const TemporaryDirectory directory;
    JsonlAgentEventStore store(directory.path());
    store.append("s1", 0, makeEvents("s1", 1));
    std::string content = readFile(store.fileOf("s1"));
    content[content.find("Line")] = 'l';
    writeFile(store.fileOf("s1"), content);
    EXPECT_EQ(check(store.fileOf("s1")), "checksum mismatch in batch 1\n");
}

}  // namespace
}  // namespace qm
