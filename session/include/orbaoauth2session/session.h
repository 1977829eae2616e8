/// @file session.h
/// @brief One call that keeps a service signed in: Session::accessToken().
#ifndef ORBAOAUTH2SESSION_SESSION_H
#define ORBAOAUTH2SESSION_SESSION_H

#include <chrono>
#include <memory>
#include <string>

#include "orbaoauth2session/errors.h"
#include "orbaoauth2session/export.h"

namespace ORBA::OAuth2Session {

/// @brief The settings of a Session. All members except `revocationEndpoint`, `margin` and
/// `timeout` must be set. Values are plain text: the Session encodes what it sends.
struct Settings {
    /// The server's authorization endpoint: https, without fragment. A query of its own is kept
    /// (`audience`, `resource`, ...).
    std::string authorizationEndpoint{};
    /// The server's token endpoint: https, without fragment.
    std::string tokenEndpoint{};
    /// The service's identifier at the server.
    std::string clientId{};
    /// The service's registered redirect URI. It is never requested. libcurl must leave it
    /// unchanged, unlike `app://cb` or `https://host`, which lack a path.
    std::string redirectUri{};
    /// The scopes to ask for, separated by blanks.
    std::string scope{};
    /// Absolute path of the token file, private to this service. The Session creates a folder of
    /// the same name with ".work" appended beside it. The folder that contains both must exist,
    /// belong to this user or root, and be writable by no one else. Sessions and processes with the
    /// same token file share one sign-in.
    std::string tokenFile{};
    /// The server's revocation endpoint (RFC 7009): https, without fragment. If it is set,
    /// Session::signOut() revokes the tokens.
    std::string revocationEndpoint{};
    /// How long a token that accessToken() returns must still be valid; a quarter of the token's
    /// lifetime if that is less. Not negative.
    std::chrono::seconds margin{60};
    /// How long one call may take; at least 1 s.
    std::chrono::milliseconds timeout{120'000};
};

/// @brief An access token, its end and its scope.
struct AccessToken {
    std::string text;  ///< The token, for the header `Authorization: Bearer`.

    /// When it expires, by this device's clock: for display. max() if the server names no lifetime.
    std::chrono::system_clock::time_point expires;
    std::string scope;  ///< The scope that the server granted, else the one requested.
};

/// @brief Keeps a service signed in with the device's linked account.
///
/// It signs in, refreshes, and shares the tokens with every Session of the same token file, in any
/// number of threads and processes. All members may be called from any number of threads at once.
///
/// Construction makes no request and reads no file. Nothing is renewed in the background: all work
/// is done by the calls.
///
/// A Session belongs to the process that created it: in a forked child every call on it fails at
/// once with code 34; the child creates its own. Destroying a Session while another thread is in a
/// call is undefined. Join all threads that use one before the process exits.
class ORBA_OAUTH2SESSION_API Session {
  public:
    /// @brief Checks and copies the settings.
    /// @param settings The settings; see Settings.
    /// @throws SessionException code 34 (Remedy::fixSettings) for a setting that cannot be used;
    /// the text names the member.
    /// @throws std::bad_alloc when memory runs out.
    explicit Session(const Settings& settings) : Session(settings, 1) {}

    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    /// @brief Releases memory only: tokens and sign-in stay for the next Session.
    ~Session();

    /// @brief Returns an access token that is valid for at least `margin`.
    ///
    /// Without usable tokens it signs in; if they are about to expire it refreshes them; otherwise
    /// it makes no request and returns within a microsecond. Concurrent callers cause one request:
    /// the others wait and get its result or its failure.
    ///
    /// Shortly before a token must be renewed, one call renews it early, which may take up to 10 s
    /// of that caller's time. If that fails, the call returns the current token, which is still
    /// valid.
    ///
    /// A sign-in sends the account's authentication key to the account service. If that refuses the
    /// key, the device is unlinked from its account (code 22).
    ///
    /// @return The token. One whose lifetime is over when it arrives is returned once.
    /// @throws SessionException See errors.h. A failure after a request closes the gate: until
    /// SessionException::retryAfter() is over, calls that need a request fail with the same
    /// exception, in all processes.
    /// @throws std::bad_alloc when memory runs out.
    /// @note Blocks for up to `timeout`, and beyond it only while the account-service library does.
    [[nodiscard]] AccessToken accessToken();

    /// @brief Replaces a token that a resource server refused (HTTP status 401).
    ///
    /// If the token file has another unexpired token, that is returned. Otherwise the tokens are
    /// renewed, once for all callers. A token younger than 10 s is not renewed (code 40). That age
    /// doubles with each renewal after a refusal in a row, up to 5 min, and is 10 s again when a
    /// token is refused more than 10 min after it was issued. Until it is replaced, accessToken()
    /// returns the refused token.
    ///
    /// @param refused The text of the refused token.
    /// @return A token other than the refused one, unless the server issues the same again.
    /// @throws SessionException code 40 (Remedy::tryLater) for a token that is too new; all that
    /// accessToken() throws.
    /// @throws std::bad_alloc when memory runs out.
    /// @note Blocks as accessToken() does.
    [[nodiscard]] AccessToken renew(const std::string& refused);

    /// @brief Ends the sign-in: revokes the tokens, if there is a `revocationEndpoint`, and removes
    /// the token file whatever the server says.
    ///
    /// The next accessToken() signs in again.
    ///
    /// @return true: the tokens are revoked, or there is no revocation endpoint, or nothing to
    /// revoke. false: they are removed here but not revoked, because the server refused or did not
    /// answer, no account is linked, the gate is closed (then no request is made), or cancel() was
    /// called meanwhile.
    /// @throws SessionException code 38 when the files cannot be removed, 39 when other callers
    /// kept the lock for `timeout`, 34, 35.
    /// @throws std::bad_alloc when memory runs out.
    bool signOut();

    /// @brief Ends all calls for good.
    ///
    /// Calls that wait or make a request fail within a second, and so does every later call, even
    /// with a good token at hand (code 35). Only a call into the account-service library is not
    /// interrupted: the caller gets the failure when it returns. Tokens that have arrived are
    /// stored.
    ///
    /// Async-signal-safe: a signal handler may call it.
    void cancel() noexcept;

  private:
    // The version says which members of Settings the caller was compiled with.
    Session(const Settings& settings, int version);

    struct Impl;
    std::unique_ptr<Impl> impl;
};

}  // namespace ORBA::OAuth2Session

#endif
