// Failures inside the library: codes, remedies, texts; and the log.
#ifndef ORBA_SESSION_FAILURE_H
#define ORBA_SESSION_FAILURE_H

#include <atomic>
#include <string>
#include <vector>

#include "clock.h"
#include "orbaoauth2session/errors.h"

namespace ORBA::OAuth2Session {

// The numbers are a contract with callers; those below 34 are shared with liborbaoauth2client.
enum Code : int {
    kUnexpectedException = 1,
    kParseJsonFailed = 2,
    kLoginChallengeFailed = 4,
    kCallbackFailed = 5,
    kOtherState = 8,
    kNoRandomNumbers = 9,
    kInvalidParameter = 12,
    kClientErrorStatus = 14,
    kServerErrorStatus = 15,
    kUnexpectedStatus = 16,
    kServiceUnavailable = 17,
    kUserAgentFailed = 18,
    kAccountFailed = 19,
    kSendToAccountFailed = 21,
    kAuthenticationFailed = 22,
    kCurlInitFailed = 23,
    kCurlOptionFailed = 25,
    kCurlRequestFailed = 26,
    kCurlResponseFailed = 27,
    kResolveHostFailed = 31,
    kRequestTimeout = 32,
    kCertificateRefused = 33,
    kSettingsRefused = 34,
    kCancelled = 35,
    kSenselessReply = 36,
    kServerError = 37,
    kFilesUnusable = 38,
    kWaitedTooLong = 39,
    kTooNewToRenew = 40,
};

// What the library throws inside; callers of the library get it as a SessionException.
struct Failure {
    int code;
    Remedy remedy;
    std::string text;
    std::string serverError{};
    bool repeated = false;      // by the gate
    milliseconds retryAfter{};  // as the server asks at first, then the time left of the gate
};

// With the remedy that belongs to the code. `what` is one sentence without its full stop.
Failure makeFailure(int code, const std::string& what);

[[noreturn]] void fail(int code, const std::string& what);

// A 38 that names the system's reason (errno, or `error`).
[[noreturn]] void failOnFile(const std::string& what, int error);

[[noreturn]] void failCancelled();

// A status that is neither a success nor a redirect.
Failure failureOfStatus(long status, const std::string& url);

// `error` of a callback or a reply. `freshCode`: it answers the exchange of a code.
Failure failureOfServerError(const std::string& error, const std::string& url, bool freshCode);

// Whether an `error` in a reply of this status is taken for its meaning.
bool countsInStatus(const std::string& error, long status);

// Whether the text is an `error` by RFC 6749, 5.2, and holds none of what was just sent.
bool isServerError(const std::string& text, const std::vector<std::string>& sent);

// The exception that is being handled; std::bad_alloc passes.
Failure currentFailure();

SessionException toException(const Failure& failure);

// Scheme and host of a URL, which is all of it that a text may hold.
std::string hostOf(const std::string& url);

void logInfo(const std::string& what);
void logWarning(const std::string& what);

// Once: not what the gate repeats.
void logFailure(const Failure& failure);

// The limits of one call, and what it did.
struct Call {
    nanoseconds deadline;                // on bootTime()
    const std::atomic<bool>& cancelled;  // the session's
    bool asked = false;                  // a request was begun

    // Throws when the call is over.
    void check() const;
};

}  // namespace ORBA::OAuth2Session

#endif
