// The file capabilities beside the bare work that they stand for. Wanted: a "ratio" of at most 1.5.

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <fnmatch.h>
#include <fts.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <filesystem>
#include <limits>
#include <memory>
#include <stdexcept>
#include <string>

#include "device/filesystem_handlers.h"
#include "device/workspace_registry.h"
#include "support/temporary_directory.h"
#include "util/json.h"
#include "util/unique_fd.h"
#include "util/utf8.h"

namespace qm {
namespace {

/// Runs `own` and `limit` by turns, `calls` times each in a round, and compares their fastest rounds. Wall time,
/// because a part of the limits is another process's.
template <typename Own, typename Limit>
void runBesideLimit(benchmark::State& state, int calls, Own own, Limit limit) {
    const auto secondsOf = [calls](auto& work) {
        const auto begin = std::chrono::steady_clock::now();
        for (int call = 0; call < calls; ++call)
            work();
        return std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count() / calls;
    };
    double bestOwn = std::numeric_limits<double>::infinity();
    double bestLimit = bestOwn;
    for (auto iteration : state) {
        bestLimit = std::min(bestLimit, secondsOf(limit));
        const double ownSeconds = secondsOf(own);
        bestOwn = std::min(bestOwn, ownSeconds);
        state.SetIterationTime(ownSeconds);
    }
    state.counters["ratio"] = bestOwn / bestLimit;
    state.counters["best_us"] = bestOwn * 1e6;
    state.counters["limit_us"] = bestLimit * 1e6;
}

/// A registry with one workspace at `root`.
class OneWorkspace {
public:
    explicit OneWorkspace(const std::filesystem::path& root) : registry_(data_.path()) {
        id_ = registry_.add(root.native(), "bench", WorkspacePermission::FULL).workspace->id;
    }
    const WorkspaceRegistry& registry() const { return registry_; }
    const std::string& id() const { return id_; }

private:
    test::TemporaryDirectory data_;
    WorkspaceRegistry registry_;
    std::string id_;
};

std::string readAndSanitise(const char* path) {
    const UniqueFd file(::open(path, O_RDONLY | O_CLOEXEC));
    struct stat status {};
    if (::fstat(file.get(), &status) != 0) throw std::runtime_error("cannot look at the file");
    std::string raw(static_cast<std::size_t>(status.st_size), '\0');
    if (::read(file.get(), raw.data(), raw.size()) != status.st_size) throw std::runtime_error("cannot read the file");
    return sanitizeUtf8(raw);
}

/// Source text of 20 kB, five directories deep.
void readFileOfTwentyKilobytes(benchmark::State& state) {
    const test::TemporaryDirectory directory;
    const std::string relative = "project/src/main/module/part/file.txt";
    std::string text;
    while (text.size() < 20'000)
        text += "    return std::string(content); // größer als 5 €\n";
    test::writeFile(directory / relative, text);
    const OneWorkspace workspace(directory.path());
    const json arguments{{"workspace", workspace.id()}, {"path", relative}};
    const std::string path = directory / relative;

    runBesideLimit(
        state, 20, [&] { benchmark::DoNotOptimize(readFile(workspace.registry(), arguments)); },
        [&] { benchmark::DoNotOptimize(readAndSanitise(path.c_str())); });
}
BENCHMARK(readFileOfTwentyKilobytes)->UseManualTime();

/// 20,000 entries, as many as a search visits: 100 directories of 199 files, of which four match.
void makeTree(const std::filesystem::path& root) {
    for (int directory = 0; directory < 100; ++directory) {
        const auto path = root / ("module" + std::to_string(directory));
        for (int file = 0; file < 195; ++file)
            test::writeFile(path / ("some_source_" + std::to_string(file) + ".txt"), "");
        for (const auto* const name : {"Main.CPP", "main.test.cpp", "other.cpp", ".cpp"})
            test::writeFile(path / name, "");
    }
}

/// Runs `find` over `root` and counts nothing: its output goes nowhere.
void runFind(const std::string& root) {
    std::array<std::string, 4> words{"find", root, "-iname", "*.cpp"};
    std::array<char*, 5> arguments{words[0].data(), words[1].data(), words[2].data(), words[3].data(), nullptr};
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, STDOUT_FILENO, "/dev/null", O_WRONLY, 0);
    pid_t child = -1;
    const int failed = ::posix_spawnp(&child, "find", &actions, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&actions);
    int status = -1;
    if (failed != 0 || ::waitpid(child, &status, 0) != child || status != 0) throw std::runtime_error("find failed");
}

/// What `find` does once it runs: a walk that asks for no status where the type is known, and fnmatch on each name.
std::size_t walkLikeFind(const std::string& root) {
    std::string path = root;
    std::array<char*, 2> roots{path.data(), nullptr};
    const std::unique_ptr<FTS, int (*)(FTS*)> walk(::fts_open(roots.data(), FTS_PHYSICAL | FTS_NOSTAT, nullptr),
                                                   ::fts_close);
    std::size_t matches = 0;
    while (const FTSENT* const entry = ::fts_read(walk.get())) {
        if (entry->fts_info != FTS_DP && ::fnmatch("*.cpp", entry->fts_name, FNM_CASEFOLD) == 0) ++matches;
    }
    return matches;
}

void findFilesAmongTwentyThousand(benchmark::State& state, bool againstProcess) {
    const test::TemporaryDirectory directory;
    makeTree(directory.path());
    const OneWorkspace workspace(directory.path());
    const json arguments{{"workspace", workspace.id()}, {"pattern", "*.cpp"}};
    if (findFiles(workspace.registry(), arguments)["matches"].size() != 400) {
        state.SkipWithError("the search didn't find its files");
        return;
    }
    runBesideLimit(
        state, 1, [&] { benchmark::DoNotOptimize(findFiles(workspace.registry(), arguments)); },
        [&] {
            if (againstProcess) {
                runFind(directory.path());
            } else {
                benchmark::DoNotOptimize(walkLikeFind(directory.path()));
            }
        });
}
BENCHMARK_CAPTURE(findFilesAmongTwentyThousand, besideFind, true)->UseManualTime();
BENCHMARK_CAPTURE(findFilesAmongTwentyThousand, besideWalkOnly, false)->UseManualTime();

}  // namespace
}  // namespace qm

BENCHMARK_MAIN();
