/// @file errors.h
/// @brief What a Session throws: a code, a text, a remedy and a time to wait.
///
/// Codes up to 33 have the meaning of <orbaoauth2client/errors.h>; 8 and 9, which the first library
/// never raises, are raised here. The codes from 34 on are the session's own:
///
/// | Code | Meaning |
/// |-----:|---------|
/// |  8 | The `state` of a callback is not the one that was sent. |
/// |  9 | No random numbers are available. |
/// | 34 | The settings are refused, or the Session was inherited by a forked child. |
/// | 35 | Cancelled. |
/// | 36 | A malformed or incomplete reply. |
/// | 37 | The server answered with an `error`; see SessionException::serverError(). |
/// | 38 | The token file or its work folder cannot be used. |
/// | 39 | The call's `timeout` is over. |
/// | 40 | The token is too new to be renewed; see Session::renew(). |
///
/// The remedy is that of the first row that fits:
///
/// | Cause | Remedy |
/// |-------|--------|
/// | settings (34) | fixSettings |
/// | `server_error`, `temporarily_unavailable`, `slow_down` (37) | tryLater |
/// | `access_denied`, `login_required`, `consent_required` (37) | linkAccount |
/// | `interaction_required`, `account_selection_required` (37) | linkAccount |
/// | `invalid_grant` of a fresh code (37) | tryLater |
/// | any other `error` (37) | fixSettings |
/// | HTTP status 408, 425, 429 (14), 5xx (15, 17), unexpected (16) | tryLater |
/// | other HTTP status 4xx (14), no login challenge (4), no callback (5) | fixSettings |
/// | no reply, or a truncated, slow or malformed one (2, 8, 21, 26, 27, 31, 32, 36) | tryLater |
/// | waited too long (39), token too new (40) | tryLater |
/// | no linked account (19), or the account was unlinked (22) | linkAccount |
/// | certificate refused or clock not set (33), files (38), anything else | checkDevice |
/// | cancelled (35) | cancelled |
#ifndef ORBAOAUTH2SESSION_ERRORS_H
#define ORBAOAUTH2SESSION_ERRORS_H

#include <orbaoauth2client/errors.h>

#include <chrono>
#include <memory>
#include <string>

#include "orbaoauth2session/export.h"

/// @brief A session that keeps a service signed in.
namespace ORBA::OAuth2Session {

/// @brief What to do about a failure. Later versions may add values: handle an unknown one like
/// tryLater.
enum class Remedy : int {
    tryLater,     ///< Call again after SessionException::retryAfter(); nothing else is needed.
    linkAccount,  ///< The device's owner has to link the device to an account, or to allow access.
    fixSettings,  ///< The settings do not fit the server: the service or its registration is wrong.
    checkDevice,  ///< The device has a problem: disk, permissions, clock, certificates, memory.
    cancelled     ///< Session::cancel() was called.
};

/// @brief The only exception of a Session besides std::bad_alloc.
///
/// No token, code, verifier, state, cookie or callback query is ever part of it; of URLs it names
/// scheme and host only. It can be logged and shown.
class ORBA_OAUTH2SESSION_API SessionException : public OAuth2Client::OAuth2ClientException {
  public:
    /// @brief Stores its arguments. Public, so that services can test how they handle failures.
    /// @param errorCode The error code; it is not checked.
    /// @param text The text for what().
    /// @param remedy What to do.
    /// @param retryAfter How long a call would fail without asking the server.
    /// @param serverError The server's `error`, or empty.
    /// @throws std::bad_alloc when memory runs out.
    SessionException(int errorCode, const std::string& text, Remedy remedy,
                     std::chrono::seconds retryAfter = {}, const std::string& serverError = {});

    ~SessionException() override;
    /// @brief Copies the exception.
    SessionException(const SessionException&);
    /// @brief Copies the exception.
    /// @return This object.
    SessionException& operator=(const SessionException&);

    /// @return What to do.
    Remedy remedy() const noexcept;

    /// @return How long to wait, rounded up to whole seconds: a call before then would fail without
    /// asking the server. 0: another call may be made at once.
    std::chrono::seconds retryAfter() const noexcept;

    /// @return The `error` of the server's reply (RFC 6749, sections 4.1.2.1 and 5.2) with code 37,
    /// else empty. It lives as long as this object.
    const std::string& serverError() const noexcept;

  private:
    struct Details;
    std::shared_ptr<const Details> details;
};

}  // namespace ORBA::OAuth2Session

#endif
