// Gateways that don't read, a system without descriptors, and a thousand sessions that end in every way.

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <netinet/in.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <filesystem>
#include <future>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <system_error>
#include <thread>

#include "core/running_core.h"
#include "device/system_probes.h"
#include "support/gateway_peer.h"
#include "support/promised.h"
#include "support/tcp_peer.h"
#include "support/ws_script.h"
#include "util/unique_fd.h"

namespace qm {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;
using std::chrono::steady_clock;
using test::eagerTiming;
using test::GatewayPeer;
using test::logged;
using test::patientTiming;
using test::PeerConnection;
using test::RunningCore;
using test::settingsFor;
using test::TcpPeer;

constexpr unsigned kText = 1;
constexpr unsigned kClose = 8;

/// A gateway that asks for a reply of 8 MiB, reads nothing of it, and closes the session once told to.
class DeafGateway {
public:
    DeafGateway() = default;
    ~DeafGateway() {
        if (!told_) tell(false);
    }
    DeafGateway(const DeafGateway&) = delete;
    DeafGateway& operator=(const DeafGateway&) = delete;

    std::string url() const { return peer_.url("http"); }

    /// Waits until a writer of the executor is stuck: the reply is far larger than all that fits between the two.
    bool waitForStuckWriter() const {
        return test::waitUntil([this] {
            const int fd = test::descriptorConnectedTo(peer_.port());
            int unread = 0;
            return fd >= 0 && ::ioctl(fd, SIOCOUTQ, &unread) == 0 && unread > 64 << 10;
        });
    }

    void closeSession() { tell(true); }

private:
    void tell(bool close) {
        told_ = true;
        close_.set_value(close);
    }

    bool told_ = false;
    std::promise<bool> close_;
    TcpPeer peer_{[this](PeerConnection& connection) {
        test::acceptWebSocket(connection);
        const std::string id(8 << 20, 'i');
        connection.send(test::serverFrame(kText, R"({"type":"metricsRequest","requestId":")" + id + "\"}"));
        if (close_.get_future().get()) connection.send(test::serverFrame(kClose, "\x03\xe8"));
        connection.hold();
    }};
};

CoreTiming quickHeartbeat() {
    CoreTiming timing = patientTiming();
    timing.heartbeatPeriod = milliseconds(1);
    return timing;
}

// A stuck send fails by itself after 15 s.
constexpr seconds kSoonerThanASend{10};

TEST(ExecutorCoreFaults, ASessionWithStuckWritersEndsSoonWhenTheGatewayClosesIt) {
    DeafGateway gateway;
    RunningCore running(settingsFor(gateway.url()), quickHeartbeat());
    running.start();
    ASSERT_TRUE(gateway.waitForStuckWriter());

    const auto begin = steady_clock::now();
    gateway.closeSession();
    ASSERT_TRUE(running.waitForState("DISCONNECTED"));

    EXPECT_TRUE(running.core->detachedTasks()->waitUntilIdle(test::kGenerousLimit));
    EXPECT_LT(steady_clock::now() - begin, kSoonerThanASend);
}

TEST(ExecutorCoreFaults, ASessionWithStuckWritersEndsSoonByAStop) {
    DeafGateway gateway;
    RunningCore running(settingsFor(gateway.url()), quickHeartbeat());
    running.start();
    ASSERT_TRUE(gateway.waitForStuckWriter());

    const auto begin = steady_clock::now();
    running.stop();

    EXPECT_TRUE(running.core->detachedTasks()->waitUntilIdle(test::kGenerousLimit));
    EXPECT_LT(steady_clock::now() - begin, kSoonerThanASend);
}

/// While this lives the process gets no further descriptor.
class NoDescriptorsLeft {
public:
    NoDescriptorsLeft() {
        const UniqueFd lowestFree(::dup(STDERR_FILENO));
        EXPECT_EQ(::getrlimit(RLIMIT_NOFILE, &before_), 0);
        rlimit none = before_;
        none.rlim_cur = static_cast<rlim_t>(lowestFree.get());
        EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &none), 0);
    }
    ~NoDescriptorsLeft() { EXPECT_EQ(::setrlimit(RLIMIT_NOFILE, &before_), 0); }
    NoDescriptorsLeft(const NoDescriptorsLeft&) = delete;
    NoDescriptorsLeft& operator=(const NoDescriptorsLeft&) = delete;

private:
    rlimit before_{};
};

TEST(ExecutorCoreFaults, AnAttemptWithoutDescriptorsFailsAndALaterOneSucceeds) {
    GatewayPeer gateway;
    RunningCore running(settingsFor(gateway.url()));
    running.start();
    gateway.waitForRegister();
    gateway.close();
    ASSERT_TRUE(running.waitForState("DISCONNECTED"));
    // UndefinedBehaviorSanitizer opens a pipe when it first sees an object of a type.
    const std::system_error known(EMFILE, std::generic_category(), "eventfd");
    const std::exception& seen = known;
    const std::string line = std::string("WARN  gateway connection failed: ") + seen.what();

    {
        const NoDescriptorsLeft none;
        running.core->requestReconnect();
        EXPECT_TRUE(test::waitUntil([&] { return logged(line); }));
    }

    EXPECT_EQ(line, "WARN  gateway connection failed: eventfd: Too many open files");
    running.core->requestReconnect();
    gateway.waitForRegister();
}

