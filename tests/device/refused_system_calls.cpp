#include "device/refused_system_calls.h"

#include <gtest/gtest.h>
#include <linux/filter.h>
#include <linux/landlock.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/ioctl.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <future>
#include <thread>

#include "util/unique_fd.h"

namespace qm::test {
namespace {

bool installFilter(const std::vector<RefusedCall>& calls) {
    std::vector<sock_filter> program{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (const RefusedCall& call : calls) {
        program.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(call.number), 0, 1));
        program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | static_cast<std::uint32_t>(call.error)));
    }
    program.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return ::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) == 0 && ::prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &filter) == 0;
}

/// Installs a program that hands some calls to whoever reads the returned descriptor.
int listen(std::vector<sock_filter> program) {
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    if (::prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0) return -1;
    return static_cast<int>(::syscall(SYS_seccomp, SECCOMP_SET_MODE_FILTER, SECCOMP_FILTER_FLAG_NEW_LISTENER, &filter));
}

/// Answers until nobody is left who could ask.
void answerQuestions(const UniqueFd& listener, int version) {
    for (;;) {
        pollfd event{listener.get(), POLLIN, 0};
        if (::poll(&event, 1, -1) < 0 || (event.revents & POLLIN) == 0) return;
        seccomp_notif question{};
        if (::ioctl(listener.get(), SECCOMP_IOCTL_NOTIF_RECV, &question) != 0) continue;
        seccomp_notif_resp answer{};
        answer.id = question.id;
        answer.val = version;
        ::ioctl(listener.get(), SECCOMP_IOCTL_NOTIF_SEND, &answer);
    }
}

/// Runs `body` on a thread of its own, which takes its filter along when it ends. Not a std::thread:
/// UndefinedBehaviorSanitizer looks at the object behind one through a pipe, and some tests refuse pipes.
void onOwnThread(std::function<void()> body) {
    const auto run = [](void* argument) -> void* {
        (*static_cast<std::function<void()>*>(argument))();
        return nullptr;
    };
    pthread_t thread{};
    ASSERT_EQ(::pthread_create(&thread, nullptr, run, &body), 0);
    ASSERT_EQ(::pthread_join(thread, nullptr), 0);
}

}  // namespace

void withLandlockVersion(int version, const std::function<void()>& body) {
    std::promise<int> listening;
    std::jthread thread([&] {
        const int listener = listen({
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, SYS_landlock_create_ruleset, 0, 3),
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, args[2])),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, LANDLOCK_CREATE_RULESET_VERSION, 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        });
        listening.set_value(listener);
        if (listener >= 0) body();
    });
    const UniqueFd listener(listening.get_future().get());
    ASSERT_TRUE(listener);
    answerQuestions(listener, version);
}

void withRefusedCalls(const std::vector<RefusedCall>& calls, const std::function<void()>& body) {
    onOwnThread([&] {
        ASSERT_TRUE(installFilter(calls));
        body();
    });
}

void withHangingCall(int number, const std::function<void()>& body) {
    onOwnThread([&] {
        const UniqueFd nobodyAnswers(listen({
            BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
            BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<std::uint32_t>(number), 0, 1),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_USER_NOTIF),
            BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
        }));
        ASSERT_TRUE(nobodyAnswers);
        body();
    });
}

}  // namespace qm::test
