#pragma once

#include <future>
#include <stdexcept>

#include "support/wait_until.h"

namespace qm::test {

/// What another thread puts into `promise`; throws if that takes unreasonably long.
template <typename Value>
Value promised(std::promise<Value>& promise) {
    auto future = promise.get_future();
    if (future.wait_for(kGenerousLimit) != std::future_status::ready) throw std::runtime_error("a promise wasn't kept");
    return future.get();
}

}  // namespace qm::test
