#include "net/tcp_connect.h"

#include <netdb.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <memory>
#include <system_error>
#include <utility>

#include "net/cancel_signal.h"
#include "net/poll_wait.h"

namespace qm {
namespace {

struct AddressListFree {
    void operator()(addrinfo* list) const { ::freeaddrinfo(list); }
};

using AddressList = std::unique_ptr<addrinfo, AddressListFree>;

bool isRaised(const CancelSignal* cancel) {
    return cancel != nullptr && cancel->cancelled();
}

/// 0 or an error number of getaddrinfo().
int resolve(const std::string& host, int port, AddressList* list) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    addrinfo* found = nullptr;
    const int failure = ::getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &found);
    list->reset(found);
    return failure;
}

/// A connected, non-blocking socket in `*connected`, or an error number.
int connectTo(const addrinfo& address, int timeoutMs, const CancelSignal* cancel, UniqueFd* connected) {
    UniqueFd fd(::socket(address.ai_family, address.ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, address.ai_protocol));
    if (!fd) return errno;
    if (::connect(fd.get(), address.ai_addr, address.ai_addrlen) != 0) {
        // An interrupted connect() goes on by itself, like one that was begun without waiting.
        if (errno != EINPROGRESS && errno != EINTR) return errno;
        if (const int failure = waitForEvents(fd.get(), POLLOUT, timeoutMs, cancel); failure != 0) return failure;
        int outcome = 0;
        socklen_t size = sizeof outcome;
        if (::getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &outcome, &size) != 0) return errno;
        if (outcome != 0) return outcome;
    }
    *connected = std::move(fd);
    return 0;
}

}  // namespace

UniqueFd connectTcp(const std::string& host, int port, int timeoutMs, const CancelSignal* cancel, std::string* error) {
    AddressList addresses;
    // A resolution can't be cut short, so it isn't begun for a call that is over already.
    const int unresolved = isRaised(cancel) ? 0 : resolve(host, port, &addresses);
    UniqueFd connected;
    if (isRaised(cancel) || unresolved == 0) {
        const int failure = connectToFirst(addresses.get(), timeoutMs, cancel, &connected);
        if (failure != 0) *error = "TCP 连接失败: " + std::generic_category().message(failure);
    } else {
        *error = std::string("DNS 解析失败: ") + ::gai_strerror(unresolved);
    }
    return connected;
}

int connectToFirst(const addrinfo* addresses, int timeoutMs, const CancelSignal* cancel, UniqueFd* connected) {
    int failure = isRaised(cancel) ? ECANCELED : EADDRNOTAVAIL;
    for (const addrinfo* address = addresses; address != nullptr; address = address->ai_next) {
        if (isRaised(cancel)) return ECANCELED;
        failure = connectTo(*address, timeoutMs, cancel, connected);
        if (failure == 0) break;
    }
    return failure;
}

}  // namespace qm
