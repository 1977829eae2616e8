#include "failure.h"

#include <syslog.h>

#include <algorithm>
#include <array>
#include <new>
#include <string_view>
#include <system_error>

#include "encoding.h"

namespace ORBA::OAuth2Session {
namespace {

constexpr std::size_t kMaxErrorLength = 100;
constexpr std::size_t kMaxHostLength = 255;

constexpr std::array<std::string_view, 3> kPassing = {"server_error", "temporarily_unavailable",
                                                      "slow_down"};
constexpr std::array<std::string_view, 5> kByOwner = {"access_denied", "login_required",
                                                      "consent_required", "interaction_required",
                                                      "account_selection_required"};

template <class Names>
bool contains(const Names& names, const std::string& name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

Remedy remedyOfCode(int code) {
    switch (code) {
        case kParseJsonFailed:
        case kOtherState:
        case kServerErrorStatus:
        case kUnexpectedStatus:
        case kServiceUnavailable:
        case kSendToAccountFailed:
        case kCurlRequestFailed:
        case kCurlResponseFailed:
        case kResolveHostFailed:
        case kRequestTimeout:
        case kSenselessReply:
        case kWaitedTooLong:
        case kTooNewToRenew:
            return Remedy::tryLater;
        case kAccountFailed:
        case kAuthenticationFailed:
            return Remedy::linkAccount;
        case kLoginChallengeFailed:
        case kCallbackFailed:
        case kClientErrorStatus:
        case kSettingsRefused:
        case kServerError:
            return Remedy::fixSettings;
        case kCancelled:
            return Remedy::cancelled;
        default:
            return Remedy::checkDevice;
    }
}

bool isErrorCharacter(char c) { return c >= ' ' && c <= '~' && c != '"' && c != '\\'; }

}  // namespace

struct SessionException::Details {
    Remedy remedy;
    seconds retryAfter;
    std::string serverError;
};

SessionException::SessionException(int errorCode, const std::string& text, Remedy remedy,
                                   seconds retryAfter, const std::string& serverError)
    : OAuth2ClientException(errorCode, text),
      details(std::make_shared<const Details>(Details{remedy, retryAfter, serverError})) {}

SessionException::~SessionException() = default;
SessionException::SessionException(const SessionException&) = default;
SessionException& SessionException::operator=(const SessionException&) = default;

Remedy SessionException::remedy() const noexcept { return details->remedy; }

seconds SessionException::retryAfter() const noexcept { return details->retryAfter; }

const std::string& SessionException::serverError() const noexcept { return details->serverError; }

Failure makeFailure(int code, const std::string& what) {
    return Failure{code, remedyOfCode(code), what + "."};
}

void fail(int code, const std::string& what) { throw makeFailure(code, what); }

void failCancelled() { fail(kCancelled, "The session is cancelled"); }

void failOnFile(const std::string& what, int error) {
    fail(kFilesUnusable, what + ": " + std::generic_category().message(error));
}

Failure failureOfStatus(long status, const std::string& url) {
    int code = kUnexpectedStatus;
    if (status / 100 == 4) {
        code = kClientErrorStatus;
    } else if (status == 503) {
        code = kServiceUnavailable;
    } else if (status / 100 == 5) {
        code = kServerErrorStatus;
    }
    Failure failure =
        makeFailure(code, hostOf(url) + " replied with HTTP status " + std::to_string(status));
    if (status == 408 || status == 425 || status == 429) {
        failure.remedy = Remedy::tryLater;
    }
    return failure;
}

Failure failureOfServerError(const std::string& error, const std::string& url, bool freshCode) {
    Failure failure = makeFailure(kServerError, hostOf(url) + " replied with the error " + error);
    failure.serverError = error;
    if (contains(kPassing, error) || (freshCode && error == "invalid_grant")) {
        failure.remedy = Remedy::tryLater;
    } else if (contains(kByOwner, error)) {
        failure.remedy = Remedy::linkAccount;
    }
    return failure;
}

bool countsInStatus(const std::string& error, long status) {
    return status / 100 == 4 ||
           (status / 100 == 5 && (contains(kPassing, error) || contains(kByOwner, error)));
}

bool isServerError(const std::string& text, const std::vector<std::string>& sent) {
    const auto isIn = [&](const std::string& secret) {
        return !secret.empty() && (text.find(secret) != std::string::npos ||
                                   text.find(percentEncode(secret)) != std::string::npos);
    };
    return !text.empty() && text.size() <= kMaxErrorLength &&
           std::all_of(text.begin(), text.end(), isErrorCharacter) &&
           std::none_of(sent.begin(), sent.end(), isIn);
}

Failure currentFailure() {
    try {
        throw;
    } catch (const Failure& failure) {
        return failure;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {
        return makeFailure(kUnexpectedException, "An unexpected exception was caught");
    }
}

SessionException toException(const Failure& failure) {
    return {failure.code, failure.text, failure.remedy,
            std::chrono::ceil<seconds>(failure.retryAfter), failure.serverError};
}

std::string hostOf(const std::string& url) {
    const std::string::size_type begin = url.find("://") + 3;  // settings and redirects are checked
    std::string host = url.substr(begin, url.find_first_of("/?#", begin) - begin);
    host.erase(0, host.rfind('@') + 1);
    host.erase(std::min(host.find(':', host.rfind(']') + 1), host.size()));
    std::replace_if(
        host.begin(), host.end(), [](char c) { return c <= ' ' || c > '~'; }, '?');
    return url.substr(0, begin) + host.substr(0, kMaxHostLength);
}

void logInfo(const std::string& what) { syslog(LOG_INFO, "orbaoauth2session: %s", what.c_str()); }

void logWarning(const std::string& what) {
    syslog(LOG_WARNING, "orbaoauth2session: %s", what.c_str());
}

void logFailure(const Failure& failure) {
    if (!failure.repeated) {
        logWarning(failure.text);
    }
}

void Call::check() const {
    if (cancelled.load(std::memory_order_relaxed)) {
        failCancelled();
    }
    if (bootTime() >= deadline) {
        fail(kWaitedTooLong, "The call's timeout is over");
    }
}

}  // namespace ORBA::OAuth2Session
