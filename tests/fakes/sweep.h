// One operation, and every outside call that it makes failing once: the n-th of each kind, for
// every n. The kinds are those of the stand-ins and of allocations.
#ifndef ORBA_TESTS_FAKES_SWEEP_H
#define ORBA_TESTS_FAKES_SWEEP_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <set>
#include <string>
#include <vector>

#include "fakes.h"

using Calls = std::vector<std::string>;

// A fresh world for each test; whatever the code under test took must be released at the end.
class FakesTest : public ::testing::Test {
  protected:
    void SetUp() override { fakes::reset(); }

    void TearDown() override {
        EXPECT_THAT(fakes::heldNames(), ::testing::IsEmpty());
        EXPECT_THAT(fakes::world().buffers, ::testing::IsEmpty());
    }
};

// What a run ends with: "success" and the result, "std::bad_alloc", or what thrown() says.
using Outcomes = std::set<std::string>;

const std::string kSuccess = "success";
const std::string kNoMemory = "std::bad_alloc";

// A fault, and the calls that the operation makes without one: up to the fault they are the same.
struct Fault {
    std::string call;      // as it is among the calls; "operator new()" for an allocation
    std::size_t position;  // how many calls came before
    const Calls& calls;    // without a fault

    bool isAllocation() const { return call == "operator new()" || call == "malloc()"; }
    bool isInLibrary() const { return call == "malloc of a library()"; }
};

struct Operation {
    std::string name;
    int floor = 1;                // the sweep meets at least so many faults
    std::function<void()> world;  // what the outside is like; done before each run
    std::function<void()> run;    // the code under test, and nothing else
    std::function<Outcomes(const Fault&)> outcomes;  // what may come of a fault
    std::string outcome = kSuccess;                  // without a fault
    std::function<std::string()> result = [] { return std::string(); };
    std::function<void()> tidy = [] {};  // gives back what the operation leaves to its caller
    std::function<void(const std::string&)> afterFault = [](const std::string& /*outcome*/) {};
    std::set<std::string> leftBehind = {};  // what nobody can give back after some faults
    Outcomes withoutLibraryMemory = {};     // what else may come of a library that has none
};

class FaultSweep : public FakesTest {
  protected:
    // Constructs the objects once; each fault is followed by a run without one on the same object.
    void sweep(const Operation& operation);

  private:
    // Names the exception that is being handled.
    virtual std::string thrown() const = 0;
    // Done before each run; its calls do not count.
    virtual void prepareWorld() {}
    virtual Outcomes outcomesOf(const Operation& operation, const Fault& fault) const {
        return operation.outcomes(fault);
    }

    std::string runOnce(const Operation& operation) const;
    void prepare(const Operation& operation);
    Calls runWithoutFault(const Operation& operation);
    bool runWithFault(const Operation& operation, const Calls& calls, const std::string& kind,
                      int n);

    std::set<std::string> kinds;
};

#endif
