#include "devgateway/tour.h"

#include <algorithm>
#include <chrono>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

namespace qm::devgateway {

using nlohmann::json;
using std::chrono::steady_clock;

namespace {

constexpr std::chrono::seconds kReplyLimit{30};
constexpr std::chrono::seconds kReconnectLimit{30};
constexpr std::string_view kFile = "hello-from-the-gateway.txt";
constexpr std::string_view kText = "first line\nsecond line\n";

/// One run of the tour: what its steps share.
class Tour {
public:
    Tour(test::GatewayPeer& gateway, Console& console) : gateway_(gateway), console_(console) {}

    void play() {
        struct Step {
            const char* title;
            void (Tour::*run)();
        };
        static constexpr Step kSteps[] = {
            {"The executor connects and registers what the device can do", &Tour::registration},
            {"The gateway asks which workspaces the owner has opened; it gets handles, never paths", &Tour::workspaces},
            {"It writes a file in a workspace", &Tour::writeFile},
            {"It reads the file back", &Tour::readFile},
            {"It searches the workspace by name, ignoring case", &Tour::findFiles},
            {"It tries to leave the workspace, and is refused", &Tour::pathEscape},
            {"It asks what kind of machine this is", &Tour::systemInfo},
            {"It takes a snapshot of the device's load", &Tour::metrics},
            {"It repeats a request with one idempotency key: the work is done once", &Tour::idempotentRetry},
            {"It takes a checkpoint of the workspace", &Tour::checkpoint},
            {"It runs a command that the kernel lets write in the workspace only", &Tour::sandboxedCommand},
            {"A command takes longer than anybody waits: it is handed back and goes on in the background",
             &Tour::handOff},
            {"It looks at what has changed since the checkpoint", &Tour::changes},
            {"It takes the workspace back to the checkpoint", &Tour::restore},
            {"The connection breaks; the executor comes back by itself after 5 s", &Tour::reconnect},
        };
        std::size_t number = 0;
        for (const auto& step : kSteps) {
            console_.heading("[" + std::to_string(++number) + "/" + std::to_string(std::size(kSteps)) + "] " +
                             step.title);
            (this->*step.run)();
        }
        console_.heading("The tour is over, and everything was as it should be.");
    }

private:
    void registration() {
        const auto message = gateway_.waitForRegister();
        check(!message.value("agentId", "").empty(), "the message names the device");
        check(message.value("version", "") == "3.0.1-native", "and its version");
        for (const auto* name : {"list_workspaces", "write_file", "read_file", "find_files", "system_info"}) {
            const auto& capabilities = message.at("capabilities");
            check(std::any_of(capabilities.begin(), capabilities.end(),
                              [&](const json& entry) { return entry.value("capabilityId", "") == name; }),
                  std::string("it can ") + name);
        }
    }

    void workspaces() {
        const auto result = execute("list_workspaces");
        check(result.contains("workspaces") && !result["workspaces"].empty(), "there is a workspace");
        check(result.dump().find("hostPath") == std::string::npos, "its place on the host isn't told");
        for (const auto& entry : result["workspaces"]) {
            const auto permission = entry.value("permission", "");
            if (permission == "EXECUTE" || permission == "FULL") workspace_ = entry.at("workspace");
        }
        check(!workspace_.empty(), "in one of them commands may run: " + workspace_);
    }

    void writeFile() {
        const auto result = execute("write_file", inWorkspace({{"path", kFile}, {"content", kText}}));
        check(result.value("bytesWritten", 0U) == kText.size(), "all bytes were written");
        check(result.value("linesAdded", 0) == 2, "two lines were added");
    }

    void readFile() {
        const auto result = execute("read_file", inWorkspace({{"path", kFile}}));
        check(result.value("content", "") == kText, "the content is what was written");
        check(!result.value("truncated", true), "and is whole");
    }

    void findFiles() {
        const auto result = execute("find_files", inWorkspace({{"pattern", "HELLO-*.txt"}}));
        check(result.value("matches", json()) == json::array({kFile}), "the search found the file");
    }

    void pathEscape() {
        const auto result = execute("read_file", inWorkspace({{"path", "../outside.txt"}}));
        check(result.value("error", "") == "路径不允许包含 `..`。", "\"..\" is refused");
        const auto absolute = execute("read_file", inWorkspace({{"path", "/etc/passwd"}}));
        check(absolute.value("error", "") == "只接受工作区内的相对路径，不允许宿主机绝对路径。",
              "a path of the host is refused");
    }

    void systemInfo() {
        const auto result = execute("system_info");
        check(result.value("os", "") == "Linux", "it runs Linux");
        check(result.value("cpuCores", 0) > 0, "on at least one processor");
    }

