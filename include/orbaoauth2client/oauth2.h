/// @file oauth2.h
/// @brief Signing the device in at an OAuth2 server without a browser.
#ifndef ORBAOAUTH2CLIENT_OAUTH2_H
#define ORBAOAUTH2CLIENT_OAUTH2_H

#include <json/forwards.h>

#include <list>
#include <string>

#include "orbaoauth2client/export.h"

namespace ORBA::OAuth2Client {

/// @brief One authorization request (RFC 6749, section 4.1.1) and the cookie file of its login.
///
/// loginServiceByOrbaAccount() does the whole login; the other operations are the steps of its web
/// flow. The object keeps nothing between calls and no operation changes it; what carries over
/// from one request to the next stands in the cookie file. Logins that run at the same time must
/// not share a cookie file. An object serves one thread at a time.
///
/// The library never builds the authorization URL and never compares `state`: the caller makes the
/// URL, with `state` and code challenge, and compares the `state` of the callback URL with it.
class ORBA_OAUTH2CLIENT_API OAuth2 {
  public:
    /// @brief Copies both texts. Nothing is checked here: an empty text fails when it is used.
    /// @param authorizationURL The complete URL, with client_id, scope, redirect_uri, state and
    /// whatever else the request carries, each percent-encoded.
    /// @param cookies The path of the file for the cookies of this login; created when it is
    /// missing.
    OAuth2(const std::string& authorizationURL, const std::string& cookies);

    ~OAuth2();

    /// @brief Asks the OAuth2 server for a login and takes the challenge from its redirect.
    ///
    /// One GET of the authorization URL, which begins the session in the cookie file.
    ///
    /// @return The decoded value of "login_challenge" in the redirect URL; may be empty.
    /// @throws OAuth2ClientException code 4 when the answer is not a 302 (another redirect counts
    /// as a failure, too); the text tells the status and the redirect URL.
    /// @throws OAuth2Exception code 12 when the redirect URL carries no login_challenge.
    /// @throws HttpClientException as HttpClient::HttpClient::get(bool) does; code 12 for an empty
    /// authorization URL or cookie file path, 14 when the server refuses the request (status 4xx).
    /// @note Blocks for up to about 91 s.
    std::string getServerLoginChallenge();

    /// @brief Logs the device in to the identity provider, through the account-service library.
    ///
    /// Sends the account, its authentication key, the serial number and the challenge to the
    /// account service. When that answers "badauth", the stored account is no longer accepted and
    /// the device's account link is removed. Everything that the step holds is released on return.
    ///
    /// @param reply Receives the parsed JSON reply; a member "code" is added (null) when the reply
    /// has none. On failure it holds whatever was parsed so far, on "badauth" the whole reply.
    /// @param loginChallenge The challenge of getServerLoginChallenge().
    /// @throws OAuth2ClientException this very class, with the text "Failed to Login IDP due to: "
    /// and what went wrong, and a code of this table:
    ///
    /// | Code | What went wrong |
    /// |-----:|-----------------|
    /// |  1 | any other std::exception, for example for a reply without body |
    /// |  2 | the reply is not JSON; the text holds it whole |
    /// | 10 | no serial number |
    /// | 11 | no memory for the parameters |
    /// | 19 | no linked account |
    /// | 20 | no server configuration |
    /// | 21 | the request was not sent, or not answered |
    /// | 22 | "badauth" |
    ///
    /// @note Blocks for as long as the account-service library takes. Any answer but "badauth"
    /// counts as success here: a refused challenge shows when followRedirectUntilCallback() finds
    /// no "redirect_to".
    void loginIDP(Json::Value& reply, const std::string& loginChallenge);

    /// @brief Follows the redirects after the login, one GET at a time, up to the callback.
    ///
    /// The callback is the first redirect URL that holds the authorization URL's redirect_uri
    /// anywhere in it. It is returned, never requested. At most 5 GETs are made.
    ///
    /// libcurl rebuilds redirect URLs ("app://cb?x=1" becomes "app://cb/?x=1"), so only a
    /// redirect_uri that it rebuilds unchanged is ever found.
    ///
    /// @param idpReply The reply of loginIDP(); its "redirect_to" is where the way begins.
    /// @return The callback URL, whole and not decoded.
    /// @throws OAuth2ClientException code 5 when an answer is no redirect, or when 5 redirects did
    /// not reach the callback; the text ends in the last status.
    /// @throws OAuth2Exception code 12 when the authorization URL has no redirect_uri.
    /// @throws HttpClientException as HttpClient::HttpClient::get(bool) does; code 12 for a missing
    /// or empty "redirect_to".
    /// @throws Json::Exception (jsoncpp's own) when `idpReply` is neither object nor null, or its
    /// "redirect_to" is no text.
    /// @note Blocks for up to about 91 s for each GET.
    std::string followRedirectUntilCallback(const Json::Value& idpReply);

    /// @brief Gets the result of the authorization request with the device's linked account.
    ///
    /// When the account-service library has a PKCE access token, it is asked for a grant for
    /// client_id, scope, redirect_uri and state of the authorization URL. When it has none, a
    /// warning is logged and the web flow runs: getServerLoginChallenge(), loginIDP(),
    /// followRedirectUntilCallback(). A grant that fails does not fall back to the web flow.
    ///
    /// @return The grant as the account service gives it (a code or a URL), or the callback URL of
    /// the web flow. A caller accepts both.
    /// @throws OAuth2Exception code 12 when the authorization URL lacks one of the parameters.
    /// @throws OAuth2ClientException and its subclasses: all that the steps of the web flow throw,
    /// unchanged; Json::Exception likewise.
    /// @throws std::exception whatever the account-service library throws for the grant, or when
    /// its services cannot be made; such an exception has no code of the table.
    /// @note Blocks for the sum of its steps.
    std::string loginServiceByOrbaAccount();

  private:
    // The reserved members are used by nothing, but callers construct the object in storage of
    // their own, so they are part of its layout.
    std::string reservedText1;
    std::string reservedText2;
    std::list<std::string> reservedList;
    std::string authURL;
    std::string cookiesFilePath;
    std::string reservedText3;
};

}  // namespace ORBA::OAuth2Client

#endif
