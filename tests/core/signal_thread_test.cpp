#include "core/signal_thread.h"

#include <gtest/gtest.h>
#include <sys/syscall.h>

#include <cerrno>
#include <csignal>
#include <memory>
#include <system_error>

#include "core/running_core.h"
#include "device/refused_system_calls.h"

namespace qm {
namespace {

TEST(SignalThread, StopsTheCoreAtASignal) {
    Settings settings;
    settings.connection = "STANDALONE";
    SignalThread::blockSignals();
    test::RunningCore running(settings);
    const SignalThread signals(*running.core);
    running.start();
    ASSERT_TRUE(running.waitForState("STANDALONE"));

    ::kill(::getpid(), SIGTERM);

    EXPECT_TRUE(test::waitUntil([] { return test::logged("INFO  executor stopped"); }));
}

TEST(SignalThread, ThatCouldntStartForgetsTheCore) {
    Settings settings;
    settings.connection = "STANDALONE";
    test::RunningCore running(settings);
    test::withRefusedCalls({{SYS_clone3, EAGAIN}, {SYS_clone, EAGAIN}}, [&] {
        EXPECT_THROW(std::make_unique<SignalThread>(*running.core), std::system_error);
        ::raise(SIGTERM);
    });

    running.start();

    EXPECT_TRUE(running.waitForState("STANDALONE")) << "the signal stopped a core that isn't known any more";
}

}  // namespace
}  // namespace qm
