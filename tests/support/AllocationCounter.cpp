#include "AllocationCounter.h"

#include <cstdlib>
#include <new>

namespace {
thread_local std::size_t t_allocations = 0;

void* countedMalloc(std::size_t size) noexcept {
    ++t_allocations;
    return std::malloc(size == 0 ? 1 : size);
}

void* countedAllocate(std::size_t size) {
    if (void* memory = countedMalloc(size)) {
        return memory;
    }
    throw std::bad_alloc();
}
} // namespace

std::size_t StemlibTest::allocationCount() {
    return t_allocations;
}

void* operator new(std::size_t size) {
    return countedAllocate(size);
}
void* operator new[](std::size_t size) {
    return countedAllocate(size);
}
// The nothrow forms too (std::stable_sort's temporary buffer uses them): every allocation must
// pair with the replaced delete below.
void* operator new(std::size_t size, const std::nothrow_t&) noexcept {
    return countedMalloc(size);
}
void* operator new[](std::size_t size, const std::nothrow_t&) noexcept {
    return countedMalloc(size);
}
void operator delete(void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, const std::nothrow_t&) noexcept {
    std::free(memory);
}
void operator delete(void* memory) noexcept {
    std::free(memory);
}
void operator delete[](void* memory) noexcept {
    std::free(memory);
}
void operator delete(void* memory, std::size_t) noexcept {
    std::free(memory);
}
void operator delete[](void* memory, std::size_t) noexcept {
    std::free(memory);
}
