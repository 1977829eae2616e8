#include "sweep.h"

#include <cstdlib>
#include <cstring>
#include <iostream>
#include <new>

using fakes::world;
using ::testing::AnyOfArray;
using ::testing::IsEmpty;
using ::testing::IsSubsetOf;

namespace {

void tidyUp(const Operation& operation, bool mayLeave) {
    operation.tidy();
    EXPECT_THAT(fakes::heldNames(),
                IsSubsetOf(mayLeave ? operation.leftBehind : std::set<std::string>()));
    EXPECT_THAT(world().buffers, IsEmpty());
    fakes::letGoOfWhatIsHeld();
}

// A sweep that does not see the allocations would pass without having tried anything.
bool seesAllocations() {
    fakes::reset();
    {
        const fakes::UnderTest atWork;
        ::operator delete(::operator new(1));
        std::free(strdup(__FILE__));
    }
#ifdef ORBA_SANITIZED
    const int seen = 0;
#else
    const int seen = 1;
#endif
    return world().counts["operator new"] == 1 && world().counts["malloc of a library"] == seen;
}

}  // namespace

std::string FaultSweep::runOnce(const Operation& operation) const {
    try {
        {
            const fakes::UnderTest atWork;
            operation.run();
        }
        return kSuccess + operation.result();
    } catch (const std::bad_alloc&) {
        return kNoMemory;
    } catch (...) {
        return thrown();
    }
}

// What the code under test sees begins here: the test's own preparations do not count.
void FaultSweep::prepare(const Operation& operation) {
    fakes::reset();
    prepareWorld();
    operation.world();
    world().calls.clear();
    world().log.clear();
    world().counts.clear();
    world().fallible.clear();
}

// Returns the calls.
Calls FaultSweep::runWithoutFault(const Operation& operation) {
    prepare(operation);
    EXPECT_EQ(operation.outcome, runOnce(operation));
    const Calls calls = world().calls;
    kinds = world().fallible;
    tidyUp(operation, false);
    return calls;
}

// Returns whether the operation met the fault.
bool FaultSweep::runWithFault(const Operation& operation, const Calls& calls,
                              const std::string& kind, int n) {
    prepare(operation);
    world().failAt[kind] = n;
    const std::string got = runOnce(operation);
    const bool met = world().failedCall.has_value();
    if (met) {
        const std::size_t position = *world().failedCall;
        const Fault fault = {world().calls[position], position, calls};
        EXPECT_THAT(got, AnyOfArray(outcomesOf(operation, fault))) << "at " << fault.call;
        operation.afterFault(got);
    }
    tidyUp(operation, met);
    return met;
}

void FaultSweep::sweep(const Operation& operation) {
    ASSERT_FALSE(HasFailure());
    ASSERT_TRUE(seesAllocations()) << "another allocator is in use; valgrind leaves ours with "
                                      "--soname-synonyms=somalloc=nouserintercepts";
    SCOPED_TRACE(operation.name);
    const Calls calls = runWithoutFault(operation);
    int faults = 0;
    std::string summary;
    for (const std::string& kind : std::set<std::string>(kinds)) {
        int n = 1;
        for (; runWithFault(operation, calls, kind, n) && !HasFailure(); ++n) {
            SCOPED_TRACE("behind " + kind + " " + std::to_string(n));
            EXPECT_EQ(calls, runWithoutFault(operation));
            ++faults;
        }
        summary += n == 1 ? "" : ", " + kind + " " + std::to_string(n - 1);
        ASSERT_FALSE(HasFailure()) << "at " << kind << " " << n;
    }
    std::cout << "[  SWEEP   ] " << operation.name << ": " << faults << " faults" << summary
              << "\n";
    EXPECT_GT(faults, 0);
    EXPECT_GE(faults, operation.floor);
}
