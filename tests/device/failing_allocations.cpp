#include "device/failing_allocations.h"

#include <cstddef>
#include <cstdlib>
#include <limits>
#include <new>

namespace {

constexpr std::int64_t kUnlimited = std::numeric_limits<std::int64_t>::max();

thread_local std::int64_t allocationsLeft = kUnlimited;

void* allocate(std::size_t size) {
    if (allocationsLeft == 0) return nullptr;
    if (allocationsLeft != kUnlimited) --allocationsLeft;
    return std::malloc(size == 0 ? 1 : size);  // NOLINT: what is beneath operator new.
}

void release(void* memory) {
    std::free(memory);  // NOLINT: what is beneath operator delete.
}

}  // namespace

namespace qm::test {

void allowAllocations(std::int64_t count) {
    allocationsLeft = count;
}

void allowAllAllocations() {
    allocationsLeft = kUnlimited;
}

}  // namespace qm::test

// All forms that may meet in one pair of new and delete: a sanitizer has its own of those that aren't replaced, and
// takes memory from elsewhere for an error.

void* operator new(std::size_t size) {
    void* memory = allocate(size);
    if (memory == nullptr) throw std::bad_alloc();
    return memory;
}

void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return allocate(size);
}

void operator delete(void* memory) noexcept {
    release(memory);
}

void operator delete(void* memory, std::size_t) noexcept {
    release(memory);
}

void operator delete(void* memory, const std::nothrow_t&) noexcept {
    release(memory);
}