/// A gateway that ends its sessions in three ways by turns and keeps nothing of any.
class SessionMill {
public:
    SessionMill() : listener_(::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        address_.sin_family = AF_INET;
        address_.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof address_;
        auto* const address = reinterpret_cast<sockaddr*>(&address_);
        EXPECT_EQ(::bind(listener_.get(), address, size), 0);
        EXPECT_EQ(::listen(listener_.get(), 1), 0);
        EXPECT_EQ(::getsockname(listener_.get(), address, &size), 0);
        thread_ = std::jthread([this] { run(); });
    }
    ~SessionMill() {
        finish();
        ::shutdown(listener_.get(), SHUT_RDWR);
    }
    SessionMill(const SessionMill&) = delete;
    SessionMill& operator=(const SessionMill&) = delete;

    std::string url() const { return "http://127.0.0.1:" + std::to_string(ntohs(address_.sin_port)); }

    /// Ends `count` more connections, waits for the session after them, and holds that.
    bool grind(int count) {
        std::unique_lock lock(mutex_);
        left_ += count;
        holding_ = false;
        changed_.notify_all();
        return changed_.wait_for(lock, std::chrono::minutes(4), [this] { return holding_; });
    }

private:
    void finish() {
        const std::lock_guard lock(mutex_);
        finished_ = true;
        changed_.notify_all();
    }

    void run() {
        for (int number = 0;; ++number) {
            UniqueFd fd(::accept4(listener_.get(), nullptr, nullptr, SOCK_CLOEXEC));
            if (!fd) return;
            PeerConnection connection(std::move(fd));
            try {
                if (takeOne()) {
                    end(connection, number % 3);
                } else {
                    hold(connection);
                }
            } catch (const std::runtime_error&) {
                // The executor went away first, as it does at the end of the test.
                continue;
            }
        }
    }

    bool takeOne() {
        const std::lock_guard lock(mutex_);
        if (left_ == 0) return false;
        --left_;
        return true;
    }

    void hold(PeerConnection& connection) {
        acceptAndRegister(connection);
        std::unique_lock lock(mutex_);
        // grind() may have come since this connection was chosen to be held.
        holding_ = left_ == 0;
        changed_.notify_all();
        changed_.wait(lock, [this] { return left_ > 0 || finished_; });
    }

    static void acceptAndRegister(PeerConnection& connection) {
        test::acceptWebSocket(connection);
        test::readClientFrame(connection);
    }

    static void end(PeerConnection& connection, int manner) {
        if (manner == 0) {
            connection.readUntil("\r\n\r\n");
            connection.send("HTTP/1.1 503 Service Unavailable\r\n\r\n");
            return;
        }
        acceptAndRegister(connection);
        if (manner == 1) {
            connection.reset();
        } else {
            connection.send(test::serverFrame(kClose, "\x03\xe8"));
            connection.readToEnd();
        }
    }

    sockaddr_in address_{};
    UniqueFd listener_;
    std::mutex mutex_;
    std::condition_variable changed_;
    int left_ = 0;
    bool holding_ = false;
    bool finished_ = false;
    std::jthread thread_;
};

/// What the process has open, by the kernel's names.
std::vector<std::string> openDescriptors() {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
        std::error_code closedMeanwhile;
        names.push_back(std::filesystem::read_symlink(entry.path(), closedMeanwhile).string());
    }
    return names;
}

/// As the kernel counts them; listing them would miss one while another ends.
std::size_t threadCount() {
    std::istringstream status(test::readFile("/proc/self/status"));
    for (std::string line; std::getline(status, line);) {
        if (line.starts_with("Threads:")) return std::stoul(line.substr(8));
    }
    return 0;
}

TEST(ExecutorCoreFaults, AThousandSessionsLeaveNothingBehind) {
    // A sanitizer starts a thread of its own with the first one.
    std::thread([] {}).join();
    // Besides those that are here now: the gateway's, the connection loop, the heartbeat.
    const std::size_t threads = threadCount() + 3;
    SessionMill gateway;
    RunningCore running(settingsFor(gateway.url()), eagerTiming());
    running.start();
    ASSERT_TRUE(gateway.grind(150));  // Allocators and caches have settled after these.
    EXPECT_TRUE(test::waitUntil([&] { return threadCount() == threads; })) << threadCount();
    const auto descriptors = openDescriptors();
    const std::uint64_t resident = residentBytes();

    ASSERT_TRUE(gateway.grind(1000));

    EXPECT_TRUE(test::waitUntil([&] { return threadCount() == threads; })) << threadCount();
    EXPECT_TRUE(test::waitUntil([&] { return openDescriptors().size() <= descriptors.size(); }))
        << testing::PrintToString(descriptors) << " became " << testing::PrintToString(openDescriptors());
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    EXPECT_LT(residentBytes(), resident + (2U << 20));
#endif
    EXPECT_GT(resident, 0U);
}

}  // namespace
}  // namespace qm
