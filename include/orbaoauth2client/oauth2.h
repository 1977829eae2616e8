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
/// flow. No operation changes the object: what one request passes on to the next is in the cookie
/// file. Concurrent logins must not share a cookie file. An object serves one thread at a time.
///
/// The caller builds the authorization URL, with `state` and code challenge, and compares the
/// `state` of the callback URL with it: the library does neither.
class ORBA_OAUTH2CLIENT_API OAuth2 {
  public:
    /// @brief Copies both texts. Nothing is checked here: an empty text fails when it is used.
    /// @param authorizationURL The complete URL with client_id, scope, redirect_uri, state and all
    /// other parameters, percent-encoded.
    /// @param cookies The path of the cookie file of this login; created if it is missing.
    OAuth2(const std::string& authorizationURL, const std::string& cookies);

    ~OAuth2();

    /// @brief Asks the OAuth2 server for a login and takes the challenge from its redirect.
    ///
    /// One GET of the authorization URL, which begins the session in the cookie file.
    ///
    /// @return The decoded value of "login_challenge" in the redirect URL; may be empty.
    /// @throws OAuth2ClientException code 4 if the status is not 302 (another redirect is a
    /// failure, too); the text has the status and the redirect URL.
    /// @throws OAuth2Exception code 12 if the redirect URL has no login_challenge.
    /// @throws CurlException codes 23 and 30 from getParamFromURL().
    /// @throws HttpClientException as HttpClient::HttpClient::get(bool) does; code 12 for an empty
    /// authorization URL or cookie file path, 14 if the server refuses the request (status 4xx).
    /// @note Blocks for one request; see HttpClient::HttpClient.
    std::string getServerLoginChallenge();

    /// @brief Logs the device in to the identity provider, through the account-service library.
    ///
    /// Sends the account, its authentication key, the serial number and the challenge to the
    /// account service. If that answers "badauth", the stored account is no longer accepted, and
    /// the device is unlinked from it.
    ///
    /// @param reply Receives the parsed JSON reply; a null member "code" is added if it has none.
    /// After a failure it holds what was parsed so far, after "badauth" the whole reply.
    /// @param loginChallenge The challenge of getServerLoginChallenge().
    /// @throws OAuth2ClientException exactly this class, with the text "Failed to Login IDP due to:
    /// " and the reason, and a code of this table:
    ///
    /// | Code | Reason |
    /// |-----:|--------|
    /// |  1 | any other std::exception, for example a reply without body |
    /// |  2 | the reply is not JSON; the text quotes it whole |
    /// | 10 | no serial number |
    /// | 11 | no memory for the parameters |
    /// | 19 | no linked account |
    /// | 20 | no server configuration |
    /// | 21 | the request was not sent, or not answered |
    /// | 22 | "badauth" |
    ///
    /// @note Blocks as long as the account-service library does. Any reply but "badauth" is a
    /// success here: after a refused challenge, followRedirectUntilCallback() finds no
    /// "redirect_to".
    void loginIDP(Json::Value& reply, const std::string& loginChallenge);

    /// @brief Follows the redirects after the login, one GET at a time, up to the callback.
    ///
    /// The callback is the first redirect URL that contains the authorization URL's redirect_uri.
    /// It is returned, never requested. At most 5 GETs are made.
    ///
    /// libcurl rebuilds redirect URLs ("app://cb?x=1" becomes "app://cb/?x=1"), so a redirect_uri
    /// is found only if libcurl leaves it unchanged.
    ///
    /// @param idpReply The reply of loginIDP(); its "redirect_to" is requested first.
    /// @return The callback URL, whole and not decoded.
    /// @throws OAuth2ClientException code 5 if a reply is no redirect, or if 5 redirects did not
    /// reach the callback; the text ends in the last status.
    /// @throws OAuth2Exception code 12 if the authorization URL has no redirect_uri.
    /// @throws CurlException codes 23 and 30 from getParamFromURL().
    /// @throws HttpClientException as HttpClient::HttpClient::get(bool) does; code 12 for a missing
    /// or empty "redirect_to".
    /// @throws Json::Exception (of jsoncpp) if `idpReply` is neither an object nor null, or its
    /// "redirect_to" is an array or object. Numbers and booleans are converted to text.
    /// @note Blocks for up to 5 requests; see HttpClient::HttpClient.
    std::string followRedirectUntilCallback(const Json::Value& idpReply);

    /// @brief Gets the result of the authorization request with the device's linked account.
    ///
    /// If the account-service library has a PKCE access token, it is asked for a grant for
    /// client_id, scope, redirect_uri and state of the authorization URL. If it has none, a warning
    /// is logged and the web flow runs: getServerLoginChallenge(), loginIDP(),
    /// followRedirectUntilCallback(). A grant that fails does not fall back to the web flow.
    ///
    /// @return The grant as the account service returns it (a code or a URL), or the callback URL
    /// of the web flow. A caller accepts both.
    /// @throws OAuth2Exception code 12 if the authorization URL lacks one of the parameters.
    /// @throws OAuth2ClientException and its subclasses, and Json::Exception: everything that the
    /// steps of the web flow throw.
    /// @throws std::exception whatever the account-service library throws for the grant or when its
    /// services are created; such an exception has no code.
    /// @note Blocks for the sum of its steps.
    std::string loginServiceByOrbaAccount();

  private:
    // The reserved members are unused, but part of the layout that callers are compiled with.
    std::string reservedText1;
    std::string reservedText2;
    std::list<std::string> reservedList;
    std::string authURL;
    std::string cookiesFilePath;
    std::string reservedText3;
};

}  // namespace ORBA::OAuth2Client

#endif