    void metrics() {
        console_.sent("metricsRequest");
        const auto data = gateway_.request({{"type", "metricsRequest"}}, kReplyLimit).at("data");
        check(data.at("memory").value("totalBytes", 0LL) > 0, "the memory is known");
        check(data.at("capabilities").is_array(), "the capabilities are listed");
    }

    void idempotentRetry() {
        const auto arguments = inWorkspace({{"path", kFile}, {"content", "appended\n"}, {"append", true}});
        const json invocation{{"idempotencyKey", "tour-append-1"}};
        const auto first = execute("write_file", arguments, invocation);
        check(first.value("linesAdded", 0) == 1 && !first.contains("deduplicated"), "the first one appends a line");
        const auto second = execute("write_file", arguments, invocation);
        check(second.value("deduplicated", false), "the second one gets the first one's result");
        const auto content = execute("read_file", inWorkspace({{"path", kFile}})).value("content", "");
        check(content == std::string(kText) + "appended\n", "the line is there once");
    }

    void checkpoint() {
        const auto result = execute("create_checkpoint", inWorkspace({{"label", "before the commands"}}));
        checkpoint_ = result.value("checkpoint", "");
        check(!checkpoint_.empty() && result.value("complete", false), "the checkpoint is whole: " + checkpoint_);
    }

    void sandboxedCommand() {
        const auto inside = execute(
            "run_command",
            inWorkspace({{"command", "wc -l < " + std::string(kFile) + " | tee lines.txt"}, {"sandbox", "WORKSPACE"}}));
        check(inside.value("state", "") == "EXITED" && inside.value("exitCode", -1) == 0, "the command succeeds");
        check(inside.value("stdout", "") == "3\n", "it read the file and wrote another");
        const auto outside =
            execute("run_command", inWorkspace({{"command", "touch /var/tmp/qm-tour"}, {"sandbox", "WORKSPACE"}}));
        check(outside.value("exitCode", 0) != 0, "writing elsewhere fails, whoever runs the executor");
    }

    void handOff() {
        const auto handed = execute("run_command", inWorkspace({{"command", "sleep 3; echo finally > late.txt"}}));
        check(handed.value("state", "") == "RUNNING",
              "it still runs (an executor started with a "
              "QM_SYNC_HANDOFF_MS above 2000 waits longer than that)");
        const auto ended =
            execute("wait_command", {{"commandId", handed.value("commandId", "")}, {"timeoutMs", 30000}});
        check(ended.value("finished", false) && ended.value("exitCode", -1) == 0, "it was waited for, and succeeded");
    }

    void changes() {
        const auto result = execute("show_changes", inWorkspace({{"checkpoint", checkpoint_}}));
        check(result.value("changeCount", 0) == 2,
              "two files were added, by commands: " + result.at("changes").at(0).value("path", "") + " and " +
                  result.at("changes").at(1).value("path", ""));
    }

    void restore() {
        const auto result = execute("restore_checkpoint", inWorkspace({{"checkpoint", checkpoint_}}));
        check(result.value("verified", false) && result.value("deletedFiles", 0) == 2, "both are gone again");
    }

    void reconnect() {
        const auto before = gateway_.sessionCount();
        const auto dropped = steady_clock::now();
        console_.sent("TCP reset");
        gateway_.drop();
        gateway_.waitForSessions(before + 1, kReconnectLimit);
        const auto waited = std::chrono::duration_cast<std::chrono::milliseconds>(steady_clock::now() - dropped);
        check(waited >= std::chrono::milliseconds(4900), "it waited " + std::to_string(waited.count()) + " ms");
        gateway_.waitForRegister();
        const auto time = execute("device_time");
        check(time.contains("utcTime"), "the new session works: it is " + time.value("utcTime", ""));
    }

    json inWorkspace(json arguments) const {
        arguments["workspace"] = workspace_;
        return arguments;
    }

    json execute(const std::string& capability, const json& arguments = json::object(),
                 const json& invocation = json::object()) {
        console_.sent("execute " + capability + " " + arguments.dump() +
                      (invocation.empty() ? "" : " " + invocation.dump()));
        const auto reply = gateway_.request(
            {{"type", "execute"}, {"capabilityId", capability}, {"args", arguments}, {"invocation", invocation}},
            kReplyLimit);
        return reply.at("result");
    }

    void check(bool condition, const std::string& what) {
        if (!condition) throw std::runtime_error("the tour ends here; this isn't so: " + what);
        console_.good(what);
    }

    test::GatewayPeer& gateway_;
    Console& console_;
    std::string workspace_;
    std::string checkpoint_;
};

}  // namespace

void playTour(test::GatewayPeer& gateway, Console& console) {
    Tour(gateway, console).play();
}

}  // namespace qm::devgateway
