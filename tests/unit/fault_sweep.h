// One public operation, and every outside call that it makes failing once: libcurl, platform, pause
// and allocation, the n-th of each kind for every n.
#ifndef ORBA_TESTS_UNIT_FAULT_SWEEP_H
#define ORBA_TESTS_UNIT_FAULT_SWEEP_H

#include <functional>
#include <map>
#include <set>
#include <string>

#include "fixture.h"

// What a run ends with: "success" and the result, "std::bad_alloc", "Json::RuntimeError",
// "CurlException 25 text", "foreign: text".
using Outcomes = std::set<std::string>;

const std::string kSuccess = "success";
const std::string kNoMemory = "std::bad_alloc";

std::string outcome(const std::string& type, int code, const std::string& text);

// A fault, and the calls that the operation makes without one: up to the fault they are the same.
struct Fault {
    std::string call;      // as it is among the calls; "operator new()" for an allocation
    std::size_t position;  // how many calls came before
    const Calls& calls;    // without a fault

    bool isAllocation() const;
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
};

// What the library makes of a failed call; nothing if it continues as if it had not failed.
struct Inner {
    std::string type;
    int code;
    std::string text;
};
std::optional<Inner> innerFailure(const Fault& fault);

// The outcomes of an operation that wraps nothing.
Outcomes plainOutcomes(const Fault& fault, const std::string& withoutFault = kSuccess);

// The operation's own failure, where the situation is such that it fails without any fault, too.
struct OwnFailure {
    int code = 0;
    std::string text = {};
    bool foreign = false;  // a std::exception that is not the library's
};

// How an operation wraps what fails between its first call and its clean-up.
struct Wrapping {
    std::string type;
    std::string frame;
    std::size_t begin;
    std::size_t cleanUp;
    int foreignCode = 1;  // of a std::exception that is not the library's
};

// A failed allocation is wrapped like any std::exception. When the steps have failed already, it
// may instead cost the description of that failure, never its code. Behind the clean-up nothing
// wraps any more.
Outcomes wrappedAllocation(const Fault& fault, const Wrapping& wrapping,
                           const OwnFailure& own = {});

// The request that a position among the calls belongs to.
struct RequestSpan {
    std::size_t begin;
    std::size_t cleanUp;
    std::string url;
};
std::optional<RequestSpan> requestAt(const Fault& fault);

std::string requestFrame(const std::string& url);

// The text of a redirect whose target libcurl does not return.
std::string noTargetText(const std::string& url, long status, int result);

// The outcomes of an operation that makes requests, at a fault inside one of them.
Outcomes requestOutcomes(const Fault& fault, const RequestSpan& request,
                         const std::string& withoutFault = kSuccess, const OwnFailure& own = {},
                         long redirectStatus = 302);

#endif
