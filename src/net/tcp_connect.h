#pragma once

#include <string>

#include "util/unique_fd.h"

struct addrinfo;

namespace qm {

class CancelSignal;

/// A connected, non-blocking socket to the first address of `host` that answers. No descriptor on failure, with
/// "DNS 解析失败: " or "TCP 连接失败: " and the system's text in `*error`. `timeoutMs` (above 0) limits the wait for
/// each address. Once `cancel` (null for none) is raised nothing is waited for any more, save a name resolution under
/// way. Any thread.
UniqueFd connectTcp(const std::string& host, int port, int timeoutMs, const CancelSignal* cancel, std::string* error);

/// The part of connectTcp() behind the resolution: tries the addresses in their order. 0 with the socket in
/// `*connected`, otherwise the last address's error number, or ECANCELED.
int connectToFirst(const addrinfo* addresses, int timeoutMs, const CancelSignal* cancel, UniqueFd* connected);

}  // namespace qm
