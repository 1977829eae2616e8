// What may come of a fault inside the library's operations.
#ifndef ORBA_TESTS_UNIT_FAULT_SWEEP_H
#define ORBA_TESTS_UNIT_FAULT_SWEEP_H

#include <optional>
#include <string>

#include "fixture.h"

std::string outcome(const std::string& type, int code, const std::string& text);

class LibrarySweep : public FaultSweep {
    std::string thrown() const override;
    void prepareWorld() override;
    Outcomes outcomesOf(const Operation& operation, const Fault& fault) const override;
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
