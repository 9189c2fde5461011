#include "device/sandbox.h"

#include <fcntl.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cstddef>
#include <cstdint>

#include "util/json.h"
#include "util/log.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

constexpr std::uint64_t kReadAndExecute =
    LANDLOCK_ACCESS_FS_EXECUTE | LANDLOCK_ACCESS_FS_READ_FILE | LANDLOCK_ACCESS_FS_READ_DIR;
/// Everything that the first Landlock version knows, and what the second added: moving and linking between
/// directories. Rights of later versions stay unhandled.
constexpr std::uint64_t kAccessOfAbi1 = 0x1FFF;
constexpr std::uint64_t kAccessOfAbi2 = 0x3FFF;

/// 0 or less if the kernel has no Landlock or doesn't enable it.
long landlockAbi() {
    return ::syscall(SYS_landlock_create_ruleset, nullptr, 0, LANDLOCK_CREATE_RULESET_VERSION);
}

bool forbidNewPrivileges() {
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0;
}

/// Opening connections fails with EPERM; sockets that are connected already, and socket pairs, go on working. The
/// numbers are those of x86-64, so a process of another architecture is let through.
bool blockNetworkCalls() {
    constexpr std::uint32_t kAudited = 0xC000003E;  // AUDIT_ARCH_X86_64
    static_assert(kAudited == AUDIT_ARCH_X86_64);
    static constexpr std::array<sock_filter, 12> kProgram{{
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, kAudited, 1, 0), BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 42, 6, 0),                                                   // connect
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 49, 5, 0),                                                   // bind
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 50, 4, 0),                                                   // listen
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 43, 3, 0),                                                   // accept
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 288, 2, 0),                                                  // accept4
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, 44, 1, 0),                                                   // sendto
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW), BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | 1),  // EPERM
    }};
    // The kernel takes the program through a pointer to non-const and only reads it.
    const sock_fprog program{static_cast<unsigned short>(kProgram.size()), const_cast<sock_filter*>(kProgram.data())};
    return ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) == 0;
}

bool allowBeneath(int ruleset, const char* path, std::uint64_t access) {
    const UniqueFd directory(::open(path, O_PATH | O_CLOEXEC));
    if (!directory) return false;
    landlock_path_beneath_attr rule{};
    rule.allowed_access = access;
    rule.parent_fd = directory.get();
    return ::syscall(SYS_landlock_add_rule, ruleset, LANDLOCK_RULE_PATH_BENEATH, &rule, 0) == 0;
}

bool restrictFiles(const SandboxPolicy& policy) {
    const long abi = landlockAbi();
    if (abi < 1) return false;
    const std::uint64_t everything = abi == 1 ? kAccessOfAbi1 : kAccessOfAbi2;

    landlock_ruleset_attr handled{};
    handled.handled_access_fs = everything;
    // Kernels of the first version know no more of the record than this first member.
    const UniqueFd ruleset(
        static_cast<int>(::syscall(SYS_landlock_create_ruleset, &handled, sizeof(handled.handled_access_fs), 0)));
    if (!ruleset) return false;

    if (!allowBeneath(ruleset.get(), "/", kReadAndExecute)) return false;
    for (const std::filesystem::path& path : policy.writablePaths) {
        if (!allowBeneath(ruleset.get(), path.c_str(), everything)) return false;
    }
    if (policy.mode == SandboxMode::WORKSPACE) {
        // Ordinary commands expect both, but none is refused for a system that lacks one.
        allowBeneath(ruleset.get(), "/tmp", everything);
        allowBeneath(ruleset.get(), "/dev", everything);
    }
    return forbidNewPrivileges() && ::syscall(SYS_landlock_restrict_self, ruleset.get(), 0) == 0;
}

}  // namespace

const char* sandboxModeText(SandboxMode mode) {
    switch (mode) {
        case SandboxMode::WORKSPACE:
            return "WORKSPACE";
        case SandboxMode::READ_ONLY:
            return "READ_ONLY";
        case SandboxMode::OFF:
            break;
    }
    return "OFF";
}

SandboxMode parseSandboxMode(std::string_view text) {
    if (text == "WORKSPACE" || text == "workspace") return SandboxMode::WORKSPACE;
    if (text == "READ_ONLY" || text == "read_only") return SandboxMode::READ_ONLY;
    return SandboxMode::OFF;
}

SandboxPolicy planSandbox(SandboxMode mode, const std::filesystem::path& workspaceRoot) {
    SandboxPolicy policy;
    if (mode == SandboxMode::OFF) return policy;
    policy.mode = mode;
    policy.blockNetwork = true;
    if (mode == SandboxMode::WORKSPACE && !workspaceRoot.empty()) policy.writablePaths.push_back(workspaceRoot);
    return policy;
}

SandboxProbe probeSandbox() {
    const long abi = landlockAbi();
    if (abi < 1) return {false, true, "内核不支持 Landlock，文件访问不会被强制限制"};
    return {true, true, "Landlock ABI " + std::to_string(abi) + " + seccomp"};
}

void logSandboxSupport() {
    const SandboxProbe probe = probeSandbox();
    const json record = {{"filesystem", probe.filesystem}, {"network", probe.network}, {"detail", probe.detail}};
    log(probe.filesystem ? LogLevel::Info : LogLevel::Warn, "sandbox support: " + dumpJson(record));
}

bool applySandbox(const SandboxPolicy& policy) {
    if (policy.mode == SandboxMode::OFF) return true;
    if (policy.blockNetwork && !(forbidNewPrivileges() && blockNetworkCalls())) return false;
    return restrictFiles(policy);
}

}  // namespace qm
