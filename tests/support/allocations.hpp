#pragma once

#include <new>

namespace tolvan::test {

/// How many allocations this thread has made, and which of them fails. allocations.cpp stands in for operator
/// new.
inline thread_local unsigned long allocations = 0;
inline thread_local unsigned long failing_allocation = 0;

/// Runs `operation` with its first, its second, ... allocation failing, until none is left to fail, and
/// `check` after each run.
template <typename Operation, typename Check>
void fail_each_allocation(const Operation& operation, const Check& check) {
    bool failed = true;
    for (unsigned nth = 1; failed; ++nth) {
        failing_allocation = allocations + nth;
        try {
            operation();
        } catch (const std::bad_alloc&) {
        }
        failed = allocations >= failing_allocation;
        failing_allocation = 0;
        check();
    }
}

}  // namespace tolvan::test
