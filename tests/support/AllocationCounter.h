// Counts heap allocations made through operator new by the current thread.
#pragma once

#include <cstddef>

namespace StemlibTest {

// Number of operator new calls on this thread since the program started.
std::size_t allocationCount();

// Allocations made on this thread during the guard's life.
class AllocationScope {
public:
    AllocationScope() : _start(allocationCount()) {}
    std::size_t count() const { return allocationCount() - _start; }

private:
    std::size_t _start;
};

} // namespace StemlibTest
