// What the program costs a machine on which nothing is asked of it.

#include <gtest/gtest.h>

#include "e2e/executor_home.h"

namespace qm::test {
namespace {

TEST(Footprint, WithASessionTheProgramTakesLessThan12MiB) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForRegister();
    executor.waitForOutput("connected & registered");

    EXPECT_LT(executor.residentKiB(), 12U * 1024U);
}

TEST(Footprint, AnIdleMinuteTakesLessThan20MillisecondsOfProcessorTime) {
    const ExecutorHome home;
    GatewayPeer gateway;
    ExecutorProcess executor(home.against(gateway));
    gateway.waitForRegister();
    executor.waitForOutput("connected & registered");
    const auto before = executor.cpuTime();

    for (int i = 0; i < 6; ++i) {
        gateway.waitForType("heartbeat", std::chrono::seconds(30));
    }

    EXPECT_LT(executor.cpuTime() - before, std::chrono::milliseconds(20));
}

}  // namespace
}  // namespace qm::test
